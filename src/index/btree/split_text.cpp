// Division of nodes whose keys are texts. Keys differ much in length, so that bytes are weighed, not
// numbers.

#include <algorithm>
#include <cassert>

#include "index/btree/split.h"

namespace zelta {

namespace {

using Pending = TreePending<TextNodeFormat>;

/// The new node of a split has room for so many entries, of kAverageEntry bytes, at least.
constexpr std::uint32_t kRoomyKeys = 5;
constexpr std::uint32_t kAverageEntry = 24;
constexpr std::uint64_t kSmallestBranch = 140;
/// What a first node has beside the room for its first key, which counts for kShortKey at least.
constexpr std::uint64_t kLeafReserve = 140;
constexpr std::uint64_t kRootReserve = 124;
constexpr std::uint32_t kShortKey = 16;

/// Lengths of a node's keys with the pending one at its place.
class MergedLengths {
 public:
  MergedLengths(const TextNode& node, const Pending& pending)
      : node_(node), pending_(pending), offset_(node.format().head(node.leaf())) {}
  /// Bytes of the next key.
  std::uint32_t next() {
    if (number_++ == pending_.number) return node_.format().keyBytes(pending_.key);
    const std::uint32_t bytes = node_.format().keyBytes(node_.keyAt(offset_));
    offset_ += bytes;
    return bytes;
  }

 private:
  const TextNode& node_;
  const Pending& pending_;
  std::uint32_t offset_;
  std::uint32_t number_ = 0;
};

/// Bytes of keys that the lower part shall have: little at the end of the tree where keys go on
/// arriving.
std::uint64_t lowerTarget(std::uint64_t total, BPlusEdge edge) {
  if (edge.left) return total / 4;
  if (edge.right) return total - total / 4;
  return total / 2;
}

/// A part of the entries.
struct Share {
  std::uint32_t keys = 0;
  std::uint64_t bytes = 0;  ///< of the keys

  /// Bytes of a node with them.
  [[nodiscard]] std::uint64_t nodeBytes(const TextNodeFormat& format, bool leaf) const {
    return bytes + std::uint64_t{keys} * format.pointerBytes(leaf) + format.frame(leaf);
  }
};

/// Size of the new node that takes a share.
std::uint64_t newNodeBytes(const TextNode& node, const Share& share, std::uint32_t pageSize) {
  std::uint64_t bytes = share.nodeBytes(node.format(), node.leaf());
  if (share.keys < kRoomyKeys) bytes += std::uint64_t{kRoomyKeys - share.keys} * kAverageEntry;
  if (!node.leaf()) bytes = std::max(bytes, kSmallestBranch);
  return wholePages(bytes, pageSize);
}

}  // namespace

std::uint64_t firstNodeBytes(const TextNodeFormat&, std::uint32_t pageSize, std::uint32_t keyBytes,
                             bool leaf) {
  const std::uint64_t reserve = leaf ? kLeafReserve : kRootReserve;
  return wholePages(std::max(keyBytes, kShortKey) + reserve, pageSize);
}

BPlusSplit planSplit(const TextNode& node, const Pending& pending, BPlusEdge edge,
                     std::uint32_t pageSize) {
  BPlusSplit split;
  const bool leaf = node.leaf();
  const std::uint32_t keys = node.count() + 1;
  // A branch gives the key between its halves up.
  if (keys < (leaf ? 2u : 3u)) return split;
  std::uint64_t total = 0;
  MergedLengths all(node, pending);
  for (std::uint32_t i = 0; i < keys; ++i) total += all.next();

  const std::uint64_t target = lowerTarget(total, edge);
  const std::uint32_t most = keys - (leaf ? 1u : 2u);
  Share lower;
  MergedLengths lengths(node, pending);
  std::uint32_t next = lengths.next();
  while (lower.keys < most) {
    const std::uint64_t with = lower.bytes + next;
    const bool nearer = with <= target || with - target < target - lower.bytes;
    if (lower.keys != 0 && !nearer) break;
    lower.bytes = with;
    ++lower.keys;
    next = lengths.next();
    if (with >= target) break;
  }
  const Share upper{keys - lower.keys - (leaf ? 0u : 1u), total - lower.bytes - (leaf ? 0u : next)};

  // The smaller share moves, unless the other one is too large to stay.
  const bool lowerFits = lower.nodeBytes(node.format(), leaf) <= node.size();
  const bool upperFits = upper.nodeBytes(node.format(), leaf) <= node.size();
  split.lower = lower.keys;
  split.newIsLower = upperFits && (!lowerFits || lower.bytes < upper.bytes);
  split.newBytes = newNodeBytes(node, split.newIsLower ? lower : upper, pageSize);
  split.possible = lowerFits || upperFits;
  return split;
}

}  // namespace zelta

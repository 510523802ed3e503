#include "index/btree/split.h"

#include <algorithm>
#include <cassert>

namespace zelta {

namespace {

/// The new node of a split is given room for so many keys of the expected length at least.
constexpr std::uint32_t kRoomyKeys = 5;

/// Steps through the lengths of a variable node's keys with the pending one at its place.
class MergedLengths {
 public:
  MergedLengths(const BPlusNode& node, const TreePending<NodeFormat>& pending)
      : node_(node), pending_(pending), offset_(node.format().head(node.leaf())) {}
  /// Words of the next key and its pointer.
  std::uint64_t next() {
    const std::uint32_t pointerWords = node_.format().pointerBytes(node_.leaf()) / 4;
    if (number_++ == pending_.number) return std::uint64_t{pending_.key[0]} + pointerWords;
    const std::uint32_t words = node_.keyAt(offset_)[0];
    offset_ += words * 4;
    return std::uint64_t{words} + pointerWords;
  }

 private:
  const BPlusNode& node_;
  const TreePending<NodeFormat>& pending_;
  std::uint32_t offset_;
  std::uint32_t number_ = 0;
};

/// The number of upper keys that leave a full fixed node for a new one. A run of ascending keys
/// shall leave full nodes behind, and so shall a descending one.
std::uint64_t fixedShare(std::uint64_t keys, std::uint64_t oldBytes, std::uint64_t newBytes,
                         BPlusEdge edge) {
  if (edge.right) return keys * newBytes / ((oldBytes + newBytes) * 2);
  if (edge.left) return keys * newBytes * 2 / (oldBytes + newBytes);
  return keys * newBytes / (oldBytes + newBytes);
}

/// All keys have one length, so that numbers of keys are all that counts.
BPlusSplit planFixed(const BPlusNode& node, const TreePending<NodeFormat>& pending, BPlusEdge edge,
                     std::uint32_t pageSize) {
  const NodeFormat& format = node.format();
  const std::uint64_t keys = node.count();
  BPlusSplit split;
  const std::uint32_t keyBytes = format.keyWords * 4;
  split.newBytes = firstNodeBytes(format, pageSize, keyBytes, node.leaf());
  const std::uint64_t entry = node.entryBytes(keyBytes);
  const std::uint64_t newRoom = (split.newBytes - format.frame(node.leaf())) / entry;
  std::uint64_t moved = fixedShare(keys, node.size(), split.newBytes, edge);
  if (node.leaf()) moved = std::max<std::uint64_t>(moved, 1);
  if (!edge.right) moved = std::min(moved, std::max<std::uint64_t>(newRoom, 1) - 1);
  moved = std::min(moved, std::max<std::uint64_t>(keys, 1) - 1);
  // In a branch the key in front of those that move is the separator.
  const std::uint64_t stay = keys - moved - (node.leaf() ? 0 : 1);
  split.lower = static_cast<std::uint32_t>(stay + (pending.number <= stay ? 1 : 0));
  const std::uint64_t upper = keys + 1 - split.lower - (node.leaf() ? 0 : 1);
  split.possible = keys != 0 && upper <= newRoom &&
                   split.lower <= (node.size() - format.frame(node.leaf())) / entry;
  return split;
}

/// Size of the new node of a split that takes so many words and keys.
std::uint64_t variableNewBytes(const BPlusNode& node, std::uint64_t words, std::uint64_t keys,
                               std::uint32_t pageSize) {
  const NodeFormat& format = node.format();
  const std::uint64_t keyWords = format.keyWords;
  std::uint64_t bytes = words * 4 + format.frame(node.leaf());
  if (keys < kRoomyKeys) bytes += (kRoomyKeys - keys) * (node.entryBytes(keyWords * 4) - 4);
  if (!node.leaf()) bytes = std::max(bytes, (keyWords + 3) * 20);
  return (bytes / pageSize + 1) * pageSize;
}

/// Number of keys for the lower part of a leaf: the one that comes nearest to the share of words
/// that the lower part shall have.
std::uint32_t variableLeafShare(const BPlusNode& node, const TreePending<NodeFormat>& pending,
                                BPlusEdge edge, std::uint64_t total) {
  std::uint64_t target = total / 2;
  if (edge.right) target = total - total / 4;
  if (edge.left) target = total / 4;
  MergedLengths lengths(node, pending);
  std::uint64_t words = 0;
  for (std::uint32_t number = 0; number < node.count(); ++number) {
    const std::uint64_t next = lengths.next();
    if (words + next >= target) {
      const bool nearer = words + next - target < target - words;
      return std::max(number + (nearer ? 1u : 0u), 1u);
    }
    words += next;
  }
  return node.count();
}

/// The same for a branch, by numbers of keys alone.
std::uint32_t variableBranchShare(const BPlusNode& node, BPlusEdge edge) {
  const std::uint32_t keys = node.count() + 1;
  std::uint32_t lower = keys / 2;
  if (edge.left) lower = keys / 4;
  if (edge.right) lower = keys - keys / 4;
  return std::clamp(lower, 1u, keys - 1);
}

/// The halves are weighed by their words. The new node may be as large as it must; the old one
/// keeps its size, and so gets the half that fits it.
BPlusSplit planVariable(const BPlusNode& node, const TreePending<NodeFormat>& pending,
                        BPlusEdge edge, std::uint32_t pageSize) {
  BPlusSplit split;
  if (node.count() == 0) return split;
  const bool leaf = node.leaf();
  const std::uint32_t keys = node.count() + 1;
  std::uint64_t total = 0;
  MergedLengths all(node, pending);
  for (std::uint32_t i = 0; i < keys; ++i) total += all.next();

  split.lower = leaf ? std::min(variableLeafShare(node, pending, edge, total), keys - 1)
                     : variableBranchShare(node, edge);
  std::uint64_t lowerWords = 0;
  MergedLengths lengths(node, pending);
  for (std::uint32_t i = 0; i < split.lower; ++i) lowerWords += lengths.next();
  const std::uint64_t upperWords = total - lowerWords - (leaf ? 0 : lengths.next());
  const std::uint32_t upperKeys = keys - split.lower - (leaf ? 0u : 1u);

  const std::uint64_t room = node.size() - node.format().frame(leaf);
  const bool upperFits = upperWords * 4 <= room;
  split.newIsLower = upperFits && (leaf ? lowerWords * 4 >= room : lowerWords * 4 > room);
  split.newBytes = split.newIsLower ? variableNewBytes(node, lowerWords, split.lower, pageSize)
                                    : variableNewBytes(node, upperWords, upperKeys, pageSize);
  split.possible = split.newIsLower || lowerWords * 4 <= room;
  return split;
}

}  // namespace

std::uint64_t firstNodeBytes(const NodeFormat& format, std::uint32_t pageSize,
                             std::uint32_t keyBytes, bool) {
  const std::uint64_t expected = std::uint64_t{format.keyWords} * 4;
  if (!format.variable) return wholePages(expected + (expected + 14) * 4, pageSize);
  const std::uint64_t bytes = keyBytes > expected ? keyBytes + expected * 4 : expected * 5;
  return wholePages(bytes + 60, pageSize);
}

BPlusSplit planSplit(const BPlusNode& node, const TreePending<NodeFormat>& pending, BPlusEdge edge,
                     std::uint32_t pageSize) {
  return node.format().variable ? planVariable(node, pending, edge, pageSize)
                                : planFixed(node, pending, edge, pageSize);
}

}  // namespace zelta

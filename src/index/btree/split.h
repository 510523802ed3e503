// Where a full node is divided. Planning reads and writes nothing but its result: insert.cpp
// carries it out. A run of ascending or descending keys is recognised by the edge of the tree that
// it works at, and leaves well filled nodes behind.

#ifndef ZELTA_INDEX_BTREE_SPLIT_H
#define ZELTA_INDEX_BTREE_SPLIT_H

#include <algorithm>
#include <cassert>
#include <cstdint>

#include "index/btree/node.h"

namespace zelta {

/// Where in its level the leaf lies whose split began it all.
struct BPlusEdge {
  bool left = false;   ///< first leaf, not the only one
  bool right = false;  ///< last leaf, not the only one
};

/// A key that found no room in its node, at its place among the node's keys.
template <class Format>
struct TreePending {
  std::uint32_t number;
  const typename Format::Key* key;
  std::uint64_t pointer;
};

/// A division of the node's entries together with the pending one.
struct BPlusSplit {
  std::uint32_t lower = 0;     ///< keys that stay below; in a branch the key behind them goes up
  bool newIsLower = false;     ///< the new node takes the lower part, not the upper one
  std::uint64_t newBytes = 0;  ///< size of the new node
  bool possible = false;       ///< false: no division fits, the node must be damaged
};

/// Bytes rounded up to whole pages.
[[nodiscard]] inline std::uint64_t wholePages(std::uint64_t bytes, std::uint32_t pageSize) {
  return (bytes + pageSize - 1) / pageSize * pageSize;
}

/// Bytes of a first node (a leaf of an empty tree, a root), rounded to whole pages, with room for a
/// key of `keyBytes` bytes and some more.
[[nodiscard]] std::uint64_t firstNodeBytes(const NodeFormat& format, std::uint32_t pageSize,
                                           std::uint32_t keyBytes, bool leaf);
[[nodiscard]] std::uint64_t firstNodeBytes(const TextNodeFormat& format, std::uint32_t pageSize,
                                           std::uint32_t keyBytes, bool leaf);

/// Where to divide a node that has no room for `pending`.
[[nodiscard]] BPlusSplit planSplit(const BPlusNode& node, const TreePending<NodeFormat>& pending,
                                   BPlusEdge edge, std::uint32_t pageSize);
[[nodiscard]] BPlusSplit planSplit(const TextNode& node, const TreePending<TextNodeFormat>& pending,
                                   BPlusEdge edge, std::uint32_t pageSize);

// A node's entries together with the pending one.

/// Appends entries [from, to) of them.
template <class Format>
void appendMerged(TreeNode<Format>& target, const TreeNode<Format>& source,
                  const TreePending<Format>& pending, std::uint32_t from, std::uint32_t to) {
  assert(from <= to && to <= source.count() + 1);
  target.append(source, from, std::min(to, pending.number));
  if (from <= pending.number && pending.number < to) target.append(pending.key, pending.pointer);
  const std::uint32_t behind = std::max(from, pending.number + 1);
  if (behind < to) target.append(source, behind - 1, to - 1);
}

/// The key with a number among them.
template <class Format>
[[nodiscard]] const typename Format::Key* mergedKey(const TreeNode<Format>& source,
                                                    const TreePending<Format>& pending,
                                                    std::uint32_t number) {
  if (number == pending.number) return pending.key;
  return source.key(number < pending.number ? number : number - 1);
}

/// What goes with it: in a branch the child behind the key.
template <class Format>
[[nodiscard]] std::uint64_t mergedPointer(const TreeNode<Format>& source,
                                          const TreePending<Format>& pending,
                                          std::uint32_t number) {
  if (number == pending.number) return pending.pointer;
  const std::uint32_t key = number < pending.number ? number : number - 1;
  return source.pointer(key + (source.leaf() ? 0u : 1u));
}

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_SPLIT_H

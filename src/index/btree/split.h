// Where a full node is divided. Planning reads and writes nothing but its result: insert.cpp
// carries it out. A run of ascending or descending keys is recognised by the edge of the tree that
// it works at, and leaves well filled nodes behind.

#ifndef ZELTA_INDEX_BTREE_SPLIT_H
#define ZELTA_INDEX_BTREE_SPLIT_H

#include <cstdint>

#include "index/btree/node.h"

namespace zelta {

/// Where in its level the leaf lies whose split began it all.
struct BPlusEdge {
  bool left = false;   ///< first leaf, not the only one
  bool right = false;  ///< last leaf, not the only one
};

/// A key that found no room in its node, at its place among the node's keys.
struct BPlusPending {
  std::uint32_t number;
  const std::uint32_t* key;
  std::uint64_t pointer;
};

/// A division of the node's entries together with the pending one.
struct BPlusSplit {
  std::uint32_t lower = 0;     ///< keys that stay below; in a branch the key behind them goes up
  bool newIsLower = false;     ///< the new node takes the lower part, not the upper one
  std::uint64_t newBytes = 0;  ///< size of the new node
  bool possible = false;       ///< false: no division fits, the node must be damaged
};

/// Bytes of a first node (a leaf of an empty tree, a root), rounded to whole pages, with room for a
/// key of `keyWords` words and some of the expected length.
[[nodiscard]] std::uint64_t bplusFirstNodeBytes(const NodeFormat& format, std::uint32_t pageSize,
                                                std::uint32_t keyWords);

/// Where to divide a node that has no room for `pending`.
[[nodiscard]] BPlusSplit planSplit(const BPlusNode& node, const BPlusPending& pending,
                                   BPlusEdge edge, std::uint32_t pageSize);

/// Appends entries [from, to) of the node's entries together with the pending one.
void appendMerged(BPlusNode& target, const BPlusNode& source, const BPlusPending& pending,
                  std::uint32_t from, std::uint32_t to);
/// The key with this number among them, and in a branch the child behind it.
[[nodiscard]] const std::uint32_t* mergedKey(const BPlusNode& source, const BPlusPending& pending,
                                             std::uint32_t number);
[[nodiscard]] std::uint64_t mergedPointer(const BPlusNode& source, const BPlusPending& pending,
                                          std::uint32_t number);

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_SPLIT_H

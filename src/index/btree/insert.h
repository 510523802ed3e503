// Entering a key: into its leaf, and when that is full by splits that climb towards the root.

#ifndef ZELTA_INDEX_BTREE_INSERT_H
#define ZELTA_INDEX_BTREE_INSERT_H

#include <cstdint>

#include "index/btree/walk.h"

namespace zelta {

/// Makes the first leaf of an empty tree, with one key.
template <class Format>
Result plantTree(TreeWalk<Format>& walk, const typename Format::Key* key, std::uint64_t pointer);

/// Enters a key that the tree does not have, with what it leads to. `path` and `leaf` are where
/// descend() has led, `place` is the key's in the leaf.
template <class Format>
Result enterKey(TreeWalk<Format>& walk, BPlusPath& path, TreeNode<Format>& leaf,
                typename TreeNode<Format>::Place place, const typename Format::Key* key,
                std::uint64_t pointer);

/// Enters a key with its object. Own code 37 if the key is there already, whoever has it. After any
/// other failure the tree may be half changed: the caller drops what the manager holds.
Result bplusInsert(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_INSERT_H

// Removing a key, and keeping nodes filled: underfull nodes join a sibling or take entries of it.

#ifndef ZELTA_INDEX_BTREE_REMOVE_H
#define ZELTA_INDEX_BTREE_REMOVE_H

#include <cstdint>

#include "index/btree/walk.h"

namespace zelta {

/// Takes an entry out of the leaf to which descend() has led.
template <class Format>
Result removeKey(TreeWalk<Format>& walk, BPlusPath& path, TreeNode<Format>& leaf,
                 std::uint32_t number);

/// Takes a key out. Own code 32 if the key is not there, or belongs to another object. An empty
/// tree has nothing to remove: success.
Result bplusRemove(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_REMOVE_H

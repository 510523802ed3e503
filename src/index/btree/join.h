// Two neighbouring nodes become one (coalescing), and a root that has become superfluous goes.
// Shared by removal, which does it for one path, and merge, which does it for whole branches.

#ifndef ZELTA_INDEX_BTREE_JOIN_H
#define ZELTA_INDEX_BTREE_JOIN_H

#include <cstdint>

#include "index/btree/walk.h"

namespace zelta {

/// Two neighbouring children of a branch.
template <class Format>
struct TreePair {
  TreeNode<Format>* left;
  std::uint64_t leftPosition;
  TreeNode<Format>* right;
  std::uint64_t rightPosition;
};
using BPlusPair = TreePair<NodeFormat>;

/// Joins the children `number` and `number + 1` of a branch, which are `pair`, if the result is not
/// too full. The one at the lower position stays; of nodes with texts, which differ in size, the
/// other one if the lower is too small. `*joined` tells; the parent, which has lost a child then, is
/// not stored. Uses the spare buffer.
template <class Format>
Result joinChildren(TreeWalk<Format>& walk, TreeNode<Format>& parent, std::uint32_t number,
                    TreePair<Format> pair, bool* joined);

/// If the root is a branch with a single child, the child becomes the root. `*collapsed` tells.
template <class Format>
Result collapseRoot(TreeWalk<Format>& walk, bool* collapsed);

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_JOIN_H

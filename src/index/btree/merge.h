// Taking the entries of a transaction out of the memory tree, at commit into the committed tree.

#ifndef ZELTA_INDEX_BTREE_MERGE_H
#define ZELTA_INDEX_BTREE_MERGE_H

#include "index/kind.h"

namespace zelta {

/// Takes the entries of objects out of a pending tree, and enters them in the committed tree (null:
/// just drops them).
Result bplusMerge(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed);

/// Frees all nodes of a tree, of which nothing is kept; its root becomes 0. An empty tree is no
/// failure.
Result bplusDropTree(const IndexTree& tree);

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_MERGE_H

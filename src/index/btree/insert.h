// Entering a key: into its leaf, and when that is full by splits that climb towards the root.

#ifndef ZELTA_INDEX_BTREE_INSERT_H
#define ZELTA_INDEX_BTREE_INSERT_H

#include <cstdint>

#include "index/tree/index_tree.h"

namespace zelta {

/// Enters a key with its object. Own code 37 if the key is there already, whoever has it. After any
/// other failure the tree may be half changed: the caller drops what the manager holds.
Result bplusInsert(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_INSERT_H

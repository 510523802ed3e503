// B+Trees of index keys. Each index has two of one shape: the committed keys in the index file, and
// in the memory file the keys that running transactions have added. A key leads to one object; no
// key stands in a tree twice.
//
// Invariants: keys ascend within a node and from leaf to leaf; leaves are linked in both directions
// and never empty; a branch has one child more than keys (separators), and all keys below child i
// are at or above separator i - 1 and below separator i. A separator need not be a key that is
// there. All leaves lie at one depth. node.h has the bytes of a node, walk.h the pages and paths,
// and each operation a file: insert, remove, merge at commit, cursor.
//
// Failures name the table and the index.

#ifndef ZELTA_INDEX_BTREE_BTREE_H
#define ZELTA_INDEX_BTREE_BTREE_H

#include <cstdint>

#include "index/btree/insert.h"
#include "index/btree/merge.h"
#include "index/btree/remove.h"
#include "index/kind.h"

namespace zelta {

/// 1 if the key is there and belongs to the object, else 0.
Result bplusCount(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                  std::uint32_t* count);

/// Own code 32, without a text, if the key is not there.
Result bplusFind(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID);

/// Gives an entry to another object. Own code 32 if the key is not there or is not `oldID`'s.
Result bplusReplaceID(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                      std::uint64_t newID);

/// The kind of index that these trees make up.
inline constexpr KeyKind kBPlusTree = {bplusInsert, bplusRemove, bplusCount,    bplusMerge,
                                       nullptr,     bplusFind,   bplusReplaceID};

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_BTREE_H

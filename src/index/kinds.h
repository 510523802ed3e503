// The kinds of index, reached through one dispatch by `indexKind`. A kind that has no functions
// here answers own error 8 and changes nothing.

#ifndef ZELTA_INDEX_KINDS_H
#define ZELTA_INDEX_KINDS_H

#include <cstdint>

#include "frame/metadata.h"
#include "storage/avl_tree.h"

namespace zelta {

class AtomicManager;
class Table;
struct TreeFile;

/// Whether objects can be entered in every index of the table: own error 8 if not, 19 for an index
/// of no known kind. Asked before the first object is touched.
Result checkIndexKinds(MetaData& metaData, const Table& table);

/// Enters a key of an object in an index's tree in one of the two files.
Result insertEntry(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                   std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID);
/// Takes a key of an object out.
Result removeEntry(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                   std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID);
/// Whether no two objects can have one key in the index.
[[nodiscard]] bool hasUniqueKeys(const Table& table, std::uint32_t index);
/// Who has a key in an index with unique keys. Own code 32, without a text: nobody.
Result findHolder(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                  std::uint32_t index, const std::uint32_t* key, std::uint64_t* objectID);
/// Gives a key in an index with unique keys to another object.
Result replaceHolder(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                     std::uint32_t index, const std::uint32_t* key, std::uint64_t oldID,
                     std::uint64_t newID);
/// Whether a tree has this key for this object.
Result holdsEntry(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                  std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID,
                  bool* holds);
/// Moves the pending keys of the objects in the two sets into the committed tree; with `committed`
/// null they are only dropped.
Result mergeEntries(MetaData& metaData, Table& table, const TreeFile* committed,
                    std::uint32_t memoryPageSize, AtomicManager& manager, std::uint32_t index,
                    UInt64AVLTree* committedA, UInt64AVLTree* committedB);

}  // namespace zelta

#endif  // ZELTA_INDEX_KINDS_H

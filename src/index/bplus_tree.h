// B+Trees of index keys. Each index has two of one shape: the committed keys in the index file, and
// in the memory file the keys that running transactions have added. A key leads to one object; no
// key stands in a tree twice.
//
// `index` counts from 0. Failures name the table.

#ifndef ZELTA_INDEX_BPLUS_TREE_H
#define ZELTA_INDEX_BPLUS_TREE_H

#include <cstdint>

#include "czelta.h"
#include "index/bplus_node.h"
#include "storage/atomic_manager.h"

namespace zelta {

/// The file that a tree lies in, with the unit of its node sizes as that file's header states it.
struct TreeFile {
  PageFile file;
  std::uint32_t pageSize;
};

/// Own code 37 if the key is there already.
Result bplusInsert(MetaData& metaData, Table& table, TreeFile file, AtomicManager& manager,
                   std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID);

/// Own code 32 if the key is not there, or belongs to another object. An empty tree has nothing to
/// remove: success.
Result bplusRemove(MetaData& metaData, Table& table, TreeFile file, AtomicManager& manager,
                   std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID);

/// Own code 32, without a text, if the key is not there.
Result bplusFind(MetaData& metaData, Table& table, TreeFile file, AtomicManager& manager,
                 std::uint32_t index, const std::uint32_t* key, std::uint64_t* objectID);

/// Gives an entry to another object. Own code 32 if the key is not there or is not `oldId`'s.
Result bplusReplaceId(MetaData& metaData, Table& table, TreeFile file, AtomicManager& manager,
                      std::uint32_t index, const std::uint32_t* key, std::uint64_t oldId,
                      std::uint64_t newId);

/// Takes the entries of all objects in either set out of the memory tree, and enters them in the
/// committed tree (null: just drops them).
Result bplusMerge(MetaData& metaData, Table& table, const TreeFile* committed,
                  std::uint32_t memoryPageSize, AtomicManager& manager, std::uint32_t index,
                  UInt64AVLTree* committedA, UInt64AVLTree* committedB);

/// Frees all nodes of a tree; its root becomes 0.
Result bplusDropTree(MetaData& metaData, Table& table, AtomicManager& manager, PageFile file,
                     std::uint32_t index);

/// Walks the entries of one tree in the order of their keys. The leaf at hand lies in `buffer`,
/// which nobody else may use meanwhile; the tree must not be changed.
class BPlusCursor {
 public:
  BPlusCursor(MetaData& metaData, Table& table, TreeFile file, AtomicManager& manager,
              std::uint32_t index, ScratchBuffer& buffer);

  /// Goes to the entry that a read mode (ReadEqual to ReadLast, without flags) means; `pivot` is
  /// not used by ReadFirst and ReadLast. Without such an entry the cursor is not valid().
  Result seek(CZELTA::Mode mode, const std::uint32_t* pivot);
  /// Goes one entry on, in ascending order with `up`.
  Result next(bool up);

  /// Gives the entry up.
  void leave() { valid_ = false; }

  [[nodiscard]] bool valid() const { return valid_; }
  /// Key and object of the entry; the key is good until the cursor moves.
  [[nodiscard]] const std::uint32_t* key() const { return node_.keyAt(offset_); }
  [[nodiscard]] std::uint64_t objectID() const { return node_.objectID(entry_); }

 private:
  Result corrupted();
  Result load(std::uint64_t position);
  Result descend(CZELTA::Mode mode, const std::uint32_t* pivot);
  Result enterNeighbour(bool up);
  Result place(std::uint32_t entry);

  MetaData& metaData_;
  Table& table_;
  TreeFile file_;
  AtomicManager& manager_;
  std::uint32_t index_;
  ScratchBuffer& buffer_;
  BPlusShape shape_;
  BPlusNode node_;
  std::uint64_t position_ = 0;    ///< of the leaf
  std::uint64_t leavesLeft_ = 0;  ///< neighbours that may still be entered; bounds damaged links
  std::uint32_t entry_ = 0;
  std::uint32_t offset_ = 0;  ///< of the entry's key in the leaf
  bool valid_ = false;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_BPLUS_TREE_H

// B+Trees of index keys. Each index has two of one shape: the committed keys in the index file, and
// in the memory file the keys that running transactions have added. A key leads to one object; no
// key stands in a tree twice.
//
// Failures name the table and the index.

#ifndef ZELTA_INDEX_BPLUS_TREE_H
#define ZELTA_INDEX_BPLUS_TREE_H

#include <cstdint>

#include "czelta.h"
#include "index/bplus_node.h"
#include "index/kind.h"
#include "index/tree/tree_pages.h"

namespace zelta {

/// Own code 37 if the key is there already.
Result bplusInsert(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);

/// Own code 32 if the key is not there, or belongs to another object. An empty tree has nothing to
/// remove: success.
Result bplusRemove(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);

/// Whether the key is there and belongs to the object.
Result bplusHolds(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                  bool* holds);

/// Own code 32, without a text, if the key is not there.
Result bplusFind(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID);

/// Gives an entry to another object. Own code 32 if the key is not there or is not `oldID`'s.
Result bplusReplaceID(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                      std::uint64_t newID);

/// Takes the entries of objects out of a pending tree, and enters them in the committed tree (null:
/// just drops them).
Result bplusMerge(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed);

/// The kind of index that these trees make up.
inline constexpr KeyKind kBPlusTree = {bplusInsert, bplusRemove, bplusHolds,
                                       bplusMerge,  bplusFind,   bplusReplaceID};

/// Frees all nodes of a tree; its root becomes 0.
Result bplusDropTree(const IndexTree& tree);

/// Walks the entries of one tree in the order of their keys. The leaf at hand lies in the buffer of
/// `role`, which nobody else may use meanwhile; the tree must not be changed.
class BPlusCursor {
 public:
  BPlusCursor(const IndexTree& tree, PageRole role);

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

  TreePages pages_;
  PageRole role_;
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

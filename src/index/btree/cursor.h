// Reading a B+Tree in the order of its keys: the only way in which the layers above look into it.
// Every link and every key is checked when it is reached, since a reader without the mutex may meet
// a tree that is just being changed; the number of leaves that are entered has a bound.

#ifndef ZELTA_INDEX_BTREE_CURSOR_H
#define ZELTA_INDEX_BTREE_CURSOR_H

#include <cstdint>

#include "czelta.h"
#include "index/btree/node.h"
#include "index/tree/tree_pages.h"

namespace zelta {

/// Walks the entries of one tree in the order of their keys. The leaf at hand lies in the buffer of
/// `role`, which nobody else may use meanwhile; the tree must not be changed.
class BPlusCursor {
 public:
  BPlusCursor(const IndexTree& tree, PageRole role);

  /// Goes to the entry that a read mode (ReadEqual to ReadLast, without flags) means; `pivot` is
  /// not used by ReadFirst and ReadLast. Without such an entry the cursor is not valid().
  Result seek(CZELTA::Mode mode, const std::uint32_t* pivot);
  /// Goes one entry on, in ascending order with `up`. Behind the last one the cursor is not
  /// valid().
  Result next(bool up);

  /// Gives the entry up.
  void leave() { valid_ = false; }

  [[nodiscard]] bool valid() const { return valid_; }
  /// Key and object of the entry; the key is good until the cursor moves.
  [[nodiscard]] const std::uint32_t* key() const { return node_.keyAt(offset_); }
  [[nodiscard]] std::uint64_t objectID() const { return node_.objectID(entry_); }

 private:
  /// Gives the entry up and reports damage.
  Result corrupted();
  Result load(std::uint64_t position);
  Result descend(CZELTA::Mode mode, const std::uint32_t* pivot);
  /// Goes to the end at hand of the next leaf, which must lead back to this one.
  Result enterNeighbour(bool up);
  Result place(std::uint32_t entry) { return place(entry, node_.keyOffset(entry)); }
  Result place(std::uint32_t entry, std::uint32_t offset);

  TreePages pages_;
  PageRole role_;
  NodeFormat format_;
  BPlusNode node_;
  std::uint64_t position_ = 0;    ///< of the leaf
  std::uint64_t leavesLeft_ = 0;  ///< neighbours that may still be entered; bounds damaged links
  std::uint32_t entry_ = 0;
  std::uint32_t offset_ = 0;  ///< of the entry's key in the leaf
  bool valid_ = false;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_CURSOR_H

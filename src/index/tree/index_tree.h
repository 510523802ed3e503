// One tree of an index: each index has a committed tree in the table's index file, and those with
// keys have a pending one in its memory file, for the keys that running transactions have added.
//
// Nothing is opened or read by making an IndexTree: it is a name, with the reports that all kinds
// share. tree_pages.h brings the pages of the tree.
#ifndef ZELTA_INDEX_TREE_INDEX_TREE_H
#define ZELTA_INDEX_TREE_INDEX_TREE_H

#include <cstdint>

#include "storage/paged/atomic_manager.h"

namespace zelta {

/// What all keys of a tree, and what leads from them to objects, have in common.
struct TreeShape {
  bool variable = false;       ///< the first word of a key is its length in words, itself included
  std::uint32_t keyWords = 0;  ///< length of a fixed key; of a variable one only an expectation
  std::uint32_t idBytes = 4;   ///< width of an object ID

  /// Words of a key, the one with its length included.
  [[nodiscard]] std::uint32_t words(const std::uint32_t* key) const {
    return variable ? key[0] : keyWords;
  }
};

/// Which tree an operation works on. Cheap to make and to copy; the manager, which is attached to
/// the file, outlives it.
class IndexTree {
 public:
  /// Far more levels than a tree in a real file can have; a cycle of links ends here.
  static constexpr std::uint32_t kMaximumDepth = 48;

  /// `index` counts from 0.
  IndexTree(AtomicManager& manager, PageFile file, std::uint32_t index);

  [[nodiscard]] AtomicManager& manager() const { return *manager_; }
  [[nodiscard]] MetaData& metaData() const { return manager_->metaData; }
  [[nodiscard]] Table& table() const { return manager_->table; }
  [[nodiscard]] PageFile file() const { return file_; }
  [[nodiscard]] std::uint32_t index() const { return index_; }
  [[nodiscard]] const TreeShape& shape() const { return shape_; }
  /// Position of the root page; 0: the tree is empty.
  [[nodiscard]] std::uint64_t& root() const { return manager_->treeRoot(file_, index_); }
  /// The unit of page sizes, as the header of the file states it.
  [[nodiscard]] std::uint32_t pageSize() const { return manager_->pageSize(file_); }
  /// More pages than this the file has no room for.
  [[nodiscard]] std::uint64_t mostPages() const;

  /// The tree is damaged: own code 51, or that of another kind of tree.
  Result damaged(Own code) const;
  /// Own code 32 for an object whose key is not there.
  Result keyMissing(std::uint64_t objectID) const;
  /// Own code 37 for a key that another object has, or this one already.
  Result keyExists(std::uint64_t holder) const;
  /// A page whose bytes make no sense, as a failure of the file.
  Result fileDamaged(SystemCode failure) const;

 private:
  AtomicManager* manager_;
  PageFile file_;
  std::uint32_t index_;
  TreeShape shape_;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_TREE_INDEX_TREE_H

// Spans of a file that were released and wait until a free chain takes them in all at once. Whoever
// releases thousands of records would otherwise walk the chain for each; a sorted set lets
// FreeChain::merge() do it in one pass.

#ifndef ZELTA_STORAGE_FREE_SPACE_FREE_EXTENTS_H
#define ZELTA_STORAGE_FREE_SPACE_FREE_EXTENTS_H

#include <cstdint>

#include "storage/free_space/free_block.h"

namespace zelta {

/// A span in the set, in the order of position.
struct FreeExtentNode {
  std::int32_t balance = 0;
  FileSpan span{};
  FreeExtentNode* left = nullptr;
  FreeExtentNode* right = nullptr;
};

/// The set owns its nodes, each from the heap. add() may throw std::bad_alloc; the set is as it was
/// then. Overlaps are not looked for: the chain finds them.
class FreeExtents {
 public:
  FreeExtents() = default;
  ~FreeExtents() { clear(); }
  FreeExtents(const FreeExtents&) = delete;
  FreeExtents& operator=(const FreeExtents&) = delete;

  /// Adds a span of its own.
  void add(FileSpan span);
  /// The same, for spans that come in ascending order: one that begins at the end of the one added
  /// last extends that, as long as its size stays within `largest`.
  void addToRun(FileSpan span, std::uint64_t largest);
  void clear() {
    if (root_ != nullptr) deleteNodes();
    newest_ = nullptr;
  }

  [[nodiscard]] bool empty() const { return root_ == nullptr; }
  /// The set as an AVL tree, for a walk in the order of positions.
  [[nodiscard]] const FreeExtentNode* root() const { return root_; }

 private:
  void deleteNodes();

  FreeExtentNode* root_ = nullptr;
  FreeExtentNode* newest_ = nullptr;  ///< the one added last, which addToRun() may extend
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_FREE_SPACE_FREE_EXTENTS_H

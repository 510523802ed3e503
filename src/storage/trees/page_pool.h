// Pages in memory with spare ones, so that a steady stream of operations leaves the heap alone. An
// AtomicManager takes its pages here and gives them back when it is dropped.

#ifndef ZELTA_STORAGE_TREES_PAGE_POOL_H
#define ZELTA_STORAGE_TREES_PAGE_POOL_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "storage/trees/avl_tree.h"

namespace zelta {

/// A page that is held, by its position in its own file.
struct PageNode final : UInt64AVLTree {
  ~PageNode() override;
  /// Gives the page room for a size; what was there may be lost.
  void makeRoom(std::uint32_t wanted);
  /// Gives the room back.
  void dropBytes();
  /// Makes it a page as new, which keeps its room.
  void reset();

  char* bytes = nullptr;  ///< owned (malloc); null for an index page that lies in its shadow only
  std::uint32_t size = 0;
  std::uint32_t capacity = 0;        ///< of `bytes`
  std::uint32_t shadowSize = 0;      ///< room at `shadowPosition`
  std::uint64_t shadowPosition = 0;  ///< an index page's place in the memory file, 0 for none
  bool unsaved = false;              ///< an index page whose bytes are newer than its shadow
  PageNode* newer = nullptr;         ///< index pages with bytes, in the order of their use
  PageNode* older = nullptr;
};

/// Spare pages of one table.
class PagePool {
 public:
  PagePool() = default;
  ~PagePool();
  PagePool(const PagePool&) = delete;
  PagePool& operator=(const PagePool&) = delete;

  /// A page as new, which may have room already. It belongs to the taker; throws std::bad_alloc.
  [[nodiscard]] PageNode* take();
  void release(PageNode* page);
  /// The same for every page of a tree; sets the link to null.
  void releaseTree(UInt64AVLTree*& root) {
    if (root != nullptr) releaseNodes(root);
  }

 private:
  void releaseNodes(UInt64AVLTree*& root);

  std::array<PageNode*, 32> slots_{};  ///< the first `used_` are filled
  std::size_t used_ = 0;
};

/// A page that goes back to its pool at the end of the scope unless it is given away.
class PooledPage {
 public:
  PooledPage(PagePool& pool, PageNode* page) : pool_(pool), page_(page) {}
  ~PooledPage() {
    if (page_ != nullptr) pool_.release(page_);
  }
  PooledPage(const PooledPage&) = delete;
  PooledPage& operator=(const PooledPage&) = delete;
  PageNode* operator->() const { return page_; }
  [[nodiscard]] PageNode* get() const { return page_; }
  PageNode* release() {
    PageNode* page = page_;
    page_ = nullptr;
    return page;
  }

 private:
  PagePool& pool_;
  PageNode* page_;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_TREES_PAGE_POOL_H

// The pages that one operation changes in a file. Each of its steps asks for pages by their positions,
// while their order is wanted only once, by a flush: so they are in a hash table, and are sorted when
// that comes.

#ifndef ZELTA_STORAGE_PAGED_PAGE_SET_H
#define ZELTA_STORAGE_PAGED_PAGE_SET_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "storage/trees/page_pool.h"

namespace zelta {

/// Owns its pages, each with another position.
class PageSet {
 public:
  PageSet() = default;
  ~PageSet() { clear(); }
  PageSet(const PageSet&) = delete;
  PageSet& operator=(const PageSet&) = delete;

  [[nodiscard]] std::uint32_t size() const { return size_; }
  /// The page at a position, or null.
  [[nodiscard]] PageNode* find(std::uint64_t position) const {
    return size_ == 0 ? nullptr : slots_[slotOf(position)].page;
  }
  /// Adds a new page at a position where there is none. Throws std::bad_alloc, and has none then.
  PageNode* add(std::uint64_t position);
  /// Destroys a page.
  void erase(PageNode* page);
  /// Destroys all pages, and gives their memory back.
  void clear();
  /// All pages by ascending positions; good until one is added or erased. Throws std::bad_alloc.
  [[nodiscard]] std::span<PageNode* const> ascending();

 private:
  struct Slot {
    std::uint64_t position = 0;
    PageNode* page = nullptr;  ///< null: the slot is free
  };

  [[nodiscard]] std::size_t home(std::uint64_t position) const {
    std::uint64_t hash = (position ^ seed_) * kMultiplier;
    hash = (hash ^ (hash >> 32)) * seed_;
    return static_cast<std::size_t>(hash >> 32) & (slots_.size() - 1);
  }
  /// The slot of the page there, or the free one that it would take. There are slots.
  [[nodiscard]] std::size_t slotOf(std::uint64_t position) const {
    std::size_t i = home(position);
    while (slots_[i].page != nullptr && slots_[i].position != position) {
      i = (i + 1) & (slots_.size() - 1);
    }
    return i;
  }
  PageNode* newPage();
  void grow();

  static constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
  static constexpr std::size_t kFirstSlots = 64;
  static constexpr std::uint32_t kBlockPages = 16;

  /// Differs from set to set and from run to run, so that no file has positions that collide.
  const std::uint64_t seed_ = reinterpret_cast<std::uintptr_t>(this) * kMultiplier | 1;
  std::vector<Slot> slots_;       ///< none or a power of two, at most half of them taken
  std::vector<PageNode*> order_;  ///< as ascending() has given it; empty if it must be made
  std::uint32_t size_ = 0;
  // Pages come in blocks, and are destroyed block by block in the order in which they came.
  std::vector<std::unique_ptr<PageNode[]>> blocks_;
  std::uint32_t used_ = kBlockPages;  ///< pages of the last block that were given out
  PageNode* spare_ = nullptr;         ///< pages that were given back, linked by `right`
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_PAGE_SET_H

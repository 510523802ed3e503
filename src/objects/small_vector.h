// A vector that does without the heap while it is small, for what an operation on one object
// collects: a steady stream of operations leaves the heap alone.

#ifndef ZELTA_OBJECTS_SMALL_VECTOR_H
#define ZELTA_OBJECTS_SMALL_VECTOR_H

#include <array>
#include <cstddef>
#include <type_traits>
#include <vector>

namespace zelta {

/// Items are copied byte by byte. Pointers to them are good until the next push_back().
template <typename Item>
class SmallVector {
  static_assert(std::is_trivially_copyable_v<Item>);

 public:
  /// May throw std::bad_alloc; the vector is as it was then.
  Item& push_back(const Item& item) {
    if (count_ < kInline) return first_[count_++] = item;
    if (count_ == kInline) more_.assign(first_.begin(), first_.end());
    more_.push_back(item);
    ++count_;
    return more_.back();
  }
  void clear() noexcept {
    count_ = 0;
    more_.clear();
  }
  [[nodiscard]] std::size_t size() const { return count_; }
  [[nodiscard]] Item* begin() { return count_ <= kInline ? first_.data() : more_.data(); }
  [[nodiscard]] Item* end() { return begin() + count_; }

 private:
  static constexpr std::size_t kInline = 20;
  std::array<Item, kInline> first_;
  std::vector<Item> more_;  ///< all items, once there are more than fit inline
  std::size_t count_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_SMALL_VECTOR_H

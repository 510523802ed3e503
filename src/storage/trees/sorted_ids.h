// A set of object IDs as a sorted array: for large sets that are made at once and then read. A
// UInt64AVLTree takes one allocation for each ID, and is for sets that grow and shrink one by one.

#ifndef ZELTA_STORAGE_TREES_SORTED_IDS_H
#define ZELTA_STORAGE_TREES_SORTED_IDS_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace zelta {

/// IDs in ascending order, each once. Only between append() and the next settle() they may stand in
/// any order, and any number of times: nothing else may be asked of the set then.
class SortedIds {
 public:
  SortedIds() = default;
  /// Of IDs in any order.
  explicit SortedIds(std::vector<std::uint64_t> ids) : ids_(std::move(ids)), settled_(false) {
    settle();
  }

  void append(std::uint64_t id) {
    ids_.push_back(id);
    settled_ = false;
  }
  /// Puts what was appended into order. Cheap where it is already.
  void settle();

  [[nodiscard]] bool empty() const { return ids_.empty(); }
  [[nodiscard]] std::size_t size() const { return ids().size(); }
  [[nodiscard]] bool contains(std::uint64_t id) const;
  /// The least ID that is not below `id`, the greatest that is not above it; null if there is none.
  [[nodiscard]] const std::uint64_t* atOrAfter(std::uint64_t id) const;
  [[nodiscard]] const std::uint64_t* atOrBefore(std::uint64_t id) const;
  [[nodiscard]] const std::uint64_t* begin() const { return ids().data(); }
  [[nodiscard]] const std::uint64_t* end() const { return ids().data() + ids().size(); }

 private:
  [[nodiscard]] const std::vector<std::uint64_t>& ids() const {
    assert(settled_);
    return ids_;
  }

  std::vector<std::uint64_t> ids_;
  bool settled_ = true;
};

/// The IDs that are in at least one of two sets, and those that are in just one of them.
[[nodiscard]] SortedIds unionOf(const SortedIds& a, const SortedIds& b);
[[nodiscard]] SortedIds symmetricDifferenceOf(const SortedIds& a, const SortedIds& b);

}  // namespace zelta

#endif  // ZELTA_STORAGE_TREES_SORTED_IDS_H

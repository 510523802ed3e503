#include "storage/trees/sorted_ids.h"

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>

namespace zelta {

namespace {

using Ids = std::vector<std::uint64_t>;

/// From here on sorting by digits beats sorting by comparisons.
constexpr std::size_t kManyIds = 128;
constexpr unsigned kDigitBits = 8;
constexpr std::size_t kDigits = std::size_t{1} << kDigitBits;

/// Sorts by the lowest digit first. Digits that all IDs share, as the upper ones mostly are, cost
/// nothing.
void sortByDigits(Ids& ids) {
  std::uint64_t all = ~std::uint64_t{0};
  std::uint64_t any = 0;
  for (const std::uint64_t id : ids) {
    all &= id;
    any |= id;
  }
  const std::uint64_t differing = all ^ any;
  Ids sorted(ids.size());
  for (unsigned shift = 0; shift < 64; shift += kDigitBits) {
    if ((differing >> shift) % kDigits == 0) continue;
    std::array<std::size_t, kDigits> places{};
    for (const std::uint64_t id : ids) ++places[(id >> shift) % kDigits];
    std::size_t begin = 0;
    for (std::size_t& place : places) begin += std::exchange(place, begin);
    for (const std::uint64_t id : ids) sorted[places[(id >> shift) % kDigits]++] = id;
    std::swap(ids, sorted);
  }
}

}  // namespace

void SortedIds::settle() {
  const auto disorder = std::adjacent_find(ids_.begin(), ids_.end(), std::greater_equal<>());
  if (disorder != ids_.end()) {
    if (ids_.size() < kManyIds) {
      std::sort(ids_.begin(), ids_.end());
    } else {
      sortByDigits(ids_);
    }
    ids_.erase(std::unique(ids_.begin(), ids_.end()), ids_.end());
  }
  settled_ = true;
}

bool SortedIds::contains(std::uint64_t id) const {
  return std::binary_search(ids().begin(), ids().end(), id);
}

const std::uint64_t* SortedIds::atOrAfter(std::uint64_t id) const {
  const std::uint64_t* found = std::lower_bound(begin(), end(), id);
  return found == end() ? nullptr : found;
}

const std::uint64_t* SortedIds::atOrBefore(std::uint64_t id) const {
  const std::uint64_t* behind = std::upper_bound(begin(), end(), id);
  return behind == begin() ? nullptr : behind - 1;
}

SortedIds unionOf(const SortedIds& a, const SortedIds& b) {
  Ids ids;
  ids.reserve(a.size() + b.size());
  std::set_union(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(ids));
  return SortedIds(std::move(ids));
}

SortedIds symmetricDifferenceOf(const SortedIds& a, const SortedIds& b) {
  Ids ids;
  ids.reserve(a.size() + b.size());
  std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(ids));
  return SortedIds(std::move(ids));
}

}  // namespace zelta

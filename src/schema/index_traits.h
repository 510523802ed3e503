// What the kinds of index are to a schema, and to whoever reads through an index without knowing
// its kind. What they do is said in index/kind.h.

#ifndef ZELTA_SCHEMA_INDEX_TRAITS_H
#define ZELTA_SCHEMA_INDEX_TRAITS_H

#include <cstddef>
#include <cstdint>

#include "czelta.h"

namespace zelta {

/// What the segments of an index are made of.
enum class SegmentRule : std::uint8_t {
  values,  ///< any number of values that have an order
  box,     ///< one rectangle or box
  span,    ///< two times: begin and end
  words,   ///< fixed values as a prefix, then texts that are cut into words
  points   ///< one set of points
};

struct IndexTraits {
  CZELTA::IndexKind kind;
  SegmentRule segments;
  /// Objects are reached by its keys and in their order. Any other kind is read through the results
  /// of a search.
  bool ordered;
};

/// All kinds, each at its number.
inline constexpr IndexTraits kIndexTraits[] = {
    {CZELTA::BPlusTree, SegmentRule::values, true},
    {CZELTA::SpatialTree, SegmentRule::box, false},
    {CZELTA::AsciiList, SegmentRule::words, false},
    {CZELTA::WideList, SegmentRule::words, false},
    {CZELTA::TemporalTree, SegmentRule::span, false},
    {CZELTA::SpatialPattern, SegmentRule::points, false},
};
inline constexpr std::size_t kIndexKinds = sizeof(kIndexTraits) / sizeof(kIndexTraits[0]);

static_assert([] {
  for (std::size_t i = 0; i < kIndexKinds; ++i) {
    if (kIndexTraits[i].kind != i) return false;
  }
  return true;
}());

/// Null for a number that no kind has.
[[nodiscard]] constexpr const IndexTraits* findTraits(const CZELTA::Schema::Index& index) {
  return index.indexKind < kIndexKinds ? &kIndexTraits[index.indexKind] : nullptr;
}

[[nodiscard]] constexpr bool isOrdered(const CZELTA::Schema::Index& index) {
  const IndexTraits* traits = findTraits(index);
  return traits != nullptr && traits->ordered;
}

/// Whether a list has words of 16-bit characters.
[[nodiscard]] constexpr bool isWideList(const CZELTA::Schema::Index& index) {
  return index.indexKind == CZELTA::WideList;
}

}  // namespace zelta

#endif  // ZELTA_SCHEMA_INDEX_TRAITS_H

// The points of an object's pattern, as an index has them: those of one field, or, in an index with
// many entries, those of a sub-field in each row, with the row's number.

#ifndef ZELTA_INDEX_PATTERN_PATTERN_POINTS_H
#define ZELTA_INDEX_PATTERN_PATTERN_POINTS_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "index/keys/object_values.h"
#include "index/rtree/geometry.h"
#include "schema/data_types.h"
#include "storage/table.h"

namespace zelta {

/// The bytes of a value of points: a length word that counts itself, then the points. What does not
/// make a whole point is none.
struct PointBytes {
  const char* first = nullptr;
  std::uint64_t count = 0;

  template <std::size_t Axes>
  static PointBytes of(const SegmentValue& value) {
    const std::uint64_t claimed = claimedSize<std::uint32_t>(value.at, value.left);
    const std::uint64_t size = claimed < value.left ? claimed : value.left;
    constexpr std::uint64_t kLength = sizeof(std::uint32_t);
    if (size < kLength) return {};
    return {value.at + kLength, (size - kLength) / (Axes * sizeof(std::int32_t))};
  }
  /// One of the points, as a Point that is in row 0 if it has a row.
  template <class Entry>
  [[nodiscard]] Entry point(std::uint64_t number) const {
    Entry entry{};
    std::memcpy(entry.at, first + number * sizeof entry.at, sizeof entry.at);
    return entry;
  }
};

/// Number of the row that a point is of; 0 in an index with one entry for each object.
template <std::size_t Axes, bool Numbered>
[[nodiscard]] std::uint32_t rowOf(const Point<Axes, Numbered>& point) {
  if constexpr (Numbered) return point.row;
  return 0;
}

/// The field that a pattern index is over.
class PatternField {
 public:
  /// `index` counts from 0.
  PatternField(const Table& table, std::uint32_t index) : table_(table) {
    found_ = resolveField(*table.schema, table.index(index).segments[0].segmentField, &ref_);
  }
  [[nodiscard]] bool isFound() const { return found_; }
  [[nodiscard]] bool hasRows() const { return ref_.subField != nullptr; }
  [[nodiscard]] std::uint32_t type() const { return ref_.value().fieldType; }

  /// Calls `use(PointBytes, row)` for each pattern of an object, in the order of the rows. Own code
  /// 39: the object does not hold the field. Stops when `use` returns false.
  template <std::size_t Axes, class Use>
  Result forEach(const ObjectBytes& object, Use use) const {
    KeySource from{object, 0};
    RowPlaces rows;
    from.rows = &rows;
    for (;; ++from.entry) {
      const SegmentValue value = ObjectValues(table_, from).field(ref_);
      if (value.at == nullptr) {
        return hasRows() ? Result() : reportError(&table_.metaData, Own::noObject);
      }
      if (!use(PointBytes::of<Axes>(value), from.entry) || !hasRows()) return {};
    }
  }

 private:
  const Table& table_;
  FieldRef ref_;
  bool found_ = false;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_PATTERN_PATTERN_POINTS_H

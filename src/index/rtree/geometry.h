// What trees of bounds need to know of the things that lie in them. A branch has bounds for keys,
// a leaf has the indexed values themselves: boxes, spans, or points, whose bounds are boxes.
//
// Everything here takes any values, those of damaged files as well: arithmetic wraps and never
// overflows. Where it wraps, only the shape of a tree suffers.

#ifndef ZELTA_INDEX_RTREE_GEOMETRY_H
#define ZELTA_INDEX_RTREE_GEOMETRY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "frame/result.h"

namespace zelta {

/// A box of `Axes` dimensions; its borders belong to it. As in a page: all lower corners, then all
/// upper ones.
template <std::size_t Axes>
struct Box {
  std::int32_t lower[Axes];
  std::int32_t upper[Axes];

  friend bool operator==(const Box&, const Box&) = default;

  void join(const Box& other) {
    for (std::size_t a = 0; a < Axes; ++a) {
      lower[a] = std::min(lower[a], other.lower[a]);
      upper[a] = std::max(upper[a], other.upper[a]);
    }
  }
  // Asked of every entry that a search passes, with answers that no processor can predict: so both
  // are made without branches, of the signs of differences.
  [[nodiscard]] bool contains(const Box& other) const {
    std::int64_t least = 0;
    for (std::size_t a = 0; a < Axes; ++a) {
      least |= std::int64_t{other.lower[a]} - lower[a];
      least |= std::int64_t{upper[a]} - other.upper[a];
    }
    return least >= 0;
  }
  [[nodiscard]] bool overlaps(const Box& other) const {
    std::int64_t least = 0;
    for (std::size_t a = 0; a < Axes; ++a) {
      least |= std::int64_t{other.upper[a]} - lower[a];
      least |= std::int64_t{upper[a]} - other.lower[a];
    }
    return least >= 0;
  }
  /// Grid cells. An extent counts as a signed 32-bit number, as pages have been laid out by.
  [[nodiscard]] std::uint64_t cells() const {
    std::uint64_t cells = 1;
    for (std::size_t a = 0; a < Axes; ++a) {
      const std::uint32_t extent =
          static_cast<std::uint32_t>(upper[a]) - static_cast<std::uint32_t>(lower[a]) + 1;
      cells *= static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(extent)});
    }
    return cells;
  }
};

/// What is wasted by putting two boxes into one, in cells.
template <std::size_t Axes>
[[nodiscard]] std::uint64_t joiningCost(const Box<Axes>& a, const Box<Axes>& b) {
  Box<Axes> both = a;
  both.join(b);
  return 2 * both.cells() - a.cells() - b.cells();
}

/// A span of unsigned values, begin and end included.
template <typename Number>
struct Span {
  Number begin;
  Number end;

  friend bool operator==(const Span&, const Span&) = default;

  void join(const Span& other) {
    begin = std::min(begin, other.begin);
    end = std::max(end, other.end);
  }
  [[nodiscard]] bool contains(const Span& other) const {
    return (begin <= other.begin) & (end >= other.end);
  }
  [[nodiscard]] bool overlaps(const Span& other) const {
    return (begin <= other.end) & (end >= other.begin);
  }
};

/// The width of two spans put together.
template <typename Number>
[[nodiscard]] std::uint64_t joiningCost(const Span<Number>& a, const Span<Number>& b) {
  return std::max(a.end, b.end) - std::min(a.begin, b.begin);
}

/// A point of an object. With `Numbered` also which of the object's rows it is of.
template <std::size_t Axes, bool Numbered>
struct Point;

template <std::size_t Axes>
struct Point<Axes, false> {
  std::int32_t at[Axes];
  friend bool operator==(const Point&, const Point&) = default;
};

template <std::size_t Axes>
struct Point<Axes, true> {
  std::int32_t at[Axes];
  std::uint32_t row;
  friend bool operator==(const Point&, const Point&) = default;
};

using Box2 = Box<2>;
using Box3 = Box<3>;
using Span32 = Span<std::uint32_t>;
using Span64 = Span<std::uint64_t>;
using Point2 = Point<2, false>;
using Point3 = Point<3, false>;
using RowPoint2 = Point<2, true>;
using RowPoint3 = Point<3, true>;

/// Applies a macro to all that can be the entries of a tree.
#define ZELTA_EACH_RTREE_ENTRY(apply)                                                              \
  apply(Box2) apply(Box3) apply(Span32) apply(Span64) apply(Point2) apply(Point3) apply(RowPoint2) \
      apply(RowPoint3)

// -- What leaves are made of ----------------------------------------------------------------------

/// The bounds of an entry of a leaf.
template <std::size_t Axes>
[[nodiscard]] const Box<Axes>& boundsOf(const Box<Axes>& box) {
  return box;
}
template <typename Number>
[[nodiscard]] const Span<Number>& boundsOf(const Span<Number>& span) {
  return span;
}
template <std::size_t Axes, bool Numbered>
[[nodiscard]] Box<Axes> boundsOf(const Point<Axes, Numbered>& point) {
  Box<Axes> box;
  std::copy(point.at, point.at + Axes, box.lower);
  std::copy(point.at, point.at + Axes, box.upper);
  return box;
}

template <class Entry>
using BoundsOf = std::remove_cvref_t<decltype(boundsOf(std::declval<const Entry&>()))>;

/// How badly a new entry suits a branch's child: it goes to the child with the least number.
template <std::size_t Axes>
[[nodiscard]] std::uint64_t descentRank(const Box<Axes>& child, const Box<Axes>& entry) {
  return joiningCost(child, entry);
}
template <typename Number>
[[nodiscard]] std::uint64_t descentRank(const Span<Number>& child, const Span<Number>& entry) {
  return joiningCost(child, entry);
}
/// For points no distance: it has a sign, and the lower corner weighs twice the upper one.
template <std::size_t Axes, bool Numbered>
[[nodiscard]] std::int64_t descentRank(const Box<Axes>& child, const Point<Axes, Numbered>& entry) {
  std::int64_t rank = 0;
  for (std::size_t a = 0; a < Axes; ++a) {
    rank += std::int64_t{child.lower[a]} + child.upper[a] / 2 - entry.at[a];
  }
  return rank;
}

// -- Groups of entries, when a node is divided ----------------------------------------------------

/// The region of a group of boxes or points. Upper corners lie one beyond the last cell.
template <std::size_t Axes>
struct BoxRegion {
  std::int64_t lower[Axes];
  std::int64_t upper[Axes];

  void join(const BoxRegion& other) {
    for (std::size_t a = 0; a < Axes; ++a) {
      lower[a] = std::min(lower[a], other.lower[a]);
      upper[a] = std::max(upper[a], other.upper[a]);
    }
  }
  /// Of both regions together.
  [[nodiscard]] std::int64_t joinedSize(const BoxRegion& other) const {
    std::uint64_t volume = 1;
    for (std::size_t a = 0; a < Axes; ++a) {
      volume *= static_cast<std::uint64_t>(std::max(upper[a], other.upper[a]) -
                                           std::min(lower[a], other.lower[a]));
    }
    return static_cast<std::int64_t>(volume);
  }
};

template <typename Number>
struct SpanRegion {
  Number begin;
  Number end;

  void join(const SpanRegion& other) {
    begin = std::min(begin, other.begin);
    end = std::max(end, other.end);
  }
  [[nodiscard]] std::int64_t joinedSize(const SpanRegion& other) const {
    return static_cast<std::int64_t>(std::uint64_t{std::max(end, other.end)} -
                                     std::min(begin, other.begin));
  }
};

template <std::size_t Axes>
[[nodiscard]] BoxRegion<Axes> regionOf(const Box<Axes>& box) {
  BoxRegion<Axes> region;
  for (std::size_t a = 0; a < Axes; ++a) {
    region.lower[a] = box.lower[a];
    region.upper[a] = std::int64_t{box.upper[a]} + 1;
  }
  return region;
}
template <std::size_t Axes, bool Numbered>
[[nodiscard]] BoxRegion<Axes> regionOf(const Point<Axes, Numbered>& point) {
  return regionOf(boundsOf(point));
}
template <typename Number>
[[nodiscard]] SpanRegion<Number> regionOf(const Span<Number>& span) {
  return {span.begin, span.end};
}

/// How far an entry is from a group that is to get one more: the least number is taken over. For
/// boxes and spans what both would take up together.
template <class Key, class Region>
[[nodiscard]] std::int64_t farness(const Key&, const Region& own, const Region& group) {
  return group.joinedSize(own);
}
/// For points the distance along the axes from half the group's extent, which is not offset by
/// where the group lies.
template <std::size_t Axes, bool Numbered>
[[nodiscard]] std::int64_t farness(const Point<Axes, Numbered>& point, const BoxRegion<Axes>&,
                                   const BoxRegion<Axes>& group) {
  std::int64_t sum = 0;
  for (std::size_t a = 0; a < Axes; ++a) {
    const std::int64_t centre = (group.upper[a] - group.lower[a]) >> 1;
    const std::int64_t offset = point.at[a] - centre;
    sum += offset < 0 ? -offset : offset;
  }
  return sum;
}

// -- Codes ----------------------------------------------------------------------------------------

/// The code of a damaged tree.
template <class Entry>
inline constexpr Own kTreeDamage = Own::spatialTree;
template <typename Number>
inline constexpr Own kTreeDamage<Span<Number>> = Own::temporalTree;
template <std::size_t Axes, bool Numbered>
inline constexpr Own kTreeDamage<Point<Axes, Numbered>> = Own::spatialPattern;

}  // namespace zelta

#endif  // ZELTA_INDEX_RTREE_GEOMETRY_H

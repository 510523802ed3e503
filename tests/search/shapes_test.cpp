// Boxes, time spans and patterns: random work, and searches after every few steps that are held
// against a plain look at all objects.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "search/random_objects.h"

namespace zelta::testing {
namespace {

enum Index : unsigned { kBoxes = 1, kSpans, kCubes, kLongSpans, kPoints, kRowBoxes, kRowPoints };

using Coordinates = std::vector<std::int32_t>;

struct Row {
  Coordinates box;                  ///< x1, y1, x2, y2
  std::vector<Coordinates> points;  ///< of three axes
};

struct Item {
  static constexpr unsigned kVariableFields = 2;
  Coordinates box;   ///< x1, y1, x2, y2
  Coordinates cube;  ///< x1, y1, z1, x2, y2, z2
  std::pair<std::uint32_t, std::uint32_t> span;
  std::pair<std::uint64_t, std::uint64_t> longSpan;
  std::vector<Coordinates> points;  ///< of two axes
  std::vector<Row> rows;

  [[nodiscard]] std::string fixedBytes() const {
    Packed out;
    for (const std::int32_t c : box) out.number(c);
    for (const std::int32_t c : cube) out.number(c);
    return out.number(span.first)
        .number(span.second)
        .number(longSpan.first)
        .number(longSpan.second);
  }
  [[nodiscard]] static std::string pointBytes(const std::vector<Coordinates>& points) {
    Packed all;
    for (const Coordinates& point : points) {
      for (const std::int32_t c : point) all.number(c);
    }
    return Packed().binary(all);
  }
  [[nodiscard]] std::string variableBytes() const {
    Packed all;
    for (const Row& row : rows) {
      for (const std::int32_t c : row.box) all.number(c);
      all.raw(pointBytes(row.points));
    }
    return Packed().binary(all).raw(pointBytes(points));
  }
};

/// Whether two boxes of any axes touch, whichever way their corners are given.
bool overlap(const Coordinates& a, const Coordinates& b) {
  const std::size_t axes = a.size() / 2;
  for (std::size_t i = 0; i < axes; ++i) {
    if (std::min(a[i], a[i + axes]) > std::max(b[i], b[i + axes])) return false;
    if (std::min(b[i], b[i + axes]) > std::max(a[i], a[i + axes])) return false;
  }
  return true;
}

template <class Pair>
bool overlap(const Pair& a, const Pair& b) {
  return std::min(a.first, a.second) <= std::max(b.first, b.second) &&
         std::min(b.first, b.second) <= std::max(a.first, a.second);
}

bool hasAll(const std::vector<Coordinates>& points, const std::vector<Coordinates>& wanted,
            std::uint32_t tolerance) {
  const auto isNear = [&](const Coordinates& a, const Coordinates& b) {
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (a[i] == INT32_MIN) return false;
      const std::int64_t distance = std::int64_t{a[i]} - b[i];
      if (std::max(distance, -distance) > tolerance) return false;
    }
    return true;
  };
  return std::all_of(wanted.begin(), wanted.end(), [&](const Coordinates& w) {
    return std::any_of(points.begin(), points.end(),
                       [&](const Coordinates& p) { return isNear(p, w); });
  });
}

class ShapeSearches : public RandomObjects<Item> {
 protected:
  void SetUp() override {
    // Behind a field of points no other one is found.
    const Fields fields = {
        {CZELTA::TypeRect2},
        {CZELTA::TypeBox3},
        {CZELTA::TypeDate},
        {CZELTA::TypeDate},
        {CZELTA::TypeDateTime},
        {CZELTA::TypeDateTime},
        {CZELTA::TypeSubRecords, 60, {{CZELTA::TypeRect2}, {CZELTA::TypePoints3, 40}}},
        {CZELTA::TypePoints2, 40}};
    const Indexes indexes = {
        {{{0, 0}}, CZELTA::SpatialTree},    {{{2, 0}, {3, 0}}, CZELTA::TemporalTree},
        {{{1, 0}}, CZELTA::SpatialTree},    {{{4, 0}, {5, 0}}, CZELTA::TemporalTree},
        {{{7, 0}}, CZELTA::SpatialPattern}, {{{8, 0}}, CZELTA::SpatialTree},
        {{{9, 0}}, CZELTA::SpatialPattern}};
    make(fields, indexes);
  }

  // -- Random things ----------------------------------------------------------------------------

  std::int32_t coordinate() {
    constexpr std::int32_t kEnds[] = {INT32_MIN, INT32_MIN + 1, -1, 0, 1, INT32_MAX - 1, INT32_MAX};
    return extreme ? kEnds[below(7)] : static_cast<std::int32_t>(below(60)) - 30;
  }
  Coordinates coordinates(std::size_t count) {
    Coordinates out(count);
    for (std::int32_t& c : out) c = coordinate();
    if (extreme || count % 2 != 0 || below(4) == 0) return out;
    for (std::size_t i = count / 2; i < count; ++i) {
      out[i] = out[i - count / 2] + static_cast<std::int32_t>(below(4));  // small boxes
    }
    return out;
  }
  template <typename Number>
  std::pair<Number, Number> span() {
    const auto any = [&]() -> Number {
      const Number ends[] = {0, 1, static_cast<Number>(~Number{0} / 2),
                             static_cast<Number>(~Number{0})};
      return extreme ? ends[below(4)] : below(100);
    };
    return {any(), any()};
  }
  std::vector<Coordinates> points(std::size_t axes, std::uint32_t most) {
    std::vector<Coordinates> out(below(most + 1));
    for (Coordinates& point : out) {
      point.resize(axes);
      for (std::int32_t& c : point) c = coordinate() / (extreme ? 1 : 4);
    }
    return out;
  }
  Item item() override {
    extreme = below(8) == 0;
    Item out;
    out.box = coordinates(4);
    out.cube = coordinates(6);
    out.span = span<std::uint32_t>();
    out.longSpan = span<std::uint64_t>();
    out.points = points(2, 5);
    out.rows.resize(below(4));
    for (Row& row : out.rows) row = {coordinates(4), points(3, 3)};
    if (below(6) == 0 && out.rows.size() > 1) out.rows[1] = out.rows[0];
    return out;
  }

  // -- Searches ---------------------------------------------------------------------------------

  /// Searches by a key; `keysOf(item)` are those of an object, `query` is what it is held against.
  /// Whoever has a key that another object has given up is passed over until the commit.
  template <class Key, class KeysOf>
  void compareKeys(unsigned index, const Key& query, const std::string& image, KeysOf keysOf) {
    std::multiset<Key> removed;
    const auto subtract = [](std::multiset<Key> from, const std::multiset<Key>& what) {
      for (const Key& key : what) {
        if (const auto found = from.find(key); found != from.end()) from.erase(found);
      }
      return from;
    };
    const auto keys = [&](const Items& items, std::uint64_t id) {
      const auto found = items.find(id);
      return found == items.end() ? std::multiset<Key>() : keysOf(found->second);
    };
    for (const auto& [id, item] : committed) {
      removed.merge(subtract(keys(committed, id), keys(pending, id)));
    }
    Ids expected;
    for (const auto& [id, item] : committed) {
      for (const Key& key : keys(committed, id)) {
        if (overlap(key, query) && removed.count(key) == 0) expected.insert(id);
      }
    }
    for (const auto& [id, item] : pending) {
      for (const Key& key : subtract(keys(pending, id), keys(committed, id))) {
        if (overlap(key, query)) expected.insert(id);
      }
    }
    long long count = -1;
    const bool first = below(2) == 0;
    ASSERT_DONE(
        handle,
        first ? handle.SearchIndex(kTable, index, image.data(), nullptr, CZELTA::Mode{}, &count)
              : handle.SearchIndex(kTable, index, image.data(), 0u, CZELTA::Mode{}, &count));
    EXPECT_EQ(count, static_cast<long long>(expected.size()));
    EXPECT_EQ(results(index), expected) << "index " << index;
  }
  /// A box as the index has it.
  static Coordinates inOrder(Coordinates box) {
    const std::size_t axes = box.size() / 2;
    for (std::size_t i = 0; i < axes; ++i) {
      if (box[i] > box[i + axes]) std::swap(box[i], box[i + axes]);
    }
    return box;
  }
  template <typename Number>
  static std::pair<Number, Number> inOrder(std::pair<Number, Number> span) {
    if (span.first > span.second) std::swap(span.first, span.second);
    return span;
  }
  static std::string bytesOf(const Coordinates& numbers) {
    Packed out;
    for (const std::int32_t c : numbers) out.number(c);
    return out;
  }
  void searchBoxes(unsigned index) {
    const Coordinates query = coordinates(index == kCubes ? 6 : 4);
    compareKeys(index, inOrder(query), bytesOf(query), [&](const Item& item) {
      std::multiset<Coordinates> keys;
      if (index != kRowBoxes)
        return keys.insert(inOrder(index == kBoxes ? item.box : item.cube)), keys;
      for (const Row& row : item.rows) keys.insert(inOrder(row.box));
      return keys;
    });
  }
  template <typename Number>
  void searchSpans(unsigned index, std::pair<Number, Number> Item::*member) {
    const auto query = span<Number>();
    compareKeys(index, inOrder(query), Packed().number(query.first).number(query.second),
                [&](const Item& item) {
                  return std::multiset<std::pair<Number, Number>>{inOrder(item.*member)};
                });
  }
  void searchPoints(unsigned index) {
    const bool rows = index == kRowPoints;
    std::vector<Coordinates> query = points(rows ? 3 : 2, 2);
    if (query.empty()) query.push_back(rows ? Coordinates{1, 1, 1} : Coordinates{1, 1});
    constexpr std::uint32_t kTolerances[] = {0, 1, 2, 5, 0x7FFFFFFF, 0xFFFFFFFF};
    const std::uint32_t tolerance = kTolerances[below(6)];
    const auto matches = [&](const Item& item) {
      if (!rows) return hasAll(item.points, query, tolerance);
      return std::any_of(item.rows.begin(), item.rows.end(),
                         [&](const Row& row) { return hasAll(row.points, query, tolerance); });
    };
    // What is pending shows in a search that keeps the results before it.
    const bool keep = below(2) == 0;
    Ids expected;
    if (keep) {
      ASSERT_DONE(handle, handle.SearchIndex(kTable, index, Item::pointBytes({query[0]}).data(), 0u,
                                             CZELTA::Mode{}, nullptr));
      expected = results(index);
    }
    for (const auto& [id, item] : committed) {
      if (pending.count(id) != 0 && matches(item)) expected.insert(id);
    }
    for (const auto& [id, item] : pending) {
      if (keep && isChanged(id) && matches(item)) expected.insert(id);
    }
    ASSERT_DONE(handle,
                handle.SearchIndex(kTable, index, Item::pointBytes(query).data(), tolerance,
                                   keep ? CZELTA::SearchKeepResults : CZELTA::Mode{}, nullptr));
    EXPECT_EQ(results(index), expected) << "index " << index << (keep ? " kept" : "");
  }
  void searchAll() override {
    extreme = below(6) == 0;
    for (const unsigned index : {kBoxes, kCubes, kRowBoxes}) searchBoxes(index);
    searchSpans(kSpans, &Item::span);
    searchSpans(kLongSpans, &Item::longSpan);
    for (const unsigned index : {kPoints, kRowPoints}) searchPoints(index);
  }

  bool extreme = false;
};

TEST_P(ShapeSearches, FindWhatAPlainLookFinds) { run(1200); }

INSTANTIATE_TEST_SUITE_P(Forms, ShapeSearches, ::testing::Bool(),
                         [](const auto& wide) { return wide.param ? "wide" : "narrow"; });

}  // namespace
}  // namespace zelta::testing

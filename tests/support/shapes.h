// What objects have beside their other fields in tables with indexes of many kinds: a box, a span
// of time, a grove, words, a set of points. All of it follows from a number: who knows the number
// knows the shapes, and what a search must find of them. Nothing of this comes from the engine.

#ifndef ZELTA_TESTS_SUPPORT_SHAPES_H
#define ZELTA_TESTS_SUPPORT_SHAPES_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/buffer_table.h"
#include "support/database_fixture.h"

namespace zelta::testing {

struct Shapes {
  using Point = std::array<std::int32_t, 2>;
  static constexpr std::uint32_t kWordBytes = 6;  ///< of the first word's field; none is longer

  std::array<std::int32_t, 4> box;  ///< x1, y1, x2, y2; either corner may be the lower one
  std::array<std::uint32_t, 2> span;
  std::uint16_t grove;  ///< one of three
  std::vector<Point> points;
  std::vector<std::string> words;  ///< one at least; all objects have one in common

  /// Numbers have many shapes in common, so that whole keys are equal now and then.
  explicit Shapes(std::uint64_t number) {
    constexpr std::uint64_t kDifferent = 53;
    constexpr std::int32_t kEnds[] = {INT32_MIN, INT32_MIN + 1, INT32_MAX - 1, INT32_MAX};
    std::uint64_t state = number % kDifferent;
    const auto below = [&state](std::uint64_t limit) {
      state += 0x9E3779B97F4A7C15;
      std::uint64_t mixed = (state ^ state >> 30) * 0xBF58476D1CE4E5B9;
      mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
      return static_cast<std::int32_t>((mixed ^ mixed >> 31) % limit);
    };
    const bool extreme = below(9) == 0;
    const auto coordinate = [&] { return extreme ? kEnds[below(4)] : below(80) - 40; };
    box = {coordinate(), coordinate(), 0, 0};
    box[2] = extreme ? coordinate() : box[0] + below(10) - 2;
    box[3] = extreme ? coordinate() : box[1] + below(10) - 2;
    span[0] = extreme ? 0xFFFFFFFF : static_cast<std::uint32_t>(below(200));
    span[1] = static_cast<std::uint32_t>(below(200));
    points.resize(static_cast<std::size_t>(below(5)));
    for (Point& point : points) point = {coordinate() / 8, coordinate() / 8};
    constexpr const char* kWords[] = {"ash", "birch", "cedar", "elm", "fir", "oak"};
    for (std::int32_t i = below(4); i > 0; --i) words.push_back(kWords[below(6)]);
    words.insert(words.begin() + below(words.size() + 1), "tree");
    grove = static_cast<std::uint16_t>(below(3) * 255);
  }
  /// What touches all others, as a search.
  static Shapes everything() {
    Shapes all(0);
    all.box = {INT32_MIN, INT32_MAX, INT32_MAX, INT32_MIN};
    all.span = {0xFFFFFFFF, 0};
    all.points = {{0, 0}};
    all.words = {"tree"};
    return all;
  }

  [[nodiscard]] std::string boxBytes() const {
    Packed out;
    for (const std::int32_t c : box) out.number(c);
    return out;
  }
  [[nodiscard]] std::string spanBytes() const { return Packed().number(span[0]).number(span[1]); }
  [[nodiscard]] std::string pointBytes() const {
    Packed all;
    for (const Point& point : points) all.number(point[0]).number(point[1]);
    return Packed().binary(all);
  }
  [[nodiscard]] std::string groveBytes() const { return Packed().number(grove); }
  /// Fields of a box, of the two ends of a span, of the grove and of the first word.
  [[nodiscard]] std::string fixedBytes() const {
    std::string first = words.front();
    first.resize(kWordBytes, '\0');
    return boxBytes() + spanBytes() + groveBytes() + first;
  }
  [[nodiscard]] static Fields fixedFields() {
    return {{CZELTA::TypeRect2},
            {CZELTA::TypeDate},
            {CZELTA::TypeDate},
            {CZELTA::TypeUInt16},
            {CZELTA::TypeCharArray, kWordBytes}};
  }
  /// Fields of the words, in both widths of characters, and of the points, behind which no other
  /// one is found.
  [[nodiscard]] std::string variableBytes() const {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
    return Packed().text(text).wide({text.begin(), text.end()}).raw(pointBytes());
  }
  [[nodiscard]] static Fields variableFields() {
    return {{CZELTA::TypeText, 20}, {CZELTA::TypeWideText, 20}, pointField()};
  }
  [[nodiscard]] static FieldSpec pointField() { return {CZELTA::TypePoints2, 20}; }
};

/// All shapes that each object has: those of its rows, or one.
using ShapedObjects = std::map<std::uint64_t, std::vector<Shapes>>;

/// A kind of index over shapes.
struct ShapeKind {
  const char* name;
  /// What an index with keys enters of shapes; null: the index follows contents.
  std::string (*key)(const Shapes& shapes);
  /// What is searched for: the image of a key, or an expression.
  std::string (*query)(const Shapes& like);
  bool (*matches)(const Shapes& shapes, const Shapes& like);
  bool byWords = false;  ///< its query is an expression, and what is pending is found as well
  /// Of a list that is divided: the part that is searched. Null: it is not.
  std::string (*partOf)(const Shapes& like) = nullptr;

  [[nodiscard]] std::string part(const Shapes& like) const {
    return partOf != nullptr ? partOf(like) : std::string();
  }
};

/// Pairs of numbers in ascending order.
template <class Number, std::size_t count>
std::array<Number, count> inOrder(std::array<Number, count> ends) {
  for (std::size_t i = 0; i < count / 2; ++i) {
    if (ends[i] > ends[i + count / 2]) std::swap(ends[i], ends[i + count / 2]);
  }
  return ends;
}
template <class Number, std::size_t count>
bool overlap(const std::array<Number, count>& a, const std::array<Number, count>& b) {
  const auto one = inOrder(a);
  const auto other = inOrder(b);
  constexpr std::size_t kAxes = count / 2;
  for (std::size_t i = 0; i < kAxes; ++i) {
    if (one[i] > other[i + kAxes] || other[i] > one[i + kAxes]) return false;
  }
  return true;
}

/// How far points may be from those of a search: one of three answers, by its span.
inline std::uint32_t toleranceOf(const Shapes& like) {
  constexpr std::uint32_t kTolerances[] = {0, 2, 0xFFFFFFFF};
  return kTolerances[like.span[0] % 3];
}
/// Two of the points at most are searched for, and one at least.
inline std::vector<Shapes::Point> wantedPoints(const Shapes& like) {
  std::vector<Shapes::Point> wanted = like.points;
  wanted.resize(std::clamp<std::size_t>(wanted.size(), 1, 2));
  return wanted;
}
inline bool hasPoints(const Shapes& shapes, const Shapes& like) {
  const std::vector<Shapes::Point> wanted = wantedPoints(like);
  return std::all_of(wanted.begin(), wanted.end(), [&](const Shapes::Point& w) {
    return std::any_of(shapes.points.begin(), shapes.points.end(), [&](const Shapes::Point& p) {
      return p[0] != INT32_MIN && p[1] != INT32_MIN &&
             std::abs(std::int64_t{p[0]} - w[0]) <= toleranceOf(like) &&
             std::abs(std::int64_t{p[1]} - w[1]) <= toleranceOf(like);
    });
  });
}

inline constexpr ShapeKind kBoxIndex = {
    "boxes",
    [](const Shapes& shapes) {
      Shapes ordered = shapes;
      ordered.box = inOrder(shapes.box);
      return ordered.boxBytes();
    },
    [](const Shapes& like) { return like.boxBytes(); },
    [](const Shapes& shapes, const Shapes& like) { return overlap(shapes.box, like.box); }};

inline constexpr ShapeKind kSpanIndex = {
    "spans",
    [](const Shapes& shapes) {
      Shapes ordered = shapes;
      ordered.span = inOrder(shapes.span);
      return ordered.spanBytes();
    },
    [](const Shapes& like) { return like.spanBytes(); },
    [](const Shapes& shapes, const Shapes& like) { return overlap(shapes.span, like.span); }};

inline constexpr ShapeKind kPointIndex = {"points", nullptr,
                                          [](const Shapes& like) {
                                            Shapes wanted = like;
                                            wanted.points = wantedPoints(like);
                                            return wanted.pointBytes();
                                          },
                                          hasPoints};

/// One of the words is searched for, as a whole word.
inline const std::string& wantedWord(const Shapes& like) {
  return like.words[like.span[1] % like.words.size()];
}
inline bool hasWord(const Shapes& shapes, const Shapes& like) {
  return std::count(shapes.words.begin(), shapes.words.end(), wantedWord(like)) != 0;
}
inline constexpr ShapeKind kWordIndex = {
    "words", nullptr, [](const Shapes& like) { return "\" " + wantedWord(like) + " \""; }, hasWord,
    true};
inline constexpr ShapeKind kWideWordIndex = {
    "wide words", nullptr,
    [](const Shapes& like) {
      const std::string narrow = kWordIndex.query(like);
      return Packed().wide({narrow.begin(), narrow.end()}).str();
    },
    hasWord, true};

/// The first word by grove.
inline constexpr ShapeKind kGroveIndex = {
    "groves",
    nullptr,
    [](const Shapes& like) { return "\" " + like.words.front() + " \""; },
    [](const Shapes& shapes, const Shapes& like) {
      return shapes.grove == like.grove && shapes.words.front() == like.words.front();
    },
    true,
    [](const Shapes& like) { return like.groveBytes(); }};

/// The indexes over shapes of a table: those of the fixed fields, and those of the variable ones if
/// it has such.
inline std::vector<ShapeKind> shapeKinds(bool withVariable) {
  std::vector<ShapeKind> kinds = {kBoxIndex, kSpanIndex, kGroveIndex};
  if (withVariable) kinds.insert(kinds.end(), {kWordIndex, kWideWordIndex, kPointIndex});
  return kinds;
}
/// Their records, for the numbers of the first fixed and the first variable field.
inline Indexes shapeIndexes(std::int32_t fixed, std::int32_t variable, bool withVariable) {
  Indexes indexes = {{{{fixed, 0}}, CZELTA::SpatialTree},
                     {{{fixed + 1, 0}, {fixed + 2, 0}}, CZELTA::TemporalTree},
                     {{{fixed + 3, 0}, {fixed + 4, CZELTA::SegmentWords}}, CZELTA::AsciiList}};
  if (!withVariable) return indexes;
  indexes.push_back({{{variable, CZELTA::SegmentWords}}, CZELTA::AsciiList});
  indexes.push_back({{{variable + 1, CZELTA::SegmentWords}}, CZELTA::WideList});
  indexes.push_back({{{variable + 2, 0}}, CZELTA::SpatialPattern});
  return indexes;
}

/// What a transaction has changed and not committed.
struct ShapeChanges {
  ShapedObjects now;  ///< of objects that it has added or rewritten
  std::set<std::uint64_t> deleted;
};

/// The objects that a search must find. In an index with keys whoever has a key that an object has
/// given up is passed over until the commit; one of words shows what is pending, one of points what
/// is committed.
inline std::set<std::uint64_t> findableIn(const ShapeKind& kind, const Shapes& like,
                                          const ShapedObjects& committed,
                                          const ShapeChanges& changes = {}) {
  const auto keysOf = [&](const ShapedObjects& objects, std::uint64_t id) {
    std::multiset<std::string> keys;
    if (const auto found = objects.find(id); found != objects.end()) {
      for (const Shapes& shapes : found->second) keys.insert(kind.key(shapes));
    }
    return keys;
  };
  const auto less = [](std::multiset<std::string> from, const std::multiset<std::string>& what) {
    for (const std::string& key : what) {
      if (const auto found = from.find(key); found != from.end()) from.erase(found);
    }
    return from;
  };
  std::multiset<std::string> removed;
  if (kind.key != nullptr) {
    for (const std::uint64_t id : changes.deleted) removed.merge(keysOf(committed, id));
    for (const auto& [id, shapes] : changes.now) {
      removed.merge(less(keysOf(committed, id), keysOf(changes.now, id)));
    }
  }
  std::set<std::uint64_t> found;
  for (const auto& [id, all] : committed) {
    if (changes.deleted.count(id) != 0 || (kind.byWords && changes.now.count(id) != 0)) continue;
    for (const Shapes& shapes : all) {
      if (!kind.matches(shapes, like)) continue;
      const bool hidden = !removed.empty() && removed.count(kind.key(shapes)) != 0;
      if (!hidden) found.insert(id);
    }
  }
  if (kind.key == nullptr && !kind.byWords) return found;
  for (const auto& [id, all] : changes.now) {
    if (kind.byWords) {
      if (std::any_of(all.begin(), all.end(),
                      [&](const Shapes& shapes) { return kind.matches(shapes, like); })) {
        found.insert(id);
      }
      continue;
    }
    const std::multiset<std::string> fresh = less(keysOf(changes.now, id), keysOf(committed, id));
    for (const Shapes& shapes : all) {
      if (kind.matches(shapes, like) && fresh.count(kind.key(shapes)) != 0) found.insert(id);
    }
  }
  return found;
}

/// Searches an index for shapes like these.
inline unsigned long long searchLike(CZELTA& db, unsigned table, unsigned index,
                                     const ShapeKind& kind, const Shapes& like,
                                     long long* count = nullptr) {
  const std::string query = kind.query(like);
  const std::string part = kind.part(like);
  const void* bytes = query.data();
  return kind.byWords
             ? db.SearchIndex(table, index, part.data(), bytes, CZELTA::Mode{}, count)
             : db.SearchIndex(table, index, bytes, toleranceOf(like), CZELTA::Mode{}, count);
}

/// Searches an index and reads what was found; objects that cannot be read are failures of the test.
inline std::set<std::uint64_t> searchShapes(CZELTA& db, unsigned table, unsigned index,
                                            const ShapeKind& kind, const Shapes& like) {
  std::set<std::uint64_t> found;
  EXPECT_DONE(db, searchLike(db, table, index, kind, like));
  CZELTA::Object object;
  CZELTA::Mode mode = CZELTA::ReadFirst | CZELTA::ReadNoLock;
  unsigned long long word = 0;
  while ((word = db.ReadObject(table, mode, &object, index, nullptr, nullptr)) == 0) {
    EXPECT_TRUE(found.insert(static_cast<std::uint64_t>(object.objectID)).second);
    mode = CZELTA::ReadNext | CZELTA::ReadNoLock;
  }
  EXPECT_EQ(word, ownCode(32)) << messageOf(db);
  return found;
}

/// Searches for everything and for the shapes of some of the objects, which are all committed: by
/// each index, the first of which has the number `first`.
inline void compareSearches(CZELTA& db, unsigned table, unsigned first,
                            const std::vector<ShapeKind>& kinds, const ShapedObjects& objects) {
  std::vector<Shapes> likes = {Shapes::everything()};
  for (const auto& [id, all] : objects) {
    if (likes.size() < 5 && id % 3 == 0) likes.insert(likes.end(), all.begin(), all.end());
  }
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    for (const Shapes& like : likes) {
      EXPECT_EQ(searchShapes(db, table, first + static_cast<unsigned>(i), kinds[i], like),
                findableIn(kinds[i], like, objects))
          << kinds[i].name << " of table " << table;
    }
  }
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_SHAPES_H

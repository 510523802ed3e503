#include "index/pattern/pattern_update.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "index/pattern/pattern_points.h"
#include "index/rtree/rtree.h"

namespace zelta {

namespace {

template <std::size_t Axes, bool Numbered>
bool isBelow(const Point<Axes, Numbered>& a, const Point<Axes, Numbered>& b) {
  return std::lexicographical_compare(a.at, a.at + Axes, b.at, b.at + Axes);
}

template <std::size_t Axes, bool Numbered>
class PatternUpdate final : public ContentUpdate {
 public:
  using Entry = Point<Axes, Numbered>;

  PatternUpdate(const IndexTree& tree, ContentMode mode)
      : tree_(tree), mode_(mode), field_(tree.table(), tree.index()) {}

  Result change(const ContentChange& change) override;
  Result finish() override { return {}; }

 private:
  Result collect(const ObjectBytes& object, std::vector<Entry>& points) const;
  void pair();
  Result apply(std::uint64_t objectID) const;
  Result adjust(std::uint64_t objectID);

  const IndexTree tree_;
  const ContentMode mode_;
  const PatternField field_;
  std::vector<Entry> before_;
  std::vector<Entry> after_;
  static constexpr std::size_t kNone = ~std::size_t{0};
  std::vector<std::size_t> heirs_;  ///< of each point before: its number among those after
  std::vector<char> known_;         ///< of each point after: it was there before
};

template <std::size_t Axes, bool Numbered>
Result PatternUpdate<Axes, Numbered>::collect(const ObjectBytes& object,
                                              std::vector<Entry>& points) const {
  points.clear();
  if (object.data == nullptr) return {};
  if (!field_.isFound()) return reportError(&tree_.metaData(), Own::noObject);
  return field_.forEach<Axes>(object,
                              [&](const PointBytes& bytes, [[maybe_unused]] std::uint32_t row) {
                                for (std::uint64_t i = 0; i < bytes.count; ++i) {
                                  auto point = bytes.point<Entry>(i);
                                  if constexpr (Numbered) point.row = row;
                                  points.push_back(point);
                                }
                                return true;
                              });
}

/// Finds for each point after, in their order, the first point before with the same coordinates
/// that no other one has taken.
template <std::size_t Axes, bool Numbered>
void PatternUpdate<Axes, Numbered>::pair() {
  heirs_.assign(before_.size(), kNone);
  known_.assign(after_.size(), 0);
  std::vector<std::size_t> sorted(before_.size());
  std::iota(sorted.begin(), sorted.end(), std::size_t{0});
  std::stable_sort(sorted.begin(), sorted.end(),
                   [&](std::size_t a, std::size_t b) { return isBelow(before_[a], before_[b]); });
  std::vector<std::size_t> taken(before_.size(), 0);  // of the points like the first one of a run
  for (std::size_t i = 0; i < after_.size(); ++i) {
    const auto run = std::lower_bound(
        sorted.begin(), sorted.end(), after_[i],
        [&](std::size_t old, const Entry& point) { return isBelow(before_[old], point); });
    const auto start = static_cast<std::size_t>(run - sorted.begin());
    if (start == sorted.size()) continue;
    const std::size_t place = start + taken[start];
    if (place == sorted.size() || isBelow(after_[i], before_[sorted[place]])) continue;
    ++taken[start];
    heirs_[sorted[place]] = i;
    known_[i] = 1;
  }
}

template <std::size_t Axes, bool Numbered>
Result PatternUpdate<Axes, Numbered>::apply(std::uint64_t objectID) const {
  for (std::size_t i = 0; i < before_.size(); ++i) {
    if (heirs_[i] == kNone) {
      ZELTA_TRY(rtreeRemove(tree_, before_[i], objectID));
    } else if constexpr (Numbered) {
      const Entry& heir = after_[heirs_[i]];
      if (rowOf(heir) != rowOf(before_[i])) {
        ZELTA_TRY(rtreeReplace(tree_, before_[i], objectID, heir));
      }
    }
  }
  for (std::size_t i = 0; i < after_.size(); ++i) {
    if (known_[i] == 0) ZELTA_TRY(rtreeInsert(tree_, after_[i], objectID));
  }
  return {};
}

/// Some of the points, or all of them, may have been brought in before: each gets the number of
/// entries that the object has of it now.
template <std::size_t Axes, bool Numbered>
Result PatternUpdate<Axes, Numbered>::adjust(std::uint64_t objectID) {
  const auto isLess = [](const Entry& a, const Entry& b) {
    return isBelow(a, b) || (!isBelow(b, a) && rowOf(a) < rowOf(b));
  };
  std::vector<Entry> all = before_;
  all.insert(all.end(), after_.begin(), after_.end());
  std::sort(all.begin(), all.end(), isLess);
  all.erase(std::unique(all.begin(), all.end()), all.end());
  std::sort(after_.begin(), after_.end(), isLess);
  for (const Entry& point : all) {
    const auto range = std::equal_range(after_.begin(), after_.end(), point, isLess);
    const auto wanted = static_cast<std::uint64_t>(range.second - range.first);
    std::uint32_t there = 0;
    ZELTA_TRY(rtreeCount(tree_, point, objectID, &there));
    for (std::uint64_t n = there; n > wanted; --n) ZELTA_TRY(rtreeRemove(tree_, point, objectID));
    for (std::uint64_t n = there; n < wanted; ++n) ZELTA_TRY(rtreeInsert(tree_, point, objectID));
  }
  return {};
}

template <std::size_t Axes, bool Numbered>
Result PatternUpdate<Axes, Numbered>::change(const ContentChange& change) {
  ZELTA_TRY(collect(change.before, before_));
  ZELTA_TRY(collect(change.after, after_));
  if (mode_ == ContentMode::repeated) return adjust(change.objectID);
  pair();
  return apply(change.objectID);
}

}  // namespace

Result checkPattern(const Table& table, std::uint32_t index, const ObjectBytes& object) {
  const PatternField field(table, index);
  if (!field.isFound()) return reportError(&table.metaData, Own::noObject);
  constexpr std::size_t kAny = 2;
  return field.forEach<kAny>(object, [](const PointBytes&, std::uint32_t) { return false; });
}

std::unique_ptr<ContentUpdate> beginPatternUpdate(const IndexTree& committed, ContentMode mode) {
  const PatternField field(committed.table(), committed.index());
  const bool flat = field.isFound() && field.type() == CZELTA::TypePoints2;
  if (field.hasRows()) {
    if (flat) return std::make_unique<PatternUpdate<2, true>>(committed, mode);
    return std::make_unique<PatternUpdate<3, true>>(committed, mode);
  }
  if (flat) return std::make_unique<PatternUpdate<2, false>>(committed, mode);
  return std::make_unique<PatternUpdate<3, false>>(committed, mode);
}

}  // namespace zelta

#include "index/pattern/pattern_search.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "index/pattern/pattern_points.h"
#include "index/rtree/rtree.h"
#include "index/search/pending_objects.h"

namespace zelta {

namespace {

/// The lowest coordinate is in no box: bounds end one above it.
constexpr std::int64_t kLowest = -2147483647;
constexpr std::int64_t kHighest = 2147483647;

template <std::size_t Axes, bool Numbered>
class PatternSearch final : public IndexSearch {
 public:
  using Entry = Point<Axes, Numbered>;

  PatternSearch(const Table& table, std::uint32_t index, const PatternField& field)
      : table_(table), index_(index), field_(field) {}

  void takePoints(const PointBytes& points, std::uint32_t tolerance);
  Result run(AtomicManager& manager, FoundObjects& found) override;

 private:
  /// A pattern that may match: an object, and a row of it in an index with many entries.
  using Candidate = std::pair<std::uint64_t, std::uint32_t>;
  using Candidates = std::vector<Candidate>;

  Result searchTree(const IndexTree& tree, FoundObjects& found);
  Result findNear(const IndexTree& tree, const Box<Axes>& box, Candidates& near) const;
  Result searchPending(AtomicManager& manager, FoundObjects& found) const;
  [[nodiscard]] bool hasAll(const PointBytes& points) const;

  const Table& table_;
  const std::uint32_t index_;
  const PatternField field_;
  std::vector<Box<Axes>> boxes_;
};

template <std::size_t Axes, bool Numbered>
void PatternSearch<Axes, Numbered>::takePoints(const PointBytes& points, std::uint32_t tolerance) {
  boxes_.resize(points.count);
  for (std::uint64_t i = 0; i < points.count; ++i) {
    const auto point = points.point<Entry>(i);
    for (std::size_t a = 0; a < Axes; ++a) {
      const std::int64_t lower = std::int64_t{point.at[a]} - tolerance;
      const std::int64_t upper = std::int64_t{point.at[a]} + tolerance;
      boxes_[i].lower[a] = static_cast<std::int32_t>(std::max(lower, kLowest));
      boxes_[i].upper[a] = static_cast<std::int32_t>(std::min(upper, kHighest));
    }
  }
}

template <std::size_t Axes, bool Numbered>
Result PatternSearch<Axes, Numbered>::run(AtomicManager& manager, FoundObjects& found) {
  const IndexTree tree(manager, PageFile::index, index_);
  found.count = 0;
  if (tree.root() != 0) ZELTA_TRY(searchTree(tree, found));
  return searchPending(manager, found);
}

/// The first point finds candidates, each further one keeps some of them. What all steps have found
/// and kept is counted together.
template <std::size_t Axes, bool Numbered>
Result PatternSearch<Axes, Numbered>::searchTree(const IndexTree& tree, FoundObjects& found) {
  Candidates left;
  Candidates near;
  Candidates kept;
  long long count = 0;
  for (std::size_t i = 0; i < boxes_.size(); ++i) {
    ZELTA_TRY(findNear(tree, boxes_[i], near));
    if (i == 0) {
      std::swap(left, near);
    } else {
      kept.clear();
      std::set_intersection(left.begin(), left.end(), near.begin(), near.end(),
                            std::back_inserter(kept));
      std::swap(left, kept);
    }
    count += static_cast<long long>(left.size());
  }
  for (const Candidate& candidate : left) found.add(candidate.first);
  found.count = count;
  return {};
}

template <std::size_t Axes, bool Numbered>
Result PatternSearch<Axes, Numbered>::findNear(const IndexTree& tree, const Box<Axes>& box,
                                               Candidates& near) const {
  near.clear();
  ZELTA_TRY(rtreeSearch<Entry>(tree, box, [&](const Entry& point, std::uint64_t objectID) {
    near.emplace_back(objectID, rowOf(point));
  }));
  std::sort(near.begin(), near.end());
  near.erase(std::unique(near.begin(), near.end()), near.end());
  std::erase_if(near, [&](const Candidate& candidate) {
    return find(table_.deletedObjects, candidate.first) != nullptr;
  });
  return {};
}

/// Whether a pattern has a point in every box.
template <std::size_t Axes, bool Numbered>
bool PatternSearch<Axes, Numbered>::hasAll(const PointBytes& points) const {
  return std::all_of(boxes_.begin(), boxes_.end(), [&](const Box<Axes>& box) {
    for (std::uint64_t i = 0; i < points.count; ++i) {
      if (box.contains(boundsOf(points.point<Entry>(i)))) return true;
    }
    return false;
  });
}

/// Pending objects that match are counted, and join the results of a search that keeps those before
/// it; any other search shows what is committed.
template <std::size_t Axes, bool Numbered>
Result PatternSearch<Axes, Numbered>::searchPending(AtomicManager& manager,
                                                    FoundObjects& found) const {
  return forEachPendingObject(manager, [&](std::uint64_t objectID, const ObjectBytes& object) {
    bool matches = false;
    const Result read = field_.forEach<Axes>(object, [&](const PointBytes& points, std::uint32_t) {
      matches = hasAll(points);
      return !matches;
    });
    if (read.failed()) return reportError(&table_.metaData, Own::unclassified);
    if (matches) {
      found.besides.append(objectID);
      ++*found.count;
    }
    return Result();
  });
}

template <std::size_t Axes, bool Numbered>
std::unique_ptr<IndexSearch> makeSearch(const Table& table, const SearchQuery& query,
                                        const PatternField& field, std::uint32_t length) {
  const std::uint32_t index = query.index - 1;
  auto search = std::make_unique<PatternSearch<Axes, Numbered>>(table, index, field);
  search->takePoints(PointBytes::of<Axes>({static_cast<const char*>(query.key), length}),
                     query.tolerance);
  return search;
}

}  // namespace

Result preparePatternSearch(Table& table, const SearchQuery& query,
                            std::unique_ptr<IndexSearch>* search) {
  const PatternField field(table, query.index - 1);
  std::uint32_t length = 0;
  std::memcpy(&length, query.key, sizeof length);
  constexpr std::uint32_t kEmpty = sizeof length;
  if (length <= kEmpty || !field.isFound() || !isPoints(field.type())) {
    return reportError(&table.metaData, Own::parameter, table.cName(), nullptr, query.index);
  }
  if (field.type() == CZELTA::TypePoints2) {
    *search = field.hasRows() ? makeSearch<2, true>(table, query, field, length)
                              : makeSearch<2, false>(table, query, field, length);
  } else {
    *search = field.hasRows() ? makeSearch<3, true>(table, query, field, length)
                              : makeSearch<3, false>(table, query, field, length);
  }
  return {};
}

}  // namespace zelta

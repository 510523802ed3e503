// A tree of bounds in a file of its own, held against a plain list of what must be in it, and a
// checker that reads the nodes by their published layout.

#ifndef ZELTA_TESTS_INDEX_RTREE_BENCH_H
#define ZELTA_TESTS_INDEX_RTREE_BENCH_H

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "index/rtree/rtree.h"
#include "index/tree_model.h"
#include "support/tree_bench.h"

namespace zelta::testing {

/// An entry's words and its object.
template <class Entry>
using RTreeItem = std::pair<std::array<std::uint32_t, sizeof(Entry) / 4>, std::uint64_t>;

template <class Entry>
RTreeItem<Entry> itemOf(const Entry& entry, std::uint64_t id) {
  RTreeItem<Entry> item;
  std::memcpy(item.first.data(), &entry, sizeof entry);
  item.second = id;
  return item;
}

/// What random entries are like.
enum class Spread { small, crowded, extreme };

template <std::size_t Axes>
void randomise(Random& random, Spread spread, Box<Axes>* box) {
  for (std::size_t a = 0; a < Axes; ++a) {
    if (spread == Spread::extreme) {
      constexpr std::int32_t kEnds[] = {INT32_MIN, INT32_MIN + 1, -1,       0,
                                        1,         INT32_MAX - 1, INT32_MAX};
      box->lower[a] = kEnds[random() % 7];
      box->upper[a] = kEnds[random() % 7];
      if (box->upper[a] < box->lower[a]) std::swap(box->lower[a], box->upper[a]);
      continue;
    }
    const std::uint32_t range = spread == Spread::crowded ? 6 : 10000;
    const auto half = static_cast<std::int32_t>(range / 2);
    box->lower[a] = static_cast<std::int32_t>(random() % range) - half;
    box->upper[a] = box->lower[a] + static_cast<std::int32_t>(random() % (range / 5 + 1));
  }
}

template <typename Number>
void randomise(Random& random, Spread spread, Span<Number>* span) {
  const auto any = [&]() -> Number {
    if (spread == Spread::extreme) {
      const Number kEnds[] = {0, 1, static_cast<Number>(~Number{0} / 2),
                              static_cast<Number>(~Number{0} - 1), static_cast<Number>(~Number{0})};
      return kEnds[random() % 5];
    }
    return spread == Spread::crowded ? random() % 8 : random() % 100000;
  };
  span->begin = any();
  span->end = spread == Spread::small ? span->begin + random() % 500 : any();
  if (span->end < span->begin) std::swap(span->begin, span->end);
}

template <std::size_t Axes, bool Numbered>
void randomise(Random& random, Spread spread, Point<Axes, Numbered>* point) {
  Box<Axes> box;
  randomise(random, spread, &box);
  std::copy(box.lower, box.lower + Axes, point->at);
  if constexpr (Numbered) point->row = random() % 3;
}

template <class Entry>
class RTreeBench {
 public:
  using Bounds = BoundsOf<Entry>;
  using Items = std::vector<std::pair<Entry, std::uint64_t>>;

  explicit RTreeBench(bool wideIds = false, std::uint32_t pageSize = 256,
                      PageFile file = PageFile::memory)
      : bench({false, wideIds, sizeof(Entry) / 4, pageSize, file}) {}

  [[nodiscard]] IndexTree tree(PageFile file) const { return {*bench.manager, file, 0}; }
  [[nodiscard]] IndexTree tree() const { return bench.tree(); }

  struct Facts {
    std::uint32_t leaves = 0;
    std::uint32_t branches = 0;
    std::uint32_t height = 0;
  };
  /// Checks every node, and compares the entries with the model.
  Facts check(const Items& model, PageFile file = PageFile::memory) {
    bench.form.file = file;
    Facts facts;
    found_.clear();
    if (bench.root() != 0) checkNode(bench.root(), 0, nullptr, facts);
    bench.form.file = PageFile::memory;
    std::vector<RTreeItem<Entry>> expected;
    for (const auto& [entry, id] : model) expected.push_back(itemOf(entry, id));
    std::sort(expected.begin(), expected.end());
    std::sort(found_.begin(), found_.end());
    EXPECT_EQ(found_.size(), expected.size());
    EXPECT_TRUE(found_ == expected);
    return facts;
  }

  /// Searches against a plain look at all items.
  void compareSearch(const Items& model, const Bounds& bounds, PageFile file = PageFile::memory) {
    std::vector<RTreeItem<Entry>> expected;
    std::vector<RTreeItem<Entry>> found;
    for (const auto& [entry, id] : model) {
      if (bounds.overlaps(boundsOf(entry))) expected.push_back(itemOf(entry, id));
    }
    ASSERT_TRUE(rtreeSearch<Entry>(tree(file), bounds, [&](const Entry& entry, std::uint64_t id) {
                  found.push_back(itemOf(entry, id));
                }).ok());
    std::sort(expected.begin(), expected.end());
    std::sort(found.begin(), found.end());
    EXPECT_TRUE(found == expected) << found.size() << " of " << expected.size();
  }

  TreeBench bench;

 private:
  void checkNode(std::uint64_t position, std::uint32_t depth, const Bounds* outside, Facts& facts) {
    ASSERT_LT(depth, 40u);
    const std::string bytes = bench.node(position);
    const auto count = numberAt<std::uint16_t>(bytes, 6);
    const bool leaf = numberAt<std::uint16_t>(bytes, 4) == 0x6C69;
    ASSERT_TRUE(leaf || numberAt<std::uint16_t>(bytes, 4) == 0x6E69);
    ASSERT_GT(count, 0u);
    const std::size_t keyBytes = leaf ? sizeof(Entry) : sizeof(Bounds);
    const std::size_t valueBytes = leaf && !bench.form.wideIds ? 4 : 8;
    ASSERT_LE(8 + count * (keyBytes + valueBytes), bytes.size());
    for (std::size_t i = 8 + count * keyBytes; i < bytes.size() - count * valueBytes; ++i) {
      ASSERT_EQ(bytes[i], 0) << "byte " << i << " behind " << count << " entries";
    }
    Bounds tight{};
    for (std::uint32_t i = 0; i < count; ++i) {
      std::uint64_t value = 0;
      std::memcpy(&value, bytes.data() + bytes.size() - (i + 1) * valueBytes, valueBytes);
      Bounds bounds;
      if (leaf) {
        Entry entry;
        std::memcpy(&entry, bytes.data() + 8 + i * keyBytes, keyBytes);
        bounds = boundsOf(entry);
        found_.push_back(itemOf(entry, value));
      } else {
        std::memcpy(&bounds, bytes.data() + 8 + i * keyBytes, keyBytes);
        checkNode(value, depth + 1, &bounds, facts);
      }
      if (i == 0) {
        tight = bounds;
      } else {
        tight.join(bounds);
      }
    }
    EXPECT_TRUE(outside == nullptr || tight == *outside) << "bounds are not tight";
    ++(leaf ? facts.leaves : facts.branches);
    if (!leaf) return;
    if (facts.height == 0) facts.height = depth + 1;
    EXPECT_EQ(facts.height, depth + 1) << "leaves lie at one depth";
  }

  std::vector<RTreeItem<Entry>> found_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_INDEX_RTREE_BENCH_H

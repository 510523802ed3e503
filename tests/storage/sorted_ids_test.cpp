#include "storage/trees/sorted_ids.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace zelta {
namespace {

using Ids = std::vector<std::uint64_t>;

Ids listOf(const SortedIds& ids) { return {ids.begin(), ids.end()}; }

TEST(SortedIds, TakesIdsInAnyOrderAndAnyNumberOfTimes) {
  std::mt19937_64 random(5);
  for (const std::size_t count : {0u, 1u, 2u, 100u, 127u, 128u, 129u, 3000u}) {
    for (const unsigned bits : {3u, 9u, 20u, 40u, 64u}) {
      SortedIds ids;
      std::set<std::uint64_t> model;
      for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t id = random() >> (64 - bits);
        ids.append(id);
        model.insert(id);
      }
      ids.settle();
      EXPECT_EQ(listOf(ids), Ids(model.begin(), model.end())) << count << " of " << bits << " bits";
      EXPECT_EQ(ids.size(), model.size());
    }
  }
}

TEST(SortedIds, AscendingIdsStayAsTheyAre) {
  Ids many(1000);
  for (std::size_t i = 0; i < many.size(); ++i) many[i] = 3 * i;
  EXPECT_EQ(listOf(SortedIds(many)), many);
  many.push_back(many.back());
  EXPECT_EQ(SortedIds(many).size(), 1000u);
}

TEST(SortedIds, FindsTheNearest) {
  const SortedIds ids({~std::uint64_t{0}, 7, 3, 3});
  EXPECT_TRUE(ids.contains(3));
  EXPECT_FALSE(ids.contains(4));
  EXPECT_EQ(*ids.atOrAfter(0), 3u);
  EXPECT_EQ(*ids.atOrAfter(3), 3u);
  EXPECT_EQ(*ids.atOrAfter(4), 7u);
  EXPECT_EQ(*ids.atOrAfter(~std::uint64_t{0}), ~std::uint64_t{0});
  EXPECT_EQ(*ids.atOrBefore(~std::uint64_t{0} - 1), 7u);
  EXPECT_EQ(*ids.atOrBefore(3), 3u);
  EXPECT_EQ(ids.atOrBefore(2), nullptr);
  const SortedIds none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.atOrAfter(0), nullptr);
  EXPECT_EQ(none.atOrBefore(0), nullptr);
}

TEST(SortedIds, AreJoined) {
  const SortedIds a({1, 2, 5});
  const SortedIds b({2, 3});
  EXPECT_EQ(listOf(unionOf(a, b)), (Ids{1, 2, 3, 5}));
  EXPECT_EQ(listOf(symmetricDifferenceOf(a, b)), (Ids{1, 3, 5}));
  EXPECT_EQ(listOf(unionOf(a, {})), (Ids{1, 2, 5}));
  EXPECT_TRUE(symmetricDifferenceOf(a, a).empty());
}

}  // namespace
}  // namespace zelta

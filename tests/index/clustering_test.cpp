// How the entries of an overfull node are divided, held against the same rules carried out in the
// plainest way.

#include <list>

#include "index/rtree_bench.h"

namespace zelta::testing {
namespace {

/// A group of entries by their numbers.
template <class Key>
struct PlainGroup {
  std::vector<std::size_t> members;
  decltype(regionOf(std::declval<const Key&>())) region;
};

/// Tries all pairs of groups again for each step.
template <class Key>
std::list<PlainGroup<Key>> dividePlainly(const std::vector<Key>& keys) {
  std::list<PlainGroup<Key>> groups;
  for (std::size_t i = 0; i < keys.size(); ++i) groups.push_back({{i}, regionOf(keys[i])});
  while (groups.size() > 2) {
    auto first = groups.end();
    auto second = groups.end();
    std::int64_t least = 0;
    for (auto a = groups.begin(); a != groups.end(); ++a) {
      for (auto b = std::next(a); b != groups.end(); ++b) {
        const std::int64_t size = a->region.joinedSize(b->region);
        if (first != groups.end() && size >= least) continue;
        least = size;
        first = a;
        second = b;
      }
    }
    first->members.insert(first->members.end(), second->members.begin(), second->members.end());
    first->region.join(second->region);
    groups.erase(second);
  }
  const bool secondIsLarger = groups.back().members.size() > groups.front().members.size();
  PlainGroup<Key>& larger = secondIsLarger ? groups.back() : groups.front();
  PlainGroup<Key>& smaller = secondIsLarger ? groups.front() : groups.back();
  for (;;) {
    const auto l = static_cast<std::int64_t>(larger.members.size());
    const auto s = static_cast<std::int64_t>(smaller.members.size());
    if (l - 1 <= s && s != 1) return groups;
    const auto nearest = std::min_element(
        larger.members.begin(), larger.members.end(), [&](std::size_t a, std::size_t b) {
          return farness(keys[a], regionOf(keys[a]), smaller.region) <
                 farness(keys[b], regionOf(keys[b]), smaller.region);
        });
    smaller.members.push_back(*nearest);
    smaller.region.join(regionOf(keys[*nearest]));
    larger.members.erase(nearest);
  }
}

/// A node in memory.
template <class Key>
struct PageOf {
  PageOf() : bytes(8192, '\0') {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    std::memcpy(bytes.data(), &size, sizeof size);
    node.makeEmpty(TreePage(bytes.data()), true, 4);
  }
  std::string bytes;
  RTreeNode<Key> node;
};

template <class Entry>
class ClusteringOf : public ::testing::Test {};

using Entries = ::testing::Types<Box2, Box3, Span32, Span64, Point2, Point3, RowPoint2, RowPoint3>;
TYPED_TEST_SUITE(ClusteringOf, Entries);

TYPED_TEST(ClusteringOf, IsThatOfThePlainRules) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (const Spread spread : {Spread::small, Spread::crowded, Spread::extreme}) {
    for (std::uint32_t round = 0; round < 20; ++round) {
      const std::uint32_t total = round < 10 ? round + 2 : 2 + random() % 90;
      std::vector<TypeParam> keys(total);
      for (TypeParam& key : keys) randomise(random, spread, &key);
      PageOf<TypeParam> first;
      PageOf<TypeParam> second;
      const std::uint32_t inFirst = random() % (total + 1);
      for (std::uint32_t i = 0; i < total; ++i) {
        (i < inFirst ? first : second).node.append(keys[i], i);
      }
      Clustering<TypeParam> groups(first.node, second.node);
      groups.divide();
      const auto plain = dividePlainly(keys);
      PageOf<TypeParam> out;
      for (std::uint32_t g = 0; g < 2; ++g) {
        const auto& expected = g == 0 ? plain.front().members : plain.back().members;
        ASSERT_EQ(groups.size(g), expected.size()) << total << " entries";
        groups.write(g, out.node);
        for (std::uint32_t i = 0; i < expected.size(); ++i) {
          ASSERT_EQ(out.node.value(i), expected[i]) << total << " entries";
          ASSERT_TRUE(out.node.key(i) == keys[expected[i]]);
        }
      }
    }
  }
}

TYPED_TEST(ClusteringOf, TwoEntriesBothMoveToOneNode) {
  Random random(1);
  PageOf<TypeParam> first;
  PageOf<TypeParam> second;
  for (std::uint32_t i = 0; i < 2; ++i) {
    TypeParam key{};
    randomise(random, Spread::small, &key);
    first.node.append(key, i);
  }
  Clustering<TypeParam> groups(first.node, second.node);
  groups.divide();
  EXPECT_EQ(groups.size(0), 0u);
  EXPECT_EQ(groups.size(1), 2u);
}

}  // namespace
}  // namespace zelta::testing

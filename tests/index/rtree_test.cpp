// Trees of bounds, held against plain lists.

#include "index/rtree_bench.h"

namespace zelta::testing {
namespace {
template <class Entry>
class RTree : public ::testing::Test {
 protected:
  using Bench = RTreeBench<Entry>;
  using Bounds = BoundsOf<Entry>;
  using Items = typename Bench::Items;

  static Entry randomEntry(Random& random, Spread spread) {
    Entry entry{};
    randomise(random, spread, &entry);
    return entry;
  }
  static Bounds randomBounds(Random& random, Spread spread) {
    Bounds bounds;
    randomise(random, spread, &bounds);
    return bounds;
  }
};

using Entries = ::testing::Types<Box2, Box3, Span32, Span64, Point2, Point3, RowPoint2, RowPoint3>;
TYPED_TEST_SUITE(RTree, Entries);

constexpr Spread kSpreads[] = {Spread::small, Spread::crowded, Spread::extreme};

TYPED_TEST(RTree, KeepsAndFindsWhatIsEntered) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (const Spread spread : kSpreads) {
    for (const bool wide : {false, true}) {
      typename TestFixture::Bench bench(wide, wide ? 200 : 256);
      typename TestFixture::Items model;
      for (std::uint32_t i = 1; i <= 700; ++i) {
        const std::uint64_t id = wide ? (std::uint64_t{i} << 32) + 7 : i;
        const TypeParam entry = this->randomEntry(random, spread);
        ASSERT_TRUE(rtreeInsert(bench.tree(), entry, id).ok());
        model.emplace_back(entry, id);
        if (i % 100 == 0 || i < 30) bench.check(model);
        if (i % 10 == 0) bench.compareSearch(model, this->randomBounds(random, spread));
      }
      EXPECT_GE(bench.check(model).height, 3u);
      if (this->HasFailure()) return;
    }
  }
}

TYPED_TEST(RTree, RandomWorkLeavesItsNodesFilled) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (const Spread spread : kSpreads) {
    typename TestFixture::Bench bench;
    typename TestFixture::Items model;
    for (std::uint32_t step = 1; step <= 3000; ++step) {
      const bool grows = random() % 10 < (step % 1000 < 500 ? 7u : 3u);
      if (grows || model.empty()) {
        const TypeParam entry = this->randomEntry(random, spread);
        const std::uint64_t id = random() % 50 + 1;  // objects with many entries, equal ones too
        ASSERT_TRUE(rtreeInsert(bench.tree(), entry, id).ok());
        model.emplace_back(entry, id);

      } else {
        const std::size_t chosen = random() % model.size();
        const TypeParam entry = model[chosen].first;
        const std::uint64_t id = model[chosen].second;
        std::uint32_t count = 0;
        ASSERT_TRUE(rtreeCount(bench.tree(), entry, id, &count).ok());
        const auto isEqual = [&](const auto& item) {
          return item.second == id && item.first == entry;
        };
        ASSERT_EQ(count, std::count_if(model.begin(), model.end(), isEqual));
        ASSERT_TRUE(rtreeRemove(bench.tree(), entry, id).ok());
        model[chosen] = model.back();
        model.pop_back();
      }
      if (step % 250 == 0) bench.check(model);
      if (step % 25 == 0) bench.compareSearch(model, this->randomBounds(random, spread));
      if (this->HasFailure()) return;
    }
    while (!model.empty()) {
      ASSERT_TRUE(rtreeRemove(bench.tree(), model.back().first, model.back().second).ok());
      model.pop_back();
      if (model.size() % 100 == 0) bench.check(model);
    }
    EXPECT_EQ(bench.bench.root(), 0u);
  }
}

TYPED_TEST(RTree, RefusesToRemoveWhatIsNotThere) {
  typename TestFixture::Bench bench;
  Random random(3);
  const TypeParam entry = this->randomEntry(random, Spread::small);
  EXPECT_TRUE(rtreeRemove(bench.tree(), entry, 1).is(Own::keyNotFound));
  ASSERT_TRUE(rtreeInsert(bench.tree(), entry, 1).ok());
  EXPECT_TRUE(rtreeRemove(bench.tree(), entry, 2).is(Own::keyNotFound));
  EXPECT_TRUE(
      rtreeRemove(bench.tree(), this->randomEntry(random, Spread::small), 1).is(Own::keyNotFound));
  bench.check({{entry, 1}});
  ASSERT_TRUE(rtreeRemove(bench.tree(), entry, 1).ok());
  bench.check({});
}

TYPED_TEST(RTree, CommitsMoveTheChosenObjectsAndKeepTheOthers) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (const std::uint32_t share : {0u, 3u, 50u, 97u, 100u}) {
    typename TestFixture::Bench bench;
    typename TestFixture::Items pending;
    typename TestFixture::Items committed;
    UInt64AVLTree* first = nullptr;
    UInt64AVLTree* second = nullptr;
    for (std::uint32_t i = 1; i <= 800; ++i) {
      const TypeParam entry = this->randomEntry(random, Spread::small);
      ASSERT_TRUE(rtreeInsert(bench.tree(), entry, i).ok());
      const bool chosen = random() % 100 < share;
      (chosen ? committed : pending).emplace_back(entry, i);
      if (chosen) new UInt64AVLTree(random() % 2 == 0 ? first : second, i);
    }
    const auto before = bench.check([&] {
      auto all = pending;
      all.insert(all.end(), committed.begin(), committed.end());
      return all;
    }());
    const IndexTree target = bench.tree(PageFile::index);
    bench.bench.manager->shadowCursor = bench.bench.manager->memoryEndOfFile;
    ASSERT_TRUE(rtreeMerge<TypeParam>(bench.tree(), {first, second}, &target).ok());
    const auto after = bench.check(pending);
    bench.check(committed, PageFile::index);
    if (share == 97) {
      EXPECT_LT(after.leaves, before.leaves / 2) << "what is left is packed";
    }
    destroyAll(first);
    destroyAll(second);
  }
}

TYPED_TEST(RTree, DropsTheChosenObjectsWithoutATarget) {
  typename TestFixture::Bench bench;
  Random random(9);
  typename TestFixture::Items pending;
  UInt64AVLTree* chosen = nullptr;
  for (std::uint32_t i = 1; i <= 500; ++i) {
    const TypeParam entry = this->randomEntry(random, Spread::small);
    ASSERT_TRUE(rtreeInsert(bench.tree(), entry, i).ok());
    if (i % 3 == 0) {
      new UInt64AVLTree(chosen, i);

    } else {
      pending.emplace_back(entry, i);
    }
  }
  ASSERT_TRUE(rtreeMerge<TypeParam>(bench.tree(), {chosen, nullptr}, nullptr).ok());
  bench.check(pending);
  destroyAll(chosen);
}

/// Whatever a damaged page says, an operation ends, and with the code of the kind.
TYPED_TEST(RTree, SurvivesDamagedNodes) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (int round = 0; round < 60; ++round) {
    typename TestFixture::Bench bench;
    typename TestFixture::Items model;
    for (std::uint32_t i = 1; i <= 120; ++i) {
      const TypeParam entry = this->randomEntry(random, Spread::crowded);
      ASSERT_TRUE(rtreeInsert(bench.tree(), entry, i).ok());
      model.emplace_back(entry, i);
    }
    std::uint64_t position = bench.bench.root();
    for (int depth = 0; depth < 2 && random() % 2 == 0; ++depth) {
      const std::string bytes = bench.bench.node(position);
      if (numberAt<std::uint16_t>(bytes, 4) == 0x6E69) {
        position = numberAt<std::uint64_t>(bytes, bytes.size() - 8);
      }
    }
    const std::string bytes = bench.bench.node(position);
    const std::size_t offset =
        random() % 3 == 0 ? 4 + random() % 4 : 4 + random() % (bytes.size() - 4);
    const char flipped = static_cast<char>(bytes[offset] ^ static_cast<char>(1u << (random() % 8)));
    bench.bench.damage(position, offset, &flipped, 1);
    const auto bearable = [](const Result& result) {
      const bool ofTheFile = (result.word() >> 32) == 2;
      return result.ok() || result.is(kTreeDamage<TypeParam>) || result.is(Own::keyNotFound) ||
             result.is(Own::memoryFile) || ofTheFile;
    };
    const auto bounds = this->randomBounds(random, Spread::extreme);
    EXPECT_TRUE(bearable(
        rtreeSearch<TypeParam>(bench.tree(), bounds, [](const TypeParam&, std::uint64_t) {})));
    for (int i = 0; i < 40; ++i) {
      const auto& [entry, id] = model[random() % model.size()];
      EXPECT_TRUE(bearable(rtreeRemove(bench.tree(), entry, id)));
      EXPECT_TRUE(bearable(rtreeInsert(bench.tree(), entry, id)));
    }
    UInt64AVLTree* all = nullptr;
    for (std::uint32_t i = 1; i <= 120; ++i) new UInt64AVLTree(all, i);
    EXPECT_TRUE(bearable(rtreeMerge<TypeParam>(bench.tree(), {all, nullptr}, nullptr)));
    destroyAll(all);
  }
}

}  // namespace

}  // namespace zelta::testing

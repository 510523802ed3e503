// The merge of a commit: pending keys move from the memory tree to the committed one.

#include <gtest/gtest.h>

#include <string>

#include "index/tree_model.h"

namespace zelta::testing {
namespace {

class BPlusTreeMerge : public BPlusTreeModel {};

TEST_P(BPlusTreeMerge, MovesTheChosenObjectsAndKeepsTheOthers) {
  const ModelCase& parameters = GetParam();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (const std::uint32_t share : {0u, 3u, 50u, 97u, 100u}) {
    TreeBench bench(parameters.form);
    TreeModel pending;
    TreeModel committed;
    UInt64AVLTree* first = nullptr;
    UInt64AVLTree* second = nullptr;
    for (std::uint32_t i = 1; i <= 600; ++i) {
      const Words key = randomKey(random, parameters);
      if (pending.count(key) + committed.count(key) != 0) continue;
      ASSERT_TRUE(bench.insert(key, i).ok());
      const bool chosen = random() % 100 < share;
      (chosen ? committed : pending)[key] = i;
      if (chosen) new UInt64AVLTree(random() % 2 == 0 ? first : second, i);
    }
    const IndexTree target(*bench.manager, PageFile::index, 0);
    bench.manager->shadowCursor = bench.manager->memoryEndOfFile;
    ASSERT_TRUE(bplusMerge(bench.tree(), {first, second}, &target).ok());
    bench.check(pending);
    bench.form.file = PageFile::index;
    bench.check(committed);
    destroyAll(first);
    destroyAll(second);
  }
}

TEST_P(BPlusTreeMerge, CommitsWithLittleMemoryKeepBothTrees) {
  const ModelCase& parameters = GetParam();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  TreeBench bench(parameters.form);
  TreeModel pending;
  TreeModel committed;
  const IndexTree target(*bench.manager, PageFile::index, 0);
  // Index pages go to shadows behind the memory file, which goes on growing in front of them.
  bench.manager->heldIndexLimit = 3 * parameters.form.pageSize;
  bench.manager->holdIndexPages();
  bench.manager->deferMemoryReleases();
  std::uint32_t id = 0;
  for (int round = 0; round < 12; ++round) {
    UInt64AVLTree* chosen = nullptr;
    for (int i = 0; i < 150; ++i) {
      const Words key = randomKey(random, parameters);
      if (pending.count(key) + committed.count(key) != 0) continue;
      ASSERT_TRUE(bench.insert(key, ++id).ok());
      pending[key] = id;
    }
    for (auto entry = pending.begin(); entry != pending.end();) {
      const bool goes = random() % 3 != 0;
      if (goes) {
        new UInt64AVLTree(chosen, entry->second);
        committed.insert(*entry);
      }
      entry = goes ? pending.erase(entry) : std::next(entry);
    }
    ASSERT_TRUE(bplusMerge(bench.tree(), {chosen, nullptr}, &target).ok());
    destroyAll(chosen);
    for (auto entry = committed.begin(); entry != committed.end();) {
      const bool goes = random() % 3 == 0;
      if (goes) {
        ASSERT_TRUE(bplusRemove(target, bench.encode(entry->first).data(), entry->second).ok());
      }
      entry = goes ? committed.erase(entry) : std::next(entry);
    }
    bench.form.file = PageFile::index;
    bench.check(committed);
    bench.form.file = PageFile::memory;
    bench.check(pending);
    if (::testing::Test::HasFailure()) return;
  }
}

TEST_P(BPlusTreeMerge, MakesTheFirstKeysThatAreLeftTheSeparators) {
  const ModelCase& parameters = GetParam();
  for (const std::uint32_t left : {2u, 3u, 40u}) {
    TreeBench bench(parameters.form);
    TreeModel all;
    TreeModel pending;
    UInt64AVLTree* chosen = nullptr;
    for (std::uint32_t i = 1; i <= 2000; ++i) {
      // Keys of one length, so that each has room where another one stood.
      Words key(parameters.form.keyWords, 0);
      key.back() = i;
      ASSERT_TRUE(bench.insert(key, i).ok());
      all[key] = i;
      if (i % left == 0) {
        pending[key] = i;
      } else {
        new UInt64AVLTree(chosen, i);
      }
    }
    ASSERT_EQ(bench.check(all).looseSeparators, 0u);
    ASSERT_TRUE(bplusMerge(bench.tree(), {chosen, nullptr}, nullptr).ok());
    EXPECT_EQ(bench.check(pending).looseSeparators, 0u) << "one of " << left << " is left";
    destroyAll(chosen);
  }
}

TEST_P(BPlusTreeMerge, WithoutATargetDropsTheChosenObjects) {
  const ModelCase& parameters = GetParam();
  TreeBench bench(parameters.form);
  Random random(5);
  TreeModel pending;
  UInt64AVLTree* chosen = nullptr;
  for (std::uint32_t i = 1; i <= 500; ++i) {
    const Words key = randomKey(random, parameters);
    if (bench.insert(key, i).failed()) continue;
    if (i % 3 == 0) {
      new UInt64AVLTree(chosen, i);
    } else {
      pending[key] = i;
    }
  }
  ASSERT_TRUE(bplusMerge(bench.tree(), {chosen, nullptr}, nullptr).ok());
  bench.check(pending);
  destroyAll(chosen);
}

std::vector<ModelCase> memoryCases() {
  std::vector<ModelCase> out;
  for (const ModelCase& one : kModelCases) {
    if (one.form.file == PageFile::memory) out.push_back(one);
  }
  return out;
}

INSTANTIATE_TEST_SUITE_P(Forms, BPlusTreeMerge, ::testing::ValuesIn(memoryCases()),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace zelta::testing

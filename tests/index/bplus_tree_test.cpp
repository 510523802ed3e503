#include "index/btree/btree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "index/tree_model.h"

namespace zelta::testing {
namespace {

TreeForm fixedForm(std::uint32_t keyWords = 2) {
  TreeForm form;
  form.keyWords = keyWords;
  return form;
}

TreeForm variableForm(std::uint32_t keyWords = 3) {
  TreeForm form;
  form.variable = true;
  form.keyWords = keyWords;
  return form;
}

Words number(std::uint32_t value) { return {0, value}; }

TEST(BPlusTree, EmptyTreeHasNoKeyAndNothingToRemove) {
  TreeBench bench(fixedForm());
  std::uint64_t id = 7;
  const Result result = bench.find(number(1), &id);
  EXPECT_TRUE(result.is(Own::keyNotFound));
  EXPECT_EQ(bench.metaData.errorMessage, nullptr) << "an absent key is no failure with a text";
  EXPECT_TRUE(bench.remove(number(1), 1).ok());
  EXPECT_TRUE(bench.table.pageBuffers[0].data() == nullptr);
}

TEST(BPlusTree, FirstKeyMakesALeafOfTheSmallestSize) {
  TreeForm form = fixedForm(8);  // 32 bytes a key: 32 + 46 * 4 = 216
  form.pageSize = 64;
  TreeBench bench(form);
  ASSERT_TRUE(bench.insert(Words(8, 5), 9).ok());
  const std::string node = bench.node(bench.root());
  EXPECT_EQ(node.size(), 256u);
  EXPECT_EQ(node.substr(4, 2), "il");
  EXPECT_EQ(numberAt<std::uint16_t>(node, 6), 1);
  EXPECT_EQ(numberAt<std::uint64_t>(node, 8), 0u);
  EXPECT_EQ(numberAt<std::uint64_t>(node, 16), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(node, 24), 5u);
  EXPECT_EQ(numberAt<std::uint32_t>(node, 252), 9u);
}

TEST(BPlusTree, KeyThatIsThereIsRefusedWithItsHolder) {
  TreeBench bench(fixedForm());
  ASSERT_TRUE(bench.insert(number(5), 42).ok());
  EXPECT_TRUE(bench.insert(number(5), 43).is(Own::keyExists));
  ASSERT_NE(bench.metaData.errorMessage, nullptr);
  const std::u16string text = bench.metaData.errorMessage;
  EXPECT_NE(text.find(u"in index 1 with object 42."), std::u16string::npos);
  EXPECT_NE(text.find(u"in T."), std::u16string::npos);
  bench.check({{number(5), 42}});
}

TEST(BPlusTree, AscendingKeysLeaveLeavesThreeQuartersFull) {
  TreeBench bench(fixedForm());
  TreeModel model;
  for (std::uint32_t i = 1; i <= 1000; ++i) {
    ASSERT_TRUE(bench.insert(number(i), i).ok());
    model[number(i)] = i;
  }
  const TreeBench::Facts facts = bench.check(model);
  // 19 keys of 12 bytes each fit; a quarter of them moves, and the new key follows them.
  ASSERT_GT(facts.leafKeys.size(), 10u);
  for (std::size_t i = 1; i + 1 < facts.leafKeys.size(); ++i) EXPECT_EQ(facts.leafKeys[i], 15u);
}

TEST(BPlusTree, DescendingKeysMoveAllButOneKey) {
  TreeBench bench(fixedForm());
  TreeModel model;
  for (std::uint32_t i = 1000; i >= 1; --i) {
    ASSERT_TRUE(bench.insert(number(i), i).ok());
    model[number(i)] = i;
  }
  const TreeBench::Facts facts = bench.check(model);
  for (std::size_t i = 1; i + 2 < facts.leafKeys.size(); ++i) EXPECT_EQ(facts.leafKeys[i], 18u);
}

TEST(BPlusTree, VariableAscendingKeysLeaveLeavesThreeQuartersFull) {
  TreeBench bench(variableForm());
  TreeModel model;
  for (std::uint32_t i = 1; i <= 500; ++i) {
    ASSERT_TRUE(bench.insert({7, i}, i).ok());
    model[{7, i}] = i;
  }
  const TreeBench::Facts facts = bench.check(model);
  // 14 keys of 4 words fill a leaf; of 15 the lower three quarters stay.
  for (std::size_t i = 1; i + 1 < facts.leafKeys.size(); ++i) EXPECT_EQ(facts.leafKeys[i], 11u);
}

TEST(BPlusTree, KeyLongerThanAPageMakesANodeOfSeveralPages) {
  TreeBench bench(variableForm());
  TreeModel model;
  const Words giant(300, 6);
  ASSERT_TRUE(bench.insert(giant, 1).ok());
  model[giant] = 1;
  // (301 + 4 * 3) * 4 + 60 bytes, in pages of 256
  EXPECT_EQ(bench.node(bench.root()).size(), 1536u);
  for (std::uint32_t i = 0; i < 400; ++i) {
    const Words key = {i % 13, i};
    ASSERT_TRUE(bench.insert(key, i + 2).ok());
    model[key] = i + 2;
  }
  bench.check(model);
  for (std::uint32_t i = 0; i < 20; ++i) {
    Words key(i * 40 + 1, i);
    key.push_back(3);
    ASSERT_TRUE(bench.insert(key, i + 1000).ok());
    model[key] = i + 1000;
    bench.check(model);
  }
}

TEST(BPlusTree, BranchWithOneKeyGrowsAndItsLinksFollow) {
  TreeBench bench(variableForm(1));
  TreeModel model;
  // Separators far longer than a node was made for.
  for (std::uint32_t i = 0; i < 60; ++i) {
    Words key(200, 9);
    key[199] = i * 7 % 60;
    ASSERT_TRUE(bench.insert(key, i + 1).ok()) << i;
    model[key] = i + 1;
    bench.check(model);
  }
  for (const auto& [key, id] : model) {
    std::uint64_t found = 0;
    ASSERT_TRUE(bench.find(key, &found).ok());
    EXPECT_EQ(found, id);
  }
}

TEST(BPlusTree, HugeLastKeyAtTheRightEdgeLeavesKeysOnBothSides) {
  TreeBench bench(variableForm());
  TreeModel model;
  for (std::uint32_t i = 0; i < 40; ++i) {
    const Words key = {i};
    ASSERT_TRUE(bench.insert(key, i + 1).ok());
    model[key] = i + 1;
  }
  const Words giant(2000, 50);
  ASSERT_TRUE(bench.insert(giant, 99).ok());
  model[giant] = 99;
  const Words lesser(1500, 49);
  ASSERT_TRUE(bench.insert(lesser, 98).ok());
  model[lesser] = 98;
  bench.check(model);
}

TEST(BPlusTree, RemovingTheLastKeySetsTheRootToZero) {
  for (const bool variable : {false, true}) {
    TreeBench bench(variable ? variableForm() : fixedForm());
    const std::uint64_t end = bench.manager->memoryEndOfFile;
    ASSERT_TRUE(bench.insert(number(5), 1).ok());
    EXPECT_NE(bench.root(), 0u);
    EXPECT_GT(bench.manager->memoryEndOfFile, end);
    ASSERT_TRUE(bench.remove(number(5), 1).ok());
    EXPECT_EQ(bench.root(), 0u);
    EXPECT_EQ(bench.manager->pages, nullptr) << "the freed node is not written any more";
  }
}

TEST(BPlusTree, RemovingAnAbsentKeyOrAnothersIsReported) {
  TreeBench bench(fixedForm());
  ASSERT_TRUE(bench.insert(number(5), 1).ok());
  EXPECT_TRUE(bench.remove(number(6), 1).is(Own::keyNotFound));
  EXPECT_TRUE(bench.remove(number(5), 2).is(Own::keyNotFound));
  ASSERT_NE(bench.metaData.errorMessage, nullptr);
  EXPECT_EQ(std::u16string(bench.metaData.errorMessage),
            u"Unable to find index key for object 2, within index 1 of table \"T\"");
  bench.check({{number(5), 1}});
}

TEST(BPlusTree, RemovedSeparatorKeyLeavesNoStaleSeparator) {
  for (const bool variable : {false, true}) {
    TreeBench bench(variable ? variableForm() : fixedForm());
    TreeModel model;
    for (std::uint32_t i = 1; i <= 600; ++i) {
      ASSERT_TRUE(bench.insert(number(i), i).ok());
      model[number(i)] = i;
    }
    for (int round = 0; round < 200; ++round) {
      const std::set<Words> separators = bench.check(model).separators;
      if (separators.empty()) break;
      auto chosen = separators.begin();
      std::advance(chosen, round % static_cast<int>(separators.size()));
      if (model.count(*chosen) == 0) continue;
      const Words key = *chosen;
      ASSERT_TRUE(bench.remove(key, model[key]).ok());
      model.erase(key);
      EXPECT_EQ(bench.check(model).separators.count(key), 0u);
    }
  }
}

TEST(BPlusTree, LeavesThatWouldJoinToExactlyEightyPercentStayApart) {
  // 16-byte entries: a leaf of 24 + 16 * 20 bytes has 20 places, 80 % are 16.
  TreeForm form = fixedForm(2);
  form.wideIds = true;
  form.pageSize = 344;
  TreeBench bench(form);
  TreeModel model;
  for (std::uint32_t i = 1; i <= 21; ++i) {
    ASSERT_TRUE(bench.insert(number(i), i).ok());
    model[number(i)] = i;
  }
  ASSERT_EQ(bench.check(model).leafKeys, (std::vector<std::uint32_t>{10, 11}));
  const auto drop = [&](std::uint32_t i) {
    ASSERT_TRUE(bench.remove(number(i), i).ok());
    model.erase(number(i));
  };
  drop(21);
  drop(20);  // 10 and 9
  drop(10);
  drop(9);
  drop(8);  // 7 and 9 keys: 35 percent, joined 80 percent
  EXPECT_EQ(bench.check(model).leafKeys, (std::vector<std::uint32_t>{7, 9}));
  drop(7);  // 6 and 9: 75 percent
  EXPECT_EQ(bench.check(model).leafKeys, (std::vector<std::uint32_t>{15}));
}

TEST(BPlusTree, JoiningKeepsTheNodeAtTheLowerPosition) {
  // Descending keys put the right neighbour behind in the file, ascending ones the left one.
  for (const bool ascending : {false, true}) {
    TreeBench bench(fixedForm());
    TreeModel model;
    for (std::uint32_t i = 1; i <= 20; ++i) {
      const std::uint32_t value = ascending ? i : 21 - i;
      ASSERT_TRUE(bench.insert(number(value), value).ok());
      model[number(value)] = value;
    }
    const TreeBench::Facts before = bench.check(model);
    ASSERT_EQ(before.leaves.size(), 2u);
    const std::uint64_t lower = std::min(before.leaves[0], before.leaves[1]);
    while (bench.check(model).leaves.size() == 2) {
      const Words key = model.rbegin()->first;
      ASSERT_TRUE(bench.remove(key, model[key]).ok());
      model.erase(key);
    }
    EXPECT_EQ(bench.root(), lower);
  }
}

TEST(BPlusTree, ReplacedIdStandsUnderItsKey) {
  TreeBench bench(fixedForm());
  TreeModel model;
  for (std::uint32_t i = 1; i <= 100; ++i) {
    ASSERT_TRUE(bench.insert(number(i), i).ok());
    model[number(i)] = i;
  }
  const Words key = bench.encode(number(50));
  EXPECT_TRUE(bplusReplaceID(bench.tree(), key.data(), 49, 500).is(Own::keyNotFound));
  EXPECT_TRUE(bplusReplaceID(bench.tree(), bench.encode(number(101)).data(), 101, 500)
                  .is(Own::keyNotFound));
  ASSERT_TRUE(bplusReplaceID(bench.tree(), key.data(), 50, 500).ok());
  model[number(50)] = 500;
  bench.check(model);
}

TEST(BPlusTree, DroppedTreeGivesAllItsSpaceBack) {
  TreeBench bench(variableForm());
  for (std::uint32_t i = 1; i <= 500; ++i) ASSERT_TRUE(bench.insert(number(i), i).ok());
  ASSERT_TRUE(bplusDropTree(bench.tree()).ok());
  EXPECT_EQ(bench.root(), 0u);
  EXPECT_EQ(bench.manager->pages, nullptr);
}

// -- Against a model ------------------------------------------------------------------------------

TEST_P(BPlusTreeModel, RandomInsertsAndRemovesAgreeWithAMap) {
  const ModelCase& parameters = GetParam();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  TreeBench bench(parameters.form);
  TreeModel model;
  std::uint64_t nextId = 1;
  for (int phase = 0; phase < 6; ++phase) {
    const std::uint32_t removal = phase % 2 == 0 ? 25 : 80;
    for (int step = 0; step < 500; ++step) {
      const Words key = randomKey(random, parameters);
      const auto found = model.find(key);
      if (random() % 100 < removal) {
        const bool exact = found != model.end();
        const auto victim = exact || model.empty() ? found : model.lower_bound(key);
        if (victim == model.end()) continue;
        ASSERT_TRUE(bench.remove(victim->first, victim->second).ok());
        model.erase(victim);
      } else if (found == model.end()) {
        const std::uint64_t id = parameters.form.wideIds ? nextId++ << 33 | 1 : nextId++;
        ASSERT_TRUE(bench.insert(key, id).ok());
        model[key] = id;
      } else {
        ASSERT_TRUE(bench.insert(key, nextId).is(Own::keyExists));
      }
      if (step % 50 == 0) bench.check(model);
      if (::testing::Test::HasFailure()) return;
    }
    bench.check(model);
    for (const auto& [key, id] : model) {
      std::uint64_t found = 0;
      ASSERT_TRUE(bench.find(key, &found).ok());
      ASSERT_EQ(found, id);
    }
  }
  while (!model.empty()) {
    auto victim = model.begin();
    std::advance(victim, random() % model.size());
    ASSERT_TRUE(bench.remove(victim->first, victim->second).ok());
    model.erase(victim);
  }
  bench.check(model);
  if (parameters.form.file == PageFile::memory) {
    EXPECT_EQ(bench.manager->pages, nullptr);
  }
}

TEST_P(BPlusTreeModel, CursorWalksAsAMapDoes) {
  const ModelCase& parameters = GetParam();
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  TreeBench bench(parameters.form);
  TreeModel model;
  for (std::uint32_t i = 1; i <= 400; ++i) {
    const Words key = randomKey(random, parameters);
    if (model.count(key) != 0) continue;
    ASSERT_TRUE(bench.insert(key, i).ok());
    model[key] = i;
  }
  BPlusCursor cursor(bench.tree(), PageRole::node);
  const auto expect = [&](CZELTA::Mode mode, const Words& pivot, TreeModel::iterator expected) {
    ASSERT_TRUE(cursor.seek(mode, bench.encode(pivot).data()).ok());
    ASSERT_EQ(cursor.valid(), expected != model.end()) << mode;
    if (!cursor.valid()) return;
    EXPECT_EQ(cursor.objectID(), expected->second) << mode;
    EXPECT_EQ(bench.shape().compare(cursor.key(), bench.encode(expected->first).data()), 0);
  };
  const auto before = [&](TreeModel::iterator place) {
    return place == model.begin() ? model.end() : std::prev(place);
  };
  for (int i = 0; i < 300; ++i) {
    const Words pivot = randomKey(random, parameters);
    expect(CZELTA::ReadEqual, pivot, model.find(pivot));
    expect(CZELTA::ReadGreater, pivot, model.upper_bound(pivot));
    expect(CZELTA::ReadGreaterEqual, pivot, model.lower_bound(pivot));
    expect(CZELTA::ReadLess, pivot, before(model.lower_bound(pivot)));
    expect(CZELTA::ReadLessEqual, pivot, before(model.upper_bound(pivot)));
  }
  ASSERT_TRUE(cursor.seek(CZELTA::ReadFirst, nullptr).ok());
  for (const auto& [key, id] : model) {
    ASSERT_TRUE(cursor.valid());
    EXPECT_EQ(cursor.objectID(), id);
    ASSERT_TRUE(cursor.next(true).ok());
  }
  EXPECT_FALSE(cursor.valid());
  ASSERT_TRUE(cursor.seek(CZELTA::ReadLast, nullptr).ok());
  for (auto entry = model.rbegin(); entry != model.rend(); ++entry) {
    ASSERT_TRUE(cursor.valid());
    EXPECT_EQ(cursor.objectID(), entry->second);
    ASSERT_TRUE(cursor.next(false).ok());
  }
  EXPECT_FALSE(cursor.valid());
}

INSTANTIATE_TEST_SUITE_P(Forms, BPlusTreeModel, ::testing::ValuesIn(kModelCases),
                         [](const auto& tested) { return std::string(tested.param.name); });

// -- Damage ---------------------------------------------------------------------------------------

TEST(BPlusTreeDamage, EveryByteFlippedGivesACodeOrAnAnswerButNoHarm) {
  for (const bool variable : {false, true}) {
    TreeBench bench(variable ? variableForm() : fixedForm());
    TreeModel model;
    for (std::uint32_t i = 1; i <= 120; ++i) {
      ASSERT_TRUE(bench.insert(number(i * 2), i).ok());
      model[number(i * 2)] = i;
    }
    const TreeBench::Facts facts = bench.check(model);
    std::vector<std::uint64_t> nodes = {facts.branches.front(), facts.leaves.front(),
                                        facts.leaves[facts.leaves.size() / 2]};
    for (const std::uint64_t position : nodes) {
      const std::string whole = bench.node(position);
      for (std::size_t offset = 4; offset < whole.size(); ++offset) {
        for (const unsigned change : {0x01u, 0x80u, 0xFFu}) {
          const auto changed =
              static_cast<char>(static_cast<unsigned char>(whole[offset]) ^ change);
          bench.damage(position, offset, &changed, 1);
          std::uint64_t id = 0;
          bench.find(number(60), &id).ignore();
          BPlusCursor cursor(bench.tree(), PageRole::node);
          for (const bool up : {true, false}) {
            Result result = cursor.seek(up ? CZELTA::ReadFirst : CZELTA::ReadLast, nullptr);
            std::uint32_t steps = 0;
            while (result.ok() && cursor.valid() && steps < 100000) {
              result = cursor.next(up);
              ++steps;
            }
            EXPECT_LT(steps, 100000u) << "a walk without end";
          }
          clearError(bench.metaData);
          bench.damage(position, offset, &whole[offset], 1);
        }
      }
    }
    bench.check(model);
  }
}

TEST(BPlusTreeDamage, ChangesOfADamagedTreeGiveACode) {
  // Each time a tree of its own: a change of a damaged tree may leave anything.
  Random random(11);
  for (int round = 0; round < 300; ++round) {
    TreeBench bench(round % 2 != 0 ? variableForm() : fixedForm());
    for (std::uint32_t i = 1; i <= 60; ++i) ASSERT_TRUE(bench.insert(number(i * 2), i).ok());
    TreeBench::Facts facts;
    {
      TreeModel model;
      for (std::uint32_t i = 1; i <= 60; ++i) model[number(i * 2)] = i;
      facts = bench.check(model);
    }
    std::vector<std::uint64_t> nodes = facts.leaves;
    nodes.insert(nodes.end(), facts.branches.begin(), facts.branches.end());
    const std::uint64_t position = nodes[random() % nodes.size()];
    const std::size_t offset = 4 + random() % (bench.node(position).size() - 4);
    const auto byte = static_cast<char>(random());
    bench.damage(position, offset, &byte, 1);
    for (std::uint32_t i = 0; i < 200; ++i) {
      const std::uint32_t value = random() % 130;
      if (i % 2 == 0) {
        bench.insert(number(value), 1000 + i).ignore();
      } else {
        bench.remove(number(value), value / 2).ignore();
      }
      clearError(bench.metaData);
    }
    UInt64AVLTree* all = nullptr;
    for (std::uint64_t id = 1; id < 1300; id += 2) new UInt64AVLTree(all, id);
    bplusMerge(bench.tree(), {all, nullptr}, nullptr).ignore();
    bplusDropTree(bench.tree()).ignore();
    destroyAll(all);
    clearError(bench.metaData);
  }
}

TEST(BPlusTreeDamage, UnknownTagIsReportedWithTheIndex) {
  TreeBench bench(fixedForm());
  ASSERT_TRUE(bench.insert(number(1), 1).ok());
  bench.damage(bench.root(), 4, "xx", 2);
  std::uint64_t id = 0;
  EXPECT_TRUE(bench.find(number(1), &id).is(Own::bPlusTree));
  EXPECT_EQ(std::u16string(bench.metaData.errorMessage),
            u"Index 1 of T has become corrupted.\nB+Tree is no longer valid.");
  EXPECT_TRUE(bench.insert(number(2), 2).is(Own::bPlusTree));
  EXPECT_TRUE(bench.remove(number(1), 1).is(Own::bPlusTree));
  clearError(bench.metaData);
}

TEST(BPlusTreeDamage, KeyWalkPastItsZoneIsAFileCorruptCodeDuringAnInsert) {
  TreeBench bench(variableForm());
  ASSERT_TRUE(bench.insert({1}, 1).ok());
  const std::uint32_t length = 4000;
  bench.damage(bench.root(), 28, &length, 4);
  EXPECT_TRUE(bench.insert({2}, 2).isSystem(code::kFileCorrupt));
  EXPECT_TRUE(bench.remove({1}, 1).is(Own::variableLeaf));
  clearError(bench.metaData);
}

TEST(BPlusTreeDamage, WrongFreeWordsEndAMerge) {
  TreeBench bench(variableForm());
  ASSERT_TRUE(bench.insert({1}, 1).ok());
  const std::uint32_t freeWords = 1;
  bench.damage(bench.root(), 24, &freeWords, 4);
  UInt64AVLTree* all = nullptr;
  new UInt64AVLTree(all, 1);
  EXPECT_TRUE(bplusMerge(bench.tree(), {all, nullptr}, nullptr).isSystem(code::kBufferTooSmall));
  destroyAll(all);
  clearError(bench.metaData);
}

TEST(BPlusTreeDamage, BranchThatLeadsToItselfEndsEveryOperation) {
  TreeBench bench(fixedForm());
  for (std::uint32_t i = 1; i <= 200; ++i) ASSERT_TRUE(bench.insert(number(i), i).ok());
  const std::uint64_t root = bench.root();
  const std::string node = bench.node(root);
  for (std::size_t child = node.size() - 8; child > node.size() - 40; child -= 8) {
    bench.damage(root, child, &root, 8);
  }
  std::uint64_t id = 0;
  EXPECT_TRUE(bench.find(number(1), &id).is(Own::bPlusTree));
  EXPECT_TRUE(bench.insert(number(0), 1).is(Own::bPlusTree));
  EXPECT_TRUE(bench.remove(number(1), 1).is(Own::bPlusTree));
  UInt64AVLTree* all = nullptr;
  new UInt64AVLTree(all, 1);
  EXPECT_TRUE(bplusMerge(bench.tree(), {all, nullptr}, nullptr).is(Own::bPlusTree));
  destroyAll(all);
  clearError(bench.metaData);
}

}  // namespace
}  // namespace zelta::testing

#include "storage/trees/avl_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace zelta {
namespace {

/// Checks balances and returns the height.
template <class Node>
int checkBalances(const Node* node) {
  if (node == nullptr) return 0;
  const int left = checkBalances(node->left);
  const int right = checkBalances(node->right);
  EXPECT_EQ(node->balance, right - left);
  EXPECT_LE(std::abs(node->balance), 1);
  return 1 + std::max(left, right);
}

std::vector<std::uint64_t> keysOf(const UInt64AVLTree* root) {
  std::vector<std::uint64_t> keys(count(root));
  EXPECT_EQ(flatten(root, keys.data(), keys.data() + keys.size()), keys.data() + keys.size());
  return keys;
}

UInt64AVLTree* setOf(const std::vector<std::uint64_t>& keys) {
  UInt64AVLTree* root = nullptr;
  for (const std::uint64_t key : keys) new UInt64AVLTree(root, key);
  return root;
}

TEST(AvlTree, RandomInsertionsAndRemovalsAgreeWithAMultimap) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto random = [engine = std::mt19937(seed)]() mutable {
    return static_cast<std::uint32_t>(engine());
  };
  UInt64AVLTree* root = nullptr;
  std::multimap<std::uint64_t, UInt64AVLTree*> model;
  for (int step = 0; step < 20000; ++step) {
    const int height = step % 500 == 0 ? checkBalances(root) : -1;
    if (random() % 100 < (step < 10000 ? 60u : 40u) || model.empty()) {
      const std::uint64_t key = random() % 500;
      auto* node = new UInt64AVLTree;
      const int grew = insert(node, root, key);
      model.emplace(key, node);
      if (height >= 0) {
        ASSERT_EQ(checkBalances(root), height + grew);
      }
    } else {
      auto it = model.lower_bound(random() % 500);
      if (it == model.end()) it = model.begin();
      const int shrank = remove(it->second, root);
      delete it->second;
      model.erase(it);
      if (height >= 0) {
        ASSERT_EQ(checkBalances(root), height - shrank);
      }
    }
    if (step % 500 != 0) continue;
    std::vector<std::uint64_t> expected;
    for (const auto& [key, node] : model) expected.push_back(key);
    ASSERT_EQ(keysOf(root), expected);
    for (std::uint64_t key = 0; key < 500; key += 7) {
      const auto next = model.upper_bound(key);
      const UInt64AVLTree* found = findNext(root, key);
      ASSERT_EQ(found == nullptr ? 1000 : found->key, next == model.end() ? 1000 : next->first);
      const auto previous = model.lower_bound(key);
      const UInt64AVLTree* before = findPrevious(root, key);
      ASSERT_EQ(before == nullptr ? 1000 : before->key,
                previous == model.begin() ? 1000 : std::prev(previous)->first);
      ASSERT_EQ(find(root, key) != nullptr, model.count(key) != 0);
    }
  }
  destroyAll(root);
  EXPECT_EQ(root, nullptr);
}

TEST(AvlTree, EqualKeysAllStayInOrderOfAddressAndEachIsRemovedAlone) {
  UInt64AVLTree* root = nullptr;
  std::set<UInt64AVLTree*, std::less<>> nodes;
  for (int i = 0; i < 200; ++i) nodes.insert(new UInt64AVLTree(root, 7));
  while (!nodes.empty()) {
    std::vector<UInt64AVLTree*> flat(nodes.size());
    flatten(root, flat.data(), flat.data() + flat.size());
    ASSERT_TRUE(std::equal(flat.begin(), flat.end(), nodes.begin(), nodes.end()));
    UInt64AVLTree* victim = flat[flat.size() * 2 / 3];
    remove(victim, root);
    nodes.erase(victim);
    delete victim;
    checkBalances(root);
  }
  EXPECT_EQ(root, nullptr);
}

TEST(AvlTree, RemovingFromAnEmptyTreeOrAStrangerChangesNothing) {
  UInt64AVLTree* root = nullptr;
  UInt64AVLTree stranger;
  stranger.key = 2;
  EXPECT_EQ(remove(&stranger, root), 0);
  root = setOf({1, 2, 3});
  EXPECT_EQ(remove(&stranger, root), 0);
  EXPECT_EQ(keysOf(root), (std::vector<std::uint64_t>{1, 2, 3}));
  destroyAll(root);
}

TEST(AvlTree, RemovingTheRootOfTwoLeavesTheOtherWithBalanceZero) {
  for (const std::uint64_t other : {1u, 9u}) {
    UInt64AVLTree* root = setOf({5, other});
    UInt64AVLTree* top = root;
    EXPECT_EQ(top->key, 5u);
    EXPECT_EQ(remove(top, root), 1);
    delete top;
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->key, other);
    EXPECT_EQ(root->balance, 0);
    destroyAll(root);
  }
}

TEST(AvlTree, NextOfTheGreatestIsNullAndOfAnAbsentKeyTheNextGreater) {
  UInt64AVLTree* root = setOf({10, 20, 30});
  EXPECT_EQ(findNext(root, 30), nullptr);
  EXPECT_EQ(findNext(root, 99), nullptr);
  EXPECT_EQ(findNext(root, 11)->key, 20u);
  EXPECT_EQ(findPrevious(root, 10), nullptr);
  EXPECT_EQ(findPrevious(root, 29)->key, 20u);
  destroyAll(root);
}

TEST(AvlTree, FlattenStopsAtTheEndOfTheArray) {
  UInt64AVLTree* root = setOf({4, 2, 6, 1, 3});
  std::uint64_t keys[4] = {0, 0, 0, 77};
  EXPECT_EQ(flatten(root, keys, keys + 3), keys + 3);
  EXPECT_EQ(keys[2], 3u);
  EXPECT_EQ(keys[3], 77u);
  destroyAll(root);
}

struct Counted : UInt64AVLTree {
  explicit Counted(int& c) : alive(c) { ++alive; }
  ~Counted() override { --alive; }
  int& alive;
};

TEST(AvlTree, SetOperationsAgreeWithSetsAndDestroyEveryOtherNode) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto random = [engine = std::mt19937(seed)]() mutable {
    return static_cast<std::uint32_t>(engine());
  };
  for (int round = 0; round < 200; ++round) {
    int alive = 0;
    UInt64AVLTree* trees[2] = {nullptr, nullptr};
    std::set<std::uint64_t> sets[2];
    for (int side = 0; side < 2; ++side) {
      for (unsigned i = random() % 60; i-- > 0;) {
        const std::uint64_t key = random() % 80;
        if (sets[side].insert(key).second) insert(new Counted(alive), trees[side], key);
      }
    }
    std::vector<std::uint64_t> expected;
    const auto out = std::back_inserter(expected);
    UInt64AVLTree* result = nullptr;
    switch (round % 4) {
      case 0:
        addAll(trees[0], trees[1]);
        std::set_union(sets[0].begin(), sets[0].end(), sets[1].begin(), sets[1].end(), out);
        result = trees[0];
        break;
      case 1:
        subtractAll(trees[0], trees[1]);
        std::set_difference(sets[0].begin(), sets[0].end(), sets[1].begin(), sets[1].end(), out);
        result = trees[0];
        break;
      case 2:
        toggleAll(trees[0], trees[1]);
        std::set_symmetric_difference(sets[0].begin(), sets[0].end(), sets[1].begin(),
                                      sets[1].end(), out);
        result = trees[0];
        break;
      default:
        result = intersect(trees[0], trees[1]);
        EXPECT_EQ(trees[0], nullptr);
        std::set_intersection(sets[0].begin(), sets[0].end(), sets[1].begin(), sets[1].end(), out);
    }
    EXPECT_EQ(trees[1], nullptr);
    ASSERT_EQ(keysOf(result), expected);
    ASSERT_EQ(alive, static_cast<int>(expected.size()));
    checkBalances(result);
    destroyAll(result);
    EXPECT_EQ(alive, 0);
  }
}

TEST(AvlTree, MergeMovesEveryNodeOfThe32BitFamily) {
  UInt32AVLTree* target = nullptr;
  UInt32AVLTree* source = nullptr;
  for (std::uint32_t i = 0; i < 100; ++i) {
    insert(new UInt32AVLTree, i % 3 == 0 ? target : source, i * 7 % 100);
  }
  mergeInto(target, source);
  EXPECT_EQ(source, nullptr);
  ASSERT_EQ(count(target), 100u);
  UInt32AVLTree* flat[100];
  flatten(target, flat, flat + 100);
  for (std::uint32_t i = 0; i < 100; ++i) EXPECT_EQ(flat[i]->key, i);
  checkBalances(target);
  destroyAll(target);
}

ObjectKeyNode* objectNode(std::vector<std::uint32_t>& key, std::uint64_t objectID) {
  auto* node = new ObjectKeyNode;
  node->key = key.data();
  node->objectID = objectID;
  return node;
}

void destroyNodes(ObjectKeyNode* node) {
  if (node == nullptr) return;
  destroyNodes(node->left);
  destroyNodes(node->right);
  delete node;
}

TEST(ObjectKeys, EqualKeysAscendByObjectAndIdZeroMeansAnyOfThem) {
  const KeyShape shape{2};
  std::vector<std::uint32_t> key{1, 2};
  std::vector<std::uint32_t> other{1, 3};
  ObjectKeyNode* root = nullptr;
  for (const std::uint64_t id : {5u, 3u, 9u, 1u, 7u}) insert(objectNode(key, id), root, shape);
  insert(objectNode(other, 2), root, shape);
  ObjectKeyNode* flat[6];
  flatten(root, flat, flat + 6);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(flat[i]->objectID, static_cast<std::uint64_t>(2 * i + 1));
  EXPECT_EQ(compareKeys(shape, find(root, shape, key.data(), 0)->key, key.data()), 0);
  EXPECT_EQ(find(root, shape, key.data(), 9)->objectID, 9u);
  EXPECT_EQ(find(root, shape, key.data(), 2), nullptr);
  EXPECT_EQ(findNext(root, shape, key.data())->objectID, 2u);
  EXPECT_EQ(findPrevious(root, shape, other.data())->objectID, 9u);
  EXPECT_EQ(findFirst(root)->objectID, 1u);
  destroyNodes(root);
}

TEST(ObjectKeys, TagsAreSetThroughoutAndFoundNodeFirst) {
  const KeyShape shape{1};
  std::vector<std::vector<std::uint32_t>> keys;
  for (std::uint32_t i = 0; i < 10; ++i) keys.push_back({i});
  ObjectKeyNode* root = nullptr;
  ObjectKeyNode* source = nullptr;
  for (std::uint32_t i = 0; i < 10; ++i) {
    insert(objectNode(keys[i], i + 1), i < 6 ? root : source, shape);
  }
  mergeInto(root, source, shape);
  EXPECT_EQ(count(root), 10u);
  checkBalances(root);
  setTagAll(root, 4);
  EXPECT_EQ(findByTag(root, 4), root);
  setTagAll(root, 0);
  find(root, shape, keys[9].data(), 10)->tag = 8;
  EXPECT_EQ(findByTag(root, 8)->objectID, 10u);
  EXPECT_EQ(findByTag(root, 9), nullptr);
  destroyNodes(root);
}

TEST(ObjectKeys, AVariableKeyThatBeginsAnotherSortsBeforeIt) {
  const KeyShape variable{0};
  const std::uint32_t shorter[] = {2, 50};
  const std::uint32_t longer[] = {3, 50, 0};
  const std::uint32_t lower[] = {4, 49, 9, 9};
  EXPECT_EQ(compareKeys(variable, shorter, longer), -1);
  EXPECT_EQ(compareKeys(variable, longer, shorter), 1);
  EXPECT_EQ(compareKeys(variable, lower, shorter), -1);
  EXPECT_EQ(compareKeys(variable, longer, longer), 0);
}

TEST(ObjectKeys, FixedWordsCompareUnsigned) {
  const std::uint32_t low[] = {1, 0xFFFFFFFF};
  const std::uint32_t high[] = {0x80000000, 0};
  EXPECT_EQ(compareKeys(KeyShape{2}, low, high), -1);
  EXPECT_EQ(compareKeys(KeyShape{2}, high, low), 1);
}

TEST(Words, EightBitWordsSortByUnsignedBytesAndWideOnesByUnits) {
  AsciiKeyNode* ascii = nullptr;
  for (const char* text : {"b", "\xC3\xA4", "a", "ab", ""}) {
    auto* node = new AsciiKeyNode;
    node->key = strdup(text);
    insert(node, ascii);
  }
  EXPECT_EQ(count(ascii), 5u);
  EXPECT_STREQ(findNext(ascii, "")->key, "a");
  EXPECT_STREQ(findNext(ascii, "a")->key, "ab");
  EXPECT_STREQ(findNext(ascii, "b")->key, "\xC3\xA4");
  EXPECT_STREQ(findPrevious(ascii, "b")->key, "ab");
  EXPECT_EQ(find(ascii, "c"), nullptr);
  AsciiKeyNode* node = find(ascii, "ab");
  remove(node, ascii);
  std::free(node->key);
  delete node;
  EXPECT_EQ(find(ascii, "ab"), nullptr);
  destroyAll(ascii);

  WideKeyNode* wide = nullptr;
  for (const char16_t* text : {u"z", u"\xFFFD", u"\xD800\xDC00", u"za"}) {
    const std::u16string copy = text;
    auto* wideNode = new WideKeyNode;
    wideNode->key = static_cast<char16_t*>(std::malloc((copy.size() + 1) * 2));
    std::memcpy(wideNode->key, copy.c_str(), (copy.size() + 1) * 2);
    insert(wideNode, wide);
  }
  EXPECT_EQ(std::u16string(findNext(wide, u"z")->key), u"za");
  EXPECT_EQ(std::u16string(findNext(wide, u"za")->key), u"\xD800\xDC00");
  EXPECT_EQ(std::u16string(findPrevious(wide, u"\xFFFF")->key), u"\xFFFD");
  destroyAll(wide);
  EXPECT_EQ(wide, nullptr);
}

}  // namespace
}  // namespace zelta

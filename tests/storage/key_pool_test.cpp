#include "storage/trees/key_pool.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace zelta {
namespace {

TEST(KeyPool, ASpareFixedBufferIsGivenOutAgainWithItsLastWordZero) {
  KeyPool pool;
  std::uint32_t* key = pool.takeFixed(3);
  key[0] = key[1] = key[2] = 9;
  pool.releaseFixed(key);
  EXPECT_EQ(pool.takeFixed(3), key);
  EXPECT_EQ(key[2], 0u);
  pool.releaseFixed(key);
}

TEST(KeyPool, ASeventeenthFixedBufferIsFreed) {
  KeyPool pool;
  std::vector<std::uint32_t*> keys;
  for (int i = 0; i < 17; ++i) keys.push_back(pool.takeFixed(2));
  for (std::uint32_t* key : keys) pool.releaseFixed(key);
  std::set<std::uint32_t*> spare;
  for (int i = 0; i < 16; ++i) spare.insert(pool.takeFixed(2));
  EXPECT_EQ(spare, std::set<std::uint32_t*>(keys.begin(), keys.begin() + 16));
  for (std::uint32_t* key : spare) pool.releaseFixed(key);
}

TEST(KeyPool, ASeventeenthVariableBufferReplacesTheSmallestOnlyIfItIsLarger) {
  KeyPool pool;
  std::vector<std::uint32_t*> keys;
  for (std::uint32_t i = 0; i < 16; ++i) keys.push_back(pool.takeVariable(10 + i));
  std::uint32_t* small = pool.takeVariable(10);
  std::uint32_t* large = pool.takeVariable(40);
  for (std::uint32_t* key : keys) pool.releaseVariable(key);
  pool.releaseVariable(small);  // ties keep the older one
  std::uint32_t* ten = pool.takeVariable(10);
  EXPECT_EQ(ten, keys[0]);
  pool.releaseVariable(ten);
  pool.releaseVariable(large);
  EXPECT_EQ(pool.takeVariable(40), large);
  pool.releaseVariable(large);
  std::set<std::uint32_t*> spare;
  for (int i = 0; i < 16; ++i) spare.insert(pool.takeVariable(1));
  EXPECT_EQ(spare.count(keys[0]), 0u) << "the smallest had to go";
  EXPECT_EQ(spare.count(large), 1u);
  for (std::uint32_t* key : spare) pool.releaseVariable(key);
}

TEST(KeyPool, AVariableBufferIsTakenOnlyIfItIsLargeEnough) {
  KeyPool pool;
  std::uint32_t* small = pool.takeVariable(4);
  EXPECT_EQ(small[-1], 16u) << "the capacity in bytes stands in front of the key";
  pool.releaseVariable(small);
  std::uint32_t* large = pool.takeVariable(5);
  EXPECT_NE(large, small);
  EXPECT_EQ(large[4], 0u);
  EXPECT_EQ(pool.takeVariable(2), small);
  pool.releaseVariable(small);
  pool.releaseVariable(large);
}

TEST(KeyPool, CopiesHaveTheLengthOfTheirShape) {
  KeyPool fixed;
  const std::uint32_t words[] = {3, 7, 8};
  std::uint32_t* copy = fixed.copy(KeyShape{3}, words);
  EXPECT_EQ(compareKeys(KeyShape{3}, copy, words), 0);
  fixed.release(KeyShape{3}, copy);
  fixed.release(KeyShape{3}, nullptr);
  KeyPool variable;
  copy = variable.copy(KeyShape{0}, words);
  EXPECT_EQ(compareKeys(KeyShape{0}, copy, words), 0);
  variable.release(KeyShape{0}, copy);
}

TEST(KeyNodePool, NodesComeBackWithAllFieldsZeroAndTheirKeysGoToTheIndex) {
  const KeyShape shape{2};
  KeyPool keys;
  KeyNodePool nodes;
  ObjectKeyNode* node = nodes.take();
  node->key = keys.takeFixed(2);
  node->tag = 4;
  node->extra = 5;
  node->objectID = 6;
  std::uint32_t* key = node->key;
  nodes.release(keys, shape, node);
  EXPECT_EQ(keys.takeFixed(2), key);
  EXPECT_EQ(nodes.take(), node);
  EXPECT_EQ(node->key, nullptr);
  EXPECT_EQ(node->tag, 0u);
  EXPECT_EQ(node->extra, 0u);
  EXPECT_EQ(node->objectID, 0u);
  node->key = key;
  nodes.release(keys, shape, node);
}

TEST(KeyNodePool, AWholeTreeIsReleasedAndEightyNodesAreKept) {
  const KeyShape shape{1};
  KeyPool keys;
  KeyNodePool nodes;
  ObjectKeyNode* root = nullptr;
  std::set<ObjectKeyNode*> made;
  for (std::uint32_t i = 0; i < 100; ++i) {
    ObjectKeyNode* node = nodes.take();
    node->key = keys.takeFixed(1);
    node->key[0] = i;
    node->objectID = i + 1;
    insert(node, root, shape);
    made.insert(node);
  }
  nodes.releaseTree(keys, shape, root);
  EXPECT_EQ(root, nullptr);
  std::set<ObjectKeyNode*> spare;
  for (int i = 0; i < 80; ++i) {
    ObjectKeyNode* node = nodes.take();
    EXPECT_EQ(made.count(node), 1u);
    spare.insert(node);
  }
  EXPECT_EQ(spare.size(), 80u);
  for (ObjectKeyNode* node : spare) nodes.release(keys, shape, node);
}

}  // namespace
}  // namespace zelta

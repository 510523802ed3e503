#include "storage/trees/key_pool.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>

#include "storage/trees/avl_detail.h"

namespace zelta {

namespace {

std::uint32_t* allocateWords(std::uint64_t words) {
  void* memory = std::malloc(words * sizeof(std::uint32_t));
  if (memory == nullptr) throw std::bad_alloc();
  return static_cast<std::uint32_t*>(memory);
}

/// Bytes of a variable key's buffer, which stand in front of the key.
std::uint32_t& capacityOf(std::uint32_t* key) { return key[-1]; }

}  // namespace

KeyPool::~KeyPool() {
  for (std::size_t i = 0; i < used_; ++i) freeBuffer(slots_[i]);
}

void KeyPool::freeBuffer(std::uint32_t* key) const { std::free(variable_ ? key - 1 : key); }

void KeyPool::removeSlot(std::size_t slot) { slots_[slot] = slots_[--used_]; }

std::uint32_t* KeyPool::takeFixed(std::uint32_t words) {
  const std::uint32_t atLeast = std::max(words, 1u);
  assert(used_ == 0 || !variable_);
  std::uint32_t* key = used_ != 0 ? slots_[--used_] : allocateWords(atLeast);
  key[atLeast - 1] = 0;
  return key;
}

void KeyPool::releaseFixed(std::uint32_t* key) {
  assert(key != nullptr && (used_ == 0 || !variable_));
  variable_ = false;
  if (used_ < slots_.size()) {
    slots_[used_++] = key;
  } else {
    freeBuffer(key);
  }
}

std::uint32_t* KeyPool::takeVariable(std::uint32_t words) {
  const std::uint64_t atLeast = std::max(words, 1u);
  assert(used_ == 0 || variable_);
  std::uint32_t* key = nullptr;
  for (std::size_t i = 0; i < used_ && key == nullptr; ++i) {
    if (capacityOf(slots_[i]) / sizeof(std::uint32_t) < atLeast) continue;
    key = slots_[i];
    removeSlot(i);
  }
  if (key == nullptr) {
    // The capacity in bytes has 32 bits as well.
    if (atLeast > 0xFFFFFFFF / sizeof(std::uint32_t)) throw std::bad_alloc();
    key = allocateWords(atLeast + 1) + 1;
    capacityOf(key) = static_cast<std::uint32_t>(atLeast * sizeof(std::uint32_t));
  }
  key[atLeast - 1] = 0;
  return key;
}

void KeyPool::releaseVariable(std::uint32_t* key) {
  assert(key != nullptr && (used_ == 0 || variable_));
  variable_ = true;
  if (used_ < slots_.size()) {
    slots_[used_++] = key;
    return;
  }
  auto* smallest = std::min_element(
      slots_.begin(), slots_.end(),
      [](std::uint32_t* a, std::uint32_t* b) { return capacityOf(a) < capacityOf(b); });
  if (capacityOf(*smallest) < capacityOf(key)) std::swap(*smallest, key);
  freeBuffer(key);
}

void KeyPool::release(KeyShape shape, std::uint32_t* key) {
  if (key == nullptr) return;
  if (shape.variable()) {
    releaseVariable(key);
  } else {
    releaseFixed(key);
  }
}

std::uint32_t* KeyPool::copy(KeyShape shape, const std::uint32_t* key) {
  const std::uint32_t words = shape.variable() ? key[0] : shape.words;
  std::uint32_t* result = take(shape, words);
  std::memcpy(result, key, std::uint64_t{words} * sizeof(std::uint32_t));
  return result;
}

KeyNodePool::~KeyNodePool() {
  for (std::size_t i = 0; i < used_; ++i) delete slots_[i];
}

ObjectKeyNode* KeyNodePool::take() {
  if (used_ == 0) return new ObjectKeyNode;
  ObjectKeyNode* node = slots_[--used_];
  *node = ObjectKeyNode();
  return node;
}

void KeyNodePool::release(KeyPool& keys, KeyShape shape, ObjectKeyNode* node) {
  assert(node != nullptr);
  keys.release(shape, node->key);
  node->key = nullptr;
  if (used_ < slots_.size()) {
    slots_[used_++] = node;
  } else {
    delete node;
  }
}

void KeyNodePool::releaseTree(KeyPool& keys, KeyShape shape, ObjectKeyNode*& root) {
  avl::postOrder(avl::detachAll(root), [&](ObjectKeyNode* node) { release(keys, shape, node); });
}

}  // namespace zelta

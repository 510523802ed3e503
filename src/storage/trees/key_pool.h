// Spare key buffers and key nodes of a table, so that a steady stream of operations leaves the heap
// alone. Pools own what is released to them; what was taken belongs to the taker. Taking throws
// std::bad_alloc.

#ifndef ZELTA_STORAGE_TREES_KEY_POOL_H
#define ZELTA_STORAGE_TREES_KEY_POOL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "storage/trees/avl_tree.h"

namespace zelta {

/// Spare key buffers of one index. All keys of an index are of one shape, fixed or variable; the
/// two forms of the operations must not be mixed.
class KeyPool {
 public:
  KeyPool() = default;
  ~KeyPool();
  KeyPool(const KeyPool&) = delete;
  KeyPool& operator=(const KeyPool&) = delete;

  /// A buffer of `words` words, whose last word is 0.
  [[nodiscard]] std::uint32_t* takeFixed(std::uint32_t words);
  void releaseFixed(std::uint32_t* key);

  /// A buffer of at least `words` words; the capacity stands in front of the key. Its last word is
  /// 0.
  [[nodiscard]] std::uint32_t* takeVariable(std::uint32_t words);
  /// Keeps the 16 largest buffers seen.
  void releaseVariable(std::uint32_t* key);

  [[nodiscard]] std::uint32_t* take(KeyShape shape, std::uint32_t words) {
    return shape.variable() ? takeVariable(words) : takeFixed(words);
  }
  /// Null is ignored.
  void release(KeyShape shape, std::uint32_t* key);
  /// A copy of a key.
  [[nodiscard]] std::uint32_t* copy(KeyShape shape, const std::uint32_t* key);

 private:
  void removeSlot(std::size_t slot);
  void freeBuffer(std::uint32_t* key) const;

  std::array<std::uint32_t*, 16> slots_{};  ///< the first `used_` are filled
  std::size_t used_ = 0;
  bool variable_ = false;  ///< which form the slots hold; settled by the first release
};

/// A key from an index's pool, which goes back there.
class PooledKey {
 public:
  PooledKey() = default;
  ~PooledKey() { reset(); }
  PooledKey(const PooledKey&) = delete;
  PooledKey& operator=(const PooledKey&) = delete;

  /// Takes over a key of the pool, which may be null. The pool outlives this.
  void take(KeyPool& pool, KeyShape shape, std::uint32_t* key) {
    reset();
    pool_ = &pool;
    shape_ = shape;
    key_ = key;
  }
  void copy(KeyPool& pool, KeyShape shape, const std::uint32_t* key) {
    take(pool, shape, pool.copy(shape, key));
  }
  void reset() {
    if (key_ != nullptr) pool_->release(shape_, key_);
    key_ = nullptr;
  }
  [[nodiscard]] const std::uint32_t* get() const { return key_; }
  /// Gives the key up to whoever keeps it from now on.
  [[nodiscard]] std::uint32_t* release() { return std::exchange(key_, nullptr); }

 private:
  KeyPool* pool_ = nullptr;
  KeyShape shape_;
  std::uint32_t* key_ = nullptr;
};

/// Spare nodes of one table.
class KeyNodePool {
 public:
  KeyNodePool() = default;
  ~KeyNodePool();
  KeyNodePool(const KeyNodePool&) = delete;
  KeyNodePool& operator=(const KeyNodePool&) = delete;

  /// A node with all fields zero; from the heap if the pool is empty.
  [[nodiscard]] ObjectKeyNode* take();
  /// Gives the node's key to `keys`, then the node to the pool.
  void release(KeyPool& keys, KeyShape shape, ObjectKeyNode* node);
  /// The same for every node of a tree; sets the link to null.
  void releaseTree(KeyPool& keys, KeyShape shape, ObjectKeyNode*& root);

 private:
  std::array<ObjectKeyNode*, 80> slots_{};  ///< the first `used_` are filled
  std::size_t used_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_TREES_KEY_POOL_H

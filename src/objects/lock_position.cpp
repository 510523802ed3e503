#include "objects/lock_position.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>

#include "index/keys/keys.h"

namespace zelta {

namespace {

/// Whether the table orders its locks downwards.
bool descending(const Table& table) {
  return (table.schema->schemaFlags & CZELTA::SchemaLockDescending) != 0;
}

/// Key words that the position keeps; it outlives the table, so it owns a plain copy.
std::uint32_t* copyKey(KeyShape shape, const std::uint32_t* key) {
  const std::size_t bytes = std::size_t{shape.variable() ? key[0] : shape.words} * 4;
  void* copy = std::malloc(bytes == 0 ? 4 : bytes);
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, key, bytes);
  return static_cast<std::uint32_t*>(copy);
}

void dropLockKey(MetaData& metaData) {
  std::free(metaData.lockKey);
  metaData.lockKey = nullptr;
}

/// Whether `a` comes behind `b` in the order of locks.
bool further(const Table& table, int sign) { return descending(table) ? sign < 0 : sign > 0; }

}  // namespace

bool lockingIndex(const Table& table, std::uint32_t* index) {
  const std::uint32_t number = table.schema->lockIndex;
  if (number == 0 || number > table.indexCount) return false;
  *index = number - 1;
  return true;
}

void advanceLockPosition(const Table& table, std::uint64_t objectID, const std::uint32_t* key) {
  // A lock in a table that was passed already does not take the position back.
  if (table.metaData.lockOrderReached > table.tableLockOrder) return;
  const bool newTable = table.metaData.lockOrderReached < table.tableLockOrder;
  std::uint32_t index = 0;
  if (!lockingIndex(table, &index)) {
    dropLockKey(table.metaData);
    const std::uint64_t reached = table.metaData.lockObjectID;
    const bool ahead =
        reached == 0 || (descending(table) ? objectID < reached : objectID > reached);
    if (newTable || ahead) table.metaData.lockObjectID = objectID;
    table.metaData.lockOrderReached = table.tableLockOrder;
    return;
  }
  table.metaData.lockObjectID = 0;
  if (key == nullptr) return;
  const KeyShape shape = table.keyShape(index);
  if (!newTable && table.metaData.lockKey != nullptr &&
      !further(table, compareKeys(shape, key, table.metaData.lockKey))) {
    return;
  }
  // The copy first: it may throw, and the position stays then.
  std::uint32_t* copy = copyKey(shape, key);
  dropLockKey(table.metaData);
  table.metaData.lockKey = copy;
  table.metaData.lockOrderReached = table.tableLockOrder;
}

void noteObjectLocks(const Table& table, UInt64AVLTree* locked) {
  if (locked == nullptr) return;
  std::uint32_t index = 0;
  if (!lockingIndex(table, &index)) {
    const UInt64AVLTree* node = locked;
    while (UInt64AVLTree* next = descending(table) ? node->left : node->right) node = next;
    advanceLockPosition(table, node->key, nullptr);
    return;
  }
  if (table.metaData.lockOrderReached >= table.tableLockOrder) return;
  dropLockKey(table.metaData);
  table.metaData.lockObjectID = 0;
  table.metaData.lockOrderReached = table.tableLockOrder;
}

bool isAheadOfLockPosition(const Table& table, const std::uint32_t* key) {
  if (table.metaData.lockOrderReached < table.tableLockOrder || table.metaData.lockKey == nullptr)
    return true;
  if (table.metaData.lockOrderReached > table.tableLockOrder) return false;
  std::uint32_t index = 0;
  if (!lockingIndex(table, &index) || key == nullptr) return true;
  return further(table, compareKeys(table.keyShape(index), key, table.metaData.lockKey));
}

bool comparesLockKeys(const Table& table) {
  std::uint32_t index = 0;
  return table.metaData.lockOrderReached == table.tableLockOrder &&
         table.metaData.lockKey != nullptr && lockingIndex(table, &index);
}

Result makeLockKey(Table& table, ObjectBytes object, PooledKey& key) {
  std::uint32_t index = 0;
  const bool ordered = lockingIndex(table, &index);
  assert(ordered);
  if (!ordered) return {};
  std::uint32_t* made = nullptr;
  ZELTA_TRY(extractKey(table, index, {object}, &made));
  key.take(table.keyPool(index), table.keyShape(index), made);
  return {};
}

Result noteObjectLock(Table& table, std::uint64_t objectID, ObjectBytes object) {
  std::uint32_t index = 0;
  const std::uint32_t* key = nullptr;
  PooledKey first;
  if (lockingIndex(table, &index)) {
    if (table.multiEntry(index)) {
      ZELTA_TRY(makeLockKey(table, object, first));
      key = first.get();
    } else {
      ZELTA_TRY(currentKey(table, index, &key));
    }
  }
  advanceLockPosition(table, objectID, key);
  return {};
}

void dropLockPosition(MetaData& metaData) {
  dropLockKey(metaData);
  metaData.lockOrderReached = 0;
  metaData.lockObjectID = 0;
}

}  // namespace zelta

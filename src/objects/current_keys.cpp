#include "objects/current_keys.h"

#include <cassert>
#include <cstring>

#include "index/keys/keys.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

/// Objects above this size are not copied: their keys are made at once.
constexpr std::uint32_t kLargestCopy = 64 * 1024;

/// Whether extractKey() serves the index.
bool hasKeys(const Table& table, std::uint32_t index) {
  return !table.listKind(index) && table.index(index).segmentCount != 0;
}

/// The object that the cursors stand on.
struct CurrentVersion {
  std::uint64_t objectID;
  ObjectBytes object;
};

/// Gives a cursor all keys that a multi-entry index has of an object. The one equal to `matched`,
/// else the lowest, becomes the current one.
Result fillEntries(Table& table, std::uint32_t index, const CurrentVersion& version,
                   const std::uint32_t* matched, std::uint32_t* entry) {
  assert(table.multiEntry(index));
  IndexCursor& cursor = table.indexStates[index];
  const KeyShape shape = table.keyShape(index);
  RowPlaces rows;
  for (std::uint32_t number = 0;; ++number) {
    std::uint32_t* made = nullptr;
    ZELTA_TRY(extractKey(table, index, {version.object, number, &rows}, &made));
    if (made == nullptr) break;
    PooledKey key;
    key.take(table.keyPool(index), shape, made);
    ObjectKeyNode* node = table.nodePool.take();
    node->key = key.release();
    node->objectID = version.objectID;
    node->tag = number;
    insert(node, cursor.currentKeys, shape);
    if (matched == nullptr || compareKeys(shape, node->key, matched) != 0) continue;
    cursor.currentKey = node->key;
    if (entry != nullptr) *entry = number;
  }
  if (cursor.currentKey == nullptr && cursor.currentKeys != nullptr) {
    cursor.currentKey = findFirst(cursor.currentKeys)->key;
  }
  return {};
}

/// Makes the key that a cursor lacks, of an index with keys.
Result fillCursor(Table& table, std::uint32_t index, const CurrentVersion& version) {
  if (!hasKeys(table, index) || table.indexStates[index].currentKey != nullptr) return {};
  if (table.multiEntry(index)) {
    return fillEntries(table, index, version, nullptr, nullptr);
  }
  return extractKey(table, index, {version.object}, &table.indexStates[index].currentKey);
}

/// Lets the cursors make keys from this version: on demand from a copy, of a large object at once.
Result keepSource(Table& table, std::uint64_t objectID, ObjectBytes object) {
  table.keySourceID = 0;
  if (object.length <= kLargestCopy) {
    std::memcpy(table.keySource.reserve(object.length), object.data, object.length);
    table.keySourceLength = object.length;
    table.keySourceID = objectID;
    return {};
  }
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    ZELTA_TRY(fillCursor(table, i, {objectID, object}));
  }
  return {};
}

}  // namespace

Result refreshCurrentKeys(Table& table, std::uint64_t objectID, ObjectBytes object,
                          MatchedKey matched, std::uint32_t* entry) {
  table.releaseCurrentKeys();
  if (table.indexCount == 0) return {};
  if (matched.key != nullptr && matched.key->get() != nullptr) {
    if (table.multiEntry(matched.index)) {
      ZELTA_TRY(fillEntries(table, matched.index, {objectID, object}, matched.key->get(), entry));
    } else {
      table.indexStates[matched.index].currentKey = matched.key->release();
    }
  }
  return keepSource(table, objectID, object);
}

CurrentKeysChange::~CurrentKeysChange() {
  if (!made_) return;
  if (!kept_) {
    putBack();
    return;
  }
  for (Place& place : places_) {
    KeyPool& pool = table_.indexStates[place.index].keyPool;
    const KeyShape shape = table_.keyShape(place.index);
    if (place.keys != nullptr) {
      table_.nodePool.releaseTree(pool, shape, place.keys);  // owns the key too
    } else {
      pool.release(shape, place.key);
    }
  }
}

void CurrentKeysChange::takeOut() {
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    const IndexCursor& cursor = table_.indexStates[i];
    if (!table_.listKind(i)) places_.push_back({cursor.currentKey, cursor.currentKeys, i});
  }
  // Nothing throws from here on: the destructor puts back what is taken out.
  made_ = true;
  for (const Place& place : places_) {
    table_.indexStates[place.index].currentKey = nullptr;
    table_.indexStates[place.index].currentKeys = nullptr;
  }
  table_.keySource.swap(table_.otherKeySource);
  sourceLength_ = table_.keySourceLength;
  sourceID_ = std::exchange(table_.keySourceID, 0);
}

void CurrentKeysChange::putBack() noexcept {
  table_.releaseCurrentKeys();
  for (const Place& place : places_) {
    table_.indexStates[place.index].currentKey = place.key;
    table_.indexStates[place.index].currentKeys = place.keys;
  }
  table_.keySource.swap(table_.otherKeySource);
  table_.keySourceLength = sourceLength_;
  table_.keySourceID = sourceID_;
}

Result CurrentKeysChange::make(std::uint64_t objectID, ObjectBytes object) {
  assert(!made_);
  if (table_.indexCount == 0) return {};
  takeOut();
  for (const Place& place : places_) {
    if (place.keys == nullptr) continue;
    ZELTA_TRY(fillEntries(table_, place.index, {objectID, object}, place.key, nullptr));
  }
  return keepSource(table_, objectID, object);
}

Result currentKey(Table& table, std::uint32_t index, const std::uint32_t** key) {
  assert(index < table.indexCount);
  if (table.keySourceID != 0) {
    const ObjectBytes source{table.keySource.data(), table.keySourceLength};
    ZELTA_TRY(fillCursor(table, index, {table.keySourceID, source}));
  }
  *key = table.indexStates[index].currentKey;
  return {};
}

}  // namespace zelta

#include "objects/current_keys.h"

#include <cstring>

#include "index/keys.h"

namespace zelta {

namespace {

/// Objects above this size are not copied: their keys are made at once.
constexpr std::uint32_t kLargestCopy = 64 * 1024;

bool hasKeys(const Table& table, std::uint32_t index) {
  switch (table.index(index).indexKind) {
    case CZELTA::BPlusTree:
    case CZELTA::SpatialTree:
    case CZELTA::TemporalTree:
      return table.index(index).segmentCount != 0;
    default:
      return false;
  }
}

/// Gives a cursor all keys that a multi-entry index has of an object. The one equal to `matched`,
/// else the lowest, becomes the current one.
Result fillEntries(MetaData& metaData, Table& table, std::uint32_t index, const char* object,
                   std::uint32_t length, std::uint64_t objectID, const std::uint32_t* matched,
                   std::uint32_t* entry) {
  IndexCursor& cursor = table.indexStates[index];
  const KeyShape shape = table.keyShape(index);
  RowPlaces rows;
  for (std::uint32_t number = 0;; ++number) {
    std::uint32_t* made = nullptr;
    ZELTA_TRY(extractKey(metaData, table, index, number, &made, object, length, &rows));
    if (made == nullptr) break;
    PooledKey key;
    key.take(table, index, made);
    ObjectKeyNode* node = table.nodePool.take();
    node->key = key.release();
    node->objectID = objectID;
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

Result fillCursor(MetaData& metaData, Table& table, std::uint32_t index, const char* object,
                  std::uint32_t length, std::uint64_t objectID) {
  if (!hasKeys(table, index) || table.indexStates[index].currentKey != nullptr) return {};
  if (table.multiEntry(index)) {
    return fillEntries(metaData, table, index, object, length, objectID, nullptr, nullptr);
  }
  return extractKey(metaData, table, index, 0, &table.indexStates[index].currentKey, object,
                    length);
}

/// Lets the cursors make keys from this version: on demand from a copy, of a large object at once.
Result keepSource(MetaData& metaData, Table& table, std::uint64_t objectID, ObjectBytes object) {
  table.keySourceID = 0;
  if (object.length <= kLargestCopy) {
    std::memcpy(table.keySource.reserve(object.length), object.data, object.length);
    table.keySourceLength = object.length;
    table.keySourceID = objectID;
    return {};
  }
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    ZELTA_TRY(fillCursor(metaData, table, i, object.data, object.length, objectID));
  }
  return {};
}

/// Fills the cursor of a multi-entry index anew, and lets it stay at its key if that is there
/// still.
Result renewEntries(MetaData& metaData, Table& table, std::uint32_t index, std::uint64_t objectID,
                    ObjectBytes object) {
  IndexCursor& cursor = table.indexStates[index];
  struct OldKeys {
    ~OldKeys() { table.nodePool.releaseTree(pool, shape, nodes); }
    Table& table;
    KeyPool& pool;
    KeyShape shape;
    ObjectKeyNode* nodes;
  } old{table, cursor.keyPool, table.keyShape(index), std::exchange(cursor.currentKeys, nullptr)};
  const std::uint32_t* place = std::exchange(cursor.currentKey, nullptr);
  return fillEntries(metaData, table, index, object.data, object.length, objectID, place, nullptr);
}

}  // namespace

Result refreshCurrentKeys(MetaData& metaData, Table& table, std::uint64_t objectID,
                          ObjectBytes object, MatchedKey matched, std::uint32_t* entry) {
  table.releaseCurrentKeys();
  if (table.indexCount == 0) return {};
  if (matched.key != nullptr && matched.key->get() != nullptr) {
    if (table.multiEntry(matched.index)) {
      ZELTA_TRY(fillEntries(metaData, table, matched.index, object.data, object.length, objectID,
                            matched.key->get(), entry));
    } else {
      table.indexStates[matched.index].currentKey = matched.key->release();
    }
  }
  return keepSource(metaData, table, objectID, object);
}

Result renewCurrentKeys(MetaData& metaData, Table& table, std::uint64_t objectID,
                        ObjectBytes object) {
  if (table.indexCount == 0) return {};
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    IndexCursor& cursor = table.indexStates[i];
    if (table.listKind(i)) continue;
    if (cursor.currentKeys != nullptr) {
      ZELTA_TRY(renewEntries(metaData, table, i, objectID, object));
    } else {
      table.indexStates[i].keyPool.release(table.keyShape(i),
                                           std::exchange(cursor.currentKey, nullptr));
    }
  }
  return keepSource(metaData, table, objectID, object);
}

Result currentKey(MetaData& metaData, Table& table, std::uint32_t index,
                  const std::uint32_t** key) {
  if (table.keySourceID != 0) {
    ZELTA_TRY(fillCursor(metaData, table, index, table.keySource.data(), table.keySourceLength,
                         table.keySourceID));
  }
  *key = table.indexStates[index].currentKey;
  return {};
}

}  // namespace zelta

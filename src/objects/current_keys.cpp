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

}  // namespace

Result refreshCurrentKeys(MetaData& metaData, Table& table, std::uint64_t objectID,
                          MatchedKey matched, bool all, std::uint32_t* entry) {
  table.releaseCurrentKeys();
  table.keySourceID = 0;
  if (table.indexCount == 0) return {};
  if (matched.key != nullptr && matched.key->get() != nullptr) {
    if (table.multiEntry(matched.index)) {
      ZELTA_TRY(fillEntries(metaData, table, matched.index, table.objectData, table.objectLength,
                            objectID, matched.key->get(), entry));
    } else {
      table.indexStates[matched.index].currentKey = matched.key->release();
    }
  }
  if (!all && table.objectLength <= kLargestCopy) {
    std::memcpy(table.keySource.reserve(table.objectLength), table.objectData, table.objectLength);
    table.keySourceLength = table.objectLength;
    table.keySourceID = objectID;
    return {};
  }
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    ZELTA_TRY(fillCursor(metaData, table, i, table.objectData, table.objectLength, objectID));
  }
  return {};
}

Result currentKey(MetaData& metaData, Table& table, std::uint32_t index,
                  const std::uint32_t** key) {
  if (table.keySourceID != 0 && table.keySourceID == table.currentObjectID) {
    ZELTA_TRY(fillCursor(metaData, table, index, table.keySource.data(), table.keySourceLength,
                         table.keySourceID));
  }
  *key = table.indexStates[index].currentKey;
  return {};
}

Result completeCurrentKeys(MetaData& metaData, Table& table) {
  const std::uint32_t* key = nullptr;
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    ZELTA_TRY(currentKey(metaData, table, i, &key));
  }
  return {};
}

}  // namespace zelta

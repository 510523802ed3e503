#include "check/check_kinds.h"

#include "check/check_btree.h"
#include "check/check_rtree.h"
#include "index/keys/keys.h"

namespace zelta::check {

namespace {

constexpr KindCheck kKinds[] = {
    {CZELTA::BPlusTree, checkBPlusTree, makeKeys},
    {CZELTA::SpatialTree, checkSpatialTree, makeKeys},
    {CZELTA::TemporalTree, checkTemporalTree, makeKeys},
};

}  // namespace

const KindCheck* findKindCheck(const Table& table, std::uint32_t index) {
  for (const KindCheck& kind : kKinds) {
    if (table.index(index).indexKind == kind.number) return &kind;
  }
  return nullptr;
}

std::uint64_t hashKey(const std::uint32_t* key, std::uint32_t words) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
  std::uint64_t hash = words;
  for (std::uint32_t i = 0; i < words; ++i) {
    hash = (hash ^ key[i]) * kFactor;
    hash ^= hash >> 29;
  }
  return hash;
}

bool makeKeys(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys) {
  const bool many = table.multiEntry(index);
  const KeyShape shape = table.keyShape(index);
  for (std::uint32_t entry = 0; entry == 0 || many; ++entry) {
    std::uint32_t* key = nullptr;
    const Result made = extractKey(table, index, {{object.bytes, object.length}, entry}, &key);
    if (made.failed()) return false;
    if (key == nullptr) return many;
    keys.push_back(
        {hashKey(key, shape.variable() ? key[0] : shape.words), object.id, object.position});
    table.keyPool(index).release(shape, key);
  }
  return true;
}

}  // namespace zelta::check

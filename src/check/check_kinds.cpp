#include "check/check_kinds.h"

#include "check/check_btree.h"
#include "check/check_list.h"
#include "check/check_rtree.h"
#include "index/keys/keys.h"

namespace zelta::check {

namespace {

constexpr KindCheck kKinds[] = {
    {CZELTA::BPlusTree, true, checkBPlusTree, makeKeys},
    {CZELTA::SpatialTree, true, checkSpatialTree, makeKeys},
    {CZELTA::TemporalTree, true, checkTemporalTree, makeKeys},
    {CZELTA::SpatialPattern, false, checkPatternTree, makePoints},
    {CZELTA::AsciiList, false, checkAsciiList, makeAsciiWords},
    {CZELTA::WideList, false, checkWideList, makeWideWords},
};

constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;

std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  hash = (hash ^ word) * kFactor;
  return hash ^ (hash >> 29);
}

}  // namespace

const KindCheck* findKindCheck(const Table& table, std::uint32_t index) {
  for (const KindCheck& kind : kKinds) {
    if (table.index(index).indexKind == kind.number) return &kind;
  }
  return nullptr;
}

std::uint64_t hashKey(const std::uint32_t* key, std::uint32_t words) {
  std::uint64_t hash = words;
  for (std::uint32_t i = 0; i < words; ++i) hash = mix(hash, key[i]);
  return hash;
}

std::uint64_t hashKey(const char* key, std::size_t bytes) {
  std::uint64_t hash = bytes;
  for (std::size_t i = 0; i < bytes; ++i) hash = mix(hash, static_cast<unsigned char>(key[i]));
  return hash;
}

bool makeKeys(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys) {
  const bool many = table.multiEntry(index);
  const KeyShape shape = table.keyShape(index);
  KeySource from{{object.bytes, object.length}, 0};
  RowPlaces rows;
  from.rows = &rows;
  for (; from.entry == 0 || many; ++from.entry) {
    std::uint32_t* key = nullptr;
    const Result made = extractKey(table, index, from, &key);
    if (made.failed()) return false;
    if (key == nullptr) return many;
    keys.push_back(
        {hashKey(key, shape.variable() ? key[0] : shape.words), object.id, object.position});
    table.keyPool(index).release(shape, key);
  }
  return true;
}

}  // namespace zelta::check

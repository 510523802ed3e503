#include "check/check_kinds.h"

#include "check/check_btree.h"
#include "check/check_rtree.h"
#include "index/keys/keys.h"
#include "index/pattern/pattern_points.h"

namespace zelta::check {

namespace {

constexpr KindCheck kKinds[] = {
    {CZELTA::BPlusTree, true, checkBPlusTree, makeKeys},
    {CZELTA::SpatialTree, true, checkSpatialTree, makeKeys},
    {CZELTA::TemporalTree, true, checkTemporalTree, makeKeys},
    {CZELTA::SpatialPattern, false, checkPatternTree, makePoints},
};

constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;

std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  hash = (hash ^ word) * kFactor;
  return hash ^ (hash >> 29);
}

template <std::size_t Axes>
bool addPoints(const PatternField& field, const CheckedObject& object, CheckedKeys& keys) {
  const Result read = field.forEach<Axes>(
      {object.bytes, object.length}, [&](const PointBytes& points, std::uint32_t row) {
        for (std::uint64_t i = 0; i < points.count; ++i) {
          std::uint32_t key[Axes + 1];
          std::memcpy(key, points.first + i * Axes * sizeof *key, Axes * sizeof *key);
          key[Axes] = row;
          const std::uint32_t words = field.hasRows() ? Axes + 1 : Axes;
          keys.push_back({hashKey(key, words), object.id, object.position});
        }
        return true;
      });
  return read.ok();
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

bool makePoints(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys) {
  const PatternField field(table, index);
  if (!field.isFound()) return false;
  return field.type() == CZELTA::TypePoints2 ? addPoints<2>(field, object, keys)
                                             : addPoints<3>(field, object, keys);
}

}  // namespace zelta::check

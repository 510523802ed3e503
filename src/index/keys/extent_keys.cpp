#include "index/keys/extent_keys.h"

#include <algorithm>
#include <cstring>

#include "index/keys/object_values.h"

namespace zelta {

namespace {

template <typename Number>
Number load(const char* at) {
  Number number;
  std::memcpy(&number, at, sizeof number);
  return number;
}

void makeBox(const char* box, std::uint32_t words, std::uint32_t* key) {
  const std::uint32_t axes = words / 2;
  for (std::uint32_t a = 0; a < axes; ++a) {
    const auto first = load<std::int32_t>(box + 4 * std::size_t{a});
    const auto second = load<std::int32_t>(box + 4 * std::size_t{a + axes});
    key[a] = static_cast<std::uint32_t>(std::min(first, second));
    key[a + axes] = static_cast<std::uint32_t>(std::max(first, second));
  }
}

template <typename Number>
void normaliseSpan(const char* from, const char* to, std::uint32_t* key) {
  const Number ends[2] = {std::min(load<Number>(from), load<Number>(to)),
                          std::max(load<Number>(from), load<Number>(to))};
  std::memcpy(key, ends, sizeof ends);
}

void makeSpan(const char* from, const char* to, std::uint32_t words, std::uint32_t* key) {
  if (words == 2) {
    normaliseSpan<std::uint32_t>(from, to, key);
  } else {
    normaliseSpan<std::uint64_t>(from, to, key);
  }
}

/// The value of segment k in an object. Own code 39: no field has it.
Result findValue(const Table& table, const CZELTA::Schema::Index& index, std::uint32_t k,
                 const KeySource& from, SegmentValue* value) {
  FieldRef ref;
  if (!resolveField(*table.schema, index.segments[k].segmentField, &ref)) {
    return reportError(&table.metaData, Own::noObject);
  }
  *value = ObjectValues(table, from).field(ref);
  if (value->left < ref.value().fieldSize) *value = {};
  return {};
}

std::uint32_t* takeBuffer(const Table& table, std::uint32_t index) {
  return table.keyPool(index).takeFixed(table.index(index).keyWords);
}

}  // namespace

Result boxKeyOfObject(Table& table, std::uint32_t index, const KeySource& from,
                      std::uint32_t** key) {
  SegmentValue box;
  ZELTA_TRY(findValue(table, table.index(index), 0, from, &box));
  return box.at == nullptr ? Result{} : boxKeyOfValues(table, index, box.at, key);
}

Result boxKeyOfValues(Table& table, std::uint32_t index, const void* box, std::uint32_t** key) {
  *key = takeBuffer(table, index);
  makeBox(static_cast<const char*>(box), table.index(index).keyWords, *key);
  return {};
}

Result spanKeyOfObject(Table& table, std::uint32_t index, const KeySource& from,
                       std::uint32_t** key) {
  SegmentValue ends[2];
  for (std::uint32_t k = 0; k < 2; ++k) {
    ZELTA_TRY(findValue(table, table.index(index), k, from, &ends[k]));
    if (ends[k].at == nullptr) return {};
  }
  *key = takeBuffer(table, index);
  makeSpan(ends[0].at, ends[1].at, table.index(index).keyWords, *key);
  return {};
}

Result spanKeyOfValues(Table& table, std::uint32_t index, const void* span, std::uint32_t** key) {
  const std::uint32_t words = table.index(index).keyWords;
  const char* ends = static_cast<const char*>(span);
  *key = takeBuffer(table, index);
  makeSpan(ends, ends + std::size_t{words} * 2, words, *key);
  return {};
}

}  // namespace zelta

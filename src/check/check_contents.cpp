// The keys that the contents of an object make: points, and words.

#include <algorithm>
#include <string>

#include "check/check_kinds.h"
#include "index/pattern/pattern_points.h"
#include "index/words/object_words.h"

namespace zelta::check {

namespace {

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

/// A word is one key, however often and in whichever of the fields it stands.
template <typename Unit>
bool makeWords(const Table& table, std::uint32_t index, const CheckedObject& object,
               CheckedKeys& keys) {
  const WordFields fields(table, index);
  const ObjectBytes bytes = {object.bytes, object.length};
  std::string key;
  if (fields.check().failed() || fields.readPrefix(bytes, &key).failed()) return false;
  const std::size_t prefix = key.size();
  const auto first = static_cast<std::ptrdiff_t>(keys.size());
  WordMaker<Unit> maker;
  for (const WordFields::Segment& segment : fields.words()) {
    forEachWord<Unit>(fields, segment, bytes, maker, [&](std::basic_string_view<Unit> word) {
      key.resize(prefix);
      key.append(reinterpret_cast<const char*>(word.data()), word.size() * sizeof(Unit));
      keys.push_back({hashKey(key.data(), key.size()), object.id, object.position});
      return true;
    });
  }
  std::sort(keys.begin() + first, keys.end(), isBefore);
  const auto isSame = [](const CheckedKey& a, const CheckedKey& b) { return a.hash == b.hash; };
  keys.erase(std::unique(keys.begin() + first, keys.end(), isSame), keys.end());
  return true;
}

}  // namespace

bool makePoints(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys) {
  const PatternField field(table, index);
  if (!field.isFound()) return false;
  return field.type() == CZELTA::TypePoints2 ? addPoints<2>(field, object, keys)
                                             : addPoints<3>(field, object, keys);
}

bool makeAsciiWords(Table& table, std::uint32_t index, const CheckedObject& object,
                    CheckedKeys& keys) {
  return makeWords<char>(table, index, object, keys);
}

bool makeWideWords(Table& table, std::uint32_t index, const CheckedObject& object,
                   CheckedKeys& keys) {
  return makeWords<char16_t>(table, index, object, keys);
}

}  // namespace zelta::check

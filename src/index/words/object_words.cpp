#include "index/words/object_words.h"

#include <algorithm>

namespace zelta {

WordFields::WordFields(const Table& table, std::uint32_t index)
    : table_(table), prefixBytes_(table.index(index).listPrefixBytes) {
  const CZELTA::Schema::Index& definition = table.index(index);
  for (std::uint32_t i = 0; i < definition.segmentCount; ++i) {
    Segment segment{{}, definition.segments[i].segmentMode};
    if (!resolveField(*table.schema, definition.segments[i].segmentField, &segment.ref)) {
      sound_ = false;
      return;
    }
    const bool words = (segment.flags & CZELTA::SegmentWords) != 0;
    (words ? words_ : prefix_).push_back(segment);
  }
}

Result WordFields::check() const {
  return sound_ ? Result() : reportError(&table_.metaData, Own::unclassified, table_.cName());
}

Result WordFields::readPrefix(const ObjectBytes& object, std::string* prefix) const {
  prefix->clear();
  const KeySource from{object, 0};
  for (const Segment& segment : prefix_) {
    const std::uint32_t bytes = segment.ref.value().fieldSize;
    const SegmentValue value = ObjectValues(table_, from).field(segment.ref);
    if (value.at == nullptr || value.left < bytes) {
      return reportError(&table_.metaData, Own::noObject, table_.cName());
    }
    prefix->append(value.at, bytes);
  }
  const bool whole = prefix->size() == prefixBytes_;
  return whole ? Result() : reportError(&table_.metaData, Own::unclassified, table_.cName());
}

namespace {

/// Bytes up to the zero unit, or all if there is none.
std::uint64_t wideLength(const SegmentValue& value) {
  std::uint64_t length = 0;
  while (length + 2 <= value.left && (value.at[length] | value.at[length + 1]) != 0) length += 2;
  return length;
}

/// What stands behind a length that counts itself.
template <typename Length>
WordText behindLength(const SegmentValue& value) {
  if (value.left < sizeof(Length)) return {value.at, 0, false};
  const std::uint64_t size = std::min(claimedSize<Length>(value.at, value.left), value.left);
  return {value.at + sizeof(Length), size - sizeof(Length), false};
}

}  // namespace

WordText wordText(const CZELTA::Schema::Field& field, const SegmentValue& value) {
  switch (field.fieldType) {
    case CZELTA::TypeText: {
      const void* end = std::memchr(value.at, 0, value.left);
      const std::uint64_t length =
          end == nullptr ? value.left
                         : static_cast<std::uint64_t>(static_cast<const char*>(end) - value.at);
      return {value.at, length, false};
    }
    case CZELTA::TypeWideText:
      return {value.at, wideLength(value), true};
    case CZELTA::TypeShortBinary:
      return behindLength<std::uint16_t>(value);
    case CZELTA::TypeCharArray:
      return {value.at, std::min<std::uint64_t>(field.fieldSize, value.left), false};
    default:
      return behindLength<std::uint32_t>(value);
  }
}

}  // namespace zelta

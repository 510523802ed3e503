#include "schema/object_view.h"

#include <algorithm>
#include <cassert>

#include "schema/data_types.h"

namespace zelta {

namespace {

/// The object that is meant: without one, that in the table's buffer.
ObjectBytes meant(const Table& table, ObjectBytes object) {
  return {object.data != nullptr ? object.data : table.objectData,
          object.length != 0 ? object.length : table.objectLength};
}

}  // namespace

const char* fieldAddress(const Table& table, std::uint32_t field, ObjectBytes object) {
  assert(field < table.schema->fieldCount);
  const auto [bytes, length] = meant(table, object);
  const CZELTA::Schema::Field* fields = table.schema->fields;
  if (!isVariableType(fields[field].fieldType)) {
    return bytes + table.headerSize() + fields[field].fieldOffset;
  }
  std::uint64_t position = table.fixedAreaSize;
  for (std::uint32_t f = table.firstVariableField; f < field; ++f) {
    if (position > length || isPoints(fields[f].fieldType)) return nullptr;
    const std::uint64_t size = valueSize(fields[f].fieldType, bytes + position, length - position);
    if (size == kPastEnd) {
      // A text without its end takes all that is left.
      const std::uint32_t type = fields[f].fieldType;
      const bool text = type == CZELTA::TypeText ||
                        (type == CZELTA::TypeWideText && (length - position) % 2 == 0);
      if (!text) return nullptr;
      position = length;
    } else {
      position += size;
    }
  }
  return position > length ? nullptr : bytes + position;
}

std::uint64_t rowSize(const CZELTA::Schema::Field& field, const char* row, std::uint64_t left,
                      std::uint32_t* seen) {
  std::uint64_t position = 0;
  for (*seen = 0; *seen < field.subFieldCount; ++*seen) {
    const CZELTA::Schema::Field& sub = field.subFields[*seen];
    if (!isVariableType(sub.fieldType)) {
      const std::uint64_t end = std::uint64_t{sub.fieldOffset} + sub.fieldSize;
      if (end > left) return left;
      position = end;
      continue;
    }
    position = std::max<std::uint64_t>(position, sub.fieldOffset);
    if (position > left) return left;
    const std::uint64_t size = valueSize(sub.fieldType, row + position, left - position);
    if (size == kPastEnd) return left;
    position += size;
  }
  return position;
}

namespace {

/// Address of a sub-field in a row that `left` bytes bound.
const char* inRow(const CZELTA::Schema::Field& field, std::uint32_t subField, const char* row,
                  std::uint64_t left) {
  std::uint64_t position = 0;
  for (std::uint32_t s = 0;; ++s) {
    const CZELTA::Schema::Field& sub = field.subFields[s];
    const bool variable = isVariableType(sub.fieldType);
    position = variable ? std::max<std::uint64_t>(position, sub.fieldOffset) : sub.fieldOffset;
    const std::uint64_t fixedSize = variable ? 0 : sub.fieldSize;
    if (position >= left || position + fixedSize > left) return nullptr;
    if (s == subField) return row + position;
    const std::uint64_t size =
        variable ? valueSize(sub.fieldType, row + position, left - position) : fixedSize;
    if (size == kPastEnd) return nullptr;
    position += size;
  }
}

/// The first row of a field; null if it has none.
RowPlaces::Place firstRow(const Table& table, std::uint32_t field, ObjectBytes object) {
  RowPlaces::Place place;
  const char* start = fieldAddress(table, field, object);
  if (start == nullptr) return place;
  std::uint64_t left = object.length - static_cast<std::uint64_t>(start - object.data);
  if (left < 4) return place;
  std::uint32_t size = 0;
  std::memcpy(&size, start, 4);
  left = std::min<std::uint64_t>(left, size);
  if (left <= 4) return place;
  return {field, 0, start + 4, left - 4};
}

}  // namespace

RowPlaces::Place& RowPlaces::of(std::uint32_t field) {
  for (Place& place : places_) {
    if (place.at == nullptr || place.field == field) return place;
  }
  return places_[field % places_.size()];
}

const char* subFieldAddress(const Table& table, const SubFieldPlace& wanted, ObjectBytes object,
                            RowPlaces* places) {
  RowPlaces::Place place;
  if (places != nullptr) place = places->of(wanted.field);
  if (place.at == nullptr || place.field != wanted.field || place.row > wanted.subRecord) {
    place = firstRow(table, wanted.field, meant(table, object));
    if (place.at == nullptr) return nullptr;
  }
  const CZELTA::Schema::Field& definition = table.schema->fields[wanted.field];
  assert(wanted.subField < definition.subFieldCount);
  for (; place.row < wanted.subRecord; ++place.row) {
    std::uint32_t seen = 0;
    const std::uint64_t step = rowSize(definition, place.at, place.left, &seen);
    if (step == 0 || step >= place.left) return nullptr;
    place.at += step;
    place.left -= step;
  }
  if (places != nullptr) places->of(wanted.field) = place;
  return inRow(definition, wanted.subField, place.at, place.left);
}

}  // namespace zelta

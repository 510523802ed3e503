#include "check/check_object.h"

#include <algorithm>
#include <cstring>

namespace zelta::check {

namespace {

using Field = CZELTA::Schema::Field;

/// A stretch of an object, in which a walk goes on.
struct Stretch {
  const char* object;
  std::uint64_t at;
  std::uint64_t end;
  [[nodiscard]] std::uint64_t left() const { return end - at; }
};

bool isVariable(const Field& field) { return field.fieldType % 2 == 0; }

/// Bytes of a text of characters of `width` bytes with its end; 0 if it has none.
std::uint64_t textBytes(const Stretch& place, std::uint64_t width) {
  for (std::uint64_t at = place.at; at + width <= place.end; at += width) {
    const char* unit = place.object + at;
    if (std::all_of(unit, unit + width, [](char byte) { return byte == 0; })) {
      return at + width - place.at;
    }
  }
  return 0;
}

/// Bytes of a value that begins with its own length, in `width` bytes; 0 if it is not whole.
std::uint64_t countedBytes(const Stretch& place, std::uint64_t width) {
  if (place.left() < width) return 0;
  std::uint64_t length = 0;
  std::memcpy(&length, place.object + place.at, width);
  length = std::max(length, width);
  return length <= place.left() ? length : 0;
}

/// Bytes of the value of a variable field; 0 if it is not whole, or of no known type.
std::uint64_t valueBytes(const Field& field, const Stretch& place) {
  switch (field.fieldType) {
    case CZELTA::TypeText:
      return textBytes(place, 1);
    case CZELTA::TypeWideText:
      return textBytes(place, 2);
    case CZELTA::TypeShortBinary:
      return countedBytes(place, 2);
    case CZELTA::TypeBinary:
    case CZELTA::TypePoints2:
    case CZELTA::TypePoints3:
    case CZELTA::TypeSubRecords:
      return countedBytes(place, 4);
    default:
      return 0;
  }
}

bool isWholePoints(const Field& field, std::uint64_t bytes, const Stretch& place) {
  const std::uint64_t point = field.fieldType == CZELTA::TypePoints2   ? 8
                              : field.fieldType == CZELTA::TypePoints3 ? 12
                                                                       : 1;
  std::uint32_t length = 0;
  if (point == 1) return true;
  std::memcpy(&length, place.object + place.at, 4);
  return length == 0 || (length >= 4 && (bytes - 4) % point == 0);
}

std::optional<ObjectFault> stepOver(const Field& field, Stretch& place) {
  const std::uint64_t bytes = valueBytes(field, place);
  if (bytes == 0) return ObjectFault{place.at, "variable field passes the end"};
  if (!isWholePoints(field, bytes, place)) return ObjectFault{place.at, "parts of a point"};
  place.at += bytes;
  return {};
}

std::optional<ObjectFault> stepOverRow(const Field& field, Stretch& rows) {
  const std::uint64_t start = rows.at;
  for (std::uint32_t s = 0; s < field.subFieldCount; ++s) {
    const Field& sub = field.subFields[s];
    const std::uint64_t from = start + sub.fieldOffset;
    if (isVariable(sub)) {
      rows.at = std::max(rows.at, from);
      if (rows.at > rows.end) return ObjectFault{start, "row passes the end of its field"};
      if (auto fault = stepOver(sub, rows)) return fault;
    } else {
      if (from > rows.end || sub.fieldSize > rows.end - from) {
        return ObjectFault{start, "row passes the end of its field"};
      }
      rows.at = from + sub.fieldSize;
    }
  }
  if (rows.at == start) return ObjectFault{start, "row without bytes"};
  return {};
}

std::optional<ObjectFault> checkRows(const Field& field, Stretch rows) {
  constexpr std::uint64_t kLengthWord = 4;
  rows.at += kLengthWord;
  while (rows.at < rows.end) {
    if (auto fault = stepOverRow(field, rows)) return fault;
  }
  return {};
}

}  // namespace

std::optional<ObjectFault> findFault(const ObjectForm& form, const char* object,
                                     std::uint64_t length) {
  if (length < form.fixedAreaSize) return ObjectFault{0, "object is shorter than its fixed fields"};
  Stretch place{object, form.fixedAreaSize, length};
  for (std::uint32_t f = 0; f < form.schema->fieldCount; ++f) {
    const Field& field = form.schema->fields[f];
    if (!isVariable(field)) continue;
    const std::uint64_t start = place.at;
    if (auto fault = stepOver(field, place)) return fault;
    if (field.fieldType != CZELTA::TypeSubRecords) continue;
    if (auto fault = checkRows(field, {object, start, place.at})) return fault;
  }
  if (place.at == length) return {};
  return ObjectFault{place.at, std::to_string(length - place.at) + " bytes behind the last field"};
}

}  // namespace zelta::check

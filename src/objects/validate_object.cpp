// Proving that an object is well formed before it is stored. What is stored is trusted by nobody
// either, but a table that only ever gets whole objects has no others.

#include "objects/validate_object.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <string>

#include "objects/object_buffer.h"
#include "schema/data_types.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

using Field = CZELTA::Schema::Field;

/// Goes through the variable fields in their order; the first one that is wrong is reported, with
/// the number that tells by how much.
class Validation {
 public:
  Validation(const Table& table, const char* object, std::uint32_t length)
      : metaData_(table.metaData), table_(table), object_(object), length_(length) {}

  Result run();

 private:
  [[nodiscard]] std::int64_t id() const {
    return static_cast<std::int64_t>(objectIdOf(table_, object_));
  }
  Result fail(Own code, const char16_t* name, std::int64_t number) {
    return reportError(&metaData_, code, table_.cName(), name, id(), number);
  }
  Result failSub(Own code, const Field& field, const Field& sub, std::int64_t number) {
    const std::u16string name = std::u16string(field.fieldName) + u"." + sub.fieldName;
    return fail(code, name.c_str(), number);
  }
  Result checkField(std::uint32_t f);
  Result checkRows(const Field& field, std::uint64_t size);
  Result checkRow(const Field& field, std::uint64_t end, std::uint64_t* position);

  MetaData& metaData_;
  const Table& table_;
  const char* object_;
  std::uint64_t length_;
  std::uint64_t position_ = 0;
};

std::uint32_t lengthWord(const char* at) {
  std::uint32_t length;
  std::memcpy(&length, at, sizeof length);
  return length;
}

/// Whether the length word of points, if it can be read, counts a whole number of them.
bool isWholePoints(std::uint32_t type, const char* at, std::uint64_t left) {
  if (left < 4) return true;
  const std::uint32_t length = lengthWord(at);
  const std::uint32_t point = type == CZELTA::TypePoints2 ? 8 : 12;
  return length == 0 || (length >= 4 && (length - 4) % point == 0);
}

/// Bytes that a value with a length word takes, though the object may have less.
std::uint64_t claimed(const Field& field, const char* at, std::uint64_t left) {
  return field.fieldType == CZELTA::TypeShortBinary ? claimedSize<std::uint16_t>(at, left)
                                                    : claimedSize<std::uint32_t>(at, left);
}

Result Validation::checkField(std::uint32_t f) {
  const Field& field = table_.schema->fields[f];
  const char* at = object_ + position_;
  const std::uint64_t left = length_ - position_;
  if (findDataType(field.fieldType) == nullptr || !isVariableType(field.fieldType)) {
    std::u16string name(field.fieldName);
    if (f > table_.firstVariableField)
      name += std::u16string(u".") + table_.schema->fields[f - 1].fieldName;
    return reportError(&metaData_, Own::fieldType, table_.cName(), name.c_str(), field.fieldType);
  }
  if (isPoints(field.fieldType) && !isWholePoints(field.fieldType, at, left)) {
    return fail(Own::fieldOffset, field.fieldName, 0);
  }
  const bool text = field.fieldType == CZELTA::TypeText || field.fieldType == CZELTA::TypeWideText;
  const std::uint64_t size = text ? valueSize(field.fieldType, at, left) : claimed(field, at, left);
  if (size == kPastEnd) return fail(Own::variableField, field.fieldName, 0);
  if (field.fieldType == CZELTA::TypeSubRecords && size > 4) ZELTA_TRY(checkRows(field, size));
  // A length that leads out of the object leaves no room for the fields behind it: the first of
  // them is named by run(). Behind the last one there is none.
  if (size > left && f + 1 == table_.schema->fieldCount) {
    return fail(Own::variableField, field.fieldName,
                static_cast<std::int64_t>(left) - static_cast<std::int64_t>(size));
  }
  position_ += size;
  return {};
}

/// The rows must fill the field; where that leads out of the object, a row is not whole.
Result Validation::checkRows(const Field& field, std::uint64_t size) {
  const std::uint64_t end = position_ + size;
  std::uint64_t row = position_ + 4;
  while (row < end) {
    const std::uint64_t before = row;
    ZELTA_TRY(checkRow(field, std::min(end, length_), &row));
    if (row == before) {
      return reportError(&metaData_, Own::tableFile, table_.cName(), extension::kTable);
    }
  }
  if (row == end) return {};
  return fail(Own::objectTooLong, field.fieldName,
              static_cast<std::int64_t>(end) - static_cast<std::int64_t>(row));
}

/// One sub-record, which begins at `*position` and may take bytes up to `end`.
Result Validation::checkRow(const Field& field, std::uint64_t end, std::uint64_t* position) {
  const std::uint64_t row = *position;
  for (std::uint32_t s = 0; s < field.subFieldCount; ++s) {
    const Field& sub = field.subFields[s];
    const auto left = static_cast<std::int64_t>(end - *position);
    if (!isVariableType(sub.fieldType)) {
      const std::uint64_t next = row + sub.fieldOffset + std::uint64_t{sub.fieldSize};
      if (next > end) return failSub(Own::variableField, field, sub, left);
      *position = next;
      continue;
    }
    // Variable sub-fields begin where the fixed ones end.
    if (*position < row + sub.fieldOffset) *position = row + sub.fieldOffset;
    if (*position > end) return failSub(Own::variableField, field, sub, left);
    const char* at = object_ + *position;
    if (isPoints(sub.fieldType) && !isWholePoints(sub.fieldType, at, end - *position)) {
      return failSub(Own::fieldOffset, field, sub, 0);
    }
    const std::uint64_t size = valueSize(sub.fieldType, at, end - *position);
    if (size == kPastEnd) return failSub(Own::variableField, field, sub, left);
    *position += size;
  }
  return {};
}

Result Validation::run() {
  position_ = table_.fixedAreaSize;
  std::uint32_t f = table_.firstVariableField;
  for (; f < table_.schema->fieldCount && position_ < length_; ++f) ZELTA_TRY(checkField(f));
  if (f < table_.schema->fieldCount) {
    return fail(Own::variableField, table_.schema->fields[f].fieldName,
                static_cast<std::int64_t>(static_cast<std::uint32_t>(length_ - position_)));
  }
  if (position_ == length_) return {};
  return fail(Own::objectTooLong, nullptr, static_cast<std::int64_t>(length_ - position_));
}

}  // namespace

Result validateObject(const Table& table, const char* object, std::uint32_t length) {
  if (table.isFixed()) return {};
  // More could not be framed as a record.
  constexpr std::uint32_t kLongest = 0xFFFFFFE0;
  if (length > kLongest) return reportSystemError(&table.metaData, code::kNoMemory);
  assert(length >= table.fixedAreaSize);
  return Validation(table, object, length).run();
}

}  // namespace zelta

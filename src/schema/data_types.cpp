#include "schema/data_types.h"

namespace zelta {

namespace {

constexpr DataTypeInfo kTypes[] = {
    {CZELTA::TypeBoolean, 1, 1},  {CZELTA::TypeChar, 1, 1},        {CZELTA::TypeWideChar, 2, 2},
    {CZELTA::TypeInt8, 1, 1},     {CZELTA::TypeUInt8, 1, 1},       {CZELTA::TypeInt16, 2, 2},
    {CZELTA::TypeUInt16, 2, 2},   {CZELTA::TypeInt32, 4, 4},       {CZELTA::TypeUInt32, 4, 4},
    {CZELTA::TypeInt64, 8, 8},    {CZELTA::TypeUInt64, 8, 8},      {CZELTA::TypeFloat, 4, 4},
    {CZELTA::TypeDouble, 8, 8},   {CZELTA::TypeDate, 4, 4},        {CZELTA::TypeDateTime, 8, 4},
    {CZELTA::TypeTag32, 4, 4},    {CZELTA::TypeTag64, 8, 8},       {CZELTA::TypeCharArray, 0, 1},
    {CZELTA::TypeRect2, 16, 4},   {CZELTA::TypeBox3, 24, 4},       {CZELTA::TypeText, 1, 1},
    {CZELTA::TypeWideText, 2, 1}, {CZELTA::TypeShortBinary, 2, 1}, {CZELTA::TypeBinary, 4, 1},
    {CZELTA::TypePoints2, 4, 1},  {CZELTA::TypePoints3, 4, 1},     {CZELTA::TypeSubRecords, 4, 1},
};

}  // namespace

const DataTypeInfo* findDataType(std::uint32_t code) {
  for (const DataTypeInfo& type : kTypes) {
    if (type.code == code) return &type;
  }
  return nullptr;
}

bool resolveField(const CZELTA::Schema& schema, std::int32_t segmentField, FieldRef* out) {
  if (segmentField < 0) return false;
  auto rest = static_cast<std::uint64_t>(segmentField);
  if (rest < schema.fieldCount) {
    *out = {&schema.fields[rest], nullptr, static_cast<std::uint32_t>(rest), 0};
    return true;
  }
  rest -= schema.fieldCount;
  for (std::uint32_t f = 0; f < schema.fieldCount; ++f) {
    const CZELTA::Schema::Field& field = schema.fields[f];
    if (field.fieldType != CZELTA::TypeSubRecords) continue;  // others may have any count
    if (rest < field.subFieldCount) {
      *out = {&field, &field.subFields[rest], f, static_cast<std::uint32_t>(rest)};
      return true;
    }
    rest -= field.subFieldCount;
  }
  return false;
}

}  // namespace zelta

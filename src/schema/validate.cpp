#include "schema/validate.h"

#include "schema/data_types.h"
#include "schema/index_traits.h"
#include "schema/validate_index.h"

namespace zelta {

namespace {

using Field = CZELTA::Schema::Field;

/// The running sums over the fields.
struct Sums {
  std::uint64_t fixedEnd = 0;
  std::uint64_t minimum = 0;
  std::uint32_t declared = 0;  ///< wraps: the size of an empty points field is below zero
};

std::uint64_t padded(std::uint64_t offset, std::uint32_t alignment) {
  return (offset + alignment - 1) / alignment * alignment;
}

/// Sizes of points fields are made a whole number of points.
void adjustPoints(Field& field) {
  if (field.fieldType == CZELTA::TypePoints2) {
    field.fieldSize = ((field.fieldSize - 4) & ~7u) + 4;
  } else if (field.fieldType == CZELTA::TypePoints3) {
    field.fieldSize = (field.fieldSize - 4) / 12 * 12 + 4;
  }
}

class FieldValidation {
 public:
  FieldValidation(MetaData& metaData, CZELTA::Schema& schema, ObjectSizes& sizes)
      : metaData_(metaData), schema_(schema), sizes_(sizes) {}

  Result run() {
    for (std::uint32_t f = 0; f < schema_.fieldCount; ++f) {
      ZELTA_TRY(checkField(schema_.fields[f], f));
    }
    return deriveSizes();
  }

 private:
  Result invalidType(const char16_t* name, std::uint32_t type) {
    return reportError(&metaData_, Own::fieldType, schema_.tableName, name, type);
  }
  static bool isNameless(const Field& field) {
    return field.fieldName == nullptr || field.fieldName[0] == 0;
  }
  [[nodiscard]] std::uint64_t limit() const { return kLargestObject - sizes_.headerSize; }

  Result checkField(Field& field, std::uint32_t f);
  Result placeFixed(Field& field, std::uint32_t size, std::uint32_t alignment);
  Result checkSubFields(Field& field, std::uint32_t f);
  Result checkSubField(Field& sub, std::uint32_t f, std::uint32_t s, const Field& field);
  Result deriveSizes();

  MetaData& metaData_;
  CZELTA::Schema& schema_;
  ObjectSizes& sizes_;
  Sums sums_;
  std::uint64_t subOffset_ = 0;
  bool subVariable_ = false;
};

Result FieldValidation::checkField(Field& field, std::uint32_t f) {
  if (isVariableType(field.fieldType)) {
    if (sizes_.firstVariableField == 0xFFFFFFFF) sizes_.firstVariableField = f;
  } else if (sizes_.firstVariableField != 0xFFFFFFFF) {
    return reportError(&metaData_, Own::fieldOrder, nullptr, nullptr, f);
  }
  if (isNameless(field)) return reportError(&metaData_, Own::fieldName, nullptr, nullptr, f, -1);
  if (field.fieldType == CZELTA::TypeCharArray) {
    if (field.fieldSize == 0) field.fieldSize = 1;
    field.subFields = nullptr;
    return placeFixed(field, field.fieldSize, 1);
  }
  const DataTypeInfo* type = findDataType(field.fieldType);
  if (type == nullptr) return invalidType(field.fieldName, field.fieldType);
  if (!isVariableType(field.fieldType)) {
    field.subFieldCount = 0;
    field.subFields = nullptr;
    return placeFixed(field, type->minimumSize, type->alignment);
  }
  field.fieldOffset = static_cast<std::uint32_t>(sums_.fixedEnd);
  if (field.fieldType == CZELTA::TypeSubRecords) {
    ZELTA_TRY(checkSubFields(field, f));
  } else {
    field.subFieldCount = 0;
    field.subFields = nullptr;
    adjustPoints(field);
  }
  sums_.minimum += type->minimumSize;
  sums_.declared += field.fieldSize;
  return {};
}

Result FieldValidation::placeFixed(Field& field, std::uint32_t size, std::uint32_t alignment) {
  const std::uint64_t offset = padded(sums_.fixedEnd, alignment);
  const std::uint64_t grown = offset - sums_.fixedEnd + size;
  if (offset + size > limit()) return invalidType(field.fieldName, field.fieldType);
  field.fieldSize = size;
  field.fieldOffset = static_cast<std::uint32_t>(offset);
  sums_.fixedEnd += grown;
  sums_.minimum += grown;
  sums_.declared += static_cast<std::uint32_t>(grown);
  return {};
}

Result FieldValidation::checkSubFields(Field& field, std::uint32_t f) {
  if (field.subFieldCount == 0 || field.subFields == nullptr) {
    return invalidType(field.fieldName, field.fieldType);
  }
  subOffset_ = 0;
  subVariable_ = false;
  for (std::uint32_t s = 0; s < field.subFieldCount; ++s) {
    ZELTA_TRY(checkSubField(field.subFields[s], f, s, field));
  }
  return {};
}

Result FieldValidation::checkSubField(Field& sub, std::uint32_t f, std::uint32_t s,
                                      const Field& field) {
  if (sub.fieldType == CZELTA::TypeSubRecords) return invalidType(sub.fieldName, sub.fieldType);
  if (isNameless(sub)) {
    return reportError(&metaData_, Own::fieldName, field.fieldName, nullptr, f, s);
  }
  const DataTypeInfo* type = findDataType(sub.fieldType);
  if (type == nullptr) return invalidType(sub.fieldName, sub.fieldType);
  const bool array = sub.fieldType == CZELTA::TypeCharArray;
  if (!array) sub.subFieldCount = 0;
  sub.subFields = nullptr;
  if (isVariableType(sub.fieldType)) {
    subVariable_ = true;
    sub.fieldOffset = static_cast<std::uint32_t>(subOffset_);
    return {};
  }
  if (subVariable_) return reportError(&metaData_, Own::fieldOrder, nullptr, nullptr, f);
  const std::uint32_t size = !array ? type->minimumSize : sub.fieldSize == 0 ? 1 : sub.fieldSize;
  const std::uint64_t offset = padded(subOffset_, type->alignment);
  if (offset + size > limit()) return invalidType(sub.fieldName, sub.fieldType);
  sub.fieldSize = size;
  sub.fieldOffset = static_cast<std::uint32_t>(offset);
  subOffset_ = offset + size;
  return {};
}

Result FieldValidation::deriveSizes() {
  const auto tooLarge = [&] {
    const Field& last = schema_.fields[schema_.fieldCount - 1];
    return invalidType(last.fieldName, last.fieldType);
  };
  if (sums_.minimum > limit()) return tooLarge();
  sizes_.fixedAreaSize = static_cast<std::uint32_t>(sizes_.headerSize + sums_.fixedEnd);
  sizes_.minimumObjectSize = static_cast<std::uint32_t>(sizes_.headerSize + sums_.minimum);
  sizes_.defaultObjectSize = sizes_.headerSize + sums_.declared;
  if (sizes_.minimumObjectSize == sizes_.fixedAreaSize) return {};
  constexpr std::uint32_t kFraming = 12;
  constexpr std::uint32_t kLeastBlock = 20;
  sizes_.defaultObjectSize += kFraming;
  if (sizes_.defaultObjectSize < kLeastBlock) sizes_.defaultObjectSize = kLeastBlock;
  return sizes_.defaultObjectSize > kLargestObject ? tooLarge() : Result{};
}

Result checkLockIndex(MetaData& metaData, const CZELTA::Schema& schema) {
  if (schema.lockIndex == 0 || schema.lockIndex > schema.indexCount) return {};
  const CZELTA::Schema::Index& index = schema.indexes[schema.lockIndex - 1];
  if (isOrdered(index) && (index.indexFlags & CZELTA::IndexMultiEntry) == 0) {
    return {};
  }
  return reportError(&metaData, Own::lockIndex, schema.tableName, nullptr, schema.lockIndex);
}

}  // namespace

Result validateSchema(MetaData& metaData, CZELTA::Schema& schema, ObjectSizes& sizes) {
  sizes = {};
  sizes.headerSize = (schema.schemaFlags & CZELTA::SchemaWideObjectIds) != 0 ? 10 : 6;
  ZELTA_TRY(FieldValidation(metaData, schema, sizes).run());
  for (std::uint32_t i = 0; i < schema.indexCount; ++i) {
    ZELTA_TRY(validateIndex(metaData, schema, schema.indexes[i], i));
  }
  return checkLockIndex(metaData, schema);
}

}  // namespace zelta

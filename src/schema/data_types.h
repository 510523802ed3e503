// The types of fields: their codes, sizes and alignments in one table, and the fields that an
// index's segments name. Types with an even code are variable.

#ifndef ZELTA_SCHEMA_DATA_TYPES_H
#define ZELTA_SCHEMA_DATA_TYPES_H

#include <cstdint>

#include "czelta.h"

namespace zelta {

/// What is the same for all fields of a type.
struct DataTypeInfo {
  std::uint32_t code;
  std::uint32_t
      minimumSize;  ///< of a fixed field its size; of a variable one the size of an empty value
  std::uint32_t alignment;  ///< inside the fixed area
};

/// Null for an unknown code.
[[nodiscard]] const DataTypeInfo* findDataType(std::uint32_t code);

[[nodiscard]] constexpr bool isVariableType(std::uint32_t code) { return (code & 1) == 0; }

/// The field that a segment names: a field of the table, or a sub-field of one.
struct FieldRef {
  const CZELTA::Schema::Field* field = nullptr;
  const CZELTA::Schema::Field* subField = nullptr;  ///< null for a plain field
  std::uint32_t fieldNumber = 0;
  std::uint32_t subFieldNumber = 0;
  /// The one that has the value.
  [[nodiscard]] const CZELTA::Schema::Field& value() const {
    return subField != nullptr ? *subField : *field;
  }
};

/// Resolves a field ID of 0 and above. False if there is no such field.
[[nodiscard]] bool resolveField(const CZELTA::Schema& schema, std::int32_t segmentField,
                                FieldRef* out);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_DATA_TYPES_H

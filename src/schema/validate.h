// The rules of a schema, and the numbers derived from it. The rules are tested in a fixed order,
// since the first broken one is what the caller is told; validate_index.h has those of one index.

#ifndef ZELTA_SCHEMA_VALIDATE_H
#define ZELTA_SCHEMA_VALIDATE_H

#include <cstdint>

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

/// Sizes of objects, in bytes.
struct ObjectSizes {
  std::uint32_t headerSize = 0;         ///< version word and ID
  std::uint32_t fixedAreaSize = 0;      ///< and the fixed fields
  std::uint32_t minimumObjectSize = 0;  ///< and all variable fields empty
  std::uint32_t defaultObjectSize = 0;  ///< as declared, with the record's framing
  std::uint32_t firstVariableField = 0xFFFFFFFF;
};

/// The greatest size that an object and its framing can have, so that rounding stays within 32
/// bits.
inline constexpr std::uint64_t kLargestObject = 0xFFFFFFE0;

/// Tests a schema rule by rule, fields before indexes, and fills its derived members in. The schema
/// is the library's own copy. The first broken rule is the result.
Result validateSchema(MetaData& metaData, CZELTA::Schema& schema, ObjectSizes& sizes);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_VALIDATE_H

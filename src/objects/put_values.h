// Replacing the variable fields of the object in a table's buffer, see object_buffer.h.

#ifndef ZELTA_OBJECTS_PUT_VALUES_H
#define ZELTA_OBJECTS_PUT_VALUES_H

#include <cstdint>

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// The encoded values of some variable fields, one behind the other.
struct PackedValues {
  const void* bytes;    ///< null: the fields become empty
  std::uint32_t size;   ///< 0: the values are trusted to be well formed
  std::uint32_t field;  ///< the first one, counted from 0 among the variable fields
  std::uint32_t count;
};

/// Gives the variable part `size` bytes of zeros in place of all that it has. Own code 39: the
/// buffer has no object; 8: the table is fixed.
Result putVariableValues(Table& table, CZELTA::Object* object, std::uint32_t size);
/// Replaces some fields by encoded values, which may lie in the buffer itself. Nothing has changed
/// after own code 7 (no such fields, or memory that cannot be read), 39, 8, or the code for a value
/// that is malformed, in the values or in what the object has.
Result putVariableValues(Table& table, const PackedValues& values, CZELTA::Object* object);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_PUT_VALUES_H

// The object buffer of a table: preparing it, finding and replacing variable fields.

#ifndef ZELTA_OBJECTS_OBJECT_BUFFER_H
#define ZELTA_OBJECTS_OBJECT_BUFFER_H

#include <array>
#include <cstdint>

#include "czelta.h"
#include "frame/metadata.h"
#include "schema/object_view.h"
#include "storage/table.h"

namespace zelta {

/// Bytes in front of the object in the buffer of a variable and of a fixed table. The four bytes
/// right before the object take the size word of the record that is stored.
inline constexpr std::uint32_t kVariableLead = 10;
inline constexpr std::uint32_t kFixedLead = 6;

[[nodiscard]] inline std::uint32_t leadOf(const Table& table) {
  return table.isFixed() ? kFixedLead : kVariableLead;
}

/// The encoded values of some variable fields, one behind the other.
struct PackedValues {
  const void* bytes;    ///< null: the fields become empty
  std::uint32_t size;   ///< 0: the values are trusted to be well formed
  std::uint32_t field;  ///< the first one, counted from 0 among the variable fields
  std::uint32_t count;
};

Result newObject(Table& table, CZELTA::Object* object, std::uint32_t size);
Result getVariableField(Table& table, std::uint32_t field, void** value, CZELTA::Object* object);
Result getVariableField(Table& table, const SubFieldPlace& place, void** value,
                        CZELTA::Object* object);
Result putVariableValues(Table& table, CZELTA::Object* object, std::uint32_t size);
Result putVariableValues(Table& table, const PackedValues& values, CZELTA::Object* object);

/// Makes the buffer hold an object of `length` bytes and points objectData at its place. The buffer
/// is kept while it is at most twice too large; its contents are lost otherwise. Sets objectLength.
void reserveObject(Table& table, std::uint32_t length);

/// Makes what stands in the buffer, behind its lead, an object of `length` bytes, which the buffer
/// has room for. Zeros follow it.
void placeObject(Table& table, std::uint32_t length);

/// Fills the public record from the object in the buffer.
void fillObject(const Table& table, CZELTA::Object* object);

/// Proves that an object's variable part parses exactly to its end.
Result validateObject(const Table& table, const char* object, std::uint32_t length);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_OBJECT_BUFFER_H

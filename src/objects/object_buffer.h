// The object buffer of a table: preparing it, and finding variable fields; put_values.h replaces
// them. Each table has one buffer; the caller of the library changes its bytes through the pointers
// of CZELTA::Object, so that nothing in it may be trusted before validateObject().
//
// Layout: the lead, which record framing may overwrite, then the object (head, fixed fields,
// variable fields), then kZeroTail zeros, at which a text without its terminator ends.
// Table::objectData is the object, null while there is none. A pointer that was handed out is good
// until the buffer is prepared, read into or made larger.

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

/// Empties the buffer and makes it an object of zeros with `size` bytes for variable fields (0 in a
/// fixed table). The table has no current object then. System code 8: no object is that large.
Result newObject(Table& table, CZELTA::Object* object, std::uint32_t size);
/// Finds a variable field, counted from 0 among these: `*value` is its place in the buffer (null:
/// it is damaged or not there). `value` and `object` may be null. Own code 7: there is no such
/// field; 39: the buffer has no object.
Result getVariableField(Table& table, std::uint32_t field, void** value, CZELTA::Object* object);
/// The same for a sub-field of one sub-record.
Result getVariableField(Table& table, const SubFieldPlace& place, void** value,
                        CZELTA::Object* object);
/// Makes the buffer hold an object of `length` bytes and points objectData at its place. The buffer
/// is kept while it is at most twice too large; its contents are lost otherwise. Sets objectLength.
void reserveObject(Table& table, std::uint32_t length);

/// Makes what stands in the buffer, behind its lead, an object of `length` bytes, which the buffer
/// has room for. Zeros follow it.
void placeObject(Table& table, std::uint32_t length);

/// Fills the public record from the object in the buffer.
void fillObject(const Table& table, CZELTA::Object* object);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_OBJECT_BUFFER_H

// Proof that bytes are an object. What the caller of the library has written into a table's buffer is
// believed only behind this.

#ifndef ZELTA_OBJECTS_VALIDATE_OBJECT_H
#define ZELTA_OBJECTS_VALIDATE_OBJECT_H

#include <cstdint>

#include "storage/table.h"

namespace zelta {

/// Proves that an object's variable part parses exactly to its end: then it may be stored. The
/// object has its fixed part at least.
Result validateObject(const Table& table, const char* object, std::uint32_t length);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_VALIDATE_OBJECT_H

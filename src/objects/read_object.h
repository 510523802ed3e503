// Reading objects into a table's buffer.

#ifndef ZELTA_OBJECTS_READ_OBJECT_H
#define ZELTA_OBJECTS_READ_OBJECT_H

#include <cstdint>

#include "czelta.h"
#include "objects/locate.h"

namespace zelta {

/// Reads the object that mode, index (0: object IDs, else counted from 1) and key mean, locks it
/// unless the mode has ReadNoLock or the transaction cannot write, and makes it the current one.
/// The caller has made sure of a transaction, its thread and the table. `object` and `entry` may
/// be null.
Result readObject(MetaData& metaData, UInt32AVLTree*& tables, Table& table, CZELTA::Mode mode,
                  CZELTA::Object* object, std::uint32_t index, const void* key,
                  std::uint32_t* entry, IdWidth width = IdWidth::asTable);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_OBJECT_H

// Deleting an object: it is found and locked as a read does it, its committed keys are noted for
// the commit, and what the transaction has of it in the memory file is taken out. The committed
// object stays where it is until the commit.

#ifndef ZELTA_OBJECTS_CHANGE_DELETE_OBJECT_H
#define ZELTA_OBJECTS_CHANGE_DELETE_OBJECT_H

#include <cstdint>

#include "czelta.h"
#include "objects/read/read_request.h"

namespace zelta {

/// Deletes the object that a query means, as readObject() finds it; index 0 without a key, or with
/// an ID of 0: the table's current object. It stays in the buffer, is the current one afterwards,
/// and fills `object` (may be null). `entry` may be null. The caller has made sure of a transaction
/// that may write, its thread and the table.
Result deleteObject(const Session& session, Table& table, ObjectQuery query, CZELTA::Object* object,
                    std::uint32_t* entry);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_DELETE_OBJECT_H

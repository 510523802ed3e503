// Adding objects.

#ifndef ZELTA_OBJECTS_CHANGE_ADD_OBJECT_H
#define ZELTA_OBJECTS_CHANGE_ADD_OBJECT_H

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// Takes the object in the table's buffer into the running transaction. `objectID` 0 asks for an
/// ID. The object becomes the table's current one, and fills `object` (may be null).
Result addObject(const Session& session, Table& table, CZELTA::Object* object, long long objectID);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_ADD_OBJECT_H

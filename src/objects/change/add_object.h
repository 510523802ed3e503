// Adding an object: an ID is chosen, its keys are tested against committed and pending ones, and
// keys and object go into the memory file in one journalled step. Others see that ID and keys are
// taken; the object itself is theirs to see from the commit on.

#ifndef ZELTA_OBJECTS_CHANGE_ADD_OBJECT_H
#define ZELTA_OBJECTS_CHANGE_ADD_OBJECT_H

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// Takes the object in the table's buffer into the running transaction. `objectID` 0 asks for an
/// ID. Own code 7: no such ID in this table; 36: the ID is in use; 37: a key is there already; 27:
/// a lock stayed too long. The object becomes the table's current one, and fills `object` (may be
/// null).
Result addObject(const Session& session, Table& table, CZELTA::Object* object, long long objectID);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_ADD_OBJECT_H

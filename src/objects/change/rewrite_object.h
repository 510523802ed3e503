// Rewriting objects.

#ifndef ZELTA_OBJECTS_CHANGE_REWRITE_OBJECT_H
#define ZELTA_OBJECTS_CHANGE_REWRITE_OBJECT_H

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// Stores the object in the table's buffer as the pending version of the table's current object,
/// which the running transaction must have locked, changed or added. Fills `object` (may be null).
Result rewriteObject(const Session& session, Table& table, CZELTA::Object* object);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_REWRITE_OBJECT_H

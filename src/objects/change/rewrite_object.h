// Rewriting an object: the new version goes into the memory file beside the keys that differ, in
// one journalled step. The committed version stays what others see until the commit.

#ifndef ZELTA_OBJECTS_CHANGE_REWRITE_OBJECT_H
#define ZELTA_OBJECTS_CHANGE_REWRITE_OBJECT_H

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// Stores the object in the table's buffer as the pending version of the table's current object,
/// which the running transaction must have locked, changed or added. Own code 39: it is not, or the
/// buffer has no object; 37: a new key is there already; 27: a lock stayed too long. Fills `object`
/// (may be null).
Result rewriteObject(const Session& session, Table& table, CZELTA::Object* object);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_REWRITE_OBJECT_H

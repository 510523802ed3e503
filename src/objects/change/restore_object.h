// Undoing what a transaction did to one object. The other way to undo is abort, which drops
// everything.

#ifndef ZELTA_OBJECTS_CHANGE_RESTORE_OBJECT_H
#define ZELTA_OBJECTS_CHANGE_RESTORE_OBJECT_H

#include <cstdint>

#include "storage/table.h"

namespace zelta {

/// Undoes an add, a rewrite, a delete or a lock of the running transaction. `objectID` 0: the
/// table's current object. The committed version counts again; the object stays locked unless
/// `unlock`. The table's buffer is left as it is. Own code 31: the transaction has neither changed
/// nor locked it.
Result restoreObject(Table& table, long long objectID, bool unlock);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_RESTORE_OBJECT_H

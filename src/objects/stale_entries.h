// What a transaction that is gone has left beside an object.

#ifndef ZELTA_OBJECTS_STALE_ENTRIES_H
#define ZELTA_OBJECTS_STALE_ENTRIES_H

#include <cstdint>

#include "objects/table_access.h"

namespace zelta {

/// Takes the transaction's number out of an object's slot. Under the mutex, after readHeader().
Result eraseSlotTransaction(TableAccess& access, std::uint64_t objectID);

/// Takes all that it has in the memory file out of it: keys and objects. Under the mutex, after
/// openMemory().
Result dropTransactionEntries(TableAccess& access, std::uint32_t number);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_STALE_ENTRIES_H

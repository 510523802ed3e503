// What a transaction that is gone has left beside an object: its number in the object's slot, and
// keys and objects in the memory file. Whoever runs into such remains, and has made sure that
// nobody stands behind them any more, takes them away here and goes on. recovery.h repairs a dead
// transaction as a whole.

#ifndef ZELTA_OBJECTS_STALE_ENTRIES_H
#define ZELTA_OBJECTS_STALE_ENTRIES_H

#include <cstdint>

#include "objects/table_access.h"

namespace zelta {

/// Takes the transaction's number out of an object's slot, which this handle has locked. Under the
/// mutex, after readHeader().
Result eraseSlotTransaction(TableAccess& access, std::uint64_t objectID);

/// Takes all that it has in the memory file out of it: keys and objects. Under the mutex, after
/// openMemory(). One journalled step: the file has all of it or nothing.
Result dropTransactionEntries(TableAccess& access, std::uint32_t number);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_STALE_ENTRIES_H

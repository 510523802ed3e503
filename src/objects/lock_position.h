// The furthest point up to which a transaction has locked objects, in the order that tables and
// objects are to be locked in. Whoever waits only for objects ahead of that point cannot be part of
// a circle of waiting transactions.
//
// Tables are ordered by their lock order, objects of one table by ID or by their keys in the index
// that the schema names, ascending or descending. The position is kept in MetaData
// (lockOrderReached, lockObjectID, lockKey), outlives the tables, and only ever moves ahead.

#ifndef ZELTA_OBJECTS_LOCK_POSITION_H
#define ZELTA_OBJECTS_LOCK_POSITION_H

#include <cstdint>

#include "objects/current_keys.h"
#include "storage/table.h"

namespace zelta {

/// Takes note of the lock of an object, once the cursors stand on this version of it.
Result noteObjectLock(Table& table, std::uint64_t objectID, ObjectBytes object);

/// Takes note of an object's lock. `key`: the object's key in the index that orders the locks of
/// the table, null in a table that orders them by ID.
void advanceLockPosition(const Table& table, std::uint64_t objectID, const std::uint32_t* key);

/// Takes note of the locks of several objects of a table at once. In a table that an index orders
/// their keys are not looked at: the position is the table's begin, unless it is there already.
void noteObjectLocks(const Table& table, UInt64AVLTree* locked);

/// Whether an object with this key (of the locking index; may be null) comes behind all that was
/// locked so far. Without a lock key to compare with it does.
[[nodiscard]] bool isAheadOfLockPosition(const Table& table, const std::uint32_t* key);

/// Whether isAheadOfLockPosition() of this table needs a key to tell.
[[nodiscard]] bool comparesLockKeys(const Table& table);

/// Makes the key by which the locks of a table are ordered that has such an index; of several
/// entries the first.
Result makeLockKey(Table& table, ObjectBytes object, PooledKey& key);

/// Forgets the position. The transaction is over.
void dropLockPosition(MetaData& metaData);

/// The index (from 0) that orders the locks of a table; false if the object IDs do.
[[nodiscard]] bool lockingIndex(const Table& table, std::uint32_t* index);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_LOCK_POSITION_H

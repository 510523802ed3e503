// What a transaction has in the memory file of a table: images of objects under its number, and
// their keys in the trees of pending keys. Used where the handle's own sets do not tell: for a dead
// transaction, and after a failure that left the memory file uncertain.

#ifndef ZELTA_TRANSACTION_COMMIT_PENDING_CHANGES_H
#define ZELTA_TRANSACTION_COMMIT_PENDING_CHANGES_H

#include <cstdint>

#include "storage/memory_file/memory_file.h"
#include "storage/paged/atomic_manager.h"
#include "storage/table.h"

namespace zelta {

/// Takes the keys of the objects that the file has under a transaction's number out of all trees of
/// pending keys. `*any`: it has some. The pages are flushed by whoever removes the images. The
/// manager is attached to the memory file, and the table's mutex is held.
Result dropPendingKeysOf(AtomicManager& manager, std::uint32_t number, bool* any);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_PENDING_CHANGES_H

// Taking one object out of the map of a memory file, and taking out all that a transaction has
// there. Records become free space, underfull pages are merged or refilled, and the result reaches
// the file in one journalled step (flushMemoryPages). Under the table's mutex, by a manager that is
// attached to the file.

#ifndef ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_REMOVE_H
#define ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_REMOVE_H

#include <cstdint>

#include "storage/memory_file/memory_file.h"
#include "storage/trees/avl_tree.h"

namespace zelta {

/// Takes an object out of the map and flushes. Keeps Table::pendingBytes. Own error 31: not there.
Result removeObject(AtomicManager& manager, MemoryFileHeader_tag& header, std::uint64_t objectID);

/// Takes all entries of a transaction out of the map and flushes, the pending key pages that were
/// changed before included: dropPendingKeysOf() has taken its keys out then. `*removedIDs` (may be
/// null) receives their IDs, in nodes that belong to the caller. The file is cut back.
Result removeTransaction(AtomicManager& manager, MemoryFileHeader_tag& header, std::uint32_t number,
                         UInt64AVLTree** removedIDs);

}  // namespace zelta

#endif  // ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_REMOVE_H

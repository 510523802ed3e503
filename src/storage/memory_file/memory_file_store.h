// Putting an object into the memory file: its record into a block, and an entry that leads there
// into the object map. Both, and all pages that were changed before (keys in the pending trees),
// reach the file in one journalled step, so that object and keys are pending together or not at
// all.

#ifndef ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_STORE_H
#define ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_STORE_H

#include <cstdint>

#include "storage/memory_file/memory_file.h"

namespace zelta {

/// Puts an object of the running transaction into the map, or replaces its pending version, and
/// flushes. Under the table's mutex, by a manager that is attached to the file. The four bytes
/// ahead of `objectBytes` are overwritten. Keeps Table::pendingBytes. Own error 59: another
/// transaction has an entry for the ID.
Result storeObject(AtomicManager& manager, MemoryFileHeader_tag& header, char* objectBytes,
                   std::uint32_t length, std::uint64_t objectID);

}  // namespace zelta

#endif  // ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_STORE_H

// The memory file of a table: everything that running transactions have changed and not yet
// committed, where all processes can see it. A header with the roots, the object map (a B+Tree from
// object ID to pending version), the pending key trees of the indexes, and the records of pending
// objects. Read and written only under the table's mutex.
//
// Every change goes through a journal behind the end of the file, so that a process may die at any
// point: the next one finds the state before or after. Nothing is flushed to the disk, as a
// committed transaction is safe in the log, and an uncommitted one ends with the machine.

#ifndef ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_H
#define ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_H

#include "frame/metadata.h"
#include "storage/paged/paged_file.h"

namespace zelta {

class AtomicManager;
struct PagedRecord;

/// Under the table's mutex, or for a table whose file is open for reading alone (`mayRecover`
/// false). Opens the file if the manager's table has not got it open, checks the header, finishes
/// or drops a journal that stands, and gives the roots to the manager. With `mayRecover` a missing
/// or unfinished file is made; without it a missing file and a standing journal are the Windows
/// code 5. Damage is own code 58. The manager still has to be attached to the file.
Result readMemoryFileHeader(AtomicManager& manager, MemoryFileHeader_tag& header, bool mayRecover);

/// The atomic step: brings all changed memory pages, the free chain and the roots into the file, by
/// way of the journal, and drops the pages. `record` may be null. `truncate` cuts the file behind
/// its new end if that can be done. `header` is the file's present one and follows the change.
///
/// Under the table's mutex, by a manager that is attached to the file. A failure means that the
/// file is as it was, unless Table::memoryUncertain is set then: nobody knows, and only aborting
/// helps. What the manager had collected after a failure is for whoever drops it.
Result flushMemoryPages(AtomicManager& manager, MemoryFileHeader_tag& header,
                        const PagedRecord* record, bool truncate);

}  // namespace zelta

#endif  // ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_H

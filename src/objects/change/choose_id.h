// The ID of a new object: one that no committed object has and no running transaction has taken.
// Both functions need the table's mutex, `header` as the file has it and the manager attached to
// the memory file. They take nothing: the ID is taken when the object is stored, under the same
// mutex.

#ifndef ZELTA_OBJECTS_CHANGE_CHOOSE_ID_H
#define ZELTA_OBJECTS_CHANGE_CHOOSE_ID_H

#include <cstdint>

#include "storage/paged/atomic_manager.h"
#include "storage/table_file/table_file.h"

namespace zelta {

/// Finds an ID that nobody has: the first free one that no running transaction has taken, else the
/// one behind all. Own code 36 if there is none left.
Result chooseFreeID(Table& table, const TableHeader_tag& header, AtomicManager& manager,
                    std::uint64_t* objectID);

/// Tests that an ID is free. Code 33 with `*blocker` 0: its slot is locked; with a number: that
/// transaction has marked the slot, and may still give it up. Own code 36: it is in use.
Result testFreeID(Table& table, const TableHeader_tag& header, AtomicManager& manager,
                  std::uint64_t objectID, std::uint32_t* blocker);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_CHOOSE_ID_H

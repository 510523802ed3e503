// What a transaction has pending in a table, for searches of indexes without a pending tree.

#ifndef ZELTA_INDEX_SEARCH_PENDING_OBJECTS_H
#define ZELTA_INDEX_SEARCH_PENDING_OBJECTS_H

#include "schema/record_reader.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/paged/atomic_manager.h"
#include "storage/table.h"

namespace zelta {

/// Hands each object that the running transaction has added or rewritten to
/// `use(objectID, ObjectBytes)`, whose result ends the walk if it is a failure. The bytes are good
/// during the call. Does nothing without a memory file.
template <class Use>
Result forEachPendingObject(AtomicManager& manager, Use use) {
  const Table& table = manager.table;
  if (manager.memoryFile == platform::File::none) return {};
  PendingObjectWalk walk(manager);
  RecordReader reader = RecordReader::aside(table);
  for (;;) {
    PendingObject pending;
    bool found = false;
    ZELTA_TRY(walk.next(&pending, &found));
    if (!found) return {};
    if (pending.transaction != table.metaData.transactionWord) continue;
    ObjectBytes object;
    ZELTA_TRY(reader.readPending(pending, manager.endOfFile(PageFile::memory), &object));
    ZELTA_TRY(use(pending.objectID, object));
  }
}

}  // namespace zelta

#endif  // ZELTA_INDEX_SEARCH_PENDING_OBJECTS_H

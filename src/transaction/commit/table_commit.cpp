// A table's part of a commit, in steps that docs/concurrency.md numbers so:
//
//  5.1 The index file takes the keys over, in its own atomic step: commitIndexes().
//  5.2 The edits of the table file are planned: EditPlan::make(). Nothing is written.
//  5.3 The journal of the plan is written behind the file's end: executePlan(), as all up to 5.7.
//  5.4 The commit point of the table file: one write of the intent into the header, and a flush.
//  5.5 Moves of records, and if there are any the mark that they are done.
//  5.6 New contents, slots and links, cleared slots, free blocks; a flush.
//  5.7 The header with the new numbers and without the intent; a flush; the file is cut.
//  5.8 The transaction's images and keys leave the memory file.
//
// A death before 5.4 leaves the table as it was, with the index ahead of it: replay of the log
// bears that. A death behind it is repaired by readTableHeader() and replay.

#include "transaction/commit/table_commit.h"

#include <cassert>

#include "frame/out_of_memory.h"
#include "index/file/index_commit.h"
#include "objects/table_access.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/memory_file/memory_file_remove.h"
#include "transaction/commit/edit_plan.h"
#include "transaction/commit/image_reader.h"
#include "transaction/commit/plan_execution.h"
#include "transaction/commit/version_reader.h"

namespace zelta {

namespace {

/// The transaction's images, as the memory file has them.
Result collectImages(Table& table, AtomicManager& manager, PendingImages& out) {
  PendingObjectWalk walk(manager);
  for (;;) {
    PendingObject pending;
    bool found = false;
    ZELTA_TRY(walk.next(&pending, &found));
    if (!found) return {};
    if (pending.transaction != table.metaData.transactionWord) continue;
    const bool edited = find(table.editedObjects, pending.objectID) != nullptr;
    (edited ? out.edited : out.added).push_back(pending);
  }
}

Result commitFiles(TableAccess& access) {
  assert(access.owned());
  ZELTA_TRY(access.readHeader());
  ZELTA_TRY(access.openIndex());
  ZELTA_TRY(access.openMemory());
  MetaData& metaData = access.metaData;
  Table& table = access.table;
  AtomicManager& manager = access.manager();
  ImageReader reader(metaData, table.memoryFile, table.cName(), extension::kMemory,
                     metaData.scratchFor(Scratch::record));
  VersionReader versions(manager, access.header, reader);
  // 5.1
  ZELTA_TRY(commitIndexes(manager, access.indexHeader,
                          {table.addedObjects, table.editedObjects, table.deletedObjects}, versions,
                          true));
  // 5.2
  PendingImages images;
  ZELTA_TRY(collectImages(table, manager, images));
  EditPlan plan(table, access.header, {table.deletedObjects, table.editedObjects});
  ZELTA_TRY(plan.make(images));
  // 5.3 to 5.7
  ZELTA_TRY(executePlan(table, access.header, plan, reader, metaData.transactionWord));
  // 5.8
  return removeTransaction(manager, access.memoryHeader, metaData.transactionWord, nullptr);
}

/// What becomes of the sets of the transaction: deleted objects are unlocked, all others stay
/// locked unless the locks are to go.
void emptySets(Table& table, bool releaseLocks) {
  unlockObjects(table.tableFile, table.slotBase, table.deletedObjects);
  if (releaseLocks) {
    unlockObjects(table.tableFile, table.slotBase, table.lockedObjects);
    unlockObjects(table.tableFile, table.slotBase, table.editedObjects);
    destroyAll(table.addedObjects);
    table.currentObjectID = 0;
    table.releaseAllKeys();
  } else {
    addAll(table.lockedObjects, table.editedObjects);
    if (lockObjects(table.tableFile, table.slotBase, table.addedObjects) == 0) {
      addAll(table.lockedObjects, table.addedObjects);
    } else {
      // They are anybody's now. Who wants to change one reads it, and gains its lock by that.
      if (find(table.addedObjects, table.currentObjectID) != nullptr) table.currentObjectID = 0;
      destroyAll(table.addedObjects);
    }
    for (std::uint32_t i = 0; i < table.indexCount; ++i) {
      if (table.listKind(i)) continue;
      IndexCursor& cursor = table.indexStates[i];
      table.nodePool.releaseTree(cursor.keyPool, table.keyShape(i), cursor.removedKeys);
      table.nodePool.releaseTree(cursor.keyPool, table.keyShape(i), cursor.replacedKeys);
    }
  }
  table.addedCount = 0;
  table.deletedCount = 0;
  table.pendingBytes = 0;
}

}  // namespace

Result applyTableCommit(Table& table, bool releaseLocks, TableMutexGuard& guard) {
  assert(!guard.held());
  Result result = guard.acquire(table, platform::kForever);
  guard.announceChange();
  if (result.ok()) {
    result = catchBadAlloc(table.metaData, [&] {
      TableAccess access(table, guard);
      return commitFiles(access);
    });
  }
  emptySets(table, releaseLocks);
  return result;
}

}  // namespace zelta

#include "transaction/commit/abort.h"

#include <optional>

#include "frame/mutex_guard.h"
#include "frame/preserved_error.h"
#include "index/kinds.h"
#include "objects/lock_position.h"
#include "objects/table_access.h"
#include "storage/memory_file/memory_file_remove.h"
#include "storage/table_file/table_file.h"
#include "transaction/commit/commit.h"
#include "transaction/commit/pending_changes.h"
#include "transaction/commit/transaction_tables.h"

namespace zelta {

namespace {

/// Takes what the transaction has added and rewritten out of the memory file.
Result dropChanges(Table& table) {
  if (table.addedObjects == nullptr && table.editedObjects == nullptr && !table.memoryUncertain) {
    return {};
  }
  TableAccess access(table);
  ZELTA_TRY(access.acquire(platform::kForever));
  ZELTA_TRY(access.openMemory());
  AtomicManager& manager = access.manager();
  if (table.memoryUncertain) {
    bool any = false;
    ZELTA_TRY(dropPendingKeysOf(manager, table.metaData.transactionWord, &any));
  }
  ZELTA_TRY(dropPendingKeys(manager, {table.addedObjects, table.editedObjects}));
  ZELTA_TRY(
      removeTransaction(manager, access.memoryHeader, table.metaData.transactionWord, nullptr));
  table.memoryUncertain = false;
  return access.release();
}

/// What the handle knows of the edits. Objects that were changed are only locked afterwards.
void forgetEdits(Table& table, bool releaseLocks) {
  const bool currentWasAdded = find(table.addedObjects, table.currentObjectID) != nullptr;
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    if (table.listKind(i)) continue;
    IndexCursor& cursor = table.indexStates[i];
    table.nodePool.releaseTree(cursor.keyPool, table.keyShape(i), cursor.removedKeys);
    table.nodePool.releaseTree(cursor.keyPool, table.keyShape(i), cursor.replacedKeys);
  }
  if (releaseLocks || currentWasAdded) {
    table.releaseCurrentKeys();
    table.currentObjectID = 0;
  }
  if (releaseLocks) {
    for (UInt64AVLTree** objects :
         {&table.lockedObjects, &table.editedObjects, &table.deletedObjects}) {
      unlockObjects(table.tableFile, table.slotBase, *objects);
    }
  } else {
    addAll(table.lockedObjects, table.editedObjects);
    addAll(table.lockedObjects, table.deletedObjects);
  }
  destroyAll(table.addedObjects);
  table.addedCount = 0;
  table.deletedCount = 0;
  table.pendingBytes = 0;
}

}  // namespace

Result abortTransaction(const Session& session, bool releaseLocks) {
  clearError(session.metaData);
  if (releaseLocks) dropLockPosition(session.metaData);
  Result result;
  for (Table* table : tablesInOrder(session.tables)) {
    table->releaseResults();
    if (!session.metaData.mayWrite()) continue;
    // Beside what is dropped now stands what was committed and is still to be carried out: until
    // then it keeps IDs and keys from others. Whoever does that drops it.
    std::optional<PreservedError> first;
    if (result.failed()) first.emplace(session.metaData);
    const Result dropped = session.metaData.leaveSlot ? Result{} : dropChanges(*table);
    result.keepFirst(dropped);
    if (dropped.ok()) forgetEdits(*table, releaseLocks);
  }
  return result;
}

}  // namespace zelta

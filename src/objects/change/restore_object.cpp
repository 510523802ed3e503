// There is no record of what is to be undone, and none is needed: the committed version never left
// the table file, and all that the transaction did is in the memory file and the cursors.

#include "objects/change/restore_object.h"

#include <cassert>

#include "objects/change/key_changes.h"
#include "objects/current_keys.h"
#include "objects/read/locate.h"
#include "objects/read/read_version.h"
#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_remove.h"
#include "storage/table_file/table_file.h"

namespace zelta {

namespace {

/// Longer than other operations wait: a restore is not tried again.
constexpr std::uint32_t kMutexWait = 600000;  // ms

/// One object, in one pass: it is this transaction's, so nobody can be in the way.
class Restoration {
 public:
  Restoration(Table& table, std::uint64_t objectID, bool unlock)
      : table_(table),
        objectID_(objectID),
        unlock_(unlock),
        access_(table),
        pendingKeys_(table),
        committedKeys_(table),
        changes_(table) {}

  /// Undoes the change that the set `changed` names the object for.
  Result run(UInt64AVLTree*& changed);

 private:
  Result readVersions(bool added);
  void record(UInt64AVLTree*& changed, bool added);

  Table& table_;
  const std::uint64_t objectID_;
  const bool unlock_;
  TableAccess access_;
  VersionKeys pendingKeys_;
  VersionKeys committedKeys_;
  KeyChanges changes_;
  Located found_;
  ObjectBytes committed_;
};

/// Makes the keys of both versions, the committed one last: its bytes stay at hand.
Result Restoration::readVersions(bool added) {
  ZELTA_TRY(locateVersions(access_, objectID_, found_));
  if (found_.isPending()) {
    ObjectBytes pending;
    ZELTA_TRY(readVersionAside(access_, found_, &pending));
    ZELTA_TRY(pendingKeys_.make(pending));
  }
  if (added) return {};
  ZELTA_TRY(readCommittedAside(table_, objectID_, found_.tablePosition, &committed_));
  return committedKeys_.make(committed_);
}

Result Restoration::run(UInt64AVLTree*& changed) {
  const bool added = &changed == &table_.addedObjects;
  ZELTA_TRY(access_.acquire(kMutexWait));
  ZELTA_TRY(access_.readHeader());
  ZELTA_TRY(access_.openMemory());
  ZELTA_TRY(readVersions(added));
  const bool pending = found_.isPending();
  ZELTA_TRY(changes_.plan(access_.manager(), objectID_, pendingKeys_, pending, committedKeys_,
                          KeyChanges::Source::committed));
  // All that can fail for want of memory comes before the files are changed.
  CurrentKeysChange keys(table_);
  if (!added && table_.currentObjectID == objectID_) {
    ZELTA_TRY(keys.make(objectID_, committed_));
  }
  if (pending) {
    ZELTA_TRY(changes_.enter(access_.manager()));
    ZELTA_TRY(removeObject(access_.manager(), access_.memoryHeader, objectID_));
  }
  keys.keep();
  changes_.finish();
  record(changed, added);
  return access_.release();
}

/// The object leaves the set that named its change: an added one is gone, any other is locked only.
void Restoration::record(UInt64AVLTree*& changed, bool added) {
  UInt64AVLTree* node = find(changed, objectID_);
  assert(node != nullptr);
  remove(node, changed);
  if (added) {
    --table_.addedCount;
    delete node;
    if (table_.currentObjectID != objectID_) return;
    table_.releaseCurrentKeys();
    table_.currentObjectID = 0;
    return;
  }
  if (&changed == &table_.deletedObjects) --table_.deletedCount;
  if (unlock_) {
    unlockObject(table_.tableFile, table_.slotBase, objectID_);
    delete node;
  } else {
    insert(node, table_.lockedObjects, objectID_);
  }
}

}  // namespace

Result restoreObject(Table& table, long long objectID, bool unlock) {
  const std::uint64_t id =
      objectID == 0 ? table.currentObjectID : static_cast<std::uint64_t>(objectID);
  if (!table.wideIds() && objectID > 0xFFFFFFFF) {
    constexpr std::int64_t kById = -1;
    return reportError(&table.metaData, Own::keyNotFound, table.cName(), nullptr, objectID, kById);
  }
  if (UInt64AVLTree* node = find(table.lockedObjects, id); node != nullptr) {
    if (!unlock) return {};
    remove(node, table.lockedObjects);
    delete node;
    unlockObject(table.tableFile, table.slotBase, id);
    if (table.currentObjectID == id) table.currentObjectID = 0;
    return {};
  }
  for (UInt64AVLTree** changed :
       {&table.addedObjects, &table.editedObjects, &table.deletedObjects}) {
    if (find(*changed, id) == nullptr) continue;
    return Restoration(table, id, unlock).run(*changed);
  }
  return reportError(&table.metaData, Own::objectNotFound, table.cName(), extension::kMemory,
                     static_cast<std::int64_t>(id));
}

}  // namespace zelta

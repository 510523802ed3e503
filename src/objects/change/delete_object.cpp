#include "objects/change/delete_object.h"

#include <cassert>
#include <cstring>

#include "index/kinds.h"
#include "objects/change/key_changes.h"
#include "objects/lock_position.h"
#include "objects/object_buffer.h"
#include "objects/read/object_access.h"
#include "objects/read/read_version.h"
#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_remove.h"

namespace zelta {

namespace {

/// The work that is done with the object once it is found.
class Deletion final : public ObjectAccess {
 public:
  Deletion(UInt32AVLTree*& tables, const ReadRequest& request)
      : ObjectAccess(tables, request),
        before_(request.table),
        none_(request.table),
        changes_(request.table),
        startIsOurs_(isOurs(request.table)) {}

 protected:
  Result work(Located& found) override;

 private:
  static bool isOurs(const Table& table) {
    const std::uint64_t id = table.currentObjectID;
    return id != 0 && table.objectData != nullptr &&
           (table.hasPending(id) || find(table.lockedObjects, id) != nullptr);
  }
  Result readOld(const Located& found, ObjectBytes* object);
  void record(std::uint64_t objectID);

  VersionKeys before_;
  VersionKeys none_;  ///< of the version afterwards
  KeyChanges changes_;
  bool startIsOurs_;  ///< the buffer holds the object that was current, and it is locked
};

/// The version that goes: into the buffer, unless the object is there. What the caller may have
/// changed in the buffer since it was stored has no part in the indexes.
Result Deletion::readOld(const Located& found, ObjectBytes* object) {
  if (startIsOurs_ && found.objectID == startID_) {
    return readVersionAside(access_, found, object);
  }
  startIsOurs_ = false;
  ZELTA_TRY(readVersion(access_, found));
  *object = {table_.objectData, table_.objectLength};
  return {};
}

/// A pending version goes at once, with its keys; what is committed is only noted.
Result Deletion::work(Located& found) {
  assert(access_.owned());
  ObjectBytes object;
  ZELTA_TRY(readOld(found, &object));
  ZELTA_TRY(before_.make(object));
  const bool pending = found.isPending();
  ZELTA_TRY(changes_.plan(access_.manager(), found.objectID, before_, pending, none_,
                          KeyChanges::Source::tested));
  // All that can fail for want of memory comes before the files are changed.
  ZELTA_TRY(moveCursors(found, object));
  ZELTA_TRY(noteObjectLock(table_, found.objectID, object));
  if (pending) {
    ZELTA_TRY(changes_.enter(access_.manager()));
    ZELTA_TRY(removeObject(access_.manager(), access_.memoryHeader, found.objectID));
  }
  found.newLock.keep();
  changes_.finish();
  record(found.objectID);
  return releaseMutex();
}

/// An object that was only added is gone; any other waits for the commit with its lock.
void Deletion::record(std::uint64_t objectID) {
  if (UInt64AVLTree* added = find(table_.addedObjects, objectID); added != nullptr) {
    remove(added, table_.addedObjects);
    delete added;
    --table_.addedCount;
    return;
  }
  for (UInt64AVLTree** set : {&table_.editedObjects, &table_.lockedObjects}) {
    UInt64AVLTree* node = find(*set, objectID);
    if (node == nullptr) continue;
    remove(node, *set);
    insert(node, table_.deletedObjects, objectID);
    ++table_.deletedCount;
    return;
  }
}

/// Whether a query by ID means the current object.
bool meansCurrent(const Table& table, const ObjectQuery& query) {
  return query.index == 0 && (query.key == nullptr || idAt(table, query.key, query.width) == 0);
}

}  // namespace

Result deleteObject(const Session& session, Table& table, ObjectQuery query, CZELTA::Object* object,
                    std::uint32_t* entry) {
  if (entry != nullptr) *entry = 0;
  const std::uint64_t current = table.currentObjectID;
  if (meansCurrent(table, query)) {
    if (current == 0) return reportError(&session.metaData, Own::noObject);
    query = {flagsOf(query.mode) | CZELTA::ReadEqual, 0, &current, IdWidth::whole};
  }
  ReadRequest request(table, query, false);
  ZELTA_TRY(request.check());
  ZELTA_TRY(checkIndexKinds(table));
  ZELTA_TRY(request.takeKey());
  Deletion deletion(session.tables, request);
  ZELTA_TRY(deletion.run());
  if (entry != nullptr) *entry = deletion.entry();
  fillObject(table, object);
  return {};
}

}  // namespace zelta

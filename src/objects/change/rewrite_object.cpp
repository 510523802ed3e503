#include "objects/change/rewrite_object.h"

#include <cassert>
#include <cstring>

#include "index/kinds.h"
#include "objects/change/key_changes.h"
#include "objects/change/write_retry.h"
#include "objects/current_keys.h"
#include "objects/object_buffer.h"
#include "objects/read/locate.h"
#include "objects/read/read_version.h"
#include "objects/table_access.h"
#include "objects/validate_object.h"
#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_store.h"

namespace zelta {

namespace {

constexpr WriteRetry::Limits kRetries{150, 0};
constexpr std::uint16_t kLastVersion = 65534;

/// Raises the version word of the object in the buffer, and puts it back unless told otherwise.
class RaisedVersion {
 public:
  explicit RaisedVersion(char* object) : object_(object) {
    std::memcpy(&old_, object_, sizeof old_);
    const auto raised = static_cast<std::uint16_t>(old_ >= kLastVersion ? 1 : old_ + 1);
    std::memcpy(object_, &raised, sizeof raised);
  }
  ~RaisedVersion() {
    if (object_ != nullptr) std::memcpy(object_, &old_, sizeof old_);
  }
  RaisedVersion(const RaisedVersion&) = delete;
  RaisedVersion& operator=(const RaisedVersion&) = delete;
  void keep() { object_ = nullptr; }

 private:
  char* object_;
  std::uint16_t old_ = 0;
};

/// One rewriting, in passes like an addition. The object is locked by this transaction, so that
/// only its new keys can meet others.
class Rewriting {
 public:
  Rewriting(const Session& session, Table& table)
      : table_(table),
        objectID_(table.currentObjectID),
        access_(table),
        retry_(session.tables, access_, kRetries),
        before_(table),
        after_(table),
        changes_(table) {}

  Result run() {
    return retry_.run(
        changes_, [this] { return pass(); }, [this] { return wait(); });
  }

 private:
  Result pass();
  Result store();
  Result wait();

  Table& table_;
  const std::uint64_t objectID_;
  TableAccess access_;
  WriteRetry retry_;
  VersionKeys before_;
  VersionKeys after_;
  KeyChanges changes_;
};

Result Rewriting::pass() {
  // The changes take keys out of it.
  ZELTA_TRY(after_.make({table_.objectData, table_.objectLength}));
  ZELTA_TRY(access_.acquire(kTableMutexWait));
  ZELTA_TRY(access_.readHeader());
  ZELTA_TRY(access_.openMemory());
  Located found;
  ObjectBytes old;
  ZELTA_TRY(locateVersions(access_, objectID_, found));
  ZELTA_TRY(readVersionAside(access_, found, &old));
  ZELTA_TRY(before_.make(old));
  const bool newKeys = !sameKeys(table_, before_, after_);
  if (newKeys) ZELTA_TRY(access_.openIndex());
  if (newKeys) {
    ZELTA_TRY(changes_.plan(access_.manager(), objectID_, before_, found.isPending(), after_,
                            KeyChanges::Source::tested));
  }
  ZELTA_TRY(store());
  return access_.release();
}

/// Keys first, then the object: its flush brings both into the file.
Result Rewriting::store() {
  assert(access_.owned());
  ZELTA_TRY(changes_.enter(access_.manager()));
  // All that can fail for want of memory comes before the object is stored.
  CurrentKeysChange keys(table_);
  ZELTA_TRY(keys.make(objectID_, {table_.objectData, table_.objectLength}));
  RaisedVersion version(table_.objectData);
  ZELTA_TRY(storeObject(access_.manager(), access_.memoryHeader, table_.objectData,
                        table_.objectLength, objectID_));
  version.keep();
  keys.keep();
  if (UInt64AVLTree* node = find(table_.lockedObjects, objectID_); node != nullptr) {
    remove(node, table_.lockedObjects);
    insert(node, table_.editedObjects, objectID_);
  }
  changes_.finish();
  return {};
}

/// Something is locked, and its owner may be dead.
Result Rewriting::wait() {
  ZELTA_TRY(retry_.countPass(objectID_));
  ZELTA_TRY(retry_.repairDead());
  retry_.pause();
  return {};
}

/// Whether the current object is this transaction's to rewrite.
bool mayRewrite(const Table& table) {
  const std::uint64_t id = table.currentObjectID;
  if (id == 0 || table.objectData == nullptr || find(table.deletedObjects, id) != nullptr) {
    return false;
  }
  return table.hasPending(id) || find(table.lockedObjects, id) != nullptr;
}

}  // namespace

Result rewriteObject(const Session& session, Table& table, CZELTA::Object* object) {
  if (!mayRewrite(table)) return reportError(&session.metaData, Own::noObject);
  ZELTA_TRY(validateObject(table, table.objectData, table.objectLength));
  ZELTA_TRY(checkIndexKinds(table));
  ZELTA_TRY(checkContents(table, {table.objectData, table.objectLength}));
  // The ID in the buffer may have been changed: that does not move an object.
  std::memcpy(table.objectData + 2, &table.currentObjectID, table.idSize());
  ZELTA_TRY(Rewriting(session, table).run());
  fillObject(table, object);
  return {};
}

}  // namespace zelta

#include "objects/rewrite_object.h"

#include <cstring>

#include "index/index_file.h"
#include "index/kinds.h"
#include "objects/current_keys.h"
#include "objects/key_changes.h"
#include "objects/locate.h"
#include "objects/object_buffer.h"
#include "objects/read_bytes.h"
#include "objects/upcalls.h"
#include "platform/clock.h"
#include "storage/memory_file.h"
#include "storage/memory_file_store.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMutexWait = 30000;  // ms
constexpr int kMaximumPasses = 150;
constexpr std::uint32_t kPause = 10;  // ms
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

class Rewriting {
 public:
  Rewriting(MetaData& metaData, UInt32AVLTree*& tables, Table& table)
      : metaData_(metaData),
        tables_(tables),
        table_(table),
        objectID_(table.currentObjectID),
        manager_(metaData, table),
        before_(metaData, table),
        after_(metaData, table),
        changes_(metaData, table) {}

  Result run();

 private:
  Result pass();
  Result store(MemoryFileHeader_tag& header, KeyTrees& trees);
  Result askForDead();

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  const std::uint64_t objectID_;
  AtomicManager manager_;
  VersionKeys before_;
  VersionKeys after_;
  KeyChanges changes_;
};

Result Rewriting::run() {
  bool askedForDead = false;
  for (int passes = 0;;) {
    const Result result = pass();
    const bool keyHeld = result.is(Own::keyExists) && changes_.heldByOthers();
    changes_.clear();
    if (keyHeld && !askedForDead) {
      askedForDead = true;
      clearError(metaData_);
      ZELTA_TRY(askForDead());
      continue;
    }
    if (!result.isLocked()) return result;
    if (++passes == kMaximumPasses) {
      return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                         static_cast<std::int64_t>(objectID_));
    }
    ZELTA_TRY(askForDead());
    platform::sleepMilliseconds(kPause);
  }
}

Result Rewriting::pass() {
  // The changes take keys out of it.
  ZELTA_TRY(after_.make({table_.objectData, table_.objectLength}));
  TableMutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData_, table_, kMutexWait));
  TableHeader_tag header;
  ZELTA_TRY(readTableHeader(metaData_, table_.cName(), table_.tableFile, header, true));
  MemoryFileHeader_tag memoryHeader;
  ZELTA_TRY(attachMemoryFile(table_, memoryHeader, manager_));
  Located found;
  ObjectBytes old;
  ZELTA_TRY(locateVersions(metaData_, table_, header, manager_, objectID_, found));
  ZELTA_TRY(readVersionAside(metaData_, table_, manager_, found, &old));
  ZELTA_TRY(before_.make(old));

  KeyTrees trees{manager_, {PageFile::memory, memoryHeader.pageSize}, {PageFile::index, 0}};
  if (!sameKeys(table_, before_, after_)) {
    IndexFileHeader_tag indexHeader;
    ZELTA_TRY(openIndexFile(manager_, indexHeader, &header, true, true));
    manager_.attach(table_.indexFile, &indexHeader, table_.memoryFile, &memoryHeader);
    trees.committed.pageSize = indexHeader.pageSize;
    ZELTA_TRY(changes_.plan(trees, objectID_, before_, found.memoryPosition != 0, after_,
                            KeyChanges::Source::tested));
  }
  ZELTA_TRY(store(memoryHeader, trees));
  return guard.release();
}

Result Rewriting::store(MemoryFileHeader_tag& header, KeyTrees& trees) {
  ZELTA_TRY(changes_.enter(trees));
  // All that can fail for want of memory comes before the object is stored.
  CurrentKeysChange keys(table_);
  ZELTA_TRY(keys.make(metaData_, objectID_, {table_.objectData, table_.objectLength}));
  RaisedVersion version(table_.objectData);
  ZELTA_TRY(
      storeObject(manager_, header, table_, table_.objectData, table_.objectLength, objectID_));
  version.keep();
  keys.keep();
  if (UInt64AVLTree* node = find(table_.lockedObjects, objectID_); node != nullptr) {
    remove(node, table_.lockedObjects);
    insert(node, table_.editedObjects, objectID_);
  }
  changes_.finish();
  return {};
}

/// Who holds what is wanted may have died without anybody having noticed yet. No mutex is held.
Result Rewriting::askForDead() {
  const Result result = clearDeadTransaction(metaData_, tables_, 0);
  return result.isLocked() ? Result{} : result;
}

/// Whether the current object is this transaction's to rewrite.
bool mayRewrite(const Table& table) {
  const std::uint64_t id = table.currentObjectID;
  if (id == 0 || table.objectData == nullptr || find(table.deletedObjects, id) != nullptr) {
    return false;
  }
  return find(table.editedObjects, id) != nullptr || find(table.lockedObjects, id) != nullptr ||
         find(table.addedObjects, id) != nullptr;
}

}  // namespace

Result rewriteObject(MetaData& metaData, UInt32AVLTree*& tables, Table& table,
                     CZELTA::Object* object) {
  if (!mayRewrite(table)) return reportError(&metaData, Own::noObject);
  ZELTA_TRY(validateObject(metaData, table, table.objectData, table.objectLength));
  ZELTA_TRY(checkIndexKinds(metaData, table));
  // The ID in the buffer may have been changed: that does not move an object.
  std::memcpy(table.objectData + 2, &table.currentObjectID, table.idSize());
  ZELTA_TRY(Rewriting(metaData, tables, table).run());
  fillObject(table, object);
  return {};
}

}  // namespace zelta

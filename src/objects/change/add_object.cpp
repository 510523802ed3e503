#include "objects/change/add_object.h"

#include <cassert>
#include <cstring>
#include <memory>

#include "index/kinds.h"
#include "objects/change/choose_id.h"
#include "objects/change/key_changes.h"
#include "objects/change/write_retry.h"
#include "objects/current_keys.h"
#include "objects/object_buffer.h"
#include "objects/table_access.h"
#include "objects/upcalls.h"
#include "objects/validate_object.h"
#include "platform/clock.h"
#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_store.h"

namespace zelta {

namespace {

/// Some two and a half seconds: the first half of the passes only yields the processor in between.
constexpr WriteRetry::Limits kRetries{500, 250};

/// One addition, in passes: each opens the files, chooses an ID, plans the keys and stores. A pass
/// that meets a lock leaves nothing behind.
class Addition {
 public:
  Addition(const Session& session, Table& table, std::uint64_t wantedID)
      : metaData_(session.metaData),
        tables_(session.tables),
        table_(table),
        wantedID_(wantedID),
        access_(table),
        retry_(session.tables, access_, kRetries),
        none_(table),
        keys_(table),
        changes_(table) {}

  Result run() {
    return retry_.run(
        changes_, [this] { return pass(); }, [this] { return wait(); });
  }

 private:
  Result pass();
  Result chooseID();
  Result store();
  Result wait();
  Result waitForBlocker();

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  std::uint64_t wantedID_;
  std::uint64_t objectID_ = 0;
  TableAccess access_;
  WriteRetry retry_;
  VersionKeys none_;  ///< of the version before
  VersionKeys keys_;
  KeyChanges changes_;
  std::uint32_t blocker_ = 0;  ///< who has marked the slot of the wanted ID
  std::uint32_t cleared_ = 0;  ///< a blocker that turned out to be no more
  bool indexWaits_ = false;    ///< an object that the index needs waits for its content
};

Result Addition::pass() {
  blocker_ = 0;
  indexWaits_ = false;
  ZELTA_TRY(access_.acquire(kTableMutexWait));
  ZELTA_TRY(access_.readHeader());
  if (const Result opened = access_.openIndex(); opened.failed()) {
    indexWaits_ = opened.isLocked();
    return opened;
  }
  ZELTA_TRY(access_.openMemory());
  ZELTA_TRY(chooseID());
  ZELTA_TRY(keys_.make({table_.objectData, table_.objectLength}));
  ZELTA_TRY(
      changes_.plan(access_.manager(), objectID_, none_, false, keys_, KeyChanges::Source::tested));
  ZELTA_TRY(store());
  return access_.release();
}

/// Chooses the ID for this pass and writes the head of the object.
Result Addition::chooseID() {
  const TableHeader_tag& header = access_.header;
  if (wantedID_ == 0) {
    ZELTA_TRY(chooseFreeID(table_, header, access_.manager(), &objectID_));
  } else {
    ZELTA_TRY(testFreeID(table_, header, access_.manager(), wantedID_, &blocker_));
    objectID_ = wantedID_;
  }
  constexpr std::uint16_t kFirstVersion = 1;
  std::memcpy(table_.objectData, &kFirstVersion, 2);
  std::memcpy(table_.objectData + 2, &objectID_, table_.idSize());
  return {};
}

/// The object's flush brings the keys into the file as well.
Result Addition::store() {
  assert(access_.owned());
  // All that can fail for want of memory comes before the object is stored.
  auto node = std::make_unique<UInt64AVLTree>();
  ZELTA_TRY(changes_.enter(access_.manager()));
  ZELTA_TRY(
      refreshCurrentKeys(table_, objectID_, {table_.objectData, table_.objectLength}, {}, nullptr));
  if (const Result stored = storeObject(access_.manager(), access_.memoryHeader, table_.objectData,
                                        table_.objectLength, objectID_);
      stored.failed()) {
    table_.releaseCurrentKeys();
    return stored;
  }
  insert(node.release(), table_.addedObjects, objectID_);
  ++table_.addedCount;
  table_.currentObjectID = objectID_;
  changes_.finish();
  return {};
}

/// Something is locked: lets its owner go on, or repairs what a dead one left.
Result Addition::wait() {
  if (blocker_ != 0) return waitForBlocker();
  if (indexWaits_) ZELTA_TRY(retry_.repairDead());
  ZELTA_TRY(retry_.countPass(wantedID_));
  retry_.pause();
  return {};
}

/// The slot of the wanted ID bears a mark. Whoever has made it may still give the ID up.
Result Addition::waitForBlocker() {
  if (blocker_ == cleared_) {
    return reportError(&metaData_, Own::idExists, table_.cName(), nullptr,
                       static_cast<std::int64_t>(wantedID_));
  }
  const Result result = clearDeadTransaction({metaData_, tables_}, blocker_);
  if (result.isLocked()) {
    constexpr std::uint32_t kPause = 10;  // ms
    platform::sleepMilliseconds(kPause);
    return {};
  }
  cleared_ = blocker_;
  return result;
}

}  // namespace

Result addObject(const Session& session, Table& table, CZELTA::Object* object, long long objectID) {
  if (table.objectData == nullptr) return reportError(&session.metaData, Own::noObject);
  if (objectID < 0 || (!table.wideIds() && objectID > 0xFFFFFFFF)) {
    return reportError(&session.metaData, Own::parameter, table.cName(), nullptr, objectID);
  }
  table.currentObjectID = 0;
  ZELTA_TRY(validateObject(table, table.objectData, table.objectLength));
  ZELTA_TRY(checkIndexKinds(table));
  ZELTA_TRY(checkContents(table, {table.objectData, table.objectLength}));
  ZELTA_TRY(Addition(session, table, static_cast<std::uint64_t>(objectID)).run());
  fillObject(table, object);
  return {};
}

}  // namespace zelta

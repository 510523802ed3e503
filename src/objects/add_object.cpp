#include "objects/add_object.h"

#include <cstring>
#include <memory>

#include "index/index_file.h"
#include "index/kinds.h"
#include "objects/choose_id.h"
#include "objects/current_keys.h"
#include "objects/key_changes.h"
#include "objects/object_buffer.h"
#include "objects/upcalls.h"
#include "platform/clock.h"
#include "storage/memory_file.h"
#include "storage/memory_file_store.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMutexWait = 30000;  // ms
constexpr int kMaximumPasses = 500;
constexpr int kQuickPasses = 250;

class Addition {
 public:
  Addition(MetaData& metaData, UInt32AVLTree*& tables, Table& table, std::uint64_t wantedID)
      : metaData_(metaData),
        tables_(tables),
        table_(table),
        wantedID_(wantedID),
        manager_(metaData, table),
        none_(metaData, table),
        keys_(metaData, table),
        changes_(metaData, table) {}

  Result run() {
    for (;;) {
      blocker_ = 0;
      lookForDead_ = false;
      const Result result = pass();
      const bool keyHeld = result.is(Own::keyExists) && changes_.heldByOthers();
      changes_.clear();
      if (keyHeld && !askedForDead_) {
        ZELTA_TRY(askForDead());
        continue;
      }
      if (!result.isLocked()) return result;
      ZELTA_TRY(wait());
    }
  }

 private:
  Result pass();
  Result chooseID(const TableHeader_tag& header);
  Result store(MemoryFileHeader_tag& header, KeyTrees& trees);
  Result wait();
  Result askForDead();

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  std::uint64_t wantedID_;
  std::uint64_t objectID_ = 0;
  AtomicManager manager_;
  VersionKeys none_;  ///< of the version before
  VersionKeys keys_;
  KeyChanges changes_;
  std::uint32_t blocker_ = 0;  ///< who has marked the slot of the wanted ID
  std::uint32_t cleared_ = 0;  ///< a blocker that turned out to be no more
  bool lookForDead_ = false;
  bool askedForDead_ = false;  ///< a key was held by another transaction before
  int passes_ = 0;
};

Result Addition::pass() {
  TableMutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData_, table_, kMutexWait));
  TableHeader_tag header;
  ZELTA_TRY(readTableHeader(metaData_, table_.cName(), table_.tableFile, header, true));
  IndexFileHeader_tag indexHeader;
  if (const Result opened = openIndexFile(manager_, indexHeader, &header, true, true);
      opened.failed()) {
    lookForDead_ = opened.isLocked();  // an object waits for its content from the log
    return opened;
  }
  MemoryFileHeader_tag memoryHeader;
  ZELTA_TRY(readMemoryFileHeader(table_, memoryHeader, manager_, true));
  manager_.attach(table_.indexFile, &indexHeader, table_.memoryFile, &memoryHeader);
  ZELTA_TRY(chooseID(header));
  KeyTrees trees{
      manager_, {PageFile::memory, memoryHeader.pageSize}, {PageFile::index, indexHeader.pageSize}};
  ZELTA_TRY(keys_.make({table_.objectData, table_.objectLength}));
  ZELTA_TRY(changes_.plan(trees, objectID_, none_, false, keys_, KeyChanges::Source::tested));
  ZELTA_TRY(store(memoryHeader, trees));
  return guard.release();
}

Result Addition::chooseID(const TableHeader_tag& header) {
  if (wantedID_ == 0) {
    ZELTA_TRY(chooseFreeID(metaData_, table_, header, manager_, &objectID_));
  } else {
    ZELTA_TRY(testFreeID(metaData_, table_, header, manager_, wantedID_, &blocker_));
    objectID_ = wantedID_;
  }
  constexpr std::uint16_t kFirstVersion = 1;
  std::memcpy(table_.objectData, &kFirstVersion, 2);
  std::memcpy(table_.objectData + 2, &objectID_, table_.idSize());
  return {};
}

Result Addition::store(MemoryFileHeader_tag& header, KeyTrees& trees) {
  // All that can fail for want of memory comes before the object is stored.
  auto node = std::make_unique<UInt64AVLTree>();
  ZELTA_TRY(changes_.enter(trees));
  ZELTA_TRY(refreshCurrentKeys(metaData_, table_, objectID_,
                               {table_.objectData, table_.objectLength}, {}, nullptr));
  if (const Result stored =
          storeObject(manager_, header, table_, table_.objectData, table_.objectLength, objectID_);
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

/// Who holds what is wanted may have died without anybody having noticed yet.
Result Addition::askForDead() {
  askedForDead_ = true;
  clearError(metaData_);
  const Result result = clearDeadTransaction(metaData_, tables_, 0);
  return result.isLocked() ? Result{} : result;
}

/// Something is locked: lets its owner go on, or repairs what a dead one left. No mutex is held.
Result Addition::wait() {
  if (blocker_ != 0) {
    if (blocker_ == cleared_) {
      return reportError(&metaData_, Own::idExists, table_.cName(), nullptr,
                         static_cast<std::int64_t>(wantedID_));
    }
    const Result result = clearDeadTransaction(metaData_, tables_, blocker_);
    if (result.isLocked()) {
      platform::sleepMilliseconds(10);
      return {};
    }
    cleared_ = blocker_;
    return result;
  }
  if (lookForDead_) ZELTA_TRY(askForDead());
  if (++passes_ >= kMaximumPasses) {
    return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                       static_cast<std::int64_t>(wantedID_));
  }
  platform::sleepMilliseconds(passes_ < kQuickPasses ? 0 : 10);
  return {};
}

}  // namespace

Result addObject(MetaData& metaData, UInt32AVLTree*& tables, Table& table, CZELTA::Object* object,
                 long long objectID) {
  if (table.objectData == nullptr) return reportError(&metaData, Own::noObject);
  if (objectID < 0 || (!table.wideIds() && objectID > 0xFFFFFFFF)) {
    return reportError(&metaData, Own::parameter, table.cName(), nullptr, objectID);
  }
  table.currentObjectID = 0;
  ZELTA_TRY(validateObject(metaData, table, table.objectData, table.objectLength));
  ZELTA_TRY(checkIndexKinds(metaData, table));
  ZELTA_TRY(Addition(metaData, tables, table, static_cast<std::uint64_t>(objectID)).run());
  fillObject(table, object);
  return {};
}

}  // namespace zelta

// Slots of transactions, and who lives.

#include "transaction/frame.h"

#include "frame/mutex_guard.h"
#include "objects/upcalls.h"
#include "platform/clock.h"
#include "platform/file_io.h"
#include "transaction/commit.h"
#include "transaction/frame_internal.h"

namespace zelta {

Result reportControlFile(MetaData& metaData, SystemCode failure) {
  return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
}

Result readSlotNumber(MetaData& metaData, std::uint64_t slot, std::uint32_t* number) {
  return reportControlFile(metaData,
                           readBuffer(metaData.controlFile, slot, number, sizeof *number));
}

Result walkSlots(MetaData& metaData, std::uint64_t start, SlotVisitor& visitor) {
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(metaData.controlFile, &size); failure != 0) {
    return reportControlFile(metaData, failure);
  }
  for (std::uint64_t slot = start; slot + kSlotSize <= size; slot += kSlotSize) {
    bool stop = false;
    ZELTA_TRY(visitor.visit(slot, &stop));
    if (stop) return {};
  }
  return {};
}

namespace {

/// Finds a free slot, counts live ones, stops at a dead one.
class FreeSlotSearch final : public SlotVisitor {
 public:
  FreeSlotSearch(MetaData& metaData, std::uint64_t start, bool keepLock)
      : metaData_(metaData), liveEnd(start), end(start), keepLock_(keepLock) {}

  Result visit(std::uint64_t slot, bool* stop) override {
    end = slot + kSlotSize;
    const SystemCode failure = platform::lockWord(metaData_.controlFile, {slot + 4});
    if (failure == code::kLockViolation) {
      ++liveCount;
      liveEnd = end;
      return {};
    }
    if (failure != 0) return reportControlFile(metaData_, failure);
    std::uint32_t number = 0;
    if (const Result read = readSlotNumber(metaData_, slot, &number); read.failed()) {
      platform::unlockWord(metaData_.controlFile, {slot + 4});
      return read;
    }
    if (number >= kFirstSlotNumber) {
      dropFreeSlot();
      position = slot;
      deadNumber = number;
      *stop = true;
    } else if (position == 0) {
      position = slot;
      if (!keepLock_) platform::unlockWord(metaData_.controlFile, {slot + 4});
    } else {
      platform::unlockWord(metaData_.controlFile, {slot + 4});
    }
    return {};
  }

  void dropFreeSlot() {
    if (position != 0 && keepLock_) platform::unlockWord(metaData_.controlFile, {position + 4});
    position = 0;
  }

 private:
  MetaData& metaData_;

 public:
  std::uint64_t position = 0;
  std::uint64_t liveEnd;  ///< behind the last live slot
  std::uint64_t end;      ///< behind the last slot
  std::uint32_t liveCount = 0;
  std::uint32_t deadNumber = 0;

 private:
  bool keepLock_;
};

}  // namespace

Result findFreeSlot(MetaData& metaData, const ControlHeader_tag& header, std::uint64_t* position,
                    std::uint32_t* liveCount, std::uint32_t* deadNumber, bool keepLock) {
  *position = 0;
  *liveCount = 0;
  *deadNumber = 0;
  FreeSlotSearch search(metaData, header.directoryEnd, keepLock);
  if (const Result result = walkSlots(metaData, header.directoryEnd, search); result.failed()) {
    search.dropFreeSlot();
    return result;
  }
  *liveCount = search.liveCount;
  *deadNumber = search.deadNumber;
  *position = search.position;
  if (search.deadNumber != 0) return {};
  std::uint64_t size = 0;
  SystemCode failure = platform::fileSize(metaData.controlFile, &size);
  if (failure == 0 && size < header.directoryEnd) {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  }
  if (failure == 0 && size != search.liveEnd)
    failure = truncateFile(metaData.controlFile, search.liveEnd);
  if (failure == 0 && search.position == 0) {
    *position = search.end;
    if (keepLock) failure = platform::lockWord(metaData.controlFile, {search.end + 4});
  } else if (failure != 0) {
    search.dropFreeSlot();
  }
  return reportControlFile(metaData, failure);
}

// -- Giving a slot back ---------------------------------------------------------------------------

namespace {

/// Cuts the control file behind the last slot in use before `position`.
Result cutSlots(MetaData& metaData, std::uint64_t position) {
  std::uint64_t cut = position;
  while (cut >= metaData.slotAreaStart + std::uint64_t{kSlotSize}) {
    std::uint32_t number = 0;
    const SystemCode failure =
        readBuffer(metaData.controlFile, cut - kSlotSize, &number, sizeof number);
    if (failure == code::kLockViolation || (failure == 0 && number != 0)) break;
    if (failure != 0) return reportControlFile(metaData, failure);
    cut -= kSlotSize;
  }
  if (cut < kControlHeaderSize) {
    return reportError(&metaData, Own::context, nullptr, nullptr, static_cast<std::int64_t>(cut),
                       kControlHeaderSize);
  }
  return reportControlFile(metaData, truncateFile(metaData.controlFile, cut));
}

}  // namespace

Result releaseSlot(MetaData& metaData, std::uint32_t number, std::uint64_t position) {
  if (position == 0) return {};
  if (number == 1) {
    constexpr std::uint32_t kIdle = 0;
    const SystemCode failure = writeBuffer(
        metaData.controlFile, offsetof(ControlHeader_tag, exclusiveState), &kIdle, sizeof kIdle);
    platform::unlockWord(metaData.controlFile, {kExclusiveWord});
    return reportControlFile(metaData, failure);
  }
  MutexGuard guard;
  const Result waited = guard.acquire(metaData, metaData.databaseMutex, kLongWait);
  platform::unlockWord(metaData.controlFile,
                       {position + 4});  // else it would look alive until we close
  ZELTA_TRY(waited);
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(metaData.controlFile, &size); failure != 0) {
    return reportControlFile(metaData, failure);
  }
  if (position + kSlotSize >= size) {
    ZELTA_TRY(cutSlots(metaData, position));
  } else {
    constexpr char kFree[kSlotSize] = {};
    ZELTA_TRY(reportControlFile(metaData,
                                writeBuffer(metaData.controlFile, position, kFree, sizeof kFree)));
  }
  return reportControlFile(metaData, guard.release());
}

// -- Who lives ------------------------------------------------------------------------------------

namespace {

constexpr std::uint32_t kSearchWait = 30000;  // ms

/// Looks for the slot of a number, or for any dead one.
class OwnerSearch final : public SlotVisitor {
 public:
  OwnerSearch(MetaData& metaData, std::uint32_t number, bool keepLock)
      : metaData_(metaData), wanted_(number), keepLock_(keepLock) {}

  Result visit(std::uint64_t slot, bool* stop) override {
    std::uint32_t number = 0;
    ZELTA_TRY(readSlotNumber(metaData_, slot, &number));
    if (number < kFirstSlotNumber || (wanted_ != 0 && number != wanted_)) return {};
    if (wanted_ != 0 && !keepLock_) {
      take(slot, number, stop);
      return {};
    }
    const SystemCode failure = platform::lockWord(metaData_.controlFile, {slot + 4});
    if (failure == code::kLockViolation) return wanted_ != 0 ? Result::locked() : Result{};
    if (failure != 0) return reportControlFile(metaData_, failure);
    if (!keepLock_) platform::unlockWord(metaData_.controlFile, {slot + 4});
    take(slot, number, stop);
    return {};
  }

  std::uint64_t position = 0;
  std::uint32_t found = 0;

 private:
  void take(std::uint64_t slot, std::uint32_t number, bool* stop) {
    position = slot;
    found = number;
    *stop = true;
  }

  MetaData& metaData_;
  std::uint32_t wanted_;
  bool keepLock_;
};

}  // namespace

Result findLiveTransaction(MetaData& metaData, std::uint32_t number, std::uint64_t* position,
                           std::uint32_t* found, bool keepLock) {
  *position = 0;
  *found = 0;
  if (number == 1) {
    if (keepLock) {
      const SystemCode failure = platform::lockWord(metaData.controlFile, {kExclusiveWord});
      if (failure == code::kLockViolation) return Result::locked();
      if (failure != 0) return reportControlFile(metaData, failure);
    }
    *position = kExclusiveWord;
    *found = 1;
    return {};
  }
  // An exclusive transaction is alone, and where slots were when it began, a table may be by now.
  if (metaData.slotPosition == kExclusiveWord) return {};
  MutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData, metaData.databaseMutex, kSearchWait));
  OwnerSearch search(metaData, number, keepLock);
  ZELTA_TRY(walkSlots(metaData, metaData.slotAreaStart, search));
  *position = search.position;
  *found = search.found;
  return {};
}

// From the finding of a dead transaction to the end of its repair the database's mutex is held: who
// finds its word locked by a repairer in between takes it for alive, and what it has left halfway
// for damage.

Result clearDeadTransaction(MetaData& metaData, UInt32AVLTree*& tables, std::uint32_t number) {
  std::uint64_t position = 0;
  std::uint32_t found = 0;
  MutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData, metaData.databaseMutex, kLongWait));
  ZELTA_TRY(findLiveTransaction(metaData, number, &position, &found, true));
  if (position == 0) return {};
  return RepairScope(metaData, found, position).run(tables);
}

Result clearAllDead(MetaData& metaData, UInt32AVLTree*& tables, bool* repaired) {
  if (repaired != nullptr) *repaired = false;
  for (;;) {
    std::uint64_t position = 0;
    std::uint32_t found = 0;
    MutexGuard guard;
    ZELTA_TRY(guard.acquire(metaData, metaData.databaseMutex, kLongWait));
    ZELTA_TRY(findLiveTransaction(metaData, 0, &position, &found, true));
    if (position == 0) return {};
    ZELTA_TRY(RepairScope(metaData, found, position).run(tables));
    if (repaired != nullptr) *repaired = true;
  }
}

void unlockOwnerWord(MetaData& metaData, std::uint32_t number, std::uint64_t position) {
  platform::unlockWord(metaData.controlFile, {number == 1 ? kExclusiveWord : position + 4});
}

// -- Ending ---------------------------------------------------------------------------------------

namespace {

/// What a transaction holds in the control file.
Result giveUpPlace(MetaData& metaData) {
  if (metaData.transactionWord == 0) return {};
  if (metaData.slotPosition == 0) {
    if (metaData.transactionWord != 1) return {};
    return reportControlFile(metaData, platform::releaseMutex(metaData.databaseMutex));
  }
  if (metaData.leaveSlot) {
    unlockOwnerWord(metaData, metaData.transactionWord, metaData.slotPosition);
    return {};
  }
  return releaseSlot(metaData, metaData.transactionWord, metaData.slotPosition);
}

}  // namespace

Result endTransaction(MetaData& metaData, UInt32AVLTree*& tables) {
  ZELTA_TRY(abortTransaction(metaData, tables, true));
  destroyTables(metaData, tables);
  const Result result = giveUpPlace(metaData);
  metaData.slotPosition = 0;
  metaData.transactionWord = 0;
  metaData.leaveSlot = false;
  return result;
}

}  // namespace zelta

#include "transaction/slots/begin.h"

#include <cassert>

#include "frame/mutex_guard.h"
#include "frame/upcalls.h"
#include "platform/clock.h"
#include "platform/deadline.h"
#include "platform/file_io.h"
#include "transaction/slots/recovery.h"
#include "transaction/slots/slots.h"

namespace zelta {

namespace {

/// One try to begin a transaction that keeps others out or may write. What it holds is given up at
/// the end of the scope unless the transaction has begun.
class BeginAttempt {
 public:
  enum class Outcome { begun, busy, dead };

  BeginAttempt(MetaData& metaData, CZELTA::Mode mode, std::uint32_t deadline)
      : metaData_(metaData), mode_(mode), deadline_(deadline) {}
  ~BeginAttempt() {
    unlockExclusive();
    if (!begun_) metaData_.leaveTransaction();
  }
  BeginAttempt(const BeginAttempt&) = delete;
  BeginAttempt& operator=(const BeginAttempt&) = delete;

  Result run(Outcome* outcome);

  /// After the outcome `dead`: repairs whom it has met. The database's mutex is held all the time,
  /// as nobody else can tell a dead one whose word is locked by its repairer from one alive.
  Result repair(UInt32AVLTree*& tables) {
    assert(owned_.held() && deadNumber_ != 0);
    return RepairScope(metaData_, deadNumber_, deadSlot_).run(tables);
  }

 private:
  Result waitForDatabase() {
    const SystemCode failure = platform::waitMutex(
        metaData_.databaseMutex, platform::timeLeft(platform::tickCount(), deadline_));
    if (failure != 0) return reportControlFile(metaData_, failure);
    owned_.adopt(metaData_.databaseMutex);
    return {};
  }
  void unlockExclusive() {
    if (!exclusive_) return;
    Slot::exclusive(metaData_.controlFile).unlockOwner();
    exclusive_ = false;
  }
  void noteDead(std::uint32_t number, const Slot& slot, Outcome* outcome) {
    deadNumber_ = number;
    deadSlot_ = slot;
    *outcome = Outcome::dead;
  }
  Result begin(Outcome* outcome);
  Result keepOthersOut(const ControlHeader_tag& header, Outcome* outcome);
  Result enterExclusive();
  Result takeSlot(const ControlHeader_tag& header, std::uint32_t lastTransaction, Outcome* outcome);
  Result writeSlot(std::uint32_t number, const Slot& slot);

  MetaData& metaData_;
  CZELTA::Mode mode_;
  std::uint32_t deadline_;
  MutexGuard owned_;
  std::uint32_t deadNumber_ = 0;  ///< whom to repair; its owner's word is locked
  Slot deadSlot_;
  bool exclusive_ = false;  ///< bytes 32 to 35 are locked
  bool begun_ = false;
};

Result BeginAttempt::run(Outcome* outcome) {
  *outcome = Outcome::busy;
  ZELTA_TRY(waitForDatabase());
  const SystemCode locked = Slot::exclusive(metaData_.controlFile).lockOwner();
  if (locked == code::kLockViolation) {
    static_cast<void>(owned_.release());
    return platform::timeLeft(platform::tickCount(), deadline_) == 0
               ? reportError(&metaData_, Own::databaseLocked)
               : Result{};
  }
  if (locked != 0) return reportControlFile(metaData_, locked);
  exclusive_ = true;
  ZELTA_TRY(begin(outcome));
  if (*outcome != Outcome::begun) return {};
  if (mode_ == CZELTA::TransactionExclusiveRead) {
    owned_.keep();
  } else if (const SystemCode failure = owned_.release(); failure != 0) {
    Slot(metaData_.controlFile, metaData_.slotPosition).unlockOwner();
    return reportControlFile(metaData_, failure);
  }
  metaData_.ownerThread = platform::currentThread();
  begun_ = true;
  return {};
}

/// What is done under databaseMutex with bytes 32 to 35 locked: no writer begins beside it.
Result BeginAttempt::begin(Outcome* outcome) {
  assert(owned_.held() && exclusive_);
  metaData_.access = Access::repair;  // of a change of the directory
  ControlHeader_tag header;
  ZELTA_TRY(refreshControlHeader(metaData_, header));
  metaData_.slotAreaStart = header.directoryEnd;
  struct {
    std::uint32_t lastTransaction;
    std::uint32_t exclusiveState;
  } words{};
  ZELTA_TRY(reportControlFile(
      metaData_, readBuffer(metaData_.controlFile, kExclusiveWord, &words, sizeof words)));
  if (words.exclusiveState != 0) {
    // Its owner's lock was just gained: it is dead. It was alone, so what lies behind the directory
    // are no slots but the remains of a change of the directory.
    std::uint64_t size = 0;
    SystemCode failure = platform::fileSize(metaData_.controlFile, &size);
    if (failure == 0 && size > header.directoryEnd) {
      failure = truncateFile(metaData_.controlFile, header.directoryEnd);
    }
    ZELTA_TRY(reportControlFile(metaData_, failure));
    exclusive_ = false;  // kept for the repair
    noteDead(kExclusiveNumber, Slot::exclusive(metaData_.controlFile), outcome);
    return {};
  }
  return mode_ == CZELTA::TransactionShared ? takeSlot(header, words.lastTransaction, outcome)
                                            : keepOthersOut(header, outcome);
}

/// Waits for the end of all writers that run, for a transaction that tolerates none beside it.
Result BeginAttempt::keepOthersOut(const ControlHeader_tag& header, Outcome* outcome) {
  for (;;) {
    SlotScan scan;
    ZELTA_TRY(scanSlots(metaData_, header, false, scan));
    if (scan.deadNumber != 0) {
      unlockExclusive();
      noteDead(scan.deadNumber, scan.slot, outcome);
      return {};
    }
    if (scan.liveCount == 0) break;
    if (platform::deadlinePassed(platform::tickCount(), deadline_)) {
      return reportError(&metaData_, Own::databaseLocked);
    }
    // The lock stays, so that no new writer begins meanwhile.
    static_cast<void>(owned_.release());
    platform::sleepMilliseconds(5);
    ZELTA_TRY(waitForDatabase());
  }
  ZELTA_TRY(enterExclusive());
  *outcome = Outcome::begun;
  return {};
}

/// A reader keeps databaseMutex from here to its end, a writer the exclusive word.
Result BeginAttempt::enterExclusive() {
  if (mode_ == CZELTA::TransactionExclusiveRead) {
    unlockExclusive();
    metaData_.enterReading(kExclusiveNumber);
    return {};
  }
  const Slot place = Slot::exclusive(metaData_.controlFile);
  ZELTA_TRY(reportControlFile(metaData_, place.enter(kExclusiveNumber)));
  metaData_.enterTransaction(kExclusiveNumber, kExclusiveWord);
  exclusive_ = false;  // the transaction's own from now on
  return {};
}

/// Finds a slot and a number for a shared transaction.
Result BeginAttempt::takeSlot(const ControlHeader_tag& header, std::uint32_t lastTransaction,
                              Outcome* outcome) {
  SlotScan scan;
  ZELTA_TRY(scanSlots(metaData_, header, true, scan));
  if (scan.deadNumber != 0) {
    unlockExclusive();
    noteDead(scan.deadNumber, scan.slot, outcome);
    return {};
  }
  std::uint32_t number = lastTransaction + 1;
  if (number < kFirstSlotNumber || number == 0xFFFFFFFF) number = kFirstSlotNumber;
  if (const Result written = writeSlot(number, scan.slot); written.failed()) {
    scan.slot.unlockOwner();
    return written;
  }
  unlockExclusive();
  metaData_.enterTransaction(number, scan.slot.position());
  *outcome = Outcome::begun;
  return {};
}

Result BeginAttempt::writeSlot(std::uint32_t number, const Slot& slot) {
  SystemCode failure = writeBuffer(metaData_.controlFile, kExclusiveWord, &number, sizeof number);
  if (failure == 0) failure = slot.enter(number);
  return reportControlFile(metaData_, failure);
}

}  // namespace

Result beginTransaction(const Session& session, CZELTA::Mode mode, std::uint32_t timeout) {
  const std::uint32_t deadline = platform::tickCount() + timeout;
  destroyTables(session);  // left by a commit that failed
  session.metaData.leaveSlot = false;
  if (mode == CZELTA::TransactionRead) {
    session.metaData.enterReading(kFirstSlotNumber);
    session.metaData.ownerThread = platform::currentThread();
    return {};
  }
  for (;;) {
    auto outcome = BeginAttempt::Outcome::busy;
    {
      BeginAttempt attempt(session.metaData, mode, deadline);
      ZELTA_TRY(attempt.run(&outcome));
      if (outcome == BeginAttempt::Outcome::begun) return {};
      if (outcome == BeginAttempt::Outcome::dead) {
        const Result repaired = attempt.repair(session.tables);
        if (repaired.failed() && !repaired.isLocked()) return repaired;
      }
    }
    if (outcome == BeginAttempt::Outcome::busy) platform::sleepMilliseconds(10);
  }
}

}  // namespace zelta

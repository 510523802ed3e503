// Beginning transactions.

#include "frame/mutex_guard.h"
#include "platform/clock.h"
#include "platform/deadline.h"
#include "platform/file_io.h"
#include "transaction/frame.h"
#include "transaction/frame_internal.h"

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
    if (!begun_) metaData_.slotPosition = 0;
  }
  BeginAttempt(const BeginAttempt&) = delete;
  BeginAttempt& operator=(const BeginAttempt&) = delete;

  Result run(Outcome* outcome);

  /// After the outcome `dead`: repairs whom it has met. The database's mutex is held all the time,
  /// as nobody else can tell a dead one whose word is locked by its repairer from one alive.
  Result repair(UInt32AVLTree*& tables) {
    return RepairScope(metaData_, deadNumber_, deadPosition_).run(tables);
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
    platform::unlockWord(metaData_.controlFile, {kExclusiveWord});
    exclusive_ = false;
  }
  void noteDead(std::uint32_t number, std::uint64_t position, Outcome* outcome) {
    deadNumber_ = number;
    deadPosition_ = position;
    *outcome = Outcome::dead;
  }
  Result begin(Outcome* outcome);
  Result keepOthersOut(const ControlHeader_tag& header, Outcome* outcome);
  Result scanSlots(const ControlHeader_tag& header, std::uint32_t* liveCount);
  Result enterExclusive();
  Result takeSlot(const ControlHeader_tag& header, std::uint32_t lastTransaction, Outcome* outcome);
  Result writeSlot(std::uint32_t number, std::uint64_t position);

  MetaData& metaData_;
  CZELTA::Mode mode_;
  std::uint32_t deadline_;
  MutexGuard owned_;
  std::uint32_t deadNumber_ = 0;  ///< whom to repair; its owner's word is locked
  std::uint64_t deadPosition_ = 0;
  bool exclusive_ = false;  ///< bytes 32 to 35 are locked
  bool begun_ = false;
};

Result BeginAttempt::run(Outcome* outcome) {
  *outcome = Outcome::busy;
  ZELTA_TRY(waitForDatabase());
  const SystemCode locked = platform::lockWord(metaData_.controlFile, {kExclusiveWord});
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
    unlockOwnerWord(metaData_, metaData_.transactionWord, metaData_.slotPosition);
    metaData_.transactionWord = 0;
    return reportControlFile(metaData_, failure);
  }
  metaData_.ownerThread = platform::currentThread();
  begun_ = true;
  return {};
}

Result BeginAttempt::begin(Outcome* outcome) {
  metaData_.slotPosition = 1;  // gives the right to complete a change of the directory
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
    noteDead(1, kExclusiveWord, outcome);
    return {};
  }
  return mode_ == CZELTA::TransactionShared ? takeSlot(header, words.lastTransaction, outcome)
                                            : keepOthersOut(header, outcome);
}

/// Counts live slots; stops at a dead one with its word locked. The file is cut behind the last
/// live one.
Result BeginAttempt::scanSlots(const ControlHeader_tag& header, std::uint32_t* liveCount) {
  std::uint64_t position = 0;
  ZELTA_TRY(findFreeSlot(metaData_, header, &position, liveCount, &deadNumber_, false));
  deadPosition_ = position;
  return {};
}

Result BeginAttempt::keepOthersOut(const ControlHeader_tag& header, Outcome* outcome) {
  for (;;) {
    std::uint32_t liveCount = 0;
    ZELTA_TRY(scanSlots(header, &liveCount));
    if (deadNumber_ != 0) {
      unlockExclusive();
      *outcome = Outcome::dead;
      return {};
    }
    if (liveCount == 0) break;
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

Result BeginAttempt::enterExclusive() {
  if (mode_ == CZELTA::TransactionExclusiveRead) {
    unlockExclusive();
    metaData_.transactionWord = 1;
    metaData_.slotPosition = 0;
    return {};
  }
  constexpr std::uint32_t kAtWork[2] = {1, 1};
  ZELTA_TRY(reportControlFile(
      metaData_, writeBuffer(metaData_.controlFile, kExclusiveWord, kAtWork, sizeof kAtWork)));
  metaData_.transactionWord = 1;
  metaData_.slotPosition = kExclusiveWord;
  exclusive_ = false;  // the transaction's own from now on
  return {};
}

Result BeginAttempt::takeSlot(const ControlHeader_tag& header, std::uint32_t lastTransaction,
                              Outcome* outcome) {
  std::uint32_t liveCount = 0;
  std::uint64_t position = 0;
  ZELTA_TRY(findFreeSlot(metaData_, header, &position, &liveCount, &deadNumber_, true));
  if (deadNumber_ != 0) {
    deadPosition_ = position;
    unlockExclusive();
    *outcome = Outcome::dead;
    return {};
  }
  std::uint32_t number = lastTransaction + 1;
  if (number <= 1 || number == 0xFFFFFFFF) number = 2;
  if (const Result written = writeSlot(number, position); written.failed()) {
    platform::unlockWord(metaData_.controlFile, {position + 4});
    return written;
  }
  unlockExclusive();
  metaData_.transactionWord = number;
  metaData_.slotPosition = position;
  *outcome = Outcome::begun;
  return {};
}

Result BeginAttempt::writeSlot(std::uint32_t number, std::uint64_t position) {
  SystemCode failure = writeBuffer(metaData_.controlFile, kExclusiveWord, &number, sizeof number);
  const std::uint32_t slot[2] = {number, 1};
  if (failure == 0) failure = writeBuffer(metaData_.controlFile, position, slot, sizeof slot);
  return reportControlFile(metaData_, failure);
}

}  // namespace

Result beginTransaction(MetaData& metaData, UInt32AVLTree*& tables, CZELTA::Mode mode,
                        std::uint32_t timeout) {
  const std::uint32_t deadline = platform::tickCount() + timeout;
  destroyTables(metaData, tables);  // left by a commit that failed
  metaData.leaveSlot = false;
  if (mode == CZELTA::TransactionRead) {
    metaData.transactionWord = 2;
    metaData.slotPosition = 0;
    metaData.ownerThread = platform::currentThread();
    return {};
  }
  for (;;) {
    auto outcome = BeginAttempt::Outcome::busy;
    {
      BeginAttempt attempt(metaData, mode, deadline);
      ZELTA_TRY(attempt.run(&outcome));
      if (outcome == BeginAttempt::Outcome::begun) return {};
      if (outcome == BeginAttempt::Outcome::dead) {
        const Result repaired = attempt.repair(tables);
        if (repaired.failed() && !repaired.isLocked()) return repaired;
      }
    }
    if (outcome == BeginAttempt::Outcome::busy) platform::sleepMilliseconds(10);
  }
}

}  // namespace zelta

#include "objects/object_access.h"

#include <cstring>

#include "frame/kept_error.h"
#include "frame/slots.h"
#include "index/keys.h"
#include "objects/lock_position.h"
#include "objects/object_buffer.h"
#include "objects/read_bytes.h"
#include "objects/upcalls.h"
#include "platform/clock.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMutexWait = 30000;
/// Rounds of a reader that meets a commit of another process halfway.
constexpr std::uint32_t kTornRounds = 250;
constexpr std::uint32_t kQuickRounds = 10;
/// Passes that an access may begin anew because it met and repaired remains of dead transactions.
constexpr std::uint32_t kMaximumRepairs = 1000;

}  // namespace

/// Whether nobody is changing the table at this moment, as far as that matters.
bool ObjectAccess::watch() {
  changes_ = platform::changeCount(table_.tableMutex);
  if ((changes_ & 1) == 0) return true;
  if (changes_ == table_.ignoredChange) watching_ = false;
  return !watching_;
}

/// Whether what this pass has read may belong to different states of the table.
bool ObjectAccess::disturbed() const {
  if (request_.writer || !watching_) return false;
  return (changes_ & 1) != 0 || platform::changeCount(table_.tableMutex) != changes_;
}

/// Failures that a reader without mutex can owe to a commit that goes on at this moment.
bool ObjectAccess::mayBeTorn(Result result) const {
  if (request_.writer || settled_) return false;
  if (disturbed()) return true;
  if (!headerRead_) return false;
  return result.is(Own::notWritable) || result.is(Own::bPlusTree) || result.is(Own::variableLeaf) ||
         result.is(Own::indexFile) || result.is(Own::tableFile) ||
         result.is(Own::indexInconsistent) || result.isSystem(code::kEndOfFile) ||
         result.isSystem(code::kFileCorrupt);
}

/// Lets a reader that met a commit begin its pass anew. After many rounds it takes things as they
/// are: the one who changes them may have died.
bool ObjectAccess::readAgain(Result result) {
  if (!mayBeTorn(result)) return false;
  if (tornRounds_ < kTornRounds) {
    platform::sleepMilliseconds(tornRounds_++ < kQuickRounds ? 0 : 2);
  } else {
    if (!watching_) return false;
    watching_ = false;
    table_.ignoredChange = (changes_ & 1) != 0 ? changes_ : 0;
  }
  clearError(metaData_);
  return true;
}

Result ObjectAccess::run() {
  for (;;) {
    Outcome outcome = Outcome::done;
    const Result result = pass(&outcome);
    if (mutex_.held()) {
      const KeptError kept(metaData_);
      mutex_.release().ignore();
    }
    if (result.failed() && readAgain(result)) continue;
    if (waitsForDecided(result)) {
      ZELTA_TRY(waitOrFail(Outcome::blockedByTransaction));
      continue;
    }
    if (result.failed() && !result.isLocked()) return result;
    if (result.isLocked() && outcome == Outcome::done) outcome = Outcome::blockedByTransaction;
    if (outcome == Outcome::done) return {};
    if (outcome == Outcome::again) {
      if (repairs_++ == kMaximumRepairs) {
        return reportError(&metaData_, Own::memoryFile, table_.cName(), extension::kMemory);
      }
      continue;
    }
    ZELTA_TRY(waitOrFail(outcome));
  }
}

/// Whether a key leads to no object because the commit that brings it is decided, has reached the
/// index, and could not be carried out in the table: its transaction must end before somebody else
/// can do so. The object is as good as locked meanwhile.
bool ObjectAccess::waitsForDecided(Result result) {
  if (!result.is(Own::indexInconsistent) || settled_) return false;
  if (decidedBy_ == 0) {
    const KeptError kept(metaData_);
    decidedBy_ = findDecidedCommit(metaData_, table_, blockedID_);
  }
  if (decidedBy_ == 0) return false;
  clearError(metaData_);
  blockedBy_ = decidedBy_;
  if (idleAsks_ != 0) --idleAsks_;  // each pass asks whether it has ended
  repairs_ = 0;                     // the wait has an end of its own
  return true;
}

Result ObjectAccess::openPass(TableHeader_tag& header) {
  headerRead_ = false;
  settled_ = false;
  if (request_.writer) ZELTA_TRY(mutex_.acquire(metaData_, table_, kMutexWait));
  if (!request_.writer && !watch()) return Result::locked();
  ZELTA_TRY(readTableHeader(metaData_, table_.cName(), table_.tableFile, header, request_.writer));
  headerRead_ = true;
  if (!request_.writer && !request_.byTree()) return {};
  if (!files_) files_.emplace(metaData_, table_);
  return files_->attach(header, request_.writer, request_.byTree());
}

Result ObjectAccess::pass(Outcome* outcome) {
  TableHeader_tag header{};
  table_.currentObjectID = startID_;
  blockedBy_ = 0;
  blockedPosition_ = 0;
  Located found;
  if (const Result opened = openPass(header); opened.failed()) {
    // To a writer: an object waits for its content from the log, and an index for the object.
    if (!request_.writer || !opened.isLocked()) return opened;
    return askForDead(0, Outcome::blockedByTransaction, found, outcome);
  }
  const Result result = locateObject(request_, header, files_ ? &*files_ : nullptr, found);
  blockedID_ = found.objectID;
  blockedPosition_ = found.tablePosition;
  if (result.isLocked()) {
    const Outcome locked =
        found.tablePosition != 0 ? Outcome::objectLocked : Outcome::blockedByTransaction;
    *outcome = locked;
    return request_.writer ? askForDead(0, locked, found, outcome) : result;
  }
  if (mayBeTrace(result, found)) {
    clearError(metaData_);
    return askForDead(0, Outcome::again, found, outcome);
  }
  ZELTA_TRY(result);
  if (found.pendingElsewhere) {
    return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                       static_cast<std::int64_t>(found.objectID));
  }
  if (found.blocker != 0 && !request_.noLock) {
    ZELTA_TRY(meetBlocker(header, found, outcome));
    if (*outcome != Outcome::done) return {};
  }
  const Result end = finishPass(header, found);
  if (!mayBeTrace(end, found)) return end;
  clearError(metaData_);
  return askForDead(0, Outcome::again, found, outcome);
}

/// Whether a key of another transaction, a key without its object or an object without its content
/// may be the trace of one that died without anybody having noticed yet. What seems damaged is
/// looked at once more, as another one may have repaired it between this pass and the question.
bool ObjectAccess::mayBeTrace(Result result, const Located& found) const {
  if (!request_.writer || settled_) return false;
  const bool broken = result.is(Own::indexInconsistent) || result.is(Own::tableFile);
  const std::uint32_t asks = broken ? 2 : found.pendingElsewhere ? 1 : 0;
  return idleAsks_ < asks;
}

/// Learns from the control file whether a transaction (0: any) is dead, and repairs it. The
/// table's mutex is let go: the database's is never waited for with a table's at hand. So is the
/// object: the pass ends here.
Result ObjectAccess::askForDead(std::uint32_t number, Outcome blocked, Located& found,
                                Outcome* outcome) {
  found.newLock.giveBack();
  ZELTA_TRY(mutex_.release());
  bool repaired = false;
  const Result result = number == 0 ? clearAllDead(metaData_, tables_, &repaired)
                                    : clearDeadTransaction(metaData_, tables_, number);
  if (repaired) {
    idleAsks_ = 0;
  } else if (blocked == Outcome::again) {
    ++idleAsks_;
  }
  *outcome = blocked;
  if (result.isLocked()) return {};
  if (result.ok() && number != 0) {
    endedTransaction_ = number;
    *outcome = Outcome::again;
  }
  return result;
}

/// Another transaction has left its mark on an object that nobody has locked.
Result ObjectAccess::meetBlocker(const TableHeader_tag& header, Located& found, Outcome* outcome) {
  blockedBy_ = found.blocker;
  if (found.blocker == kExclusiveNumber || found.blocker == endedTransaction_) {
    return dropTraces(header, found, outcome);
  }
  return askForDead(found.blocker, Outcome::blockedByTransaction, found, outcome);
}

/// The transaction is gone and will not come back for its mark.
Result ObjectAccess::dropTraces(const TableHeader_tag& header, const Located& found,
                                Outcome* outcome) {
  if (!found.blockerHasEntry) {
    if (found.blocker == kExclusiveNumber) return {};
    return eraseSlotTransaction(metaData_, table_, header.slotBase, found.objectID);
  }
  *outcome = Outcome::again;
  return dropTransactionEntries(metaData_, table_, *files_, found.blocker);
}

Result ObjectAccess::finishPass(const TableHeader_tag& header, Located& found) {
  table_.currentObjectID = 0;
  ZELTA_TRY(work(header, found));
  table_.currentObjectID = found.objectID;
  return {};
}

Result ObjectAccess::releaseMutex() {
  if (disturbed()) return Result::locked();
  settled_ = true;  // the keys that the walk set out from are given up now: no way back
  return mutex_.release();
}

Result ObjectAccess::moveCursors(Located& found, ObjectBytes object) {
  settled_ = true;
  MatchedKey matched;
  if (found.key.get() != nullptr) matched = {request_.index - 1, &found.key};
  return refreshCurrentKeys(metaData_, table_, found.objectID, object, matched, &entry_);
}

Result ObjectAccess::advance(const Located& found, ObjectBytes object) {
  std::uint32_t index = 0;
  if (!lockingIndex(table_, &index)) {
    advanceLockPosition(metaData_, table_, found.objectID, nullptr);
    return {};
  }
  if (!table_.multiEntry(index)) {
    const std::uint32_t* key = nullptr;
    ZELTA_TRY(currentKey(metaData_, table_, index, &key));
    advanceLockPosition(metaData_, table_, found.objectID, key);
    return {};
  }
  std::uint32_t* made = nullptr;
  ZELTA_TRY(extractKey(metaData_, table_, index, 0, &made, object.data, object.length));
  PooledKey first;
  first.take(table_.keyPool(index), table_.keyShape(index), made);
  advanceLockPosition(metaData_, table_, found.objectID, first.get());
  return {};
}

/// Whether waiting for the object keeps to the order of locks. Its key is made from the committed
/// version. That is read without the mutex: if its owner is committing at this moment, another pass
/// sees what came of it.
Result ObjectAccess::isAhead(bool* ahead) {
  std::uint32_t index = 0;
  *ahead = isAheadOfLockPosition(metaData_, table_, nullptr);
  if (metaData_.lockOrderReached != table_.tableLockOrder || metaData_.lockKey == nullptr ||
      !lockingIndex(table_, &index)) {
    return {};
  }
  std::uint32_t length = 0;
  const Result read = readCommittedAside(metaData_, table_, blockedPosition_, &length);
  const char* object = metaData_.scratchFor(Scratch::object).data();
  if (read.failed() || objectIdOf(table_, object) != blockedID_) {
    clearError(metaData_);
    return {};
  }
  std::uint32_t* made = nullptr;
  ZELTA_TRY(extractKey(metaData_, table_, index, 0, &made, object, length));
  PooledKey key;
  key.take(table_.keyPool(index), table_.keyShape(index), made);
  *ahead = isAheadOfLockPosition(metaData_, table_, key.get());
  return {};
}

Result ObjectAccess::waitOrFail(Outcome outcome) {
  const bool byTransaction = outcome == Outcome::blockedByTransaction;
  bool mayGoOn = wait_.again();
  if (!mayGoOn && wait_.mayExtend()) {
    mayGoOn = true;
    if (!byTransaction) ZELTA_TRY(isAhead(&mayGoOn));
    if (mayGoOn) wait_.extend();
  }
  if (!mayGoOn) {
    if (byTransaction) {
      return reportError(&metaData_, Own::transactionLocked, nullptr, nullptr, blockedBy_);
    }
    return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                       static_cast<std::int64_t>(blockedID_));
  }
  wait_.rest();
  return {};
}

CZELTA::Mode withoutFlags(CZELTA::Mode mode) {
  return static_cast<CZELTA::Mode>(static_cast<std::uint32_t>(mode) & 63u);
}

namespace {

bool hasMode(CZELTA::Mode mode) {
  return mode >= CZELTA::ReadEqual && mode <= CZELTA::ReadPrevious;
}

/// IDs among the results of a search are given in 32 bits whatever the table's IDs have.
constexpr std::size_t kResultIdSize = 4;

bool needsKey(CZELTA::Mode mode) {
  return mode >= CZELTA::ReadEqual && mode <= CZELTA::ReadGreaterEqual;
}

/// A walk begins at a key: the given one, or that of the current object. One through the results of
/// a search can do without the former.
Result checkPivot(const ReadRequest& request) {
  if (needsKey(request.mode)) {
    const bool mayLack = request.byResults() && !request.table.searchInverted;
    if (request.key != nullptr || mayLack) return {};
    return reportError(&request.metaData, Own::parameter, request.table.cName());
  }
  const bool goesOn = request.mode == CZELTA::ReadNext || request.mode == CZELTA::ReadPrevious;
  if (!goesOn || !request.byTree()) return {};
  const std::uint32_t* current = nullptr;
  ZELTA_TRY(currentKey(request.metaData, request.table, request.index - 1, &current));
  return current != nullptr ? Result() : reportError(&request.metaData, Own::noObject);
}

}  // namespace

Result checkRequest(const ReadRequest& request) {
  if (request.index > request.table.indexCount) {
    return reportError(&request.metaData, Own::parameter, request.table.cName(), nullptr,
                       request.index);
  }
  if (request.byResults() && request.table.searchIndex != request.index) {
    return reportError(&request.metaData, Own::noSearch, nullptr, nullptr,
                       std::int64_t{request.index} - 1);
  }
  if (!hasMode(request.mode)) {
    return reportError(&request.metaData, Own::readMode, nullptr, nullptr, request.mode);
  }
  return checkPivot(request);
}

void holdKey(ReadRequest& request, IdWidth width, std::uint64_t& id) {
  if (request.byTree() || request.key == nullptr) return;
  const bool amongResults = request.byResults() && !request.table.searchInverted;
  id = 0;
  if (needsKey(request.mode)) {
    std::memcpy(&id, request.key, amongResults ? kResultIdSize : idBytes(request.table, width));
  }
  request.key = &id;
}

Result makeSearchKey(ReadRequest& request, PooledKey& searchKey) {
  if (!request.byTree() || request.key == nullptr) return {};
  std::uint32_t* made = nullptr;
  ZELTA_TRY(buildSearchKey(request.metaData, request.table, request.index - 1, request.key, &made));
  const std::uint32_t index = request.index - 1;
  searchKey.take(request.table.keyPool(index), request.table.keyShape(index), made);
  request.searchKey = made;
  return {};
}

}  // namespace zelta

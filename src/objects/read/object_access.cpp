#include "objects/read/object_access.h"

#include <cassert>

#include "frame/preserved_error.h"
#include "frame/slots.h"
#include "objects/lock_position.h"
#include "objects/read/read_version.h"
#include "objects/stale_entries.h"
#include "objects/upcalls.h"

namespace zelta {

namespace {

/// Passes that an access may begin anew because it met and repaired remains of dead transactions.
constexpr std::uint32_t kMaximumRepairs = 1000;

}  // namespace

// -- From pass to pass ----------------------------------------------------------------------------

Result ObjectAccess::run() {
  for (;;) {
    PassEnd end = pass();
    access_.leave();
    if (!end.is(PassEnd::Kind::done) && looksTorn(end.result()) && seqlock_.retry()) {
      clearError(metaData_);
      continue;
    }
    if (waitsForDecided(end.result())) end = PassEnd::blockedBy(decidedBy_);
    switch (end.kind()) {
      case PassEnd::Kind::done:
        return {};
      case PassEnd::Kind::failed:
        return end.result();
      case PassEnd::Kind::again:
        if (repairs_++ == kMaximumRepairs) {
          return reportError(&metaData_, Own::memoryFile, table_.cName(), extension::kMemory);
        }
        break;
      case PassEnd::Kind::blockedByLock:
      case PassEnd::Kind::blockedByTransaction:
        ZELTA_TRY(waitOrFail(end));
        break;
    }
  }
}

/// Whether a reader can owe this end of a pass to a commit that goes on at this moment. Where the
/// sequence says nothing, as when the table is read as it stands, the kind of failure does.
bool ObjectAccess::looksTorn(Result result) const {
  if (request_.writer || final_) return false;
  if (seqlock_.torn()) return true;
  if (!headerRead_) return false;
  return result.is(Own::notWritable) || result.is(Own::bPlusTree) || result.is(Own::variableLeaf) ||
         result.is(Own::indexFile) || result.is(Own::tableFile) ||
         result.is(Own::indexInconsistent) || result.isSystem(code::kEndOfFile) ||
         result.isSystem(code::kFileCorrupt);
}

/// Whether a key leads to no object because the commit that brings it is decided, has reached the
/// index, and could not be carried out in the table: its transaction must end before somebody else
/// can do so. The object is as good as locked meanwhile.
bool ObjectAccess::waitsForDecided(Result result) {
  if (!result.is(Own::indexInconsistent) || final_) return false;
  assert(!access_.owned());
  if (decidedBy_ == 0) {
    const PreservedError kept(metaData_);
    decidedBy_ = findDecidedCommit(table_, metID_);
  }
  if (decidedBy_ == 0) return false;
  clearError(metaData_);
  if (staleAsks_ != 0) --staleAsks_;  // each pass asks whether it has ended
  repairs_ = 0;                       // the wait has an end of its own
  return true;
}

/// Lets others go on before the next pass. An object that lies ahead of all locks of this
/// transaction may be waited for longer: that cannot close a circle of waiting transactions.
Result ObjectAccess::waitOrFail(const PassEnd& blocked) {
  assert(!access_.owned());
  const bool byLock = blocked.is(PassEnd::Kind::blockedByLock);
  bool mayGoOn = wait_.again();
  if (!mayGoOn && wait_.mayExtend()) {
    mayGoOn = true;
    if (byLock) ZELTA_TRY(isAhead(&mayGoOn));
    if (mayGoOn) wait_.extend();
  }
  if (mayGoOn) {
    wait_.rest();
    return {};
  }
  if (byLock) {
    return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                       static_cast<std::int64_t>(metID_));
  }
  return reportError(&metaData_, Own::transactionLocked, nullptr, nullptr, blocked.transaction());
}

/// Whether waiting for the object keeps to the order of locks. Its key is made from the committed
/// version. That is read without the mutex: if its owner is committing at this moment, another pass
/// sees what came of it.
Result ObjectAccess::isAhead(bool* ahead) {
  *ahead = isAheadOfLockPosition(table_, nullptr);
  if (!comparesLockKeys(table_)) return {};
  ObjectBytes object;
  if (readCommittedAside(table_, metID_, metPosition_, &object).failed()) {
    clearError(metaData_);
    return {};
  }
  PooledKey key;
  ZELTA_TRY(makeLockKey(table_, object, key));
  *ahead = isAheadOfLockPosition(table_, key.get());
  return {};
}

// -- A pass ---------------------------------------------------------------------------------------

/// One pass from the beginning: nothing of the last one is trusted but what is known of others.
PassEnd ObjectAccess::pass() {
  table_.currentObjectID = startID_;
  headerRead_ = false;
  final_ = false;
  metID_ = 0;
  metPosition_ = 0;
  Located found;
  if (const Result opened = openPass(); opened.failed()) {
    // To a writer: an object waits for its content from the log, and an index for the object.
    const PassEnd end = opened;
    return request_.writer && opened.isLocked() ? repairDead(end, found) : end;
  }
  const PassEnd located = locate(found);
  if (!located.is(PassEnd::Kind::done)) return located;
  const Result end = finishPass(found);
  if (end.isLocked()) return PassEnd::blockedBy(found.blocker);
  if (!mayBeStale(end, found)) return end;
  clearError(metaData_);
  return repairDead(PassEnd::again(), found);
}

/// Opens what the request needs. Code 33, for a reader: a writer is at work; for a writer: an index
/// waits for the content of an object.
Result ObjectAccess::openPass() {
  if (request_.writer) ZELTA_TRY(access_.acquire(kTableMutexWait));
  if (!request_.writer && !seqlock_.begin()) return Result::locked();
  ZELTA_TRY(access_.readHeader());
  headerRead_ = true;
  if (request_.writer) ZELTA_TRY(access_.openMemory());
  return request_.byTree() ? access_.openIndex() : Result{};
}

/// Finds the object. `done`: nobody keeps it from this access.
PassEnd ObjectAccess::locate(Located& found) {
  const Result result = locateObject(request_, access_, found);
  metID_ = found.objectID;
  metPosition_ = found.tablePosition;
  if (result.isLocked()) {
    const PassEnd locked =
        found.tablePosition != 0 ? PassEnd::blockedByLock() : PassEnd::blockedBy(0);
    return request_.writer ? repairDead(locked, found) : locked;
  }
  if (mayBeStale(result, found)) {
    clearError(metaData_);
    return repairDead(PassEnd::again(), found);
  }
  ZELTA_TRY(result);
  if (found.pendingElsewhere) {
    return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                       static_cast<std::int64_t>(found.objectID));
  }
  if (found.blocker == 0 || request_.noLock) return Result{};
  return meetBlocker(found);
}

/// Does the work. Whatever it makes of the buffer, the object is the current one only afterwards.
Result ObjectAccess::finishPass(Located& found) {
  assert(access_.owned() == request_.writer);
  table_.currentObjectID = 0;
  ZELTA_TRY(work(found));
  table_.currentObjectID = found.objectID;
  return {};
}

Result ObjectAccess::releaseMutex() {
  assert(access_.owned() == request_.writer);
  if (!request_.writer && seqlock_.torn()) return Result::locked();
  final_ = true;  // the keys that the walk set out from are given up now
  return access_.release();
}

Result ObjectAccess::moveCursors(Located& found, ObjectBytes object) {
  final_ = true;
  MatchedKey matched;
  if (found.key.get() != nullptr) matched = {request_.index - 1, &found.key};
  return refreshCurrentKeys(table_, found.objectID, object, matched, &entry_);
}

// -- What other transactions have left ------------------------------------------------------------

/// Whether a key of another transaction, a key without its object or an object without its content
/// may be left over from one that died without anybody having noticed yet. What seems damaged is
/// looked at once more, as another one may have repaired it between this pass and the question.
bool ObjectAccess::mayBeStale(Result result, const Located& found) const {
  if (!request_.writer || final_) return false;
  const bool broken = result.is(Own::indexInconsistent) || result.is(Own::tableFile);
  const std::uint32_t asks = broken ? 2 : found.pendingElsewhere ? 1 : 0;
  return staleAsks_ < asks;
}

/// Another transaction has left its mark on an object that nobody has locked.
PassEnd ObjectAccess::meetBlocker(Located& found) {
  assert(access_.owned() && found.blocker != 0);
  if (found.blocker == kExclusiveNumber || found.blocker == endedTransaction_) {
    return dropStaleEntries(found);
  }
  return repairDead(PassEnd::blockedBy(found.blocker), found);
}

/// The transaction is gone and will not come back for its mark.
PassEnd ObjectAccess::dropStaleEntries(const Located& found) {
  if (!found.blockerHasEntry) {
    if (found.blocker == kExclusiveNumber) return Result{};
    return eraseSlotTransaction(access_, found.objectID);
  }
  ZELTA_TRY(dropTransactionEntries(access_, found.blocker));
  return PassEnd::again();
}

/// Learns from the control file whether the transaction that blocks the pass is dead, or if that is
/// not known whether any is, and repairs it. The table's mutex is let go: the database's is never
/// waited for with a table's at hand. So is the object: the pass ends here, with `blocked` unless
/// the way is known to be free.
PassEnd ObjectAccess::repairDead(PassEnd blocked, Located& found) {
  assert(request_.writer);
  found.newLock.release();
  ZELTA_TRY(access_.release());
  const std::uint32_t number = blocked.transaction();
  bool repaired = false;
  const Result result = number == 0 ? clearAllDead({metaData_, tables_}, &repaired)
                                    : clearDeadTransaction({metaData_, tables_}, number);
  if (repaired) {
    staleAsks_ = 0;
  } else if (blocked.is(PassEnd::Kind::again)) {
    ++staleAsks_;
  }
  if (result.isLocked()) return blocked;
  ZELTA_TRY(result);
  if (number == 0) return blocked;
  endedTransaction_ = number;
  return PassEnd::again();
}

}  // namespace zelta

#include "objects/read_object.h"

#include <memory>
#include <optional>

#include "index/keys.h"
#include "objects/current_keys.h"
#include "objects/locate.h"
#include "objects/lock_position.h"
#include "objects/object_buffer.h"
#include "objects/read_bytes.h"
#include "objects/read_wait.h"
#include "platform/clock.h"
#include "transaction/frame.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMutexWait = 30000;
/// Rounds of a reader that meets a commit of another process halfway.
constexpr std::uint32_t kTornRounds = 250;
constexpr std::uint32_t kQuickRounds = 10;
/// Passes that a read may begin anew because it met and repaired remains of dead transactions.
constexpr std::uint32_t kMaximumRepairs = 1000;
/// The number of every exclusive transaction.
constexpr std::uint32_t kExclusiveNumber = 1;

/// A lock on an object that is given back unless it is kept.
class NewLock {
 public:
  explicit NewLock(Table& table) : table_(table) {}
  ~NewLock() {
    if (node_) unlockObject(table_.tableFile, table_.slotBase, objectID_);
  }
  NewLock(const NewLock&) = delete;
  NewLock& operator=(const NewLock&) = delete;

  SystemCode take(std::uint64_t objectID) {
    auto node = std::make_unique<UInt64AVLTree>();
    const SystemCode result = lockObject(table_.tableFile, table_.slotBase, objectID);
    if (result != 0) return result;
    node_ = std::move(node);
    objectID_ = objectID;
    return 0;
  }
  void keep() {
    if (node_) insert(node_.release(), table_.lockedObjects, objectID_);
  }

 private:
  Table& table_;
  std::unique_ptr<UInt64AVLTree> node_;
  std::uint64_t objectID_ = 0;
};

class Read {
 public:
  Read(UInt32AVLTree*& tables, ReadRequest request, CZELTA::Mode flags)
      : metaData_(request.metaData),
        tables_(tables),
        table_(request.table),
        request_(request),
        wait_(flags),
        startID_(request.table.currentObjectID) {}

  Result run(CZELTA::Object* object, std::uint32_t* entry);

 private:
  enum class Outcome { done, again, blockedByTransaction, objectLocked };

  Result pass(Outcome* outcome);
  Result openPass(TableHeader_tag& header);
  Result meetBlocker(const TableHeader_tag& header, const Located& found, Outcome* outcome);
  Result dropTraces(const TableHeader_tag& header, const Located& found, Outcome* outcome);
  Result askForDead(std::uint32_t number, Outcome blocked, Outcome* outcome);
  Result finishPass(const TableHeader_tag& header, Located& found, Outcome* outcome);
  Result lock(const Located& found, NewLock& newLock, Outcome* outcome);
  Result finish(Located& found, std::uint32_t* entry);
  Result waitOrFail(Outcome outcome);
  Result isAhead(bool* ahead);
  [[nodiscard]] bool mayBeTorn(Result result) const;

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  ReadRequest request_;
  LockWait wait_;
  const std::uint64_t startID_;  ///< object that every pass sets out from
  std::optional<ReadFiles> files_;
  TableMutexGuard mutex_;
  std::uint32_t entry_ = 0;
  std::uint32_t endedTransaction_ = 0;  ///< known to live no more
  bool askedForDead_ = false;           ///< a foreign key was met before
  bool headerRead_ = false;             ///< the pass got past the table's header
  std::uint32_t tornRounds_ = 0;
  std::uint32_t repairs_ = 0;
  // Who keeps the object from this read
  std::uint64_t blockedID_ = 0;
  std::uint64_t blockedPosition_ = 0;
  std::uint32_t blockedBy_ = 0;
};

/// Failures that a reader without mutex can owe to a commit that goes on at this moment.
bool Read::mayBeTorn(Result result) const {
  if (request_.writer || !headerRead_) return false;
  return result.is(Own::notWritable) || result.is(Own::bPlusTree) || result.is(Own::variableLeaf) ||
         result.is(Own::indexFile) || result.is(Own::tableFile) ||
         result.is(Own::indexInconsistent) || result.isSystem(code::kEndOfFile) ||
         result.isSystem(code::kFileCorrupt);
}

Result Read::run(CZELTA::Object* object, std::uint32_t* entry) {
  for (;;) {
    Outcome outcome = Outcome::done;
    const Result result = pass(&outcome);
    mutex_.release().ignore();
    if (result.failed() && !result.isLocked()) {
      if (!mayBeTorn(result) || tornRounds_ == kTornRounds) return result;
      platform::sleepMilliseconds(tornRounds_++ < kQuickRounds ? 0 : 2);
      clearError(metaData_);
      continue;
    }
    if (result.isLocked() && outcome == Outcome::done) outcome = Outcome::blockedByTransaction;
    if (outcome == Outcome::done) break;
    if (outcome == Outcome::again) {
      if (repairs_++ == kMaximumRepairs) {
        return reportError(&metaData_, Own::memoryFile, table_.cName(), extension::kMemory);
      }
      continue;
    }
    ZELTA_TRY(waitOrFail(outcome));
  }
  if (entry != nullptr) *entry = entry_;
  if (object != nullptr) fillObject(table_, object);
  return {};
}

Result Read::openPass(TableHeader_tag& header) {
  headerRead_ = false;
  if (request_.writer) ZELTA_TRY(mutex_.acquire(metaData_, table_, kMutexWait));
  ZELTA_TRY(readTableHeader(metaData_, table_.cName(), table_.tableFile, header, request_.writer));
  headerRead_ = true;
  if (!request_.writer && !request_.byTree()) return {};
  if (!files_) files_.emplace(metaData_, table_);
  return files_->attach(header, request_.writer, request_.byTree());
}

Result Read::pass(Outcome* outcome) {
  TableHeader_tag header{};
  table_.currentObjectID = startID_;
  blockedBy_ = 0;
  blockedPosition_ = 0;
  ZELTA_TRY(openPass(header));
  Located found;
  const Result result = locateObject(request_, header, files_ ? &*files_ : nullptr, found);
  blockedID_ = found.objectID;
  blockedPosition_ = found.tablePosition;
  if (result.isLocked()) {
    const Outcome locked =
        found.tablePosition != 0 ? Outcome::objectLocked : Outcome::blockedByTransaction;
    *outcome = locked;
    return request_.writer ? askForDead(0, locked, outcome) : result;
  }
  ZELTA_TRY(result);
  if (found.foreignKey) {
    // Its transaction may have died without anybody having noticed yet.
    if (!askedForDead_) {
      askedForDead_ = true;
      return askForDead(0, Outcome::again, outcome);
    }
    return reportError(&metaData_, Own::objectLocked, table_.cName(), nullptr,
                       static_cast<std::int64_t>(found.objectID));
  }
  if (found.blocker != 0 && !request_.noLock) {
    ZELTA_TRY(meetBlocker(header, found, outcome));
    if (*outcome != Outcome::done) return {};
  }
  return finishPass(header, found, outcome);
}

/// Learns from the control file whether a transaction (0: any) is dead, and repairs it. The
/// table's mutex is let go: the database's is never waited for with a table's at hand.
Result Read::askForDead(std::uint32_t number, Outcome blocked, Outcome* outcome) {
  ZELTA_TRY(mutex_.release());
  const Result result = clearDeadTransaction(metaData_, tables_, number);
  *outcome = blocked;
  if (result.isLocked()) return {};
  if (result.ok() && number != 0) {
    endedTransaction_ = number;
    *outcome = Outcome::again;
  }
  return result;
}

/// Another transaction has left its mark on an object that nobody has locked.
Result Read::meetBlocker(const TableHeader_tag& header, const Located& found, Outcome* outcome) {
  blockedBy_ = found.blocker;
  if (found.blocker == kExclusiveNumber || found.blocker == endedTransaction_) {
    return dropTraces(header, found, outcome);
  }
  return askForDead(found.blocker, Outcome::blockedByTransaction, outcome);
}

/// The transaction is gone and will not come back for its mark.
Result Read::dropTraces(const TableHeader_tag& header, const Located& found, Outcome* outcome) {
  if (!found.blockerHasEntry) {
    if (found.blocker == kExclusiveNumber) return {};
    return eraseSlotTransaction(metaData_, table_, header.slotBase, found.objectID);
  }
  *outcome = Outcome::again;
  return dropTransactionEntries(metaData_, table_, *files_, found.blocker);
}

Result Read::lock(const Located& found, NewLock& newLock, Outcome* outcome) {
  const std::uint64_t id = found.objectID;
  if (request_.noLock || found.memoryPosition != 0 || find(table_.lockedObjects, id) != nullptr ||
      find(table_.editedObjects, id) != nullptr || find(table_.addedObjects, id) != nullptr) {
    return {};
  }
  const SystemCode result = newLock.take(id);
  if (result == 0) return {};
  if (result != code::kLockViolation) {
    return reportSystemError(&metaData_, result, table_.cName(), extension::kTable);
  }
  *outcome = Outcome::objectLocked;
  return {};
}

Result Read::finishPass(const TableHeader_tag& header, Located& found, Outcome* outcome) {
  table_.currentObjectID = 0;
  NewLock newLock(table_);
  ZELTA_TRY(lock(found, newLock, outcome));
  if (*outcome != Outcome::done) return {};
  if (found.memoryPosition != 0) {
    ZELTA_TRY(readPendingObject(metaData_, table_, files_->manager, found));
  } else {
    ZELTA_TRY(readCommittedObject(metaData_, table_, header, found.objectID, found.tablePosition));
  }
  ZELTA_TRY(mutex_.release());
  headerRead_ = false;  // the keys that the walk set out from are given up now: no way back
  MatchedKey matched;
  if (found.key.get() != nullptr) matched = {request_.index - 1, &found.key};
  ZELTA_TRY(
      refreshCurrentKeys(metaData_, table_, found.objectID, matched, !request_.noLock, &entry_));
  if (!request_.noLock) {
    std::uint32_t index = 0;
    const bool byKey = lockingIndex(table_, &index);
    advanceLockPosition(metaData_, table_, found.objectID,
                        byKey ? table_.indexStates[index].currentKey : nullptr);
  }
  newLock.keep();
  table_.currentObjectID = found.objectID;
  return {};
}

/// Whether waiting for the object keeps to the order of locks. Its key is made from the committed
/// version.
Result Read::isAhead(bool* ahead) {
  std::uint32_t index = 0;
  *ahead = isAheadOfLockPosition(metaData_, table_, nullptr);
  if (metaData_.lockOrderReached != table_.tableLockOrder || metaData_.lockKey == nullptr ||
      !lockingIndex(table_, &index)) {
    return {};
  }
  std::uint32_t length = 0;
  ZELTA_TRY(readCommittedAside(metaData_, table_, blockedPosition_, &length));
  std::uint32_t* made = nullptr;
  ZELTA_TRY(extractKey(metaData_, table_, index, 0, &made,
                       metaData_.scratchFor(Scratch::object).data(), length));
  PooledKey key;
  key.take(table_, index, made);
  *ahead = isAheadOfLockPosition(metaData_, table_, key.get());
  return {};
}

Result Read::waitOrFail(Outcome outcome) {
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

bool hasMode(CZELTA::Mode mode) {
  return mode >= CZELTA::ReadEqual && mode <= CZELTA::ReadPrevious;
}

CZELTA::Mode withoutFlags(CZELTA::Mode mode) {
  return static_cast<CZELTA::Mode>(static_cast<std::uint32_t>(mode) & 63u);
}

/// What can be refused before any file is looked at.
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
  return {};
}

/// A walk through a tree begins at a key: the given one, or that of the current object.
Result checkPivot(const ReadRequest& request) {
  const std::uint32_t* current = nullptr;
  switch (request.mode) {
    case CZELTA::ReadFirst:
    case CZELTA::ReadLast:
      return {};
    case CZELTA::ReadNext:
    case CZELTA::ReadPrevious:
      ZELTA_TRY(currentKey(request.metaData, request.table, request.index - 1, &current));
      return current != nullptr ? Result() : reportError(&request.metaData, Own::noObject);
    default:
      break;
  }
  if (request.key != nullptr) return {};
  return reportError(&request.metaData, Own::parameter, request.table.cName());
}

}  // namespace

Result readObject(MetaData& metaData, UInt32AVLTree*& tables, Table& table, CZELTA::Mode mode,
                  CZELTA::Object* object, std::uint32_t index, const void* key,
                  std::uint32_t* entry) {
  if (object != nullptr) *object = CZELTA::Object{};
  if (entry != nullptr) *entry = 0;
  const bool writer = metaData.mayWrite();
  const bool noLock = !writer || (mode & CZELTA::ReadNoLock) != 0;
  ReadRequest request{metaData, table, withoutFlags(mode), noLock, writer, index, key, nullptr};
  ZELTA_TRY(checkRequest(request));
  if (request.byTree()) ZELTA_TRY(checkPivot(request));
  PooledKey searchKey;
  if (request.byTree() && key != nullptr) {
    std::uint32_t* made = nullptr;
    ZELTA_TRY(buildSearchKey(metaData, table, index - 1, key, &made));
    searchKey.take(table, index - 1, made);
    request.searchKey = made;
  }
  ZELTA_TRY(Read(tables, request, mode).run(object, entry));
  trimScratch(metaData, false);
  return {};
}

}  // namespace zelta

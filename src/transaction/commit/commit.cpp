#include "transaction/commit/commit.h"

#include <cassert>
#include <memory>
#include <vector>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/out_of_memory.h"
#include "frame/slots.h"
#include "objects/lock_position.h"
#include "objects/table_access.h"
#include "objects/upcalls.h"
#include "platform/file_io.h"
#include "storage/table_file/table_file.h"
#include "storage/table_file/table_recovery.h"
#include "transaction/commit/section_writer.h"
#include "transaction/commit/table_commit.h"
#include "transaction/commit/transaction_tables.h"
#include "transaction/log/entry_writer.h"
#include "transaction/log/log_rotation.h"

namespace zelta {

namespace {

/// The entry could not be written: the transaction is over, and its slot is left to whoever meets
/// it next. Its objects are free for that one.
void giveTransactionUp(MetaData& metaData, const std::vector<Table*>& tables) {
  for (Table* table : tables) {
    for (UInt64AVLTree** objects :
         {&table->lockedObjects, &table->editedObjects, &table->deletedObjects}) {
      unlockObjects(table->tableFile, table->slotBase, *objects);
    }
  }
  dropLockPosition(metaData);
  Slot(metaData.controlFile, metaData.slotPosition).unlockOwner();
  metaData.leaveTransaction();
}

/// All locks of a table that has no edits.
void releaseUnchanged(Table& table, bool releaseLocks) {
  if (!releaseLocks) return;
  table.releaseAllKeys();
  unlockObjects(table.tableFile, table.slotBase, table.lockedObjects);
  table.currentObjectID = 0;
}

/// The mutexes of the tables that a commit is entering. Where the entry leaves the log they are
/// held until it is gone, all of them; else one at a time. A single table, the usual case, takes no
/// memory.
class EnteredTables {
 public:
  /// Room for the mutexes of so many tables.
  void reserve(std::size_t count) {
    if (count > 1) many_ = std::make_unique<TableMutexGuard[]>(count);
  }
  TableMutexGuard& next() { return many_ ? many_[used_++] : one_; }
  Result release() {
    if (!many_) return one_.release();
    Result result;
    while (used_ != 0) result.keepFirst(many_[--used_].release());
    return result;
  }

 private:
  TableMutexGuard one_;
  std::unique_ptr<TableMutexGuard[]> many_;
  std::size_t used_ = 0;
};

/// One commit. The numbers of the steps are those of docs/concurrency.md.
class Commit {
 public:
  Commit(const Session& session, bool releaseLocks)
      : metaData_(session.metaData),
        open_(session.tables),
        tables_(tablesInOrder(session.tables)),
        releaseLocks_(releaseLocks),
        log_(session.metaData) {}

  Result run();

 private:
  Result requireCertainMemory() const;
  void measureEdits();
  void endWithoutEdits();
  Result requireReady();
  Result clearTheWay();
  Result requireWholeTable(Table& table);
  Result reserveEntry();
  Result writeEntry();
  Result writeBody(EntryWriter& out);
  Result applyToTables();
  void leaveLog(Result applied);

  MetaData& metaData_;
  UInt32AVLTree*& open_;
  std::vector<Table*> tables_;  ///< of the handle, in the order of their IDs
  bool releaseLocks_;
  std::uint64_t bodySize_ = 0;
  std::size_t editedTables_ = 0;
  LogFile log_;
  LogEntry entry_;
  EnteredTables entered_;
};

/// A table whose memory file could not be made sure of can only be aborted.
Result Commit::requireCertainMemory() const {
  for (const Table* table : tables_) {
    if (!table->memoryUncertain) continue;
    return reportError(&metaData_, Own::memoryFile, table->cName(), extension::kMemory);
  }
  return {};
}

/// Counts what the entry will have, and drops what a commit ends in any case.
void Commit::measureEdits() {
  for (Table* table : tables_) {
    table->releaseResults();  // they are of the state before the commit
    if (!table->hasEdits()) continue;
    bodySize_ += sectionSize(*table);
    ++editedTables_;
  }
}

/// Without edits there is nothing to decide: locks go if they are to.
void Commit::endWithoutEdits() {
  for (Table* table : tables_) releaseUnchanged(*table, releaseLocks_);
  if (releaseLocks_) dropLockPosition(metaData_);
}

// -- Step 1 ---------------------------------------------------------------------------------------

/// Before a commit all that is dead is repaired. What this transaction has changed, a dead one may
/// have brought; the log must not bring it once more when this commit has left the log.
Result Commit::clearTheWay() {
  if (metaData_.transactionWord <= 1) return {};  // begins when all is repaired, and is alone
  const Result result = clearAllDead({metaData_, open_});
  if (!result.isLocked()) return result;
  return reportError(&metaData_, Own::transactionLocked);
}

/// A table that could not take its edits over must be found before they are decided.
Result Commit::requireWholeTable(Table& table) {
  TableAccess access(table);
  ZELTA_TRY(access.acquire(platform::kForever));
  ZELTA_TRY(access.readHeader());
  ZELTA_TRY(requireWhole(metaData_, table.cName(), table.tableFile, access.header));
  return access.release();
}

Result Commit::requireReady() {
  ZELTA_TRY(requireCarriedOut(metaData_));
  ZELTA_TRY(clearTheWay());
  for (Table* table : tables_) {
    if (table->hasEdits()) ZELTA_TRY(requireWholeTable(*table));
  }
  entered_.reserve(editedTables_);  // behind the commit point no memory may be wanting for it
  return {};
}

// -- Step 2 ---------------------------------------------------------------------------------------

/// The order of entries is that in which transactions come here.
Result Commit::reserveEntry() {
  assert(editedTables_ != 0 && entry_.position == 0);
  const auto reportControl = [this](SystemCode failure) {
    return reportSystemError(&metaData_, failure, metaData_.baseName.c_str(), extension::kControl);
  };
  MutexGuard database;
  ZELTA_TRY(database.acquire(metaData_, metaData_.databaseMutex, kLongWait));
  ControlHeader_tag control{};
  ZELTA_TRY(reportControl(readBuffer(metaData_.controlFile, 0, &control, kExclusiveWord)));
  ZELTA_TRY(prepareLogFile(control, log_));
  ZELTA_TRY(reportControl(platform::flushFile(metaData_.controlFile)));
  ZELTA_TRY(log_.lock(kLongWait, extension::kControl));
  static_cast<void>(database.release());
  Result result = log_.append(metaData_.transactionWord, sizeof entry_.head + bodySize_, &entry_);
  if (result.ok()) {
    result = log_.report(platform::lockWord(log_.handle(), logEntryLock(entry_.position)));
  }
  log_.unlock();
  return result;
}

// -- Steps 3 and 4 --------------------------------------------------------------------------------

/// Step 3. Each table's mutex is taken and released in turn; the log's is not held.
Result Commit::writeBody(EntryWriter& out) {
  assert(entry_.position != 0 && !log_.locked());
  for (Table* table : tables_) {
    if (table->hasEdits()) ZELTA_TRY(writeSection(*table, out));
  }
  return {};
}

/// Steps 3 and 4. The lock on the entry tells others that its writer lives.
Result Commit::writeEntry() {
  const Result written = catchBadAlloc(metaData_, [this] {
    EntryWriter out(log_, entry_);
    ZELTA_TRY(writeBody(out));
    // Step 4, the commit point of the transaction.
    return out.finish(static_cast<std::uint32_t>(editedTables_));
  });
  // What is reported as failed must not be carried out by the next one, if that can be helped: the
  // entry may be whole, and only its flush have failed.
  if (written.failed()) static_cast<void>(log_.retireEntry(entry_.position));
  platform::unlockWord(log_.handle(), logEntryLock(entry_.position));
  return written;
}

// -- Steps 5 and 6 --------------------------------------------------------------------------------
//
// An entry that goes once it is applied goes before the mutex of any of its tables does: else
// another transaction could delete what this one has brought, and its entry, the only trace of
// that, could go before this one. Should this process die then, the replay would bring it back.

/// Step 5: carries the decided transaction out. Whatever fails is left to be replayed.
Result Commit::applyToTables() {
  assert(entry_.position != 0 && !log_.locked());
  Result applied;
  for (Table* table : tables_) {
    if (!table->hasEdits()) {
      releaseUnchanged(*table, releaseLocks_);
      continue;
    }
    applied.keepFirst(catchBadAlloc(
        metaData_, [&] { return applyTableCommit(*table, releaseLocks_, entered_.next()); }));
    if (!log_.header().isSingle()) applied.keepFirst(entered_.release());
  }
  if (releaseLocks_) dropLockPosition(metaData_);
  return applied;
}

/// Step 6. If anything has failed the slot is left, and whoever finds it finishes the work.
void Commit::leaveLog(Result applied) {
  assert(entry_.position != 0);
  const bool goes = log_.header().isSingle();
  SystemCode retired = 0;
  if (applied.ok() && goes) retired = log_.retireEntry(entry_.position);
  applied.keepFirst(entered_.release());
  if (retired != 0) log_.report(retired).ignore();
  if (applied.failed() || retired != 0) {
    metaData_.leaveSlot = true;
  } else if (goes) {
    catchBadAlloc(metaData_, [this] {
      return removeLogEntry(metaData_, metaData_.transactionWord, entry_.position);
    }).ignore();
  }
}

Result Commit::run() {
  ZELTA_TRY(requireCertainMemory());
  measureEdits();
  if (editedTables_ == 0) {
    endWithoutEdits();
    return {};
  }
  ZELTA_TRY(requireReady());
  ZELTA_TRY(reserveEntry());
  const Result written = writeEntry();
  if (written.failed()) {
    giveTransactionUp(metaData_, tables_);
    return written;
  }
  // From here on the commit is decided: nothing that fails is told.
  clearError(metaData_);  // of what was got over
  leaveLog(applyToTables());
  return {};
}

}  // namespace

// Steps of a commit, numbered as in docs/concurrency.md:
//
//  1. What is dead is repaired, and the tables are looked at: requireReady().
//  2. An entry is reserved in the log and locked: reserveEntry().
//  3. Its body is written, and changed objects are stamped in their tables: writeBody().
//  4. The commit point of the transaction: the entry's head makes it complete, and a flush brings
//     it to the disk, in EntryWriter::finish(). Until then the transaction never was; from here on
//     it is finished, whoever does it, and commitTransaction() reports success.
//  5. Each table takes its edits over: applyTableCommit(), steps 5.1 to 5.8.
//  6. The entry leaves the log, unless log files are kept: leaveLog().
Result commitTransaction(const Session& session, bool releaseLocks) {
  return Commit(session, releaseLocks).run();
}

}  // namespace zelta

#include "transaction/slots/recovery.h"

#include <cassert>
#include <cstring>
#include <memory>
#include <vector>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/table_directory.h"
#include "frame/upcalls.h"
#include "index/kinds.h"
#include "objects/table_access.h"
#include "objects/upcalls.h"
#include "platform/clock.h"
#include "platform/file_io.h"
#include "schema/table_lifecycle.h"
#include "storage/memory_file/memory_file_remove.h"
#include "transaction/commit/pending_changes.h"
#include "transaction/commit/transaction_tables.h"
#include "transaction/log/log_search.h"
#include "transaction/replay/replay.h"
#include "transaction/slots/slots.h"

namespace zelta {

namespace {

/// Closes the tables that recovery opens: they are not the caller's.
class OpenedTables {
 public:
  explicit OpenedTables(UInt32AVLTree*& tables) : tables_(tables) {
    for (const Table* table : tablesInOrder(tables)) before_.push_back(table->id());
  }
  ~OpenedTables() {
    for (Table* table : tablesInOrder(tables_)) {
      bool known = false;
      for (const std::uint32_t id : before_) known = known || id == table->id();
      if (known) continue;
      remove(static_cast<UInt32AVLTree*>(table), tables_);
      delete table;
    }
  }
  OpenedTables(const OpenedTables&) = delete;
  OpenedTables& operator=(const OpenedTables&) = delete;

 private:
  UInt32AVLTree*& tables_;
  std::vector<std::uint32_t> before_;
};

/// A head that is locked belongs to a writer that still lives.
Result waitForHead(const LogFile& log, LogEntry* entry) {
  constexpr int kAttempts = 250;
  constexpr int kQuick = 150;
  for (int attempt = 0;; ++attempt) {
    const SystemCode failure = log.readHead(entry->position, &entry->head);
    if (failure != code::kLockViolation || attempt == kAttempts) return log.report(failure);
    platform::sleepMilliseconds(attempt < kQuick ? 0 : 10);
  }
}

/// Replays the last entry of the dead transaction's number, if it is complete: the transaction was
/// committed. In the single form the entry goes then, complete or not.
Result replayIfCommitted(const Session& session, std::uint32_t number,
                         const ControlHeader_tag* control) {
  LogFile log(session.metaData);
  LogEntry entry;
  ZELTA_TRY(findLogEntry(control, number, log, &entry.position));
  if (entry.position == 0) return {};
  ZELTA_TRY(waitForHead(log, &entry));
  bool committed = false;
  ZELTA_TRY(log.verifyEntry(entry, &committed));
  if (committed) ZELTA_TRY(replayLogEntry(log, entry, session.tables));
  if (!log.header().isSingle()) return {};
  const Result removed = removeLogEntry(session.metaData, number, entry.position);
  return removed.is(Own::logEntryNotFound) ? Result{} : removed;
}

/// What a number has in one table's memory file.
Result dropChanges(Table& table, std::uint32_t number) {
  TableAccess access(table);
  ZELTA_TRY(access.acquire(platform::kForever));
  ZELTA_TRY(access.openMemory());
  AtomicManager& manager = access.manager();
  bool any = false;
  ZELTA_TRY(dropPendingKeysOf(manager, number, &any));
  if (any) ZELTA_TRY(removeTransaction(manager, access.memoryHeader, number, nullptr));
  return access.release();
}

/// Whether a memory file holds more than its header. One that is missing holds nothing.
Result hasContents(MetaData& metaData, const std::u16string& name, bool* contents) {
  constexpr std::uint64_t kHeaderAlone = 80;
  *contents = false;
  platform::File opened = platform::File::none;
  const std::u16string path = databasePath(metaData, name, extension::kMemory);
  SystemCode failure =
      openDatabaseFile(metaData, path.c_str(), platform::Disposition::openExisting, &opened);
  if (failure == code::kFileNotFound || failure == code::kPathNotFound) return {};
  std::uint64_t size = 0;
  if (failure == 0) failure = platform::fileSize(opened, &size);
  platform::closeFile(opened);
  *contents = size > kHeaderAlone;
  return reportSystemError(&metaData, failure, name.c_str(), extension::kMemory);
}

/// What a number has in the memory files of all tables of the directory.
Result dropAllChanges(const Session& session, std::uint32_t number) {
  TableDirectory directory;
  {
    MutexGuard database;
    ZELTA_TRY(database.acquire(session.metaData, session.metaData.databaseMutex, kLongWait));
    ControlHeader_tag header;
    ZELTA_TRY(refreshControlHeader(session.metaData, header));
    ZELTA_TRY(directory.read(session.metaData, header));
  }
  for (const DirectoryEntry& entry : directory.entries()) {
    bool contents = false;
    ZELTA_TRY(hasContents(session.metaData, entry.name, &contents));
    if (!contents) continue;
    ZELTA_TRY(openTable(session, entry.tableId));
    Table* table = findTable(session.tables, entry.tableId);
    if (table == nullptr) {
      return reportError(&session.metaData, Own::unclassified, nullptr, nullptr, entry.tableId);
    }
    ZELTA_TRY(dropChanges(*table, number));
  }
  return {};
}

}  // namespace

Result recoverCommitted(const Session& session, std::uint32_t number,
                        const ControlHeader_tag& header) {
  const OpenedTables opened(session.tables);
  return replayIfCommitted(session, number, &header);
}

RepairScope::RepairScope(MetaData& metaData, std::uint32_t number, const Slot& slot)
    : metaData_(metaData),
      number_(number),
      slot_(slot),
      ownNumber_(metaData.transactionWord),
      ownAccess_(metaData.access) {
  assert(number != 0 && !slot.isNone());
  metaData.transactionWord = kExclusiveNumber;
  if (ownNumber_ == 0) metaData.access = Access::repair;  // a begin, which has no place yet
}

RepairScope::~RepairScope() {
  metaData_.transactionWord = ownNumber_;
  metaData_.access = ownAccess_;
  if (!repaired_) slot_.unlockOwner();
}

Result RepairScope::run(UInt32AVLTree*& tables) {
  assert(!repaired_);
  const OpenedTables opened(tables);
  ZELTA_TRY(replayIfCommitted({metaData_, tables}, number_, nullptr));
  ZELTA_TRY(dropAllChanges({metaData_, tables}, number_));
  ZELTA_TRY(releaseSlot(metaData_, slot_));
  repaired_ = true;
  return {};
}

Result clearDeadTransaction(const Session& session, std::uint32_t number) {
  MutexGuard guard;
  ZELTA_TRY(guard.acquire(session.metaData, session.metaData.databaseMutex, kLongWait));
  Slot slot;
  std::uint32_t found = 0;
  ZELTA_TRY(lockDeadTransaction(session.metaData, number, slot, &found));
  if (slot.isNone()) return {};
  return RepairScope(session.metaData, found, slot).run(session.tables);
}

Result clearAllDead(const Session& session, bool* repaired) {
  if (repaired != nullptr) *repaired = false;
  for (;;) {
    MutexGuard guard;
    ZELTA_TRY(guard.acquire(session.metaData, session.metaData.databaseMutex, kLongWait));
    Slot slot;
    std::uint32_t found = 0;
    ZELTA_TRY(lockDeadTransaction(session.metaData, 0, slot, &found));
    if (slot.isNone()) return {};
    ZELTA_TRY(RepairScope(session.metaData, found, slot).run(session.tables));
    if (repaired != nullptr) *repaired = true;
  }
}

}  // namespace zelta

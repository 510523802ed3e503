// Commit: the transaction's images go into the log as one entry with a checksum; that decides. Then
// each table takes its edits over.

#include "transaction/commit.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "frame/control_file.h"
#include "frame/exhausted_memory.h"
#include "frame/mutex_guard.h"
#include "frame/slots.h"
#include "objects/lock_position.h"
#include "objects/upcalls.h"
#include "platform/file_io.h"
#include "storage/atomic_manager.h"
#include "storage/memory_file.h"
#include "storage/memory_file_map.h"
#include "storage/table_file.h"
#include "storage/table_recovery.h"
#include "transaction/entry_writer.h"
#include "transaction/image_reader.h"
#include "transaction/log_rotation.h"
#include "transaction/table_commit.h"
#include "transaction/transaction_tables.h"

namespace zelta {

namespace {

std::uint64_t sectionSize(const Table& table) {
  return sizeof(LogTableSection_tag) + std::uint64_t{table.deletedCount} * table.idSize() +
         table.pendingBytes;
}

/// The images of what the transaction has added and rewritten, in the order of their IDs.
Result writeImages(MetaData& metaData, Table& table, EntryWriter& out) {
  AtomicManager manager(metaData, table);
  MemoryFileHeader_tag header;
  ZELTA_TRY(attachMemoryFile(table, header, manager));
  PendingObjectWalk walk(manager);
  ImageReader reader(metaData, table.memoryFile, table.cName(), extension::kMemory,
                     metaData.scratchFor(Scratch::record));
  std::uint64_t total = 0;
  for (;;) {
    PendingObject pending;
    bool found = false;
    ZELTA_TRY(walk.next(&pending, &found));
    if (!found) break;
    if (pending.transaction != metaData.transactionWord) continue;
    const std::uint64_t size = logImageSize(pending.length);
    total += size;
    if (total > table.pendingBytes) break;
    const char* bytes = nullptr;
    ZELTA_TRY(reader.read(pending.position + 4, pending.length, &bytes));
    ZELTA_TRY(out.write(&pending.length, sizeof pending.length));
    ZELTA_TRY(out.write(bytes, pending.length));
    ZELTA_TRY(out.write(nullptr, size - 4 - pending.length));
  }
  if (total == table.pendingBytes) return {};
  return reportError(&metaData, Own::logFile, metaData.baseName.c_str(), extension::kLog,
                     static_cast<std::int64_t>(table.pendingBytes),
                     static_cast<std::int64_t>(total));
}

Result writeDeletedIDs(const Table& table, const UInt64AVLTree* node, EntryWriter& out) {
  if (node == nullptr) return {};
  ZELTA_TRY(writeDeletedIDs(table, node->left, out));
  ZELTA_TRY(out.write(&node->key, table.idSize()));
  return writeDeletedIDs(table, node->right, out);
}

Result writeSection(MetaData& metaData, Table& table, EntryWriter& out) {
  TableMutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData, table, platform::kForever));
  LogTableSection_tag section{};
  std::memcpy(section.magic, "ZELD", 4);
  section.tableId = table.id();
  section.deletedCount = table.deletedCount;
  section.imageBytes = table.pendingBytes;
  ZELTA_TRY(out.write(&section, sizeof section));
  ZELTA_TRY(writeDeletedIDs(table, table.deletedObjects, out));
  for (UInt64AVLTree* objects : {table.deletedObjects, table.editedObjects}) {
    ZELTA_TRY(stampTransactions(metaData, table.cName(), table.tableFile, table.slotBase, objects,
                                metaData.transactionWord));
  }
  if (table.deletedObjects != nullptr || table.editedObjects != nullptr) {
    ZELTA_TRY(reportTable(metaData, table.cName(), platform::flushFile(table.tableFile)));
  }
  if (table.addedObjects != nullptr || table.editedObjects != nullptr) {
    ZELTA_TRY(writeImages(metaData, table, out));
  }
  return guard.release();
}

/// Reserves the entry and locks it. The order of entries is that in which transactions come here.
Result reserveEntry(LogFile& log, std::uint64_t size, LogEntry* entry) {
  MetaData& metaData = log.metaData();
  const auto reportControl = [&](SystemCode failure) {
    return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
  };
  MutexGuard database;
  ZELTA_TRY(database.acquire(metaData, metaData.databaseMutex, kLongWait));
  ControlHeader_tag control{};
  ZELTA_TRY(reportControl(readBuffer(metaData.controlFile, 0, &control, kExclusiveWord)));
  ZELTA_TRY(prepareLogFile(control, log));
  ZELTA_TRY(reportControl(platform::flushFile(metaData.controlFile)));
  ZELTA_TRY(log.lock(kLongWait, extension::kControl));
  static_cast<void>(database.release());
  Result result = log.append(metaData.transactionWord, size, entry);
  if (result.ok()) {
    result = log.report(platform::lockWord(log.handle(), logEntryLock(entry->position)));
  }
  log.unlock();
  return result;
}

Result writeBody(const LogFile& log, const LogEntry& entry, const std::vector<Table*>& tables) {
  EntryWriter out(log, entry);
  std::uint32_t sections = 0;
  for (Table* table : tables) {
    if (!table->hasEdits()) continue;
    ++sections;
    ZELTA_TRY(writeSection(log.metaData(), *table, out));
  }
  return out.finish(sections);
}

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

void dropResults(Table& table) {
  destroyAll(table.searchResults);
  table.searchIndex = 0;
  table.searchInverted = false;
}

/// The mutexes of the tables that a commit is entering.
class EnteredTables {
 public:
  explicit EnteredTables(std::size_t count)
      : many_(count > 1 ? std::make_unique<TableMutexGuard[]>(count) : nullptr) {}
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

/// Carries the decided transaction out. Whatever fails is left to be replayed.
///
/// An entry that goes once it is applied goes before the mutex of any of its tables does: else
/// another transaction could delete what this one has brought, and its entry, the only trace of
/// that, could go before this one. Should this process die then, the replay would bring it back.
void applyEverywhere(const LogFile& log, const LogEntry& entry, const std::vector<Table*>& tables,
                     bool releaseLocks, EnteredTables& entered) {
  MetaData& metaData = log.metaData();
  const bool single = log.header().isSingle();
  Result applied;
  for (Table* table : tables) {
    if (!table->hasEdits()) {
      releaseUnchanged(*table, releaseLocks);
      continue;
    }
    applied.keepFirst(reportingMemory(metaData, [&] {
      return applyTableCommit(metaData, *table, releaseLocks, entered.next());
    }));
    if (!single) applied.keepFirst(entered.release());
  }
  if (releaseLocks) dropLockPosition(metaData);
  SystemCode retired = 0;
  if (applied.ok() && single) retired = log.retireEntry(entry.position);
  applied.keepFirst(entered.release());
  if (retired != 0) log.report(retired).ignore();
  if (applied.failed() || retired != 0) {
    metaData.leaveSlot = true;
  } else if (single) {
    reportingMemory(metaData, [&] {
      return removeLogEntry(metaData, metaData.transactionWord, entry.position);
    }).ignore();
  }
}

/// Before a commit all that is dead is repaired. What this transaction has changed, a dead one may
/// have brought; the log must not bring it once more when this commit has left the log.
Result clearTheWay(MetaData& metaData, UInt32AVLTree*& tables) {
  if (metaData.transactionWord <= 1) return {};  // begins when all is repaired, and is alone
  const Result result = clearAllDead(metaData, tables);
  if (!result.isLocked()) return result;
  return reportError(&metaData, Own::transactionLocked);
}

/// A table that could not take its edits over must be found before they are decided.
Result requireWholeTable(MetaData& metaData, Table& table) {
  TableMutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData, table, platform::kForever));
  TableHeader_tag header;
  ZELTA_TRY(readTableHeader(metaData, table.cName(), table.tableFile, header, true));
  ZELTA_TRY(requireWhole(metaData, table.cName(), table.tableFile, header));
  return guard.release();
}

}  // namespace

std::vector<Table*> tablesInOrder(UInt32AVLTree* tables) {
  std::vector<UInt32AVLTree*> nodes(count(tables));
  flatten(tables, nodes.data(), nodes.data() + nodes.size());
  std::vector<Table*> out;
  out.reserve(nodes.size());
  for (UInt32AVLTree* node : nodes) out.push_back(static_cast<Table*>(node));
  return out;
}

Result commitTransaction(MetaData& metaData, UInt32AVLTree*& tables, bool releaseLocks) {
  const std::vector<Table*> all = tablesInOrder(tables);
  std::uint64_t size = 0;
  for (const Table* table : all) {
    if (!table->memoryUncertain) continue;
    return reportError(&metaData, Own::memoryFile, table->cName(), extension::kMemory);
  }
  std::size_t edited = 0;
  for (Table* table : all) {
    dropResults(*table);
    if (!table->hasEdits()) continue;
    size += sectionSize(*table);
    ++edited;
  }
  if (size == 0) {
    for (Table* table : all) releaseUnchanged(*table, releaseLocks);
    if (releaseLocks) dropLockPosition(metaData);
    return {};
  }
  ZELTA_TRY(requireCarriedOut(metaData));
  ZELTA_TRY(clearTheWay(metaData, tables));
  for (Table* table : all) {
    if (table->hasEdits()) ZELTA_TRY(requireWholeTable(metaData, *table));
  }
  LogFile log(metaData);
  LogEntry entry;
  EnteredTables entered(edited);
  ZELTA_TRY(reserveEntry(log, size + sizeof entry.head, &entry));
  const Result written = reportingMemory(metaData, [&] { return writeBody(log, entry, all); });
  // What is reported as failed must not be carried out by the next one, if that can be helped: the
  // entry may be whole, and only its flush have failed.
  if (written.failed()) static_cast<void>(log.retireEntry(entry.position));
  platform::unlockWord(log.handle(), logEntryLock(entry.position));
  if (written.failed()) {
    giveTransactionUp(metaData, all);
    return written;
  }
  clearError(metaData);  // of what was got over
  applyEverywhere(log, entry, all, releaseLocks, entered);
  return {};
}

}  // namespace zelta

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
#include "storage/table_file.h"
#include "storage/table_recovery.h"
#include "transaction/image_reader.h"
#include "transaction/log_file.h"
#include "transaction/table_commit.h"
#include "transaction/transaction_tables.h"

namespace zelta {

namespace {

constexpr std::uint32_t kHeadSize = sizeof(LogEntryHead_tag);

/// The body of a log entry on its way into the file, with its checksum.
class EntryWriter {
 public:
  EntryWriter(MetaData& metaData, std::uint64_t position, const LogEntryHead_tag& head)
      : metaData_(metaData),
        entry_(position),
        head_(head),
        next_(position + kHeadSize),
        buffer_(metaData.scratchFor(Scratch::image).reserve(kCapacity)) {}

  Result write(const void* data, std::uint64_t length) {
    const char* bytes = static_cast<const char*>(data);
    while (length > 0) {
      const std::uint64_t piece = std::min(length, kCapacity - used_);
      if (bytes != nullptr) {
        std::memcpy(buffer_ + used_, bytes, piece);
        bytes += piece;
      } else {
        std::memset(buffer_ + used_, 0, piece);
      }
      used_ += piece;
      length -= piece;
      if (used_ == kCapacity) ZELTA_TRY(flush());
    }
    return {};
  }
  /// Fills the block, then writes what makes the entry complete, and flushes the log.
  Result finish(std::uint32_t sections) {
    const std::uint64_t written = next_ + used_ - entry_;
    if (written > head_.blockLength) return reportError(&metaData_, Own::logFile);
    ZELTA_TRY(write(nullptr, head_.blockLength - written));
    ZELTA_TRY(flush());
    head_.sectionCount = sections;
    head_.checksum = sum_;
    return report(completeLogEntry(metaData_.logFile, entry_, head_));
  }

 private:
  Result report(SystemCode failure) {
    return reportSystemError(&metaData_, failure, metaData_.baseName.c_str(), extension::kLog);
  }
  Result flush() {
    xorChecksum64(sum_, buffer_, used_);  // every piece but the last is a multiple of 8
    const SystemCode failure =
        writeBuffer(metaData_.logFile, next_, buffer_, static_cast<std::int64_t>(used_));
    next_ += used_;
    used_ = 0;
    return report(failure);
  }

  static constexpr std::uint64_t kCapacity = 256 * 1024;
  MetaData& metaData_;
  std::uint64_t entry_;
  LogEntryHead_tag head_;
  std::uint64_t next_;  ///< where the buffer goes
  char* buffer_;
  std::uint64_t used_ = 0;
  std::uint64_t sum_ = 0;
};

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

/// An entry that is reserved in the log.
struct Reserved {
  std::uint64_t position = 0;
  LogEntryHead_tag head{};
  bool single = false;  ///< the entry goes once it is applied
};

/// Reserves the entry and locks it. The order of entries is that in which transactions come here.
Result reserveEntry(MetaData& metaData, std::uint64_t size, Reserved& out) {
  MutexGuard database;
  MutexGuard log;
  ZELTA_TRY(database.acquire(metaData, metaData.databaseMutex, kLongWait));
  ControlHeader_tag header{};
  SystemCode failure = readBuffer(metaData.controlFile, 0, &header, kExclusiveWord);
  if (failure != 0) {
    return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
  }
  LogHeader_tag logHeader{};
  ZELTA_TRY(prepareLogFile(metaData, header, logHeader));
  failure = platform::flushFile(metaData.controlFile);
  if (failure != 0) {
    return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
  }
  ZELTA_TRY(log.acquire(metaData, metaData.logMutex, kLongWait));
  static_cast<void>(database.release());
  ZELTA_TRY(appendLogEntry(metaData, metaData.logFile, logHeader, metaData.transactionWord, size,
                           &out.position, &out.head, 0));
  out.single = logHeader.isSingle();
  failure = platform::lockWord(metaData.logFile, logEntryLock(out.position));
  return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kLog);
}

Result writeBody(MetaData& metaData, const std::vector<Table*>& tables, const Reserved& entry) {
  EntryWriter out(metaData, entry.position, entry.head);
  std::uint32_t sections = 0;
  for (Table* table : tables) {
    if (!table->hasEdits()) continue;
    ++sections;
    ZELTA_TRY(writeSection(metaData, *table, out));
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

/// Makes an entry incomplete, so that nobody applies it.
SystemCode retireEntry(MetaData& metaData, const Reserved& entry) {
  constexpr std::uint32_t kIncomplete = 0;
  return writeBuffer(metaData.logFile, entry.position + offsetof(LogEntryHead_tag, sectionCount),
                     &kIncomplete, sizeof kIncomplete);
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
void applyEverywhere(MetaData& metaData, const std::vector<Table*>& tables, bool releaseLocks,
                     const Reserved& entry, EnteredTables& entered) {
  Result applied;
  for (Table* table : tables) {
    if (!table->hasEdits()) {
      releaseUnchanged(*table, releaseLocks);
      continue;
    }
    applied.keepFirst(reportingMemory(metaData, [&] {
      return applyTableCommit(metaData, *table, releaseLocks, entered.next());
    }));
    if (!entry.single) applied.keepFirst(entered.release());
  }
  if (releaseLocks) dropLockPosition(metaData);
  SystemCode retired = 0;
  if (applied.ok() && entry.single) retired = retireEntry(metaData, entry);
  applied.keepFirst(entered.release());
  if (retired != 0) {
    reportSystemError(&metaData, retired, metaData.baseName.c_str(), extension::kLog).ignore();
  }
  if (applied.failed() || retired != 0) {
    metaData.leaveSlot = true;
  } else if (entry.single) {
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
  Reserved entry;
  EnteredTables entered(edited);
  ZELTA_TRY(reserveEntry(metaData, size + kHeadSize, entry));
  const Result written = reportingMemory(metaData, [&] { return writeBody(metaData, all, entry); });
  // What is reported as failed must not be carried out by the next one, if that can be helped: the
  // entry may be whole, and only its flush have failed.
  if (written.failed()) static_cast<void>(retireEntry(metaData, entry));
  platform::unlockWord(metaData.logFile, logEntryLock(entry.position));
  if (written.failed()) {
    giveTransactionUp(metaData, all);
    return written;
  }
  clearError(metaData);  // of what was got over
  applyEverywhere(metaData, all, releaseLocks, entry, entered);
  return {};
}

}  // namespace zelta

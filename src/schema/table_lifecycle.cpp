// Opening, closing and describing tables.

#include "schema/table_lifecycle.h"

#include <cstdlib>
#include <cstring>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/table_directory.h"
#include "schema/schema_copy.h"
#include "schema/table_load.h"

namespace zelta {

namespace {

Result notFound(MetaData& metaData, std::uint32_t tableId) {
  return reportError(&metaData, Own::tableNotFound, nullptr, nullptr, tableId);
}

/// Reads the directory, and finds the table's entry in it.
Result findEntry(MetaData& metaData, std::uint32_t tableId, TableDirectory& directory,
                 DirectoryEntry& entry) {
  ControlHeader_tag header;
  ZELTA_TRY(refreshControlHeader(metaData, header));
  ZELTA_TRY(directory.read(metaData, header));
  const DirectoryEntry* found = directory.find(tableId);
  if (found == nullptr) return notFound(metaData, tableId);
  entry = *found;
  return {};
}

Result openForWriting(Table& table, std::uint32_t tableId) {
  DirectoryEntry entry{};
  {
    MutexGuard database;
    ZELTA_TRY(database.acquire(table.metaData, table.metaData.databaseMutex, kLongWait));
    TableDirectory directory;
    ZELTA_TRY(findEntry(table.metaData, tableId, directory, entry));
  }
  takeEntry(table, entry);
  TableMutexGuard guard;
  ZELTA_TRY(acquireTableMutex(table, guard));
  ZELTA_TRY(loadTable(table, entry, true));
  return guard.release();
}

/// `*again`: the directory has changed meanwhile, and the files may be those of another table that
/// was given the name.
Result openForReading(Table& table, std::uint32_t tableId, bool* again) {
  DirectoryEntry entry{};
  TableDirectory directory;
  ZELTA_TRY(findEntry(table.metaData, tableId, directory, entry));
  takeEntry(table, entry);
  openTableMutex(table).ignore();  // only its count of changes is looked at
  clearError(table.metaData);
  const Result result = loadTable(table, entry, false);
  *again = !directory.stillStands(table.metaData);
  return result;
}

}  // namespace

Result openTable(const Session& session, std::uint32_t tableId) {
  if (findTable(session.tables, tableId) != nullptr) return {};
  constexpr int kAttempts = 100;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    auto table = std::make_unique<Table>(session.metaData);
    bool again = false;
    const Result result = session.metaData.mayWrite() ? openForWriting(*table, tableId)
                                                      : openForReading(*table, tableId, &again);
    if (again) continue;
    ZELTA_TRY(result);
    clearError(session.metaData);  // of an attempt before
    insert(table.release(), session.tables, tableId);
    return {};
  }
  return notFound(session.metaData, tableId);
}

void forgetLockMark(const Table& table) {
  if (table.metaData.lockOrderReached != table.tableLockOrder) return;
  std::free(table.metaData.lockKey);
  table.metaData.lockKey = nullptr;
  table.metaData.lockOrderReached = 0;
  table.metaData.lockObjectID = 0;
}

Result closeTable(UInt32AVLTree*& tables, Table& table) {
  if (table.hasEdits() || table.lockedObjects != nullptr) return {};
  forgetLockMark(table);
  remove(static_cast<UInt32AVLTree*>(&table), tables);
  delete &table;
  return {};
}

std::u16string indexPath(const Table& table) {
  return table.directory + table.name + extension::kIndex;
}

namespace {

/// Where names of files are compared without regard to case, those of folders are, too.
bool isSameFolder(const std::u16string& a, const std::u16string& b) {
  return platform::kSeparator == u'\\' ? compareNames(a, b) == 0 : a == b;
}

}  // namespace

Result getTableSchema(Table& table, CZELTA::Schema* schema, unsigned int* size) {
  const bool ownFolder = !isSameFolder(table.directory, table.metaData.directoryPath);
  const std::uint64_t needed = std::uint64_t{table.schemaCopyBytes} + 4 + 2 * table.name.size() +
                               (ownFolder ? 2 * table.directory.size() : 0);
  if (needed > 0xFFFFFFFF) return reportSystemError(&table.metaData, code::kNoMemory);
  if (size != nullptr) *size = static_cast<unsigned int>(needed);
  if (schema == nullptr) return {};

  char* out = reinterpret_cast<char*>(schema);
  std::memcpy(out, table.schema, table.schemaCopyBytes);
  relocateSchema(*schema, table.schema);
  char* text = out + table.schemaCopyBytes;
  const std::size_t nameBytes = (table.name.size() + 1) * 2;
  std::memcpy(text, table.name.c_str(), nameBytes);
  schema->tableName = reinterpret_cast<const char16_t*>(text);
  schema->tablePath = nullptr;
  if (ownFolder) {
    text += nameBytes;
    std::memcpy(text, table.directory.c_str(), (table.directory.size() + 1) * 2);
    schema->tablePath = reinterpret_cast<const char16_t*>(text);
  }
  return {};
}

}  // namespace zelta

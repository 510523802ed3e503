// Opening, closing and describing tables.

#include "schema/table_lifecycle.h"

#include <cstdlib>
#include <cstring>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "schema/schema_copy.h"
#include "schema/table_load.h"

namespace zelta {

Result openTable(MetaData& metaData, UInt32AVLTree*& tables, std::uint32_t tableId) {
  if (findTable(tables, tableId) != nullptr) return {};
  const bool exclusive = metaData.mayWrite();
  auto table = std::make_unique<Table>(std::uint16_t{0});
  DirectoryEntry entry{};
  {
    MutexGuard database;
    if (exclusive) ZELTA_TRY(database.acquire(metaData, metaData.databaseMutex, kLongWait));
    ControlHeader_tag header;
    ZELTA_TRY(refreshControlHeader(metaData, header));
    TableDirectory directory;
    ZELTA_TRY(directory.read(metaData, header));
    const DirectoryEntry* found = directory.find(tableId);
    if (found == nullptr)
      return reportError(&metaData, Own::tableNotFound, nullptr, nullptr, tableId);
    entry = *found;
  }
  takeEntry(metaData, *table, entry);
  TableMutexGuard guard;
  if (exclusive) {
    ZELTA_TRY(acquireTableMutex(metaData, *table, guard));
  } else {
    openTableMutex(metaData, *table).ignore();  // only its count of changes is looked at
    clearError(metaData);
  }
  ZELTA_TRY(loadTable(metaData, *table, entry, exclusive));
  ZELTA_TRY(guard.release());
  insert(table.release(), tables, tableId);
  return {};
}

void forgetLockMark(MetaData& metaData, const Table& table) {
  if (metaData.lockOrderReached != table.tableLockOrder) return;
  std::free(metaData.lockKey);
  metaData.lockKey = nullptr;
  metaData.lockOrderReached = 0;
  metaData.lockObjectID = 0;
}

Result closeTable(MetaData& metaData, UInt32AVLTree*& tables, Table& table) {
  if (table.hasEdits() || table.lockedObjects != nullptr) return {};
  forgetLockMark(metaData, table);
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

Result getTableSchema(MetaData& metaData, Table& table, CZELTA::Schema* schema,
                      unsigned int* size) {
  const bool ownFolder = !isSameFolder(table.directory, metaData.directoryPath);
  const std::uint64_t needed = std::uint64_t{table.schemaCopyBytes} + 4 + 2 * table.name.size() +
                               (ownFolder ? 2 * table.directory.size() : 0);
  if (needed > 0xFFFFFFFF) return reportSystemError(&metaData, code::kNoMemory);
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

#include "storage/table.h"

#include <cassert>
#include <cstdlib>
#include <utility>

#include "frame/preserved_error.h"
#include "frame/upcalls.h"
#include "storage/table_file/table_file.h"

namespace zelta {

namespace {

/// How much of a file is served from memory. Table and index files may grow without bound, and what
/// is touched of them counts as the process's memory. Of an index, each new key looks at a page on
/// every level; of a table, each object at its slot. The memory file is as large as the running
/// transactions are.
constexpr std::uint64_t kTableWindow = 4u << 20;
constexpr std::uint64_t kIndexWindow = 32u << 20;
constexpr std::uint64_t kMemoryFileWindow = 256u << 20;

}  // namespace

Table::Table(MetaData& database, std::uint16_t indexes) : metaData(database) {
  setIndexCount(indexes);
}

/// Locks on objects go while the handle that holds them is still open.
Table::~Table() {
  for (UInt64AVLTree** objects : {&lockedObjects, &editedObjects, &deletedObjects}) {
    unlockObjects(tableFile, slotBase, *objects);
  }
  destroyAll(addedObjects);
  releaseAllKeys();
  platform::closeMutex(tableMutex);
  for (const platform::File file : {tableFile, indexFile, memoryFile}) platform::closeFile(file);
  std::free(schema);
}

void Table::setIndexCount(std::uint16_t indexes) {
  indexStates = indexes == 0 ? nullptr : std::make_unique<IndexCursor[]>(indexes);
  indexCount = indexes;
}

void Table::releaseCurrentKeys() {
  keySourceID = 0;
  if (schema == nullptr) return;
  for (std::uint32_t i = 0; i < indexCount; ++i) {
    if (listKind(i)) continue;
    IndexCursor& cursor = indexStates[i];
    if (cursor.currentKeys != nullptr) {
      nodePool.releaseTree(cursor.keyPool, keyShape(i), cursor.currentKeys);  // owns currentKey too
    } else {
      cursor.keyPool.release(keyShape(i), cursor.currentKey);
    }
    cursor.currentKey = nullptr;
  }
}

void Table::releaseAllKeys() {
  if (schema == nullptr) return;
  releaseCurrentKeys();
  for (std::uint32_t i = 0; i < indexCount; ++i) {
    if (listKind(i)) continue;
    IndexCursor& cursor = indexStates[i];
    nodePool.releaseTree(cursor.keyPool, keyShape(i), cursor.removedKeys);
    nodePool.releaseTree(cursor.keyPool, keyShape(i), cursor.replacedKeys);
  }
}

void Table::releaseResults() {
  searchResults = {};
  searchInverted = false;
  searchIndex = 0;
}

Table* findTable(UInt32AVLTree* tables, std::uint32_t tableId) {
  return static_cast<Table*>(find(tables, tableId));
}

void destroyTables(const Session& session) {
  destroyAll(session.tables);
  std::free(session.metaData.lockKey);
  session.metaData.lockKey = nullptr;
  session.metaData.lockOrderReached = 0;
  session.metaData.lockObjectID = 0;
}

namespace {

void filesOf(const Table& table, platform::File* files) {
  files[0] = table.tableFile;
  files[1] = table.indexFile;
  files[2] = table.memoryFile;
}

}  // namespace

void TableMutexGuard::releaseSilently() {
  const PreservedError kept(*metaData_);  // what led here counts
  release().ignore();
}

Result TableMutexGuard::acquire(Table& table, std::uint32_t milliseconds) {
  assert(!held());
  const SystemCode failure = platform::waitMutex(table.tableMutex, milliseconds);
  if (failure != 0)
    return reportSystemError(&table.metaData, failure, table.cName(), extension::kTable);
  metaData_ = &table.metaData;
  table_ = &table;
  // The files of a table are cut under its mutex alone.
  const std::uint64_t version = platform::lengthState(table.tableMutex);
  constexpr std::uint64_t kWindows[] = {kTableWindow, kIndexWindow, kMemoryFileWindow};
  filesOf(table, files_);
  for (int i = 0; i < 3; ++i) platform::beginStable(files_[i], kWindows[i], version);
  return {};
}

void TableMutexGuard::announceChange() {
  // Once for each time that the mutex is held: twice would make the count even in the middle of the
  // change.
  if (table_ == nullptr || changing_) return;
  changing_ = true;
  platform::advanceChangeCount(table_->tableMutex);
}

Result TableMutexGuard::releaseHeld() {
  Table& table = *table_;
  table_ = nullptr;
  platform::File files[3];
  filesOf(table, files);
  bool changed = false;
  for (int i = 0; i < 3; ++i) {
    // What was done to a file that was opened or closed meanwhile is not known.
    changed = platform::endStable(files[i]) || files[i] != files_[i] || changed;
  }
  // The mutex goes last: who gains it next finds the count even and the lengths noted.
  if (std::exchange(changing_, false)) platform::advanceChangeCount(table.tableMutex);
  if (changed) platform::noteLengths(table.tableMutex);
  const SystemCode failure = platform::releaseMutex(table.tableMutex);
  return reportSystemError(metaData_, failure, table.cName(), extension::kTable);
}

}  // namespace zelta

// Making, entering and removing tables: changes of the directory.

#include "schema/table_create.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "frame/control_file.h"
#include "frame/directory_change.h"
#include "frame/file_removal.h"
#include "frame/mutex_guard.h"
#include "frame/preserved_error.h"
#include "frame/table_directory.h"
#include "platform/file_io.h"
#include "schema/schema_copy.h"
#include "schema/stored_schema.h"
#include "schema/table_lifecycle.h"
#include "schema/table_load.h"
#include "schema/validate.h"
#include "storage/table_file/table_recovery.h"

namespace zelta {

namespace {

bool isSeparator(char16_t c) { return c == u'\\' || c == u'/'; }

/// A folder with a separator at its end; empty stays empty.
std::u16string normalFolder(const char16_t* folder) {
  std::u16string out = withOwnSeparators(folder == nullptr ? u"" : folder);
  if (!out.empty() && out.back() != platform::kSeparator) out += platform::kSeparator;
  return out;
}

/// The present state of header and directory, under databaseMutex.
Result readDirectory(MetaData& metaData, ControlHeader_tag& header, TableDirectory& directory) {
  ZELTA_TRY(refreshControlHeader(metaData, header));
  return directory.read(metaData, header);
}

/// Refuses what is in use, and fills in an ID and an order that were not given.
Result assignNumbers(MetaData& metaData, const TableDirectory& directory, DirectoryEntry& entry) {
  std::uint32_t highestId = 0;
  std::uint32_t highestOrder = 0;
  for (const DirectoryEntry& other : directory.entries()) {
    if (entry.tableId != 0 && other.tableId == entry.tableId) {
      return reportError(&metaData, Own::tableId, nullptr, nullptr, entry.tableId);
    }
    if (entry.lockOrder != 0 && other.lockOrder == entry.lockOrder) {
      return reportError(&metaData, Own::lockOrder, nullptr, nullptr, entry.lockOrder);
    }
    if (compareNames(other.name, entry.name) == 0) {
      return reportError(&metaData, Own::tableName, entry.name.c_str());
    }
    highestId = std::max(highestId, other.tableId);
    highestOrder = std::max(highestOrder, other.lockOrder);
  }
  constexpr std::uint32_t kLast = 0xFFFFFFFF;
  if (entry.tableId == 0 && highestId == kLast) {
    return reportError(&metaData, Own::tableId, nullptr, nullptr, kLast);
  }
  if (entry.lockOrder == 0 && highestOrder == kLast) {
    return reportError(&metaData, Own::lockOrder, nullptr, nullptr, kLast);
  }
  if (entry.tableId == 0) entry.tableId = highestId + 1;
  if (entry.lockOrder == 0) entry.lockOrder = highestOrder + 1;
  return {};
}

/// What a former table of the name left, or what came along with a table's file, must not be taken
/// for this table's: its index file is built anew. What is no index file stands in the way of one.
Result discardStale(const Table& table, bool indexes) {
  const std::u16string index = indexPath(table);
  const SystemCode kept = discardTableFile(table.metaData, index, extension::kIndex);
  if (indexes) ZELTA_TRY(reportSystemError(&table.metaData, kept, index.c_str()));
  const std::u16string memory = databasePath(table.metaData, table.name, extension::kMemory);
  const SystemCode failure = platform::deleteFile(memory.c_str());
  if (failure == code::kFileNotFound || failure == code::kPathNotFound) return {};
  return reportSystemError(&table.metaData, failure, memory.c_str());
}

/// Writes header, schema and room for the first slots.
Result writeTableFile(Table& table, const TableHeader_tag& header, const std::string& block) {
  std::string image(static_cast<std::size_t>(header.objectAreaStart), '\0');
  std::memcpy(image.data(), &header, sizeof header);
  std::memcpy(image.data() + sizeof header, block.data(), block.size());
  SystemCode failure =
      writeBuffer(table.tableFile, 0, image.data(), static_cast<std::int64_t>(image.size()));
  if (failure == 0) failure = platform::flushFile(table.tableFile);
  return reportTable(table.metaData, table.cName(), failure);
}

/// Deletes the file of a table that could not be made, unless told that it was.
class NewTableFile {
 public:
  NewTableFile(Table& table, std::u16string path)
      : metaData_(table.metaData), table_(table), path_(std::move(path)) {}
  ~NewTableFile() { discard(); }
  void discard() {
    if (!made_ || kept_) return;
    made_ = false;
    platform::closeFile(table_.tableFile);
    table_.tableFile = platform::File::none;
    platform::discardFile(path_.c_str());
  }
  NewTableFile(const NewTableFile&) = delete;
  NewTableFile& operator=(const NewTableFile&) = delete;
  SystemCode create() {
    const SystemCode failure = openDatabaseFile(
        metaData_, path_.c_str(), platform::Disposition::createNew, &table_.tableFile);
    made_ = failure == 0;
    return failure;
  }
  void keep() { kept_ = true; }

 private:
  const MetaData& metaData_;
  Table& table_;
  std::u16string path_;
  bool made_ = false;
  bool kept_ = false;
};

/// A table that is being made.
struct Draft {
  DirectoryEntry entry;
  SchemaCopy copy;
  ObjectSizes sizes;
  std::string block;
};

/// First phase: the table's file, whole and flushed.
Result makeFile(Table& table, TableMutexGuard& guard, NewTableFile& file, Draft& draft) {
  const std::u16string path = databasePath(table.metaData, table.name, extension::kTable);
  if (const SystemCode failure = file.create(); failure != 0) {
    return reportSystemError(&table.metaData, failure, path.c_str());
  }
  ZELTA_TRY(acquireTableMutex(table, guard));
  const TableHeader_tag header =
      newTableHeader(draft.sizes, static_cast<std::uint32_t>(draft.block.size()));
  ZELTA_TRY(writeTableFile(table, header, draft.block));
  ZELTA_TRY(discardStale(table, draft.copy.schema->indexCount != 0));
  takeSchema(table, std::move(draft.copy), draft.sizes, header.slotBase, draft.entry);
  return {};
}

/// Brings the change into its second phase, which needs the table's file. `*mayStand`: that failed,
/// but the disk may have the second phase all the same, or may get it yet.
Result enterSecondPhase(MetaData& metaData, bool* mayStand) {
  const Result result = advanceDirectoryIntent(metaData, DirectoryChange::create);
  if (result.ok()) return result;
  const PreservedError kept(metaData);
  *mayStand = advanceDirectoryIntent(metaData, DirectoryChange::createFiles).failed();
  return result;
}

/// Takes back an intent that shall not be carried out. If that fails, it is left to the next one
/// who may write.
void takeIntentBack(MetaData& metaData, const ControlHeader_tag& header) {
  const PreservedError kept(metaData);
  cancelDirectoryIntent(metaData, header).ignore();
}

/// Everything that can be refused before a file is made: names, numbers, the schema's rules.
Result prepareDraft(MetaData& metaData, const CZELTA::Schema& schema,
                    const TableDirectory& directory, Draft& draft) {
  draft.entry = {schema.tableId, schema.lockOrder, schema.tableName,
                 normalFolder(schema.tablePath)};
  if (!isTableName(draft.entry.name))
    return reportError(&metaData, Own::tableName, schema.tableName);
  ZELTA_TRY(assignNumbers(metaData, directory, draft.entry));
  const std::u16string path = databasePath(metaData, draft.entry.name, extension::kTable);
  if (platform::fileExists(path.c_str()) == 0) {
    return reportSystemError(&metaData, code::kFileExists, path.c_str());
  }
  ZELTA_TRY(copySchema(metaData, schema, draft.copy));
  ZELTA_TRY(validateSchema(metaData, *draft.copy.schema, draft.sizes));
  draft.block = storedSchema(*draft.copy.schema);
  constexpr std::size_t kLargestSchema = 0x7FFFFFFF;
  return draft.block.size() > kLargestSchema ? reportSystemError(&metaData, code::kNoMemory)
                                             : Result{};
}

}  // namespace

// The order, under databaseMutex:
//
//   1. the intent with the directory as it is to be, in its first phase (createFiles); flush
//   2. the table's file, whole; flush
//   3. the second phase (create); flush: from here on the table exists
//   4. directory, log and header, by completeDirectoryChange()
//
// A death before step 3 leaves a change that is rolled back, with the file; behind it one that is
// finished.
Result createTable(const Session& session, const CZELTA::Schema* schema, unsigned int* tableId,
                   bool log) {
  if (log) ZELTA_TRY(requireCarriedOut(session.metaData));
  MutexGuard database;
  ZELTA_TRY(database.acquire(session.metaData, session.metaData.databaseMutex, kLongWait));
  ControlHeader_tag header;
  TableDirectory directory;
  ZELTA_TRY(readDirectory(session.metaData, header, directory));
  Draft draft;
  ZELTA_TRY(prepareDraft(session.metaData, *schema, directory, draft));
  const std::string record =
      schemaRecord(*draft.copy.schema, draft.entry.name, draft.entry.indexPath);
  writeBackDerived(*draft.copy.schema, *schema);

  auto table = std::make_unique<Table>(session.metaData);
  takeEntry(*table, draft.entry);
  TableDirectory next = directory;
  next.insert(draft.entry);
  TableMutexGuard guard;
  NewTableFile file(*table, databasePath(session.metaData, table->name, extension::kTable));
  Result result =
      writeDirectoryIntent(session.metaData, header,
                           {DirectoryChange::createFiles, 0, draft.entry.tableId, 0}, next, record);
  if (result.ok()) result = makeFile(*table, guard, file, draft);
  bool mayStand = false;
  if (result.ok()) result = enterSecondPhase(session.metaData, &mayStand);
  // In the second phase the change is finished, now or later. Whoever meets the first one instead
  // deletes the file.
  if (result.ok() || mayStand) file.keep();
  if (result.failed()) {
    file.discard();
    if (!mayStand) takeIntentBack(session.metaData, header);
    return result;
  }
  ZELTA_TRY(completeDirectoryChange(session.metaData, header, log));
  ZELTA_TRY(guard.release());
  if (tableId != nullptr) *tableId = draft.entry.tableId;
  insert(table.release(), session.tables, draft.entry.tableId);
  return reportSystemError(&session.metaData, database.release(), session.metaData.baseName.c_str(),
                           extension::kControl);
}

// -- Entering a table that exists -----------------------------------------------------------------

namespace {

/// The table's name in a file name: without folder and ".zlt".
std::u16string tableNameOf(const char16_t* fileName) {
  std::u16string name(fileName);
  const auto last = std::find_if(name.rbegin(), name.rend(), isSeparator);
  name.erase(name.begin(), last.base());
  const std::u16string extension(extension::kTable);
  if (name.size() >= extension.size() &&
      compareNames(name.substr(name.size() - extension.size()), extension) == 0) {
    name.resize(name.size() - extension.size());
  }
  return name;
}

}  // namespace

// The file is there already, so that there is one phase: before the intent nothing has changed but
// stale index and memory files that are gone.
Result addTable(const Session& session, const char16_t* fileName, std::uint32_t tableId,
                const char16_t* directory, std::uint32_t lockOrder, bool log) {
  DirectoryEntry entry{tableId, lockOrder, tableNameOf(fileName), normalFolder(directory)};
  if (!isTableName(entry.name)) return reportError(&session.metaData, Own::tableName, fileName);
  if (log) ZELTA_TRY(requireCarriedOut(session.metaData));
  MutexGuard database;
  ZELTA_TRY(database.acquire(session.metaData, session.metaData.databaseMutex, kLongWait));
  ControlHeader_tag header;
  TableDirectory tableDirectory;
  ZELTA_TRY(readDirectory(session.metaData, header, tableDirectory));
  ZELTA_TRY(assignNumbers(session.metaData, tableDirectory, entry));

  auto table = std::make_unique<Table>(session.metaData);
  takeEntry(*table, entry);
  TableMutexGuard guard;
  ZELTA_TRY(acquireTableMutex(*table, guard));
  ZELTA_TRY(loadTable(*table, entry, true));
  ZELTA_TRY(discardStale(*table, table->indexCount != 0));
  TableDirectory next = tableDirectory;
  next.insert(entry);
  if (const Result result = writeDirectoryIntent(
          session.metaData, header, {DirectoryChange::add, 0, entry.tableId, 0}, next, {});
      result.failed()) {
    takeIntentBack(session.metaData, header);
    return result;
  }
  ZELTA_TRY(completeDirectoryChange(session.metaData, header, log));
  ZELTA_TRY(guard.release());
  insert(table.release(), session.tables, entry.tableId);
  return reportSystemError(&session.metaData, database.release(), session.metaData.baseName.c_str(),
                           extension::kControl);
}

// -- Removing -------------------------------------------------------------------------------------

namespace {

/// What transactions left in the memory file must not be met again when the table is entered once
/// more. The exclusive transaction is alone.
void cutMemoryFile(const MetaData& metaData, const std::u16string& name) {
  platform::File file = platform::File::none;
  const std::u16string path = databasePath(metaData, name, extension::kMemory);
  if (openDatabaseFile(metaData, path.c_str(), platform::Disposition::openExisting, &file) != 0)
    return;
  static_cast<void>(truncateFile(file, 0));
  platform::closeFile(file);
}

}  // namespace

// One phase as well: once the intent stands the table is gone, whoever deletes its files and writes
// the directory without it.
Result removeTable(const Session& session, std::uint32_t tableId, bool deleteFiles, bool log) {
  if (log) ZELTA_TRY(requireCarriedOut(session.metaData));
  MutexGuard database;
  ZELTA_TRY(database.acquire(session.metaData, session.metaData.databaseMutex, kLongWait));
  ControlHeader_tag header;
  TableDirectory directory;
  ZELTA_TRY(readDirectory(session.metaData, header, directory));
  if (directory.entries().empty()) {
    return reportError(&session.metaData, Own::tableNotFound, nullptr, nullptr, tableId);
  }
  const DirectoryEntry* entry = directory.find(tableId);
  if (entry == nullptr)
    return reportError(&session.metaData, Own::tableId, nullptr, nullptr, tableId);
  const auto operation = deleteFiles ? DirectoryChange::removeFiles : DirectoryChange::remove;
  if (const Result result =
          writeDirectoryIntent(session.metaData, header, {operation, 0, tableId, 0}, directory, {});
      result.failed()) {
    takeIntentBack(session.metaData, header);
    return result;
  }
  if (Table* table = findTable(session.tables, tableId); table != nullptr) {
    forgetLockMark(*table);
    remove(static_cast<UInt32AVLTree*>(table), session.tables);
    delete table;
  }
  if (!deleteFiles) cutMemoryFile(session.metaData, entry->name);
  ZELTA_TRY(completeDirectoryChange(session.metaData, header, log));
  return reportSystemError(&session.metaData, database.release(), session.metaData.baseName.c_str(),
                           extension::kControl);
}

}  // namespace zelta

#include "schema/table_load.h"

#include <cassert>
#include <cstring>
#include <string>

#include "frame/lifecycle.h"
#include "frame/mutex_guard.h"
#include "platform/file_io.h"
#include "schema/stored_schema.h"
#include "storage/table_file/table_recovery.h"

namespace zelta {

namespace {

constexpr std::uint32_t kLargestSchema = 0x7FFFFFFF;
/// Room for the first 50 slots.
constexpr std::uint32_t kFirstSlots = 600;

/// The end of a schema of this size, and of the padding behind it.
std::uint64_t schemaEnd(std::uint64_t schemaSize) { return (schemaSize + 171) & ~std::uint64_t{3}; }

/// A stored schema is good if validation derives just what is stored, here and in the header.
bool isSound(const SchemaCopy& copy, const std::string& block, const TableHeader_tag& header,
             ObjectSizes& sizes) {
  if (validateSchema(*std::make_unique<MetaData>(), *copy.schema, sizes).failed()) return false;
  return storedSchemaLike(*copy.schema, block) == block && sizes.headerSize == header.headerSize &&
         sizes.fixedAreaSize == header.fixedAreaSize &&
         sizes.minimumObjectSize == header.minimumObjectSize &&
         sizes.defaultObjectSize == header.defaultObjectSize;
}

/// Reads and expands the stored schema, whose size is the header's claim.
Result readSchema(Table& table, const TableHeader_tag& header, SchemaCopy& copy,
                  ObjectSizes& sizes) {
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(table.tableFile, &size); failure != 0) {
    return reportTable(table.metaData, table.cName(), failure);
  }
  if (sizeof header + std::uint64_t{header.schemaSize} > size) {
    return reportTable(table.metaData, table.cName(), code::kEndOfFile);
  }
  std::string block(header.schemaSize, '\0');
  if (const SystemCode failure =
          readBuffer(table.tableFile, sizeof header, block.data(), header.schemaSize);
      failure != 0) {
    return reportTable(table.metaData, table.cName(), failure);
  }
  if (header.schemaSize > kLargestSchema ||
      !expandStoredSchema(block.data(), header.schemaSize, copy) ||
      !isSound(copy, block, header, sizes)) {
    return reportDamagedTable(table.metaData, table.cName(), 0, 0);
  }
  return {};
}

}  // namespace

void takeEntry(Table& table, const DirectoryEntry& entry) {
  table.name = entry.name;
  table.directory = indexFolder(table.metaData, entry);
  table.tableLockOrder = entry.lockOrder;
}

void takeSchema(Table& table, SchemaCopy copy, const ObjectSizes& sizes, std::uint32_t slotBase,
                const DirectoryEntry& entry) {
  assert(table.schema == nullptr);
  table.setIndexCount(copy.schema->indexCount);  // all that can fail
  table.schemaCopyBytes = copy.bytes;
  table.schema = copy.schema.release();
  table.schema->tableId = entry.tableId;
  table.schema->lockOrder = entry.lockOrder;
  table.schema->tableName = table.name.c_str();
  table.schema->tablePath = table.directory.c_str();
  table.slotBase = slotBase;
  table.fixedAreaSize = sizes.fixedAreaSize;
  table.minimumObjectSize = sizes.minimumObjectSize;
  table.firstVariableField = sizes.firstVariableField;
}

Result openTableMutex(Table& table) {
  const std::u16string path = databasePath(table.metaData, table.name, extension::kTable);
  return reportTable(table.metaData, table.cName(),
                     createFileMutex(table.metaData, path, &table.tableMutex));
}

Result acquireTableMutex(Table& table, TableMutexGuard& guard) {
  ZELTA_TRY(openTableMutex(table));
  return guard.acquire(table, kLongWait);
}

Result loadTable(Table& table, const DirectoryEntry& entry, bool exclusive) {
  const std::u16string path = databasePath(table.metaData, table.name, extension::kTable);
  if (const SystemCode failure = openDatabaseFile(
          table.metaData, path.c_str(), platform::Disposition::openExisting, &table.tableFile);
      failure != 0) {
    return reportSystemError(&table.metaData, failure, path.c_str());
  }
  if (!exclusive) platform::serveReads(table.tableFile, kReadWindow);
  TableHeader_tag header;
  ZELTA_TRY(readTableHeader(table.metaData, table.cName(), table.tableFile, header, exclusive));
  SchemaCopy copy;
  ObjectSizes sizes;
  ZELTA_TRY(readSchema(table, header, copy, sizes));
  takeSchema(table, std::move(copy), sizes, header.slotBase, entry);
  return {};
}

TableHeader_tag newTableHeader(const ObjectSizes& sizes, std::uint32_t schemaSize) {
  TableHeader_tag header{};
  std::memcpy(header.magic, "ZELT", 4);
  header.majorVersion = 1;
  header.minorVersion = 4;
  header.slotBase = static_cast<std::uint32_t>(schemaEnd(schemaSize) - kObjectSlotSize);
  header.schemaSize = schemaSize;
  header.headerSize = sizes.headerSize;
  header.fixedAreaSize = sizes.fixedAreaSize;
  header.minimumObjectSize = sizes.minimumObjectSize;
  header.defaultObjectSize = sizes.defaultObjectSize;
  header.objectAreaStart = schemaEnd(schemaSize) + kFirstSlots;
  header.endOfFile = header.objectAreaStart;
  return header;
}

}  // namespace zelta

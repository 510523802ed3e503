#include "transaction/commit/section_writer.h"

#include <cassert>
#include <cstring>

#include "objects/table_access.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/table_file/table_file.h"
#include "storage/table_file/table_recovery.h"
#include "transaction/commit/image_reader.h"

namespace zelta {

namespace {

/// The images of what the transaction has added and rewritten, in the order of their IDs.
Result writeImages(TableAccess& access, EntryWriter& out) {
  MetaData& metaData = access.metaData;
  const Table& table = access.table;
  ZELTA_TRY(access.openMemory());
  PendingObjectWalk walk(access.manager());
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
  // The memory file has other images than this handle has put there: the entry would not be what
  // was reserved for it.
  if (total == table.pendingBytes) return {};
  return reportError(&metaData, Own::logFile, metaData.baseName.c_str(), extension::kLog,
                     static_cast<std::int64_t>(table.pendingBytes),
                     static_cast<std::int64_t>(total));
}

/// In ascending order.
Result writeDeletedIDs(const Table& table, const UInt64AVLTree* node, EntryWriter& out) {
  if (node == nullptr) return {};
  ZELTA_TRY(writeDeletedIDs(table, node->left, out));
  ZELTA_TRY(out.write(&node->key, table.idSize()));
  return writeDeletedIDs(table, node->right, out);
}

}  // namespace

std::uint64_t sectionSize(const Table& table) {
  return sizeof(LogTableSection_tag) + std::uint64_t{table.deletedCount} * table.idSize() +
         table.pendingBytes;
}

Result writeSection(Table& table, EntryWriter& out) {
  assert(table.hasEdits());
  TableAccess access(table);
  ZELTA_TRY(access.acquire(platform::kForever));
  LogTableSection_tag section{};
  std::memcpy(section.magic, "ZELD", 4);
  section.tableId = table.id();
  section.deletedCount = table.deletedCount;
  section.imageBytes = table.pendingBytes;
  ZELTA_TRY(out.write(&section, sizeof section));
  ZELTA_TRY(writeDeletedIDs(table, table.deletedObjects, out));
  for (UInt64AVLTree* objects : {table.deletedObjects, table.editedObjects}) {
    ZELTA_TRY(stampTransactions(table.metaData, table.cName(), table.tableFile, table.slotBase,
                                objects, table.metaData.transactionWord));
  }
  if (table.deletedObjects != nullptr || table.editedObjects != nullptr) {
    ZELTA_TRY(reportTable(table.metaData, table.cName(), platform::flushFile(table.tableFile)));
  }
  if (table.addedObjects != nullptr || table.editedObjects != nullptr) {
    ZELTA_TRY(writeImages(access, out));
  }
  return access.release();
}

}  // namespace zelta

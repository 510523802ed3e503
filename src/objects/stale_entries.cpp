#include "objects/stale_entries.h"

#include <cassert>

#include "index/kinds.h"
#include "platform/file_io.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/memory_file/memory_file_remove.h"

namespace zelta {

Result eraseSlotTransaction(TableAccess& access, std::uint64_t objectID) {
  assert(access.owned() && access.header.endOfFile != 0);
  constexpr std::uint32_t kNobody = 0;
  const Table& table = access.table;
  const std::uint64_t word = objectLock(access.header.slotBase, objectID).position;
  const SystemCode result = writeBuffer(table.tableFile, word, &kNobody, sizeof kNobody);
  return reportSystemError(&access.metaData, result, table.cName(), extension::kTable);
}

Result dropTransactionEntries(TableAccess& access, std::uint32_t number) {
  assert(access.owned());
  struct IdSet {
    ~IdSet() { destroyAll(ids); }
    UInt64AVLTree* ids = nullptr;
  } entries;
  AtomicManager& manager = access.manager();
  ZELTA_TRY(collectTransaction(manager, number, &entries.ids, nullptr));
  if (entries.ids != nullptr) ZELTA_TRY(dropPendingKeys(manager, {entries.ids, nullptr}));
  return removeTransaction(manager, access.memoryHeader, number, nullptr);
}

}  // namespace zelta

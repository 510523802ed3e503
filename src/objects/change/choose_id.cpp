#include "objects/change/choose_id.h"

#include "storage/memory_file/memory_file_map.h"
#include "storage/table_file/table_recovery.h"

namespace zelta {

namespace {

Result damagedList(const Table& table, std::uint64_t objectID) {
  return reportError(&table.metaData, Own::deleteList, table.cName(), nullptr,
                     static_cast<std::int64_t>(objectID));
}

Result alreadyExists(const Table& table, std::uint64_t objectID) {
  return reportError(&table.metaData, Own::idExists, table.cName(), nullptr,
                     static_cast<std::int64_t>(objectID));
}

/// Goes along the list of free IDs to one that no transaction has taken; `*objectID` above
/// highestID: none.
Result walkFreeIDs(Table& table, const TableHeader_tag& header, AtomicManager& manager,
                   std::uint64_t* objectID) {
  const std::uint64_t behind = header.highestID + 1;
  std::uint64_t id = header.firstDeletedID;
  while (id != 0 && id <= header.highestID) {
    ObjectSlot slot{};
    if (const SystemCode failure = readSlotPosition(table.tableFile, header.slotBase, id, &slot);
        failure != 0) {
      return reportTable(table.metaData, table.cName(), failure);
    }
    if (!slot.isFree()) return damagedList(table, 0);
    PendingObject pending;
    bool taken = false;
    ZELTA_TRY(findPendingObject(manager, id, &pending, &taken));
    if (!taken) {
      *objectID = id;
      return {};
    }
    const std::uint64_t next = slot.nextFree();
    if (next != 0 && next <= id) return damagedList(table, id);  // the list ascends
    id = next < header.highestID ? next : 0;
  }
  *objectID = behind;
  return {};
}

}  // namespace

Result chooseFreeID(Table& table, const TableHeader_tag& header, AtomicManager& manager,
                    std::uint64_t* objectID) {
  ZELTA_TRY(walkFreeIDs(table, header, manager, objectID));
  if (*objectID <= header.highestID) return {};
  std::uint64_t last = 0;
  ZELTA_TRY(lastPendingID(manager, &last));
  if (last > header.highestID) *objectID = last + 1;
  const std::uint64_t greatest = table.wideIds() ? ~std::uint64_t{0} >> 1 : 0xFFFFFFFF;
  return *objectID > greatest ? alreadyExists(table, greatest) : Result{};
}

/// A slot in use that bears another transaction's stamp: that one may be deleting the object, so
/// that the ID may become free.
Result testFreeID(Table& table, const TableHeader_tag& header, AtomicManager& manager,
                  std::uint64_t objectID, std::uint32_t* blocker) {
  *blocker = 0;
  if (objectID <= header.highestID) {
    ObjectSlot slot{};
    const SystemCode failure = readSlot(table.tableFile, header.slotBase, objectID, &slot);
    if (failure == code::kLockViolation) return Result::locked();
    if (failure != 0) return reportTable(table.metaData, table.cName(), failure);
    if (!slot.isFree()) {
      if (slot.transaction == 0 || slot.transaction == table.metaData.transactionWord) {
        return alreadyExists(table, objectID);
      }
      *blocker = slot.transaction;
      return Result::locked();
    }
  }
  PendingObject pending;
  bool taken = false;
  ZELTA_TRY(findPendingObject(manager, objectID, &pending, &taken));
  return taken ? alreadyExists(table, objectID) : Result{};
}

}  // namespace zelta

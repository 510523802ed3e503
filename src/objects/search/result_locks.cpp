#include "objects/search/result_locks.h"

#include <cassert>
#include <memory>

#include "frame/slots.h"
#include "objects/lock_position.h"
#include "objects/stale_entries.h"

namespace zelta {

ResultLocks::~ResultLocks() {
  unlockObjects(access_.table.tableFile, access_.table.slotBase, locked_);
}

bool ResultLocks::isPassedBy(std::uint64_t objectID) const {
  const Table& table = access_.table;
  for (UInt64AVLTree* set : {table.lockedObjects, table.addedObjects, table.editedObjects,
                             table.deletedObjects, locked_}) {
    if (find(set, objectID) != nullptr) return true;
  }
  return false;
}

Result ResultLocks::take(const SortedIds& found, bool inverted, std::uint32_t ended) {
  assert(access_.owned());
  ended_ = ended;
  if (!inverted) {
    for (const std::uint64_t id : found) {
      if (id != kNoObject) ZELTA_TRY(lock(id, false));
    }
    return {};
  }
  const std::uint64_t* passed = found.begin();
  for (std::uint64_t id = 1; id < access_.header.highestID; ++id) {
    while (passed != found.end() && *passed < id) ++passed;
    if (passed == found.end() || *passed != id) ZELTA_TRY(lock(id, true));
  }
  return {};
}

Result ResultLocks::lock(std::uint64_t objectID, bool mayBeGone) {
  if (isPassedBy(objectID)) return {};
  const Table& table = access_.table;
  const std::uint32_t slotBase = access_.header.slotBase;
  const bool hasSlot = objectID != 0 && objectID <= access_.header.highestID;
  ObjectSlot slot{};
  SystemCode failure = 0;
  if (hasSlot) failure = readSlotPosition(table.tableFile, slotBase, objectID, &slot);
  if (failure == 0 && (!hasSlot || slot.isFree())) {
    if (mayBeGone) return {};
    return reportError(&access_.metaData, Own::indexInconsistent, table.cName(), nullptr, index_);
  }
  auto node = std::make_unique<UInt64AVLTree>();
  if (failure == 0) failure = lockObject(table.tableFile, slotBase, objectID);
  if (failure == 0) {
    insert(node.release(), locked_, objectID);
    failure = readSlot(table.tableFile, slotBase, objectID, &slot);
  }
  if (failure == code::kLockViolation) return Result::locked();
  if (failure != 0) {
    return reportSystemError(&access_.metaData, failure, table.cName(), extension::kTable);
  }
  const std::uint32_t owner = slot.transaction;
  const bool nobody = owner == 0 || owner == kExclusiveNumber;
  if (nobody || owner == access_.metaData.transactionWord) return {};
  if (owner == ended_) return eraseSlotTransaction(access_, objectID);
  blocker_ = owner;
  return Result::locked();
}

void ResultLocks::keep() {
  noteObjectLocks(access_.table, locked_);
  addAll(access_.table.lockedObjects, locked_);
}

}  // namespace zelta

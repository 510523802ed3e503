#include "objects/read/locate.h"

#include <cassert>

#include "objects/read/id_walk.h"
#include "objects/read/result_walk.h"
#include "objects/read/tree_walk.h"
#include "storage/memory_file/memory_file_map.h"

namespace zelta {

namespace {

/// A position that no record can have is own code 55.
Result checkPosition(const Table& table, const TableHeader_tag& header, std::uint64_t position) {
  if (position >= header.objectAreaStart && position < header.endOfFile) return {};
  return reportError(&table.metaData, Own::tableFile, table.cName(), extension::kTable,
                     static_cast<std::int64_t>(position));
}

/// Whether this transaction has the object locked. Those that it has deleted are never met.
bool isLockedHere(const Table& table, std::uint64_t objectID) {
  return find(table.lockedObjects, objectID) != nullptr ||
         find(table.editedObjects, objectID) != nullptr;
}

}  // namespace

/// The position is read without asking for the lock, the stamp only with it: the last word of a
/// slot is where the lock lies.
Result inspectSlot(const ReadRequest& request, const TableHeader_tag& header, Located& out,
                   SlotState* state) {
  Table& table = request.table;
  const auto failed = [&](SystemCode failure) {
    return reportSystemError(&request.metaData, failure, table.cName(), extension::kTable);
  };
  assert(out.objectID != 0 && out.objectID <= header.highestID);
  ObjectSlot slot{};
  SystemCode result = readSlotPosition(table.tableFile, header.slotBase, out.objectID, &slot);
  if (result != 0) return failed(result);
  out.locked = false;
  out.blocker = 0;
  *state = SlotState::free;
  if (slot.isFree()) return {};
  ZELTA_TRY(checkPosition(table, header, slot.position));
  out.tablePosition = slot.position;
  *state = SlotState::inUse;
  if (request.noLock) return {};
  if (!isLockedHere(table, out.objectID)) result = out.newLock.take(table, out.objectID);
  if (result == 0) result = readSlot(table.tableFile, header.slotBase, out.objectID, &slot);
  if (result == code::kLockViolation) {
    out.locked = true;
    *state = SlotState::locked;
    return {};
  }
  if (result != 0) return failed(result);
  if (slot.transaction != request.metaData.transactionWord) out.blocker = slot.transaction;
  return {};
}

namespace {

/// Adds what the memory file knows of the object: this transaction's own version, or the entry of
/// another one, which can only be left over from a dead transaction: a living one has its object
/// locked.
Result findPendingVersion(const ReadRequest& request, AtomicManager& manager, Located& out) {
  PendingObject pending;
  bool found = false;
  const Table& table = request.table;
  ZELTA_TRY(findPendingObject(manager, out.objectID, &pending, &found));
  if (table.hasPending(out.objectID)) {
    if (found && pending.transaction == request.metaData.transactionWord) {
      out.pending = pending;
      out.blocker = 0;
      return {};
    }
    return reportError(&request.metaData, Own::memoryFile, table.cName(), extension::kMemory);
  }
  if (!found || pending.transaction == request.metaData.transactionWord) return {};
  if (!request.noLock) {
    out.blocker = pending.transaction;
    out.blockerHasEntry = true;
  }
  return {};
}

}  // namespace

Result locateObject(const ReadRequest& request, TableAccess& access, Located& out) {
  assert(access.owned() == request.writer);
  if (request.index == 0) {
    ZELTA_TRY(walkIds(request, access.header, false, out));
  } else if (request.byTree()) {
    ZELTA_TRY(walkTree(request, access, out));
  } else if (request.table.searchInverted) {
    ZELTA_TRY(walkIds(request, access.header, true, out));
  } else {
    ZELTA_TRY(walkResults(request, access.header, out));
  }
  if (!request.writer || out.pendingElsewhere) return {};
  return findPendingVersion(request, access.manager(), out);
}

Result locateVersions(TableAccess& access, std::uint64_t objectID, Located& out) {
  assert(access.owned());
  MetaData& metaData = access.metaData;
  const Table& table = access.table;
  out.objectID = objectID;
  const bool added = find(table.addedObjects, objectID) != nullptr;
  if (!added) {
    ObjectSlot slot{};
    const SystemCode result =
        readSlotPosition(table.tableFile, access.header.slotBase, objectID, &slot);
    if (result != 0) return reportSystemError(&metaData, result, table.cName(), extension::kTable);
    // A free slot is far above.
    ZELTA_TRY(checkPosition(table, access.header, slot.position));
    out.tablePosition = slot.position;
  }
  if (!added && find(table.editedObjects, objectID) == nullptr) return {};
  bool found = false;
  PendingObject pending;
  ZELTA_TRY(findPendingObject(access.manager(), objectID, &pending, &found));
  if (!found || pending.transaction != metaData.transactionWord) {
    return reportError(&metaData, Own::objectNotFound, table.cName(), extension::kMemory,
                       static_cast<std::int64_t>(objectID));
  }
  out.pending = pending;
  return {};
}

}  // namespace zelta

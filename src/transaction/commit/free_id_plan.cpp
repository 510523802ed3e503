// The list of free IDs: deleted ones join it, added ones leave it, a gap below a far new ID joins
// at its end. The list ascends, so that it is merged with the deleted IDs in one pass, and only
// slots whose link differs afterwards get an entry.

#include "storage/table_file/table_recovery.h"
#include "transaction/commit/edit_plan.h"

namespace zelta {

namespace {

/// Ascending IDs of a set, one at a time.
std::uint64_t successor(UInt64AVLTree* set, std::uint64_t id) {
  const UInt64AVLTree* node = findNext(set, id);
  return node == nullptr ? 0 : node->key;
}

Edit freeSlotEdit(std::uint64_t objectID, std::uint64_t link) {
  return {{EditKind::freeSlot, 0, objectID, link, 0, 0}, 0, 0};
}

}  // namespace

/// The link of a free ID in the file; 0 at the end of the list.
Result EditPlan::nextFreeID(std::uint64_t id, std::uint64_t* out) {
  ObjectSlot slot{};
  if (const SystemCode failure = readSlotPosition(table_.tableFile, old_.slotBase, id, &slot);
      failure != 0) {
    return reportTable(metaData_, table_.cName(), failure);
  }
  if (!slot.isFree() && replaying) {
    return reportError(&metaData_, Own::unclassified, table_.cName(), extension::kTable,
                       static_cast<std::int64_t>(id));
  }
  const bool good = slot.isFree() && (slot.nextFree() == 0 || slot.nextFree() > id) &&
                    slot.nextFree() <= old_.highestID;
  if (!good) {
    return reportError(&metaData_, Own::deleteList, table_.cName(), nullptr,
                       static_cast<std::int64_t>(id));
  }
  *out = slot.nextFree();
  return {};
}

Result EditPlan::planFreeIDs(const PendingImages& images) {
  // IDs that are free now and in use afterwards.
  std::set<std::uint64_t> taken;
  bool gap = false;
  std::uint64_t top = old_.highestID;
  for (const PendingObject& image : images.added) {
    if (image.objectID <= old_.highestID) {
      taken.insert(image.objectID);
    } else {
      gap = gap || image.objectID != top + 1;
      top = image.objectID;
    }
  }
  const bool lowered = next.highestID < old_.highestID;
  std::uint64_t deleted = successor(changed_.deleted, 0);
  std::uint64_t listed = old_.firstDeletedID;
  std::uint64_t last = 0;      // the free ID before the one at hand
  std::uint64_t lastLink = 0;  // what the file has for its link
  bool lastIsNew = false;      // it was deleted just now: its slot must be written in any case
  next.firstDeletedID = old_.firstDeletedID;

  const auto link = [&](std::uint64_t to) {
    if (last == 0) {
      next.firstDeletedID = to;
    } else if (lastIsNew || lastLink != to) {
      edits.push_back(freeSlotEdit(last, to));
    }
  };
  const auto inTable = [&](std::uint64_t id) { return id != 0 && id < next.highestID; };
  for (;;) {
    // Behind the last change the rest of the list stays as it is, unless its end is needed.
    const bool more = inTable(deleted) || !taken.empty() || lowered || gap;
    const bool fromList = listed != 0 && (deleted == 0 || listed < deleted);
    const std::uint64_t id = fromList ? listed : deleted;
    if (!inTable(id) || (!more && fromList)) {
      // The last object of a table that got shorter may be a new one.
      if (fromList && id == next.highestID) taken.erase(id);
      link(inTable(id) ? id : 0);
      break;
    }
    std::uint64_t idLink = 0;
    if (fromList) {
      ZELTA_TRY(nextFreeID(id, &idLink));
      listed = idLink;
      if (taken.erase(id) != 0) continue;
    } else {
      deleted = successor(changed_.deleted, id);
    }
    link(id);
    last = id;
    lastLink = idLink;
    lastIsNew = !fromList;
  }

  if (!taken.empty()) {
    return reportError(&metaData_, Own::deleteList, table_.cName(), nullptr,
                       static_cast<std::int64_t>(*taken.begin()));
  }

  // New objects, each with the gap below it.
  top = old_.highestID;
  for (const PendingObject& image : images.added) {
    Edit edit{{EditKind::newObject, 0, image.objectID, 0, 0, 0}, image.length, image.position};
    if (image.objectID > top) {
      if (image.objectID != top + 1) {
        edit.entry.nextFreeID = top + 1;
        edit.entry.oldPosition = last;
        if (last == 0) next.firstDeletedID = top + 1;
        last = image.objectID - 1;
      }
      top = image.objectID;
    }
    newObjects_[image.objectID] = edits.size();
    edits.push_back(edit);
  }
  return {};
}

}  // namespace zelta

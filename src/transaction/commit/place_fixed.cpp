// Places of records in a table without variable fields: they lie side by side, without holes.

#include <algorithm>
#include <cassert>

#include "platform/file_io.h"
#include "storage/table_file/table_recovery.h"
#include "transaction/commit/edit_plan.h"

namespace zelta {

/// The ID that a record states; one that no object can have is damage.
Result EditPlan::readRecordID(std::uint64_t position, std::uint64_t* objectID) {
  *objectID = 0;
  if (const SystemCode failure =
          readBuffer(table_.tableFile, position + 2, objectID, old_.headerSize - 2);
      failure != 0) {
    return reportTable(metaData_, table_.cName(), failure);
  }
  if (*objectID != 0 && *objectID <= old_.highestID) return {};
  return reportDamagedTable(metaData_, table_.cName(), static_cast<std::int64_t>(position), 0);
}

/// The first hole, else the end of the file.
std::uint64_t EditPlan::allocatePlace() {
  if (!holes_.empty()) {
    const std::uint64_t place = *holes_.begin();
    holes_.erase(holes_.begin());
    return place;
  }
  const std::uint64_t place = next.endOfFile;
  next.endOfFile += old_.fixedAreaSize;
  allocatedEnd = std::max(allocatedEnd, next.endOfFile);
  return place;
}

/// While holes are left, the last record moves into the first one.
Result EditPlan::closeHoles(std::map<std::uint64_t, std::uint64_t>& movedEdited) {
  while (!holes_.empty()) {
    next.endOfFile -= old_.fixedAreaSize;
    const std::uint64_t last = next.endOfFile;
    if (holes_.erase(last) != 0) continue;
    std::uint64_t id = 0;
    ZELTA_TRY(readRecordID(last, &id));
    const std::uint64_t place = *holes_.begin();
    holes_.erase(holes_.begin());
    if (isEdited(id)) {
      movedEdited[id] = place;
    } else {
      moves.push_back({{EditKind::moveObject, 0, id, 0, place, last}, 0, 0});
    }
  }
  return {};
}

/// Holes are what deleted objects leave, and what a slot array that shrinks gives back. Records in
/// the way of one that grows, and new ones, take them; what holes are left the last records fill.
Result EditPlan::placeFixed(const PendingImages& images) {
  assert(table_.isFixed());
  allocatedEnd = next.endOfFile;
  if (emptied_) return {};
  const std::uint64_t size = old_.fixedAreaSize;
  for (const UInt64AVLTree* node = findNext(changed_.deleted, 0); node != nullptr;
       node = findNext(changed_.deleted, node->key)) {
    std::uint64_t position = 0;
    ZELTA_TRY(readPosition(node->key, &position));
    if (position >= next.objectAreaStart) holes_.insert(position);
  }
  for (std::uint64_t p = next.objectAreaStart; p < old_.objectAreaStart; p += size)
    holes_.insert(p);

  std::map<std::uint64_t, std::uint64_t> movedEdited;  // ID and new place
  const std::uint64_t taken = std::min(next.objectAreaStart, old_.endOfFile);
  for (std::uint64_t p = old_.objectAreaStart; p < taken; p += size) {
    std::uint64_t id = 0;
    ZELTA_TRY(readRecordID(p, &id));
    if (isDeleted(id)) continue;
    if (isEdited(id)) {
      movedEdited[id] = allocatePlace();
    } else {
      moves.push_back({{EditKind::moveObject, 0, id, 0, allocatePlace(), p}, 0, 0});
    }
  }
  for (const PendingObject& image : images.added) {
    assert(newObjects_.count(image.objectID) == 1);
    edits[newObjects_[image.objectID]].entry.newPosition = allocatePlace();
  }
  ZELTA_TRY(closeHoles(movedEdited));
  for (const PendingObject& image : images.edited) {
    Edit edit{{EditKind::replaceObject, 0, image.objectID, 0, 0, 0}, image.length, image.position};
    ZELTA_TRY(readPosition(image.objectID, &edit.entry.oldPosition));
    if (const auto moved = movedEdited.find(image.objectID); moved != movedEdited.end()) {
      edit.entry.newPosition = moved->second;
    }
    edits.push_back(edit);
  }
  return {};
}

}  // namespace zelta

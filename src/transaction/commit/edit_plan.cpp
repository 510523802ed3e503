#include "transaction/commit/edit_plan.h"

#include <algorithm>
#include <cassert>

#include "storage/table_file/table_recovery.h"

namespace zelta {

namespace {

constexpr std::uint64_t kAreaStep =
    600;  ///< bytes of slots, at least, by which the slot array grows
constexpr std::uint64_t kSpareSlots = 71;
constexpr std::uint64_t kFirstArea = 612;  ///< from slotBase to the area of an empty table

}  // namespace

Result EditPlan::make(const PendingImages& images) {
  assert(moves.empty() && edits.empty());
  ZELTA_TRY(requireWhole(metaData_, table_.cName(), table_.tableFile, old_));
  const std::uint64_t greatest = images.added.empty() ? 0 : images.added.back().objectID;
  ZELTA_TRY(placeSlotArea(greatest));
  ZELTA_TRY(planFreeIDs(images));
  return table_.isFixed() ? placeFixed(images) : placeVariable(images);
}

bool EditPlan::isDeleted(std::uint64_t objectID) const {
  return find(changed_.deleted, objectID) != nullptr;
}

bool EditPlan::isEdited(std::uint64_t objectID) const {
  return find(changed_.edited, objectID) != nullptr;
}

/// Where the committed record of an ID lies that must be in use.
Result EditPlan::readPosition(std::uint64_t objectID, std::uint64_t* position) {
  ObjectSlot slot{};
  if (const SystemCode failure = readSlotPosition(table_.tableFile, old_.slotBase, objectID, &slot);
      failure != 0) {
    return reportTable(metaData_, table_.cName(), failure);
  }
  if (slot.isFree() || slot.position < old_.objectAreaStart || slot.position >= old_.endOfFile) {
    return reportDamagedTable(metaData_, table_.cName(), static_cast<std::int64_t>(objectID), 0);
  }
  *position = slot.position;
  return {};
}

/// The least multiple of the allocation unit that makes room for enough slots. In a fixed table
/// that is a number of whole records: they lie side by side from the area's start on.
std::uint64_t EditPlan::areaStep() const {
  const std::uint64_t unit = old_.defaultObjectSize;
  return unit * ((kAreaStep + unit - 1) / unit);
}

/// How many slots there are, and where the objects' area begins.
Result EditPlan::placeSlotArea(std::uint64_t greatestAdded) {
  next.highestID = greatestAdded > old_.highestID ? greatestAdded : old_.highestID;
  if (greatestAdded < old_.highestID && changed_.deleted != nullptr) {
    ZELTA_TRY(lowerHighestID(greatestAdded));
  }
  emptied_ = next.highestID == 0;
  if (emptied_) {
    next.objectAreaStart = old_.slotBase + kFirstArea;
    next.endOfFile = next.objectAreaStart;
    return {};
  }
  raiseArea(greatestAdded);
  if (next.objectAreaStart == old_.objectAreaStart) lowerArea(greatestAdded);
  if (next.endOfFile < next.objectAreaStart) next.endOfFile = next.objectAreaStart;
  return {};
}

/// Slots at the end whose objects are gone afterwards leave the array.
Result EditPlan::lowerHighestID(std::uint64_t greatestAdded) {
  for (; next.highestID > greatestAdded; --next.highestID) {
    if (isDeleted(next.highestID)) continue;
    ObjectSlot slot{};
    if (const SystemCode failure =
            readSlotPosition(table_.tableFile, old_.slotBase, next.highestID, &slot);
        failure != 0) {
      return reportTable(metaData_, table_.cName(), failure);
    }
    if (!slot.isFree()) break;
  }
  return {};
}

/// Moves the beginning of the objects' area up, in whole steps, until the new slots have room.
void EditPlan::raiseArea(std::uint64_t greatestAdded) {
  const std::uint64_t needed = slotPosition(old_.slotBase, greatestAdded + 1);
  if (needed <= next.objectAreaStart) return;
  const std::uint64_t step = areaStep();
  next.objectAreaStart += (needed - next.objectAreaStart + step - 1) / step * step;
}

/// The last step may go below what is wanted: of the spare slots some are left then, too.
void EditPlan::lowerArea(std::uint64_t greatestAdded) {
  const std::uint64_t wanted =
      slotPosition(old_.slotBase, std::max(next.highestID, greatestAdded) + kSpareSlots);
  while (next.objectAreaStart >= wanted + old_.defaultObjectSize) {
    next.objectAreaStart -= areaStep();
  }
}

}  // namespace zelta

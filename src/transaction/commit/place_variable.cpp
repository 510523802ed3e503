// Places of records in a table with variable fields: blocks, which are allocated first fit and
// released into the free chain. What is released is deferred, so that no new record can come to lie
// where an old one is still needed.

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"
#include "storage/table_file/table_recovery.h"
#include "transaction/commit/edit_plan.h"

namespace zelta {

namespace {

/// A free block has a header and a tail: less than this cannot stand as one.
constexpr std::uint64_t kLeastFree = 20;

}  // namespace

/// Reads the size and the length word of a block, a record's or a free one's.
Result EditPlan::readBlock(std::uint64_t position, std::uint32_t head[2]) {
  if (const SystemCode failure = readBuffer(table_.tableFile, position, head, 8); failure != 0) {
    return reportTable(metaData_, table_.cName(), failure);
  }
  const bool good = head[0] >= kLeastFree && position + head[0] <= old_.endOfFile &&
                    (head[1] == kFreeMarker || std::uint64_t{head[1]} + kRecordFraming <= head[0]);
  if (good) return {};
  return reportDamagedTable(metaData_, table_.cName(), static_cast<std::int64_t>(position),
                            head[0]);
}

/// Releases the block of a record that goes.
Result EditPlan::releaseRecord(std::uint64_t position) {
  if (position < next.objectAreaStart) return {};  // its bytes have become slots
  std::uint32_t head[2];
  ZELTA_TRY(readBlock(position, head));
  freeSpace.deferred().add({position, head[0]});
  return {};
}

/// Finds whom the slot array drives out, and takes its bytes out of the free space.
Result EditPlan::clearTakenArea(std::map<std::uint64_t, std::uint64_t>& displaced) {
  std::uint64_t position = old_.objectAreaStart;
  std::uint32_t head[2] = {};
  bool record = false;
  for (;;) {
    while (position < next.objectAreaStart && position < old_.endOfFile) {
      ZELTA_TRY(readBlock(position, head));
      record = head[1] != kFreeMarker;
      if (record) {
        std::uint64_t id = 0;
        ZELTA_TRY(readRecordID(position + kRecordHead, &id));
        displaced[id] = position;
      }
      position += head[0];
    }
    if (position <= next.objectAreaStart || position - next.objectAreaStart >= kLeastFree) break;
    next.objectAreaStart += areaStep();  // what is left over would be too small for a free block
  }
  if (next.endOfFile < next.objectAreaStart) next.endOfFile = next.objectAreaStart;
  if (position > next.objectAreaStart && record) {
    freeSpace.deferred().add({next.objectAreaStart, position - next.objectAreaStart});
  }

  return cutFreeSpace();
}

/// Takes what lies in the slots' new area out of the free space.
Result EditPlan::cutFreeSpace() {
  std::uint64_t position = old_.freeHead;
  while (position != 0 && position < next.objectAreaStart) {
    NarrowBlock_tag block{};
    if (const SystemCode failure = readBuffer(table_.tableFile, position, &block, sizeof block);
        failure != 0) {
      return reportTable(metaData_, table_.cName(), failure);
    }
    const bool ascends = block.next == 0 || block.next > position;
    if (block.marker != kFreeMarker || !ascends) return reportError(&metaData_, Own::freeList);
    freeSpace.startAt(block.next);
    const std::uint64_t end = position + block.size;
    if (end > next.objectAreaStart) {
      freeSpace.releaseInFront({next.objectAreaStart, end - next.objectAreaStart});
      break;
    }
    position = block.next;
  }
  return {};
}

/// A block for an object of `length` bytes, in free space or at the end of the file.
Result EditPlan::allocate(std::uint64_t length, std::uint64_t* position, std::uint32_t* size) {
  const std::uint64_t wanted = length + kRecordFraming;
  if (freeSpace.need(wanted) > TableBlocks::kLargest) {
    return reportDamagedTable(metaData_, table_.cName(), 0, old_.defaultObjectSize);
  }
  FileSpan block{};
  ZELTA_TRY(freeSpace.allocate(wanted, &block, next.objectAreaStart));
  *position = block.position;
  *size = static_cast<std::uint32_t>(block.size);
  if (*position != 0) {
    const bool inside = *position <= old_.endOfFile && *size <= old_.endOfFile - *position;
    return inside ? Result{} : reportError(&metaData_, Own::freeList);
  }
  *size = static_cast<std::uint32_t>(freeSpace.need(wanted));
  *position = next.endOfFile;
  next.endOfFile += *size;
  return {};
}

/// A rewritten object keeps its block while that suits its length.
Result EditPlan::placeEdited(const PendingObject& image, bool displaced) {
  Edit edit{{EditKind::replaceObject, 0, image.objectID, 0, 0, 0}, image.length, image.position};
  ZELTA_TRY(readPosition(image.objectID, &edit.entry.oldPosition));
  std::uint32_t head[2];
  ZELTA_TRY(readBlock(edit.entry.oldPosition, head));
  const bool suits = head[0] >= std::uint64_t{image.length} + kRecordFraming &&
                     head[0] <= 2 * std::uint64_t{image.length} + 2 * kRecordFraming;
  if (displaced || !suits) {
    ZELTA_TRY(allocate(image.length, &edit.entry.newPosition, &edit.entry.newBlockSize));
    ZELTA_TRY(releaseRecord(edit.entry.oldPosition));
  } else {
    edit.keptSize = head[0];
  }
  edits.push_back(edit);
  return {};
}

/// First those whom the slot array drives out, then rewritten and new objects; what they leave
/// becomes free space last of all.
Result EditPlan::placeVariable(const PendingImages& images) {
  if (emptied_) {
    next.freeHead = 0;
    allocatedEnd = next.endOfFile;
    return {};
  }
  std::map<std::uint64_t, std::uint64_t> displaced;
  if (next.objectAreaStart > old_.objectAreaStart) ZELTA_TRY(clearTakenArea(displaced));
  for (const auto& [id, position] : displaced) {
    if (isDeleted(id) || isEdited(id)) continue;
    std::uint32_t head[2];
    ZELTA_TRY(readBlock(position, head));
    Edit edit{{EditKind::moveObject, 0, id, 0, 0, position}, 0, 0};
    ZELTA_TRY(allocate(std::max(head[1], old_.headerSize), &edit.entry.newPosition,
                       &edit.entry.newBlockSize));
    moves.push_back(edit);
  }
  for (const PendingObject& image : images.edited) {
    ZELTA_TRY(placeEdited(image, displaced.count(image.objectID) != 0));
  }
  for (const PendingObject& image : images.added) {
    assert(newObjects_.count(image.objectID) == 1);
    EditEntry_tag& entry = edits[newObjects_[image.objectID]].entry;
    ZELTA_TRY(allocate(image.length, &entry.newPosition, &entry.newBlockSize));
  }
  for (const UInt64AVLTree* node = findNext(changed_.deleted, 0); node != nullptr;
       node = findNext(changed_.deleted, node->key)) {
    std::uint64_t position = 0;
    ZELTA_TRY(readPosition(node->key, &position));
    ZELTA_TRY(releaseRecord(position));
  }
  if (next.objectAreaStart < old_.objectAreaStart) {
    freeSpace.deferred().add({next.objectAreaStart, old_.objectAreaStart - next.objectAreaStart});
  }
  allocatedEnd = next.endOfFile;
  ZELTA_TRY(freeSpace.merge(allocatedEnd, &next.endOfFile));
  next.freeHead = freeSpace.head();
  return {};
}

}  // namespace zelta

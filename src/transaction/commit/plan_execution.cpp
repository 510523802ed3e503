#include "transaction/commit/plan_execution.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"
#include "storage/table_file/table_recovery.h"
#include "transaction/commit/joined_writer.h"

namespace zelta {

namespace {

/// Carries a plan out. The numbers of the steps are those of table_commit.cpp.
class PlanExecution {
 public:
  PlanExecution(Table& table, const TableHeader_tag& header, EditPlan& plan, ImageReader& images,
                std::uint32_t transaction)
      : metaData_(table.metaData),
        table_(table),
        file_(table.tableFile),
        old_(header),
        plan_(plan),
        images_(images),
        transaction_(transaction) {}

  Result run() {
    ZELTA_TRY(writeJournal());     // 5.3
    ZELTA_TRY(passCommitPoint());  // 5.4
    ZELTA_TRY(applyMoves());       // 5.5
    ZELTA_TRY(applyEdits());       // 5.6
    ZELTA_TRY(clearSlots());
    ZELTA_TRY(plan_.freeSpace.apply());
    return finish();  // 5.7
  }

 private:
  Result report(SystemCode failure) { return reportTable(metaData_, table_.cName(), failure); }
  Result writeJournal();
  Result passCommitPoint();
  Result applyMoves();
  Result applyEdits();
  Result writeObjects();
  Result writeSlots();
  Result writeObject(JoinedWriter& out, const Edit& edit);
  Result clearSlots();
  Result finish();

  MetaData& metaData_;
  Table& table_;
  platform::File file_;
  const TableHeader_tag& old_;
  EditPlan& plan_;
  ImageReader& images_;
  std::uint32_t transaction_;
  TableHeader_tag intent_{};
};

/// Step 5.3: the entries of all edits and free blocks go behind the file's end, and behind what is
/// about to be allocated. No header leads there yet.
Result PlanExecution::writeJournal() {
  assert(intent_.commitEnd == 0);
  const std::uint32_t freeEntries = plan_.freeSpace.sumEntries();
  const std::size_t editEntries = plan_.moves.size() + plan_.edits.size();
  const std::size_t length =
      editEntries * sizeof(EditEntry_tag) + std::size_t{freeEntries} * kFreeEntrySize;
  char* journal = metaData_.scratchFor(Scratch::journal).reserve(length);
  char* at = journal;
  for (const std::vector<Edit>* list : {&plan_.moves, &plan_.edits}) {
    for (const Edit& edit : *list) {
      std::memcpy(at, &edit.entry, sizeof edit.entry);
      at += sizeof edit.entry;
    }
  }
  [[maybe_unused]] const char* end = plan_.freeSpace.copyEntries(at);
  assert(end == journal + length);

  const std::uint64_t start = std::max(plan_.allocatedEnd, old_.endOfFile);
  assert(start >= plan_.next.endOfFile);
  intent_ = old_;
  intent_.journalBase = old_.endOfFile;
  intent_.journalEnd = start + length;
  intent_.commitEnd = plan_.next.endOfFile;
  intent_.commitTransaction = transaction_;
  intent_.freeEntryCount = freeEntries;
  intent_.editEntryCount = static_cast<std::uint32_t>(editEntries);
  intent_.newObjectAreaStart = plan_.next.objectAreaStart;
  intent_.newFreeHead = plan_.next.freeHead;
  intent_.oldSlotEnd = old_.highestID + 1;
  intent_.newHighestID = plan_.next.highestID;
  intent_.newFirstDeletedID = plan_.next.firstDeletedID;
  intent_.oldFirstDeletedID = old_.firstDeletedID;
  intent_.journalChecksum = 0;
  xorChecksum32(intent_.journalChecksum, summedPart(intent_), kSummedPart);
  xorChecksum32(intent_.journalChecksum, journal, length);
  return report(writeBuffer(file_, start, journal, static_cast<std::int64_t>(length)));
}

/// Step 5.4, the commit point of the table file. Before it, whoever reads the header finds the old
/// table; once the intent and all of the journal that its checksum covers are on the disk, the new
/// one.
Result PlanExecution::passCommitPoint() {
  assert(intent_.commitEnd != 0 && intent_.journalEnd >= intent_.journalBase);
  constexpr std::uint32_t kIntent = offsetof(TableHeader_tag, journalBase);
  ZELTA_TRY(report(writeBuffer(file_, kIntent, reinterpret_cast<const char*>(&intent_) + kIntent,
                               sizeof intent_ - kIntent)));
  return report(platform::flushFile(file_));
}

/// Step 5.5. Moves must not be done again once other contents may have taken the places that they
/// came from.
Result PlanExecution::applyMoves() {
  assert(intent_.journalBase == old_.endOfFile);
  for (const Edit& edit : plan_.moves) {
    ZELTA_TRY(applyMove(metaData_, table_.cName(), file_, old_, edit.entry));
  }
  if (plan_.moves.empty()) return {};
  ZELTA_TRY(report(platform::flushFile(file_)));
  intent_.highestID = plan_.next.highestID;
  intent_.firstDeletedID = plan_.next.firstDeletedID;
  intent_.objectAreaStart = plan_.next.objectAreaStart;
  intent_.freeHead = plan_.next.freeHead;
  intent_.endOfFile = plan_.next.endOfFile;
  intent_.journalBase = 0;
  constexpr std::uint32_t kFrom = offsetof(TableHeader_tag, highestID);
  constexpr std::uint32_t kTo = offsetof(TableHeader_tag, journalEnd);
  ZELTA_TRY(report(
      writeBuffer(file_, kFrom, reinterpret_cast<const char*>(&intent_) + kFrom, kTo - kFrom)));
  return report(platform::flushFile(file_));
}

/// Step 5.6, but for cleared slots and free blocks.
Result PlanExecution::applyEdits() {
  assert(plan_.moves.empty() || intent_.journalBase == 0);
  for (const Edit& edit : plan_.edits) {
    if (edit.entry.kind == EditKind::replaceObject) continue;
    ZELTA_TRY(applySlotLinks(metaData_, table_.cName(), file_, old_, edit.entry));
  }
  ZELTA_TRY(writeObjects());
  return writeSlots();
}

/// The record as a whole, with its framing and zeros up to the end of its block.
Result PlanExecution::writeObject(JoinedWriter& out, const Edit& edit) {
  const char* bytes = nullptr;
  ZELTA_TRY(images_.read(edit.imagePosition + 4, edit.length, &bytes));
  const std::uint64_t position =
      edit.entry.newPosition != 0 ? edit.entry.newPosition : edit.entry.oldPosition;
  if (table_.isFixed()) return report(out.write(position, bytes, edit.length));
  // What the plan has seen counts: where blocks overlap, another object may stand there by now.
  const std::uint32_t size = edit.entry.newBlockSize != 0 ? edit.entry.newBlockSize : edit.keptSize;
  assert(size >= kRecordFraming + std::uint64_t{edit.length});
  const std::uint32_t head[2] = {size, edit.length};
  SystemCode failure = out.write(position, head, sizeof head);
  if (failure == 0) failure = out.write(position + kRecordHead, bytes, edit.length);
  if (failure == 0) {
    failure =
        out.writeZeros(position + kRecordHead + edit.length, size - kRecordFraming - edit.length);
  }
  if (failure == 0) failure = out.write(position + size - 4, &size, sizeof size);
  return report(failure);
}

/// Contents go first, then the slots that lead there. The order does not matter to a repair, which
/// does both again.
Result PlanExecution::writeObjects() {
  JoinedWriter out(file_, metaData_.scratchFor(Scratch::image));
  for (const Edit& edit : plan_.edits) {
    if (edit.entry.kind != EditKind::freeSlot) ZELTA_TRY(writeObject(out, edit));
  }
  return report(out.flush());
}

/// Position and no stamp: from here on the object is as any other.
Result PlanExecution::writeSlots() {
  JoinedWriter out(file_, metaData_.scratchFor(Scratch::image));
  for (const Edit& edit : plan_.edits) {
    if (edit.entry.kind == EditKind::freeSlot) continue;
    const std::uint64_t position =
        edit.entry.newPosition != 0 ? edit.entry.newPosition : edit.entry.oldPosition;
    char slot[kObjectSlotSize] = {};
    std::memcpy(slot, &position, sizeof position);
    ZELTA_TRY(
        report(out.write(slotPosition(old_.slotBase, edit.entry.objectID), slot, sizeof slot)));
  }
  return report(out.flush());
}

/// Slots above the greatest ID are zeros, up to the objects' area if that has moved.
Result PlanExecution::clearSlots() {
  const std::uint64_t end = plan_.next.objectAreaStart != old_.objectAreaStart
                                ? plan_.next.objectAreaStart
                                : slotPosition(old_.slotBase, old_.highestID + 1);
  return zeroSlots(metaData_, table_.cName(), file_, old_.slotBase, plan_.next.highestID, end);
}

/// Step 5.7. The first flush keeps the header from being at rest before all that it leads to is
/// there.
Result PlanExecution::finish() {
  ZELTA_TRY(report(platform::flushFile(file_)));
  TableHeader_tag header = plan_.next;
  constexpr std::uint32_t kNumbers = offsetof(TableHeader_tag, highestID);
  constexpr std::uint32_t kIntent = offsetof(TableHeader_tag, journalBase);
  char* bytes = reinterpret_cast<char*>(&header);
  std::memset(bytes + kIntent, 0, sizeof header - kIntent);
  ZELTA_TRY(report(writeBuffer(file_, kNumbers, bytes + kNumbers, sizeof header - kNumbers)));
  ZELTA_TRY(report(platform::flushFile(file_)));
  return report(truncateFile(file_, header.endOfFile));
}

}  // namespace

Result executePlan(Table& table, const TableHeader_tag& header, EditPlan& plan, ImageReader& images,
                   std::uint32_t transaction) {
  return PlanExecution(table, header, plan, images, transaction).run();
}

}  // namespace zelta

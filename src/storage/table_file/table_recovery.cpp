// Finishing a commit that was cut off.
//
// What may be found, and what is done:
//  1. The journal's end lies behind the file's end, or (with moves still to do) its checksum is
//     wrong: the journal was never complete. Nothing was applied; the file is cut to where the
//     journal began.
//  2. journalBase is not 0: moves may be half done. Their sources are never another entry's target,
//     so all are done again.
//  3. journalBase is 0: the moves are done. Everything behind them is done again; the contents of
//     new and replaced objects are not in this file, so placeholders with the transaction's stamp
//     stand in for them until the log has delivered them.
// Nothing is touched before the numbers of the header have proven to be those of a commit: a table
// at rest must survive a damaged byte in its header.
// In all cases the header is written with the intent cleared, and only then the file is cut.

#include "storage/table_file/table_recovery.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"
#include "storage/free_space/free_journal.h"

namespace zelta {

const char* summedPart(const TableHeader_tag& header) {
  return reinterpret_cast<const char*>(&header) + offsetof(TableHeader_tag, freeEntryCount);
}

Result zeroSlots(MetaData& metaData, const char16_t* tableName, platform::File file,
                 std::uint32_t slotBase, std::uint64_t highestID, std::uint64_t end) {
  constexpr std::uint64_t kPiece = 65536;
  std::uint64_t position = slotPosition(slotBase, highestID + 1);
  if (position >= end) return {};
  char* zeros = metaData.scratchFor(Scratch::transfer).reserve(std::min(kPiece, end - position));
  std::memset(zeros, 0, std::min(kPiece, end - position));
  while (position < end) {
    const std::uint64_t length = std::min(kPiece, end - position);
    ZELTA_TRY(reportTable(metaData, tableName,
                          writeBuffer(file, position, zeros, static_cast<std::int64_t>(length))));
    position += length;
  }
  return {};
}

namespace {

class CommitRecovery {
 public:
  CommitRecovery(MetaData& metaData, const char16_t* tableName, platform::File file,
                 TableHeader_tag& header)
      : metaData_(metaData), tableName_(tableName), file_(file), header_(header) {}

  Result run();

 private:
  [[nodiscard]] bool fixed() const { return header_.fixedAreaSize == header_.minimumObjectSize; }
  Result report(SystemCode failure) { return reportTable(metaData_, tableName_, failure); }
  Result damaged() { return reportDamagedTable(metaData_, tableName_, 0, 0); }
  Result write(std::uint64_t position, const void* data, std::size_t length) {
    return report(writeBuffer(file_, position, data, static_cast<std::int64_t>(length)));
  }
  Result verify(bool* good);
  /// Drops the commit: the table is as it was, and ends where it did.
  Result forget(std::uint64_t size);
  [[nodiscard]] bool intentIsSound() const;
  Result applyMoves(std::uint64_t* next);
  Result applyEdits(std::uint64_t next);
  Result applyEdit(const EditEntry_tag& entry);
  Result writePlaceholder(const EditEntry_tag& entry, std::uint64_t position);
  Result applyFreeSpace();
  Result finish(std::uint64_t end);
  [[nodiscard]] bool isSound(const EditEntry_tag& entry) const;
  Result readEntry(std::uint64_t position, EditEntry_tag& entry);

  MetaData& metaData_;
  const char16_t* tableName_;
  platform::File file_;
  TableHeader_tag& header_;
  std::uint64_t journal_ = 0;  ///< where it starts
};

Result CommitRecovery::readEntry(std::uint64_t position, EditEntry_tag& entry) {
  return report(readBuffer(file_, position, &entry, sizeof entry));
}

/// Whether the table that the commit makes can be one, and its journal lies behind all that is
/// applied. Of the numbers before the commit some may be new already.
bool CommitRecovery::intentIsSound() const {
  TableHeader_tag after = header_;
  after.objectAreaStart = header_.newObjectAreaStart;
  after.highestID = header_.newHighestID;
  after.endOfFile = header_.commitEnd;
  return isPlausible(after) && header_.newFreeHead < header_.commitEnd &&
         header_.newFirstDeletedID <= header_.newHighestID && journal_ >= header_.commitEnd &&
         journal_ >= header_.endOfFile;
}

bool CommitRecovery::isSound(const EditEntry_tag& entry) const {
  if (entry.objectID == 0 || entry.objectID > header_.newHighestID) return false;
  const std::uint64_t least = fixed() ? header_.fixedAreaSize : kRecordFraming + header_.headerSize;
  const auto inArea = [&](std::uint64_t position) {
    const std::uint64_t size = std::max<std::uint64_t>(least, entry.newBlockSize);
    return position >= header_.newObjectAreaStart && position <= header_.commitEnd &&
           size <= header_.commitEnd - position;
  };
  switch (entry.kind) {
    case EditKind::moveObject:
      return inArea(entry.newPosition) && (fixed() || entry.newBlockSize >= least);
    case EditKind::replaceObject:
      return inArea(entry.newPosition == 0 ? entry.oldPosition : entry.newPosition);
    case EditKind::newObject:
      return inArea(entry.newPosition) && entry.nextFreeID <= entry.objectID &&
             entry.oldPosition <= header_.newHighestID;
    case EditKind::freeSlot:
      return entry.nextFreeID <= header_.newHighestID;
  }
  return true;  // an unknown kind has a failure of its own
}

/// Whether journal and intent agree with the checksum.
Result CommitRecovery::verify(bool* good) {
  *good = false;
  std::uint32_t sum = 0;
  xorChecksum32(sum, summedPart(header_), kSummedPart);
  constexpr std::uint32_t kPiece = 4096;
  char* bytes = metaData_.scratchFor(Scratch::transfer).reserve(kPiece);
  for (std::uint64_t position = journal_; position < header_.journalEnd;) {
    const auto length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(kPiece, header_.journalEnd - position));
    ZELTA_TRY(report(readBuffer(file_, position, bytes, length)));
    xorChecksum32(sum, bytes, length);
    position += length;
  }
  *good = sum == header_.journalChecksum;
  return {};
}

/// Does the leading moves again and marks them done, or passes them by if they are.
Result CommitRecovery::applyMoves(std::uint64_t* next) {
  *next = journal_;
  for (std::uint32_t i = 0; i < header_.editEntryCount; ++i, *next += sizeof(EditEntry_tag)) {
    EditEntry_tag entry;
    ZELTA_TRY(readEntry(*next, entry));
    if (entry.kind != EditKind::moveObject) break;
    if (header_.journalBase == 0) continue;
    if (!isSound(entry)) return damaged();
    ZELTA_TRY(applyMove(metaData_, tableName_, file_, header_, entry));
  }
  if (header_.journalBase == 0) return {};
  header_.journalBase = 0;
  ZELTA_TRY(report(platform::flushFile(file_)));
  ZELTA_TRY(
      write(offsetof(TableHeader_tag, journalBase), &header_.journalBase, sizeof(std::uint64_t)));
  return report(platform::flushFile(file_));
}

/// Stands for a content that only the log has; whoever reads it waits or asks for a replay.
Result CommitRecovery::writePlaceholder(const EditEntry_tag& entry, std::uint64_t position) {
  // Block size, length 0, version, ID; a fixed table's record is the last two alone.
  char bytes[kRecordHead + 10] = {};
  std::memcpy(bytes, &entry.newBlockSize, 4);
  std::memcpy(bytes + kRecordHead, &kPlaceholderVersion, 2);
  std::memcpy(bytes + kRecordHead + 2, &entry.objectID, header_.headerSize - 2);
  if (fixed()) return write(position, bytes + kRecordHead, header_.headerSize);
  if (entry.newBlockSize == 0) return write(position + 4, bytes + 4, 6);
  if (entry.newBlockSize < kRecordFraming + header_.headerSize) return damaged();
  ZELTA_TRY(write(position, bytes, kRecordHead + header_.headerSize));
  return write(position + entry.newBlockSize - 4, &entry.newBlockSize, 4);
}

Result CommitRecovery::applyEdit(const EditEntry_tag& entry) {
  switch (entry.kind) {
    case EditKind::freeSlot:
      return applySlotLinks(metaData_, tableName_, file_, header_, entry);
    case EditKind::newObject:
    case EditKind::replaceObject: {
      ZELTA_TRY(applySlotLinks(metaData_, tableName_, file_, header_, entry));
      const std::uint64_t position = entry.newPosition == 0 ? entry.oldPosition : entry.newPosition;
      ZELTA_TRY(writePlaceholder(entry, position));
      return writeSlotWhole(metaData_, tableName_, file_, header_.slotBase, entry.objectID,
                            {position, header_.commitTransaction});
    }
    case EditKind::moveObject:
      break;
  }
  return reportError(&metaData_, Own::unclassified, tableName_, extension::kTable,
                     static_cast<std::int64_t>(entry.kind));
}

Result CommitRecovery::applyEdits(std::uint64_t next) {
  const std::uint64_t end =
      journal_ + std::uint64_t{header_.editEntryCount} * sizeof(EditEntry_tag);
  for (; next < end; next += sizeof(EditEntry_tag)) {
    EditEntry_tag entry;
    ZELTA_TRY(readEntry(next, entry));
    if (!isSound(entry)) return damaged();
    ZELTA_TRY(applyEdit(entry));
  }
  return {};
}

/// All blocks must lie in the area that the commit leaves.
Result CommitRecovery::applyFreeSpace() {
  if (header_.freeEntryCount == 0) return {};
  TableFreeJournal journal(metaData_, file_);
  const std::uint64_t start =
      header_.journalEnd - std::uint64_t{header_.freeEntryCount} * kFreeEntrySize;
  ZELTA_TRY(journal.read(start, header_.freeEntryCount));
  for (const FreeEntry_tag& entry : journal.entries()) {
    if (entry.position >= header_.commitEnd ||
        !entry.liesWithin(header_.newObjectAreaStart, header_.commitEnd)) {
      return damaged();
    }
  }
  return journal.apply();
}

/// Brings the header to rest with `end` as the file's end, and cuts the file there.
Result CommitRecovery::finish(std::uint64_t end) {
  constexpr std::uint32_t kIntent = offsetof(TableHeader_tag, journalBase);
  constexpr std::uint32_t kNumbers = offsetof(TableHeader_tag, highestID);
  char* bytes = reinterpret_cast<char*>(&header_);
  std::memset(bytes + kIntent, 0, sizeof header_ - kIntent);
  header_.endOfFile = end;
  ZELTA_TRY(report(platform::flushFile(file_)));
  ZELTA_TRY(write(kNumbers, bytes + kNumbers, sizeof header_ - kNumbers));
  ZELTA_TRY(report(platform::flushFile(file_)));
  return report(truncateFile(file_, end));
}

Result CommitRecovery::forget(std::uint64_t size) {
  const std::uint64_t base = header_.journalBase != 0 ? header_.journalBase : header_.endOfFile;
  if (!isPlausible(header_) || base != header_.endOfFile || base > size) return damaged();
  return finish(base);
}

/// The cases on top of this file, in their order.
Result CommitRecovery::run() {
  assert(header_.commitEnd != 0);
  std::uint64_t size = 0;
  ZELTA_TRY(report(platform::fileSize(file_, &size)));
  const std::uint64_t length =
      (std::uint64_t{header_.freeEntryCount} + header_.editEntryCount) * sizeof(EditEntry_tag);
  if (header_.journalEnd > size) return forget(size);
  // Nothing that is applied touches the journal or what is summed of the header.
  bool good = header_.journalEnd >= length;
  if (good) {
    journal_ = header_.journalEnd - length;
    ZELTA_TRY(verify(&good));
  }
  if (!good && header_.journalBase != 0) return forget(size);  // the intent may be cut in two, too
  if (!good || !intentIsSound()) return damaged();
  std::uint64_t next = 0;
  ZELTA_TRY(applyMoves(&next));
  ZELTA_TRY(applyEdits(next));
  ZELTA_TRY(zeroSlots(metaData_, tableName_, file_, header_.slotBase, header_.newHighestID,
                      header_.newObjectAreaStart));
  ZELTA_TRY(applyFreeSpace());
  header_.freeHead = header_.newFreeHead;
  header_.objectAreaStart = header_.newObjectAreaStart;
  header_.highestID = header_.newHighestID;
  header_.firstDeletedID = header_.newFirstDeletedID;
  return finish(header_.commitEnd);
}

}  // namespace

Result recoverTableCommit(MetaData& metaData, const char16_t* tableName, platform::File file,
                          TableHeader_tag& header) {
  return CommitRecovery(metaData, tableName, file, header).run();
}

}  // namespace zelta

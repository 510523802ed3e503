#include "transaction/log/log_intent.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "platform/file_io.h"
#include "storage/free_space/free_journal.h"

namespace zelta {

namespace {

/// Of the part that names what changes; the rest of the intent is known by what it leads to.
std::uint64_t headerChecksum(const LogHeader_tag& header) {
  std::uint64_t checksum = 0;
  xorChecksum64(checksum, reinterpret_cast<const char*>(&header) + kLogSummedStart,
                kLogHeaderSize - kLogSummedStart);
  return checksum;
}

/// Copies lie behind the log before and after the change.
std::uint64_t copyAreaStart(const LogHeader_tag& header) {
  return std::max(header.intentStart, header.oldEnd);
}

std::uint64_t nodeBytes(const LogHeader_tag& header) {
  return std::uint64_t{header.nodeCount} * sizeof(LogNodeRecord_tag);
}

/// The header as it is once the intent was carried out.
void takeNewValues(LogHeader_tag& header) {
  header.rootPosition = header.newRoot;
  header.freeHead = header.newFreeHead;
}

/// The head of the entry that the change adds, if it adds one: incomplete, with room for its body.
Result writeEntryHead(const LogFile& log) {
  const LogHeader_tag& header = log.header();
  if (header.newEntryPosition == 0) return {};
  const LogEntryHead_tag head{
      header.newEntryLength, {'Z', 'E', 'L', 'L'}, header.newEntryNumber, 0, 0, 0};
  return log.write(header.newEntryPosition, &head, sizeof head);
}

Result writeNode(const LogFile& log, const LogNodeRecord_tag& record) {
  return log.write(record.position, &record.node, kLogNodeSize);
}

/// An intent that was found in a header.
class PendingIntent {
 public:
  explicit PendingIntent(LogFile& log)
      : log_(log), header_(log.header()), freeBlocks_(log.metaData(), log.handle()) {}

  /// Whether copies and intent are complete and agree with the checksum.
  Result verify(std::uint64_t fileSize, bool* good);
  /// Carries the change out from its copies.
  Result repeat();

 private:
  [[nodiscard]] bool fits(std::uint64_t fileSize) const;
  [[nodiscard]] bool inLog(std::uint64_t position, std::uint64_t length) const {
    return liesInLog(position, length, header_.intentStart);
  }
  template <class Use>
  Result forEachNode(Use use);

  LogFile& log_;
  LogHeader_tag& header_;
  LogFreeJournal freeBlocks_;
};

/// Whether the intent's numbers fit each other and the file.
bool PendingIntent::fits(std::uint64_t fileSize) const {
  const std::uint64_t start = copyAreaStart(header_);
  if (header_.oldEnd < kLogHeaderSize || header_.intentStart < kLogHeaderSize) return false;
  if (header_.intentEnd > fileSize || header_.intentEnd < start) return false;
  if (header_.newRoot != 0 && !inLog(header_.newRoot, kLogNodeSize)) return false;
  if (header_.newFreeHead != 0 && !inLog(header_.newFreeHead, kWideBlockHead)) return false;
  if (header_.newEntryPosition != 0 &&
      !inLog(header_.newEntryPosition,
             std::max<std::uint64_t>(header_.newEntryLength, sizeof(LogEntryHead_tag)))) {
    return false;
  }
  return header_.intentEnd - start ==
         nodeBytes(header_) + std::uint64_t{header_.freeCount} * kFreeEntrySize;
}

/// Reads the copies of nodes in pieces of about 4 KiB.
template <class Use>
Result PendingIntent::forEachNode(Use use) {
  std::array<LogNodeRecord_tag, 12> records;
  std::uint64_t position = copyAreaStart(header_);
  for (std::uint32_t left = header_.nodeCount; left != 0;) {
    const auto some = std::min<std::uint32_t>(left, records.size());
    const auto length = static_cast<std::uint32_t>(some * sizeof(LogNodeRecord_tag));
    ZELTA_TRY(log_.read(position, records.data(), length));
    for (std::uint32_t i = 0; i < some; ++i) ZELTA_TRY(use(records[i]));
    position += length;
    left -= some;
  }
  return {};
}

Result PendingIntent::verify(std::uint64_t fileSize, bool* good) {
  *good = fits(fileSize);
  if (!*good) return {};
  const std::uint64_t start = copyAreaStart(header_);
  std::uint64_t checksum = headerChecksum(header_);
  std::array<char, 4096> buffer;
  ZELTA_TRY(log_.addChecksum(start, header_.intentEnd, buffer, checksum));
  *good = checksum == header_.intentChecksum;
  if (!*good) return {};
  // All that the copies change must lie in the log that the change leaves.
  ZELTA_TRY(freeBlocks_.read(start + nodeBytes(header_), header_.freeCount));
  *good = freeBlocks_.liesWithin(kLogHeaderSize, header_.intentStart);
  return forEachNode([&](const LogNodeRecord_tag& record) {
    *good = *good && inLog(record.position, kLogNodeSize);
    return Result();
  });
}

Result PendingIntent::repeat() {
  ZELTA_TRY(forEachNode([&](const LogNodeRecord_tag& record) { return writeNode(log_, record); }));
  ZELTA_TRY(freeBlocks_.apply());
  ZELTA_TRY(writeEntryHead(log_));
  takeNewValues(header_);
  ZELTA_TRY(log_.flush());
  return log_.endChange(header_.intentStart);
}

/// Enters the intent in the header. Returns the length of the copies.
std::uint64_t describe(LogHeader_tag& header, const LogIntentContents& contents,
                       const LogEntry* added) {
  std::uint64_t checksum = 0;
  header.oldEnd = header.endOfLog;
  header.freeCount = contents.freeSpace.sumEntries(&checksum);
  header.newFreeHead = contents.freeSpace.head();
  header.newRoot = contents.root;
  header.nodeCount = static_cast<std::uint32_t>(contents.nodes.size());
  if (added != nullptr) {
    header.newEntryPosition = added->position;
    header.newEntryLength = added->head.blockLength;
    header.newEntryNumber = added->head.number;
  }
  const std::uint64_t length = nodeBytes(header) + std::uint64_t{header.freeCount} * kFreeEntrySize;
  header.intentStart = contents.end;
  header.intentEnd = copyAreaStart(header) + length;
  xorChecksum64(checksum, contents.nodes.data(), nodeBytes(header));
  header.intentChecksum = checksum ^ headerChecksum(header);
  return length;
}

/// Step 1: the intent and its copies.
Result layDown(LogFile& log, const LogIntentContents& contents, const LogEntry* added) {
  LogHeader_tag& header = log.header();
  const std::uint64_t length = describe(header, contents, added);
  ZELTA_TRY(log.write(kLogIntentStart, reinterpret_cast<const char*>(&header) + kLogIntentStart,
                      kLogHeaderSize - kLogIntentStart));
  char* copies = log.metaData().scratchFor(Scratch::journal).reserve(length);
  if (header.nodeCount != 0) std::memcpy(copies, contents.nodes.data(), nodeBytes(header));
  contents.freeSpace.copyEntries(copies + nodeBytes(header));
  ZELTA_TRY(log.write(copyAreaStart(header), copies, length));
  return log.flush();
}

}  // namespace

Result carryOutLogIntent(LogFile& log, const LogIntentContents& contents, const LogEntry* added) {
  assert(log.locked());
  ZELTA_TRY(layDown(log, contents, added));
  // Step 2
  for (const LogNodeRecord_tag& record : contents.nodes) ZELTA_TRY(writeNode(log, record));
  ZELTA_TRY(writeEntryHead(log));
  ZELTA_TRY(contents.freeSpace.apply());
  takeNewValues(log.header());
  ZELTA_TRY(log.flush());
  // Step 3
  return log.endChange(contents.end);
}

Result finishLogIntent(LogFile& log, std::uint64_t fileSize) {
  assert(log.locked());
  const LogHeader_tag& header = log.header();
  // A log that was empty has no old end: nothing in it is worth a repetition.
  const std::uint64_t target = header.oldEnd != 0 ? header.oldEnd : header.endOfLog;
  PendingIntent intent(log);
  bool good = false;
  ZELTA_TRY(intent.verify(fileSize, &good));
  if (good) return intent.repeat();
  if (target > fileSize || (target != 0 && target < kLogHeaderSize)) return log.broken();
  ZELTA_TRY(log.flush());
  return log.endChange(target);
}

}  // namespace zelta

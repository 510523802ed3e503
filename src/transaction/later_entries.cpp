// Numbers of transactions begin again, and numbered log files keep their entries: the last entry
// of a number may be from long ago. Whether a new object was entered since, and maybe deleted
// again, cannot be seen in the table. But whoever touched it has left an entry behind.

#include "transaction/later_entries.h"

#include <cstring>

#include "frame/control_file.h"
#include "platform/file_io.h"
#include "transaction/log_file_internal.h"
#include "transaction/log_section.h"

namespace zelta {

using namespace log_file;

namespace {

class LaterEntries {
 public:
  LaterEntries(MetaData& metaData, std::uint32_t tableId, std::uint32_t idSize,
               std::set<std::uint64_t>& objects)
      : metaData_(metaData), tableId_(tableId), idSize_(idSize), objects_(objects) {}

  /// Goes through the blocks of a file from `position` to the end of the log.
  Result walk(platform::File file, const LogHeader_tag& header, std::uint64_t position);

 private:
  Result visitEntry(platform::File file, std::uint64_t position);
  Result visitSections(EntryReader& reader, std::uint32_t count);

  MetaData& metaData_;
  std::uint32_t tableId_;
  std::uint32_t idSize_;
  std::set<std::uint64_t>& objects_;
};

Result LaterEntries::visitSections(EntryReader& reader, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count && !objects_.empty(); ++i) {
    const char* bytes = nullptr;
    LogTableSection_tag section;
    ZELTA_TRY(reader.take(sizeof section, &bytes));
    std::memcpy(&section, bytes, sizeof section);
    const bool same = section.tableId == tableId_;
    if (std::memcmp(section.magic, "ZELS", 4) == 0) {
      if (same) objects_.clear();
      ZELTA_TRY(reader.skip(section.imageBytes));  // where a schema section has its body's length
      continue;
    }
    TableSection contents;
    ZELTA_TRY(readTableSection(reader, section, same ? idSize_ : 0, contents));
    if (!same) continue;
    for (const std::uint64_t id : contents.deleted) objects_.erase(id);
    for (const PendingObject& image : contents.images) objects_.erase(image.objectID);
  }
  return {};
}

/// An entry that is in the making, not complete, or makes no sense, proves nothing.
Result LaterEntries::visitEntry(platform::File file, std::uint64_t position) {
  LogEntryHead_tag head{};
  std::uint32_t read = 0;
  const SystemCode failure =
      platform::readLockable(file, logEntryLock(position), position, &head, sizeof head, &read);
  if (failure == code::kLockViolation) return {};
  if (failure != 0) return reportLogError(metaData_, failure);
  if (read < sizeof head) return logIsBroken(metaData_);
  bool good = false;
  ZELTA_TRY(verifyLogEntry(metaData_, file, head, position, &good));
  if (!good) return {};
  EntryReader reader(metaData_, file, head, position);
  const Result result = visitSections(reader, head.sectionCount);
  return result.is(Own::logEntry) ? Result{} : result;
}

Result LaterEntries::walk(platform::File file, const LogHeader_tag& header,
                          std::uint64_t position) {
  while (!objects_.empty() && position < header.endOfLog) {
    LogEntryHead_tag head{};
    if (header.endOfLog - position < sizeof head) return logIsBroken(metaData_);
    // The word behind may be locked.
    constexpr std::uint32_t kOpenPart = offsetof(LogEntryHead_tag, checksum);
    if (const SystemCode failure = readBuffer(file, position, &head, kOpenPart); failure != 0) {
      return reportLogError(metaData_, failure);
    }
    if (head.blockLength < sizeof head || head.blockLength > header.endOfLog - position) {
      return logIsBroken(metaData_);
    }
    // Nodes of the tree and free blocks lie between the entries.
    if (head.isEntry() && head.sectionCount != kFreeMarker) {
      ZELTA_TRY(visitEntry(file, position));
    }
    position += head.blockLength;
  }
  return {};
}

Result readLogNumbers(MetaData& metaData, ControlHeader_tag& header) {
  const SystemCode failure = readBuffer(metaData.controlFile, 0, &header, kExclusiveWord);
  return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
}

Result readHeader(MetaData& metaData, platform::File file, LogHeader_tag& header) {
  LogMutexGuard mutex;
  ZELTA_TRY(mutex.acquire(metaData, kLogMutexWait));
  return readLogHeader(metaData, file, header, true);
}

}  // namespace

Result dropKnownLater(MetaData& metaData, platform::File file, const LogEntryHead_tag& head,
                      std::uint64_t position, std::uint32_t tableId, std::uint32_t idSize,
                      std::set<std::uint64_t>& objects) {
  LogHeader_tag header{};
  ZELTA_TRY(readHeader(metaData, file, header));
  if (header.isSingle() || objects.empty()) return {};
  LaterEntries later(metaData, tableId, idSize, objects);
  ZELTA_TRY(later.walk(file, header, position + head.blockLength));
  ControlHeader_tag control{};
  ZELTA_TRY(readLogNumbers(metaData, control));
  for (const std::uint16_t number :
       numbersInUse(metaData, header.fileNumber, control.lastLogFile)) {
    if (number == header.fileNumber) continue;
    const std::u16string name = numberedLogName(metaData, number);
    platform::File next = platform::File::none;
    const SystemCode failure =
        openDatabaseFile(metaData, name.c_str(), platform::Disposition::openExisting, &next);
    if (failure == code::kFileNotFound || failure == code::kPathNotFound) continue;
    if (failure != 0) return reportLogError(metaData, failure);
    const FileGuard guard(next);
    LogHeader_tag nextHeader{};
    ZELTA_TRY(readHeader(metaData, next, nextHeader));
    ZELTA_TRY(later.walk(next, nextHeader, kHeaderSize));
    if (objects.empty()) break;
  }
  return {};
}

}  // namespace zelta

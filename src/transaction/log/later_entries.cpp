// Numbers of transactions begin again, and numbered log files keep their entries: the last entry
// of a number may be from long ago. Whether a new object was entered since, and maybe deleted
// again, cannot be seen in the table. But whoever touched it has left an entry behind.

#include "transaction/log/later_entries.h"

#include "frame/control_file.h"
#include "platform/file_io.h"
#include "transaction/log/log_entries.h"
#include "transaction/log/log_names.h"

namespace zelta {

namespace {

/// What is left of a set of objects, as entry after entry is gone through. The walk ends when
/// nothing is left.
class LaterEntries {
 public:
  LaterEntries(std::uint32_t tableId, std::uint32_t idSize, std::set<std::uint64_t>& objects)
      : tableId_(tableId), idSize_(idSize), objects_(objects) {}

  /// Goes through the entries of a file from `position` on.
  Result walk(const LogFile& log, std::uint64_t position);

 private:
  Result visitSections(EntryReader& reader);
  Result visitSection(EntryReader& reader, const LogTableSection_tag& section);

  std::uint32_t tableId_;
  std::uint32_t idSize_;
  std::set<std::uint64_t>& objects_;
};

/// Objects that the section names are known to have been touched later; a change of the table
/// itself touches all.
Result LaterEntries::visitSection(EntryReader& reader, const LogTableSection_tag& section) {
  const bool same = section.tableId == tableId_;
  if (section.isSchemaChange()) {
    if (same) objects_.clear();
    return reader.skip(section.imageBytes);  // where a schema section has its body's length
  }
  TableSection contents;
  ZELTA_TRY(readTableSection(reader, section, same ? idSize_ : 0, contents));
  if (!same) return {};
  for (const std::uint64_t id : contents.deleted) objects_.erase(id);
  for (const PendingObject& image : contents.images) objects_.erase(image.objectID);
  return {};
}

Result LaterEntries::visitSections(EntryReader& reader) {
  LogTableSection_tag section;
  bool found = true;
  while (!objects_.empty()) {
    ZELTA_TRY(reader.nextSection(&section, &found));
    if (!found) break;
    ZELTA_TRY(visitSection(reader, section));
  }
  return {};
}

Result LaterEntries::walk(const LogFile& log, std::uint64_t position) {
  LogEntryWalk entries(log, position);
  while (!objects_.empty()) {
    LogEntry entry;
    ZELTA_TRY(entries.next(&entry));
    if (entry.position == 0) break;
    EntryReader reader(log, entry);
    // An entry that makes no sense proves nothing.
    const Result result = visitSections(reader);
    if (result.failed() && !result.is(Own::logEntry)) return result;
  }
  return {};
}

/// Which log files there are, as the control file has it at this moment.
Result readLogNumbers(MetaData& metaData, ControlHeader_tag& control) {
  const SystemCode failure = readBuffer(metaData.controlFile, 0, &control, kExclusiveWord);
  return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
}

}  // namespace

Result dropKnownLater(LogFile& log, const LogEntry& entry, std::uint32_t tableId,
                      std::uint32_t idSize, std::set<std::uint64_t>& objects) {
  MetaData& metaData = log.metaData();
  ZELTA_TRY(log.readHeaderLocked());
  const LogHeader_tag& header = log.header();
  if (header.isSingle() || objects.empty()) return {};
  LaterEntries later(tableId, idSize, objects);
  ZELTA_TRY(later.walk(log, entry.end()));
  ControlHeader_tag control{};
  ZELTA_TRY(readLogNumbers(metaData, control));
  for (const std::uint16_t number :
       numbersInUse(metaData, header.fileNumber, control.lastLogFile)) {
    if (number == header.fileNumber) continue;
    LogFile next(metaData);
    ZELTA_TRY(next.open(numberedLogName(metaData, number)));
    if (!next.isOpen()) continue;
    ZELTA_TRY(next.readHeaderLocked());
    ZELTA_TRY(later.walk(next, kLogHeaderSize));
    if (objects.empty()) break;
  }
  return {};
}

}  // namespace zelta

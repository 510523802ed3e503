// Commits that are decided and not carried out yet. Between the commit point of a transaction and
// that of a table file, the index may lead to objects that the table has not got. Whoever meets
// such a key asks here whether that is so, or the index is damaged.

#include "objects/upcalls.h"

#include <algorithm>

#include "frame/slots.h"
#include "platform/file_io.h"
#include "storage/table.h"
#include "transaction/log/log_entries.h"
#include "transaction/log/log_search.h"

namespace zelta {

namespace {

/// Asks the last entry of every transaction that has a slot, one after the other. No mutex is held:
/// what changes meanwhile is met by the next pass of whoever asks.
class DecidedSearch {
 public:
  DecidedSearch(const Table& table, std::uint64_t objectID)
      : metaData_(table.metaData), table_(table), objectID_(objectID) {}

  Result run(std::uint32_t* number);

 private:
  Result isBrought(std::uint32_t number, const ControlHeader_tag& header, bool* brought);
  Result isInSections(EntryReader& reader, bool* found);

  MetaData& metaData_;
  const Table& table_;
  std::uint64_t objectID_;
};

Result DecidedSearch::isInSections(EntryReader& reader, bool* found) {
  *found = false;
  while (!*found) {
    LogTableSection_tag section;
    bool more = false;
    ZELTA_TRY(reader.nextSection(&section, &more));
    if (!more || !section.isTableEdit()) break;  // what follows are changes of the directory
    const bool same = section.tableId == table_.id();
    TableSection contents;
    ZELTA_TRY(readTableSection(reader, section, same ? table_.idSize() : 0, contents));
    *found = same && std::any_of(contents.images.begin(), contents.images.end(),
                                 [this](auto& image) { return image.objectID == objectID_; });
  }
  return {};
}

/// Whether the number's last entry is complete and brings the object.
Result DecidedSearch::isBrought(std::uint32_t number, const ControlHeader_tag& header,
                                bool* brought) {
  LogFile log(metaData_);
  LogEntry entry;
  ZELTA_TRY(findLogEntry(&header, number, log, &entry.position));
  if (entry.position == 0) return {};
  // A head that is locked, or cut short, is that of an entry in the making.
  if (log.readHead(entry.position, &entry.head) != 0) return {};
  bool complete = false;
  ZELTA_TRY(log.verifyEntry(entry, &complete));
  if (!complete) return {};
  EntryReader reader(log, entry);
  return isInSections(reader, brought);
}

Result DecidedSearch::run(std::uint32_t* number) {
  const auto report = [this](SystemCode failure) {
    return reportSystemError(&metaData_, failure, metaData_.baseName.c_str(), extension::kControl);
  };
  ControlHeader_tag header{};
  std::uint32_t exclusive = 0;
  ZELTA_TRY(report(readBuffer(metaData_.controlFile, 0, &header, kExclusiveWord)));
  ZELTA_TRY(report(readBuffer(metaData_.controlFile, offsetof(ControlHeader_tag, exclusiveState),
                              &exclusive, sizeof exclusive)));
  SlotWalk walk(metaData_.controlFile);
  ZELTA_TRY(report(walk.begin(header.directoryEnd)));
  const auto ask = [&](std::uint32_t candidate, bool* brought) {
    *brought = false;
    if (candidate == metaData_.transactionWord) return Result{};
    return isBrought(candidate, header, brought);
  };
  bool brought = false;
  if (exclusive != 0) ZELTA_TRY(ask(kExclusiveNumber, &brought));
  if (brought) *number = kExclusiveNumber;
  while (!brought && walk.next()) {
    std::uint32_t candidate = 0;
    ZELTA_TRY(report(walk.slot().readNumber(&candidate)));
    if (candidate < kFirstSlotNumber) continue;
    ZELTA_TRY(ask(candidate, &brought));
    if (brought) *number = candidate;
  }
  return {};
}

}  // namespace

std::uint32_t findDecidedCommit(const Table& table, std::uint64_t objectID) {
  std::uint32_t number = 0;
  DecidedSearch(table, objectID).run(&number).ignore();
  return number;
}

}  // namespace zelta

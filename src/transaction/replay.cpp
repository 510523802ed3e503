// Replay of log entries.
//
// With numbered log files old entries stay, and numbers come again: the last entry of a dead
// transaction's number may be one that was applied long ago. So the first question about an entry
// is whether it stands already. What does not stand is not brought in by this release: it is
// refused, the entry and the transaction's slot stay as they are, and nothing is lost.

#include "transaction/replay.h"

#include <cstring>
#include <string>

#include "frame/control_file.h"
#include "schema/table_lifecycle.h"
#include "storage/file_io.h"
#include "storage/table_file.h"

namespace zelta {

namespace {

class EntryCheck {
 public:
  EntryCheck(MetaData& metaData, UInt32AVLTree*& tables, platform::File file,
             const LogEntryHead_tag& head, std::uint64_t position)
      : metaData_(metaData),
        tables_(tables),
        file_(file),
        head_(head),
        next_(position + sizeof(LogEntryHead_tag)),
        end_(position + head.blockLength) {}

  /// `*stands` is false if something of the entry is not in the tables.
  Result run(bool* stands);

 private:
  Result read(void* out, std::uint64_t length);
  Result malformed() { return reportError(&metaData_, Own::logEntry); }
  Result checkEdits(const LogTableSection_tag& section, bool* stands);
  Result checkImages(const Table& table, const TableHeader_tag& header, std::uint64_t end,
                     bool* stands);
  Result isApplied(const Table& table, const TableHeader_tag& header, std::uint64_t objectID,
                   bool* applied);
  Result checkSchema(const LogSchemaSection_tag& section, bool* stands);

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  platform::File file_;
  const LogEntryHead_tag& head_;
  std::uint64_t next_;
  std::uint64_t end_;
};

Result EntryCheck::read(void* out, std::uint64_t length) {
  if (length > end_ - next_) return malformed();
  const SystemCode failure = readLargeBuffer(file_, next_, out, static_cast<std::int64_t>(length));
  next_ += length;
  return reportSystemError(&metaData_, failure, metaData_.baseName.c_str(), extension::kLog);
}

Result EntryCheck::isApplied(const Table& table, const TableHeader_tag& header,
                             std::uint64_t objectID, bool* applied) {
  *applied = false;
  if (objectID == 0 || objectID > header.highestID) return {};
  ObjectSlot slot{};
  const SystemCode failure = readSlot(table.tableFile, header.slotBase, objectID, &slot);
  if (failure == code::kLockViolation) {
    *applied = true;  // somebody works on it: it is there, and not this dead transaction's
    return {};
  }
  if (failure != 0) return reportSystemError(&metaData_, failure, table.cName(), extension::kTable);
  *applied = !slot.isFree() && slot.transaction != head_.number;
  return {};
}

Result EntryCheck::checkImages(const Table& table, const TableHeader_tag& header, std::uint64_t end,
                               bool* stands) {
  while (*stands && next_ < end) {
    const std::uint64_t start = next_;
    std::uint32_t length = 0;
    ZELTA_TRY(read(&length, sizeof length));
    if (length < table.headerSize() || logImageSize(length) > end - start) return malformed();
    char head[10];
    ZELTA_TRY(read(head, table.headerSize()));
    std::uint64_t objectID = 0;
    std::memcpy(&objectID, head + 2, table.idSize());
    ZELTA_TRY(isApplied(table, header, objectID, stands));
    next_ = start + logImageSize(length);
  }
  return {};
}

Result EntryCheck::checkEdits(const LogTableSection_tag& section, bool* stands) {
  if (section.deletedCount != 0) {
    *stands = false;  // no object is deleted by this release
    return {};
  }
  const std::uint64_t end = next_ + section.imageBytes;
  if (section.imageBytes > end_ - next_) return malformed();
  const Result opened = openTable(metaData_, tables_, section.tableId);
  if (opened.is(Own::tableNotFound)) {
    next_ = end;  // removed by a later change
    return {};
  }
  ZELTA_TRY(opened);
  Table& table = *findTable(tables_, section.tableId);
  TableMutexGuard guard;
  ZELTA_TRY(guard.acquire(metaData_, table, platform::kForever));
  TableHeader_tag header;
  ZELTA_TRY(readTableHeader(metaData_, table.cName(), table.tableFile, header, true));
  ZELTA_TRY(checkImages(table, header, end, stands));
  return guard.release();
}

/// A table that was made or entered stands in the directory under its name, a removed one does not.
Result EntryCheck::checkSchema(const LogSchemaSection_tag& section, bool* stands) {
  constexpr std::uint64_t kLongestBody = 1u << 30;
  if (section.bodyLength > end_ - next_ || section.bodyLength > kLongestBody) return malformed();
  std::string body(section.bodyLength, '\0');
  ZELTA_TRY(read(body.data(), body.size()));
  ControlHeader_tag control;
  ZELTA_TRY(refreshControlHeader(metaData_, control));
  TableDirectory directory;
  ZELTA_TRY(directory.read(metaData_, control));
  const DirectoryEntry* entry = directory.find(section.tableId);
  const auto operation = static_cast<DirectoryChange>(section.operation);
  if (operation == DirectoryChange::remove || operation == DirectoryChange::removeFiles) {
    *stands = entry == nullptr;
    return {};
  }
  if (operation != DirectoryChange::create && operation != DirectoryChange::add) return malformed();
  constexpr std::size_t kNameStart = 8;  // behind ID and lock order
  *stands =
      entry != nullptr && body.size() >= kNameStart + (entry->name.size() + 1) * 2 &&
      std::memcmp(body.data() + kNameStart, entry->name.c_str(), (entry->name.size() + 1) * 2) == 0;
  return {};
}

Result EntryCheck::run(bool* stands) {
  *stands = true;
  for (std::uint32_t i = 0; i < head_.sectionCount && *stands; ++i) {
    char bytes[sizeof(LogTableSection_tag)];
    ZELTA_TRY(read(bytes, sizeof bytes));
    if (std::memcmp(bytes, "ZELD", 4) == 0) {
      LogTableSection_tag section;
      std::memcpy(&section, bytes, sizeof section);
      ZELTA_TRY(checkEdits(section, stands));
    } else if (std::memcmp(bytes, "ZELS", 4) == 0) {
      LogSchemaSection_tag section;
      std::memcpy(&section, bytes, sizeof section);
      ZELTA_TRY(checkSchema(section, stands));
    } else {
      return reportError(&metaData_, Own::unclassified, metaData_.baseName.c_str(),
                         extension::kLog);
    }
  }
  return {};
}

}  // namespace

Result replayLogEntry(MetaData& metaData, UInt32AVLTree*& tables, platform::File file,
                      const LogEntryHead_tag& head, std::uint64_t position) {
  bool stands = false;
  ZELTA_TRY(EntryCheck(metaData, tables, file, head, position).run(&stands));
  if (stands) return {};
  return reportError(&metaData, Own::unclassified, metaData.baseName.c_str(), extension::kLog,
                     head.number, static_cast<std::int64_t>(position));
}

}  // namespace zelta

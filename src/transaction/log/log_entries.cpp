#include "transaction/log/log_entries.h"

#include <cstring>

#include "storage/free_space/free_block.h"

namespace zelta {

namespace {

constexpr std::uint32_t kVersionSize = 2;

std::uint64_t numberOf(const char* bytes, std::uint32_t size) {
  std::uint64_t number = 0;
  std::memcpy(&number, bytes, size);
  return number;
}

/// The deleted IDs of a section, which must ascend.
Result readDeleted(EntryReader& reader, std::uint64_t count, std::uint32_t idSize,
                   std::vector<std::uint64_t>& out) {
  if (count > reader.left() / idSize) return reader.malformed();
  out.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    const char* bytes = nullptr;
    ZELTA_TRY(reader.take(idSize, &bytes));
    const std::uint64_t id = numberOf(bytes, idSize);
    if (id == 0 || (!out.empty() && id <= out.back())) return reader.malformed();
    out.push_back(id);
  }
  return {};
}

/// The images of a section, whose IDs must ascend and whose lengths must fill it. Their bytes are
/// left where they are.
Result readImages(EntryReader& reader, std::uint64_t size, std::uint32_t idSize,
                  std::vector<PendingObject>& out) {
  const std::uint32_t smallest = kVersionSize + idSize;
  if (size > reader.left()) return reader.malformed();
  for (const std::uint64_t end = reader.position() + size; reader.position() != end;) {
    const std::uint64_t left = end - reader.position();
    PendingObject image;
    image.position = reader.position();
    const char* bytes = nullptr;
    if (left < 4 + smallest) return reader.malformed();
    ZELTA_TRY(reader.take(4 + smallest, &bytes));
    image.length = static_cast<std::uint32_t>(numberOf(bytes, 4));
    image.objectID = numberOf(bytes + 4 + kVersionSize, idSize);
    const std::uint64_t taken = logImageSize(image.length);
    if (image.length < smallest || taken > left) return reader.malformed();
    if (image.objectID == 0 || (!out.empty() && image.objectID <= out.back().objectID)) {
      return reader.malformed();
    }
    ZELTA_TRY(reader.skip(taken - 4 - smallest));
    out.push_back(image);
  }
  return {};
}

}  // namespace

// -- Entries --------------------------------------------------------------------------------------

/// An entry that is in the making, or not complete, is none.
Result LogEntryWalk::readIfComplete(std::uint64_t position, LogEntry* entry) const {
  LogEntry found{position, {}};
  const SystemCode failure = log_.readHead(position, &found.head);
  if (failure == code::kLockViolation) return {};
  if (failure == code::kEndOfFile) return log_.broken();
  ZELTA_TRY(log_.report(failure));
  bool complete = false;
  ZELTA_TRY(log_.verifyEntry(found, &complete));
  if (complete) *entry = found;
  return {};
}

Result LogEntryWalk::next(LogEntry* entry) {
  const std::uint64_t end = log_.header().endOfLog;
  *entry = {};
  while (entry->position == 0 && next_ < end) {
    LogEntryHead_tag head{};
    if (end - next_ < sizeof head) return log_.broken();
    // The word behind may be locked.
    ZELTA_TRY(log_.read(next_, &head, offsetof(LogEntryHead_tag, checksum)));
    if (head.blockLength < sizeof head || head.blockLength > end - next_) return log_.broken();
    // Nodes of the tree and free blocks lie between the entries.
    if (head.isEntry() && head.sectionCount != kFreeMarker) {
      ZELTA_TRY(readIfComplete(next_, entry));
    }
    next_ += head.blockLength;
  }
  return {};
}

// -- Sections -------------------------------------------------------------------------------------

Result EntryReader::nextSection(LogTableSection_tag* section, bool* found) {
  *found = sections_ != 0;
  if (!*found) return {};
  --sections_;
  const char* bytes = nullptr;
  ZELTA_TRY(take(sizeof *section, &bytes));
  std::memcpy(section, bytes, sizeof *section);
  return {};
}

Result EntryReader::take(std::uint32_t length, const char** bytes) {
  if (length > left()) return malformed();
  ZELTA_TRY(images.read(next_, length, bytes));
  next_ += length;
  return {};
}

Result EntryReader::skip(std::uint64_t length) {
  if (length > left()) return malformed();
  next_ += length;
  return {};
}

Result readTableSection(EntryReader& reader, const LogTableSection_tag& head, std::uint32_t idSize,
                        TableSection& out) {
  constexpr std::uint32_t kNarrow = 4;
  constexpr std::uint32_t kWide = 8;
  const std::uint64_t start = reader.position();
  const std::uint32_t first = idSize != 0 ? idSize : kNarrow;
  for (std::uint32_t size = first;; size = kWide) {
    reader.goBack(start);
    out.tableId = head.tableId;
    out.deleted.clear();
    out.images.clear();
    Result result = readDeleted(reader, head.deletedCount, size, out.deleted);
    if (result.ok()) result = readImages(reader, head.imageBytes, size, out.images);
    if (result.ok() || idSize != 0 || size == kWide) return result;
  }
}

}  // namespace zelta

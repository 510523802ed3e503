// Changes of the table directory.
//
// The writer puts the new directory (and the schema of the table) behind the old and the new end,
// then an intent with a checksum over both into the header, and flushes. Until the intent's second
// phase stands, a crash rolls back; from then on whoever may write finishes the change, any number
// of times: the image stays where it is until the intent is cleared.
//
// States of the header: at rest (`imageStart` 0); pending (`imageStart` and `oldEnd` not 0: the
// image decides by its checksum whether the change is carried out or dropped); applied (`oldEnd` 0:
// only the clearing of the intent, and the cut of the file, are left). Nothing in an intent is
// trusted for its checksum alone: where the file would be cut, or end, must follow from a directory
// that parses.

#include "frame/directory_change.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "frame/file_removal.h"
#include "frame/slots.h"
#include "frame/upcalls.h"
#include "platform/file_io.h"

namespace zelta {

namespace {

constexpr std::uint32_t kStateStart = offsetof(ControlHeader_tag, exclusiveState);
constexpr std::uint32_t kIntentStart = offsetof(ControlHeader_tag, oldEnd);
constexpr std::uint32_t kSummedStart = offsetof(ControlHeader_tag, changeOperation);
constexpr std::uint32_t kCountsStart = offsetof(ControlHeader_tag, tableCount);

const char* bytesOf(const ControlHeader_tag& header) {
  return reinterpret_cast<const char*>(&header);
}

Result writeControl(MetaData& metaData, std::uint64_t position, const void* data,
                    std::size_t length) {
  return reportControlFile(metaData, writeBuffer(metaData.controlFile, position, data,
                                                 static_cast<std::int64_t>(length)));
}

Result flushControl(MetaData& metaData) {
  return reportControlFile(metaData, platform::flushFile(metaData.controlFile));
}

/// Behind the directory before and after the change, so that neither is overwritten.
std::uint32_t imagePosition(const ControlHeader_tag& header) {
  return std::max(header.oldEnd, header.imageStart);
}

/// Of the intent's last words and the image.
std::uint32_t checksumOf(const ControlHeader_tag& header, const char* image, std::size_t length) {
  std::uint32_t sum = 0;
  xorChecksum32(sum, bytesOf(header) + kSummedStart, sizeof header - kSummedStart);
  xorChecksum32(sum, image, length);
  return sum;
}

/// The image of a pending change, and the directory in it.
struct PendingImage {
  const char* bytes = nullptr;
  std::uint32_t length = 0;
  std::uint32_t directoryLength = 0;
  TableDirectory directory;
};

/// Reads the image. `*complete` is false if it was never fully written.
Result readImage(MetaData& metaData, const ControlHeader_tag& header, PendingImage& image,
                 bool* complete) {
  *complete = false;
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(metaData.controlFile, &size); failure != 0) {
    return reportControlFile(metaData, failure);
  }
  const std::uint32_t start = imagePosition(header);
  if (header.imageEnd > size || header.imageEnd < start) return {};
  image.length = header.imageEnd - start;
  char* bytes = metaData.scratchFor(Scratch::image).reserve(image.length);
  const SystemCode failure = readLargeBuffer(metaData.controlFile, start, bytes, image.length);
  if (failure == code::kEndOfFile || failure == code::kNoAccess) return {};
  if (failure != 0) return reportControlFile(metaData, failure);
  image.bytes = bytes;
  *complete = checksumOf(header, bytes, image.length) == header.changeChecksum;
  return {};
}

/// A directory entry alone, as a log record begins with it.
std::string entryBytes(const DirectoryEntry& entry) {
  TableDirectory single;
  single.insert(entry);
  return single.bytes().substr(0, std::size_t{single.entryUnits()} * 2);
}

/// Deletes table file and index file. What cannot be deleted, or is none, stays.
void deleteFiles(const MetaData& metaData, const DirectoryEntry& entry) {
  deleteTableFile(metaData, databasePath(metaData, entry.name, extension::kTable),
                  extension::kTable);
  deleteTableFile(metaData, indexFolder(metaData, entry) + entry.name + extension::kIndex,
                  extension::kIndex);
}

/// Writes a directory over the old one and takes its numbers over; the header itself follows when
/// the intent is cleared.
Result installDirectory(MetaData& metaData, ControlHeader_tag& header, const char* bytes,
                        std::uint32_t length) {
  ZELTA_TRY(writeControl(metaData, kControlHeaderSize, bytes, length));
  header.tableCount = header.newTableCount;
  header.directorySize = header.newDirectorySize;
  header.directoryEnd = header.newDirectoryEnd;
  return {};
}

/// Before the directory changes, so that whoever follows the log never lacks a table that is there.
Result logChange(MetaData& metaData, ControlHeader_tag& header, const std::string& body, bool log) {
  if (!log || (header.logFlags & 1) == 0) return {};
  return logSchemaChange(metaData, header, static_cast<DirectoryChange>(header.changeOperation),
                         header.changeTable, body);
}

/// A new table or an entered one: its entry must stand in the image.
Result completeEntry(MetaData& metaData, ControlHeader_tag& header, PendingImage& image, bool log) {
  const DirectoryEntry* entry = image.directory.find(header.changeTable);
  if (entry == nullptr) {
    return reportError(&metaData, Own::tableNotFound, nullptr, nullptr, header.changeTable);
  }
  std::string body = entryBytes(*entry);
  if (header.changeOperation == static_cast<std::uint16_t>(DirectoryChange::create)) {
    body.append(image.bytes + image.directoryLength, image.length - image.directoryLength);
  }
  ZELTA_TRY(logChange(metaData, header, body, log));
  return installDirectory(metaData, header, image.bytes, image.directoryLength);
}

/// The first phase of a creation: the new table's files go.
Result rollBackFiles(MetaData& metaData, const ControlHeader_tag& header,
                     const PendingImage& image) {
  const DirectoryEntry* entry = image.directory.find(header.changeTable);
  if (entry == nullptr) {
    return reportError(&metaData, Own::tableNotFound, nullptr, nullptr, header.changeTable);
  }
  deleteFiles(metaData, *entry);
  return {};
}

/// The image is the old directory, so that this can be repeated and the files' names are at hand.
Result completeRemoval(MetaData& metaData, ControlHeader_tag& header, PendingImage& image,
                       bool log) {
  const DirectoryEntry* entry = image.directory.find(header.changeTable);
  if (entry == nullptr) {
    return reportError(&metaData, Own::tableNotFound, nullptr, nullptr, header.changeTable);
  }
  ZELTA_TRY(logChange(metaData, header, {}, log));
  if (header.changeOperation == static_cast<std::uint16_t>(DirectoryChange::removeFiles)) {
    deleteFiles(metaData, *entry);
    const std::u16string memory = databasePath(metaData, entry->name, extension::kMemory);
    static_cast<void>(platform::deleteFile(memory.c_str()));
  }
  image.directory.remove(header.changeTable);
  const std::string bytes = image.directory.bytes();
  return installDirectory(metaData, header, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

/// Splits the image into directory and schema; false if it is malformed. The image of a removal is
/// the directory before it, with one table more. (The header's own counts may be old or new: a
/// crash can come between their writing and the clearing of the intent.)
bool parseImage(const ControlHeader_tag& header, bool removal, PendingImage& image) {
  const std::uint64_t count = std::uint64_t{header.newTableCount} + (removal ? 1 : 0);
  const std::uint64_t units =
      removal ? (image.length - std::min<std::uint64_t>(count * 8, image.length)) / 2
              : header.newDirectorySize;
  const std::uint64_t length = units * 2 + count * 8;
  if (length > image.length) return false;
  image.directoryLength = static_cast<std::uint32_t>(length);
  return image.directory.parse(image.bytes, image.directoryLength,
                               static_cast<std::uint32_t>(count),
                               static_cast<std::uint32_t>(units));
}

/// Whether the end that the file is to have is that of a directory of `length` bytes: a false
/// number must neither be written nor make the file grow.
bool endsBehind(std::uint32_t end, std::uint64_t length) {
  return end == kControlHeaderSize + length;
}

/// Whether the numbers of a complete change fit the image and the directory that stands.
bool numbersFit(const ControlHeader_tag& header, const PendingImage& image, bool removal) {
  if (!removal) return endsBehind(header.newDirectoryEnd, image.directoryLength);
  TableDirectory after = image.directory;
  after.remove(header.changeTable);
  return endsBehind(header.newDirectoryEnd, after.bytes().size()) &&
         header.newDirectorySize == after.entryUnits();
}

/// Carries out a complete change; `*target` is the file's length after it.
Result carryOut(MetaData& metaData, ControlHeader_tag& header, PendingImage& image, bool log,
                std::uint32_t* target) {
  const auto operation = static_cast<DirectoryChange>(header.changeOperation);
  const bool removal =
      operation == DirectoryChange::remove || operation == DirectoryChange::removeFiles;
  const auto damaged = [&] {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  };
  *target = header.newDirectoryEnd;
  if (operation == DirectoryChange::upgrade) {
    *target = header.imageStart;
    constexpr std::uint64_t kIndexRecordSize = 8;
    const std::uint64_t length =
        std::uint64_t{header.directorySize} * 2 + header.tableCount * kIndexRecordSize;
    if (image.length != length || !endsBehind(header.imageStart, length)) return damaged();
    ZELTA_TRY(writeControl(metaData, kControlHeaderSize, image.bytes, image.length));
    header.directoryEnd = header.imageStart;
    return {};
  }
  if (operation < DirectoryChange::createFiles || operation > DirectoryChange::add) {
    // Changes of a table's schema are not made by this release.
    return reportError(&metaData, Own::context);
  }
  if (!parseImage(header, removal, image)) return damaged();
  const bool named = image.directory.find(header.changeTable) != nullptr;
  if (named && !numbersFit(header, image, removal)) return damaged();
  if (operation == DirectoryChange::createFiles) {
    *target = header.oldEnd;
    return rollBackFiles(metaData, header, image);
  }
  return removal ? completeRemoval(metaData, header, image, log)
                 : completeEntry(metaData, header, image, log);
}

/// Ends a change, whichever way it went: numbers first, then the intent, with flushes between them;
/// then the file is cut at `target`, its length at rest.
Result clearPendingChange(MetaData& metaData, ControlHeader_tag& header, std::uint32_t target) {
  if (target == 0) return {};
  // The file must never be cut inside its directory, nor grow, whatever a damaged intent says.
  std::uint64_t size = 0;
  ZELTA_TRY(reportControlFile(metaData, platform::fileSize(metaData.controlFile, &size)));
  if (target != header.directoryEnd || target > size) {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  }
  ZELTA_TRY(flushControl(metaData));
  clearIntent(header);
  ZELTA_TRY(writeControl(metaData, kCountsStart, bytesOf(header) + kCountsStart,
                         kExclusiveWord - kCountsStart));
  // A disk may keep the later of two writes alone.
  ZELTA_TRY(flushControl(metaData));
  ZELTA_TRY(writeControl(metaData, kIntentStart, bytesOf(header) + kIntentStart,
                         sizeof header - kIntentStart));
  ZELTA_TRY(flushControl(metaData));
  return reportControlFile(metaData, truncateFile(metaData.controlFile, target));
}

/// `exclusiveState` in the file.
Result writeState(MetaData& metaData, std::uint32_t state) {
  return writeControl(metaData, kStateStart, &state, sizeof state);
}

Result readWholeHeader(MetaData& metaData, ControlHeader_tag& header) {
  return reportControlFile(metaData, readBuffer(metaData.controlFile, 0, &header, sizeof header));
}

}  // namespace

void clearIntent(ControlHeader_tag& header) {
  std::memset(reinterpret_cast<char*>(&header) + kIntentStart, 0, sizeof header - kIntentStart);
}

Result finishPendingChange(MetaData& metaData, ControlHeader_tag& header, bool log) {
  if (header.oldEnd == 0) return clearPendingChange(metaData, header, header.imageStart);
  PendingImage image;
  bool complete = false;
  ZELTA_TRY(readImage(metaData, header, image, &complete));
  if (!complete) return clearPendingChange(metaData, header, header.oldEnd);
  std::uint32_t target = 0;
  ZELTA_TRY(carryOut(metaData, header, image, log, &target));
  return clearPendingChange(metaData, header, target);
}

Result writeDirectoryIntent(MetaData& metaData, const ControlHeader_tag& header,
                            const DirectoryIntent& intent, const TableDirectory& directory,
                            const std::string& schemaRecord) {
  const bool removal = intent.operation == DirectoryChange::remove ||
                       intent.operation == DirectoryChange::removeFiles;
  TableDirectory after = directory;
  if (removal) after.remove(intent.table);
  const std::string image = directory.bytes() + schemaRecord;
  const auto newEnd = static_cast<std::uint32_t>(kControlHeaderSize + after.bytes().size());

  ControlHeader_tag next = header;
  next.exclusiveState = 3;
  next.oldEnd = header.directoryEnd;
  next.imageStart = newEnd;
  next.imageEnd = static_cast<std::uint32_t>(imagePosition(next) + image.size());
  next.changeOperation = static_cast<std::uint16_t>(intent.operation);
  next.changeSuffix = intent.suffix;
  next.changeTable = intent.table;
  next.newTableCount = intent.newTableCount != 0
                           ? intent.newTableCount
                           : static_cast<std::uint32_t>(after.entries().size());
  next.newDirectorySize = after.entryUnits();
  next.newDirectoryEnd = newEnd;
  next.changeChecksum = checksumOf(next, image.data(), image.size());
  ZELTA_TRY(
      writeControl(metaData, kStateStart, bytesOf(next) + kStateStart, sizeof next - kStateStart));
  ZELTA_TRY(writeControl(metaData, imagePosition(next), image.data(), image.size()));
  return flushControl(metaData);
}

Result advanceDirectoryIntent(MetaData& metaData, DirectoryChange operation) {
  ControlHeader_tag header;
  ZELTA_TRY(readWholeHeader(metaData, header));
  PendingImage image;
  bool complete = false;
  ZELTA_TRY(readImage(metaData, header, image, &complete));
  if (!complete || header.imageStart == 0) {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  }
  header.changeOperation = static_cast<std::uint16_t>(operation);
  header.changeChecksum = checksumOf(header, image.bytes, image.length);
  ZELTA_TRY(writeControl(metaData, kStateStart, bytesOf(header) + kStateStart,
                         sizeof header - kStateStart));
  return flushControl(metaData);
}

Result cancelDirectoryIntent(MetaData& metaData, const ControlHeader_tag& header) {
  ControlHeader_tag old = header;
  old.exclusiveState = 1;
  clearIntent(old);
  ZELTA_TRY(
      writeControl(metaData, kStateStart, bytesOf(old) + kStateStart, sizeof old - kStateStart));
  ZELTA_TRY(flushControl(metaData));
  return reportControlFile(metaData, truncateFile(metaData.controlFile, header.directoryEnd));
}

Result completeDirectoryChange(MetaData& metaData, ControlHeader_tag& header, bool log) {
  ZELTA_TRY(readWholeHeader(metaData, header));
  if (header.imageStart != 0) ZELTA_TRY(finishPendingChange(metaData, header, log));
  return writeState(metaData, 1);
}

// -- Upgrade --------------------------------------------------------------------------------------

namespace {

/// The fields of version 1.1 that have other places there.
struct OldCounters {
  std::uint32_t lastTransaction;
  std::uint32_t exclusiveState;
};
constexpr std::uint32_t kOldCountersStart = 20;

/// Whether the bytes behind the directory are no slots but the image of an upgrade whose process
/// died before the new header stood: zeros up to its place, and from there on the directory again.
Result findUnfinishedImage(MetaData& metaData, std::uint32_t directoryEnd, std::uint64_t size,
                           const char* directory, bool* found) {
  constexpr std::uint32_t kGap = kControlHeaderSize - kOldHeaderSize;
  constexpr std::uint32_t kLeast = kGap + 4;  // a free slot has no table's ID for its state
  *found = false;
  const std::uint64_t length = size - directoryEnd;
  if (length < kLeast || length > kGap + (directoryEnd - kOldHeaderSize)) return {};
  char* bytes = metaData.scratchFor(Scratch::record).reserve(length);
  ZELTA_TRY(reportControlFile(metaData, readLargeBuffer(metaData.controlFile, directoryEnd, bytes,
                                                        static_cast<std::int64_t>(length))));
  constexpr char kZeros[kGap] = {};
  *found = std::memcmp(bytes, kZeros, kGap) == 0 &&
           std::memcmp(bytes + kGap, directory, static_cast<std::size_t>(length - kGap)) == 0;
  return {};
}

/// A file with unrepaired work is refused.
Result refuseDeadSlots(MetaData& metaData, std::uint32_t directoryEnd) {
  SlotWalk walk(metaData.controlFile);
  ZELTA_TRY(reportControlFile(metaData, walk.begin(directoryEnd)));
  while (walk.next()) {
    std::uint32_t number = 0;
    ZELTA_TRY(reportControlFile(metaData, walk.slot().readNumber(&number)));
    if (number == 0) continue;
    const SystemCode locked = walk.slot().lockOwner();
    if (locked == code::kLockViolation) continue;
    if (locked == 0) walk.slot().unlockOwner();
    return reportError(&metaData, Own::controlVersion, nullptr, nullptr, 1, 1);
  }
  return {};
}

}  // namespace

Result upgradeControlFile(MetaData& metaData, ControlHeader_tag& header) {
  if (metaData.transactionWord != kExclusiveNumber || !metaData.mayWrite()) {
    return reportSystemError(&metaData, code::kTooManyFiles, metaData.baseName.c_str(),
                             extension::kControl);
  }
  OldCounters counters;
  std::memcpy(&counters, bytesOf(header) + kOldCountersStart, sizeof counters);
  const std::uint32_t oldEnd = header.directoryEnd;
  constexpr std::uint64_t kIndexRecordSize = 8;
  std::uint64_t size = 0;
  ZELTA_TRY(reportControlFile(metaData, platform::fileSize(metaData.controlFile, &size)));
  if (oldEnd > size || oldEnd != kOldHeaderSize + std::uint64_t{header.directorySize} * 2 +
                                     header.tableCount * kIndexRecordSize) {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  }
  const std::uint32_t length = oldEnd - kOldHeaderSize;
  char* bytes = metaData.scratchFor(Scratch::image).reserve(length);
  ZELTA_TRY(reportControlFile(
      metaData, readLargeBuffer(metaData.controlFile, kOldHeaderSize, bytes, length)));
  bool unfinished = false;
  ZELTA_TRY(findUnfinishedImage(metaData, oldEnd, size, bytes, &unfinished));
  if (!unfinished) ZELTA_TRY(refuseDeadSlots(metaData, oldEnd));

  ControlHeader_tag next = header;
  std::memset(reinterpret_cast<char*>(&next) + kOldCountersStart, 0,
              sizeof next - kOldCountersStart);
  next.minorVersion = 2;
  next.lastTransaction = counters.lastTransaction;
  next.exclusiveState = counters.exclusiveState;
  next.changeOperation = static_cast<std::uint16_t>(DirectoryChange::upgrade);
  next.oldEnd = oldEnd;
  next.imageStart = length + kControlHeaderSize;
  next.imageEnd = 2 * length + kControlHeaderSize;
  next.newDirectoryEnd = length + kControlHeaderSize;
  next.changeChecksum = checksumOf(next, bytes, length);
  ZELTA_TRY(writeControl(metaData, imagePosition(next), bytes, length));
  ZELTA_TRY(flushControl(metaData));
  // All 76 bytes at once: the checksum covers the last 12 of them.
  ZELTA_TRY(writeControl(metaData, 0, &next, sizeof next));
  ZELTA_TRY(flushControl(metaData));
  ZELTA_TRY(writeControl(metaData, kControlHeaderSize, bytes, length));
  ZELTA_TRY(flushControl(metaData));
  next.directoryEnd = length + kControlHeaderSize;
  clearIntent(next);
  ZELTA_TRY(writeControl(metaData, 0, &next, sizeof next));
  ZELTA_TRY(flushControl(metaData));
  header = next;
  return reportControlFile(metaData, truncateFile(metaData.controlFile, next.directoryEnd));
}

}  // namespace zelta

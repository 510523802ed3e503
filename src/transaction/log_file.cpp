#include "transaction/log_file.h"

#include <algorithm>
#include <array>

#include "transaction/log_file_internal.h"

namespace zelta {

using namespace log_file;

namespace log_file {

Result allocateLogBlock(MetaData& metaData, platform::File file, Change& change,
                        std::uint64_t length, std::uint64_t* position, std::uint64_t* blockLength) {
  const std::uint64_t smallest = smallestBlock(change.header);
  ZELTA_TRY(allocateWideBlock(metaData, file, change.freeList, change.freeHead, length, position,
                              blockLength, smallest));
  if (*position != 0) {
    const std::uint64_t end = change.header.endOfLog;
    const bool inside =
        *position >= kHeaderSize && *position <= end && *blockLength <= end - *position;
    return inside ? Result{} : logIsBroken(metaData);
  }
  *position = change.end;
  *blockLength = wideBlockNeed(length, smallest);
  change.end += *blockLength;
  return {};
}

}  // namespace log_file

namespace {

/// No entry comes near this; sums of positions and lengths below it do not wrap.
constexpr std::uint64_t kLengthLimit = std::uint64_t{1} << 62;

LogEntryHead_tag newHead(std::uint32_t number, std::uint64_t blockLength) {
  return {blockLength, {'Z', 'E', 'L', 'L'}, number, 0, 0, 0};
}

Result positionDiffers(MetaData& metaData, const LogHeader_tag& header, std::uint64_t expected) {
  return reportError(&metaData, Own::logPosition, metaData.baseName.c_str(), extension::kLog,
                     static_cast<std::int64_t>(expected), header.fileNumber);
}

Result checksumBody(MetaData& metaData, platform::File file, std::uint64_t position,
                    std::uint64_t length, std::uint64_t* checksum) {
  std::array<char, 4096> bytes;
  *checksum = 0;
  while (length != 0) {
    const auto some = static_cast<std::uint32_t>(std::min<std::uint64_t>(length, bytes.size()));
    const SystemCode result = readBuffer(file, position, bytes.data(), some);
    if (result != 0) return reportLogError(metaData, result);
    xorChecksum64(*checksum, bytes.data(), some);
    position += some;
    length -= some;
  }
  return {};
}

/// Looks for the very entry at the place where it is expected. `*found`: it stands there, not
/// complete yet. Code 38: it is complete.
Result findExpected(MetaData& metaData, platform::File file, const LogHeader_tag& header,
                    std::uint64_t expected, std::uint32_t number, std::uint64_t length,
                    LogEntryHead_tag* head, bool* found) {
  *found = false;
  if (expected < kFirstEntry || header.endOfLog - expected < sizeof(*head)) return {};
  std::uint32_t count = 0;
  SystemCode result =
      platform::readLockable(file, logEntryLock(expected), expected, head, sizeof(*head), &count);
  if (result != 0) return reportLogError(metaData, result);
  if (count != sizeof(*head) || !head->isEntry() || head->number != number ||
      head->blockLength != length || header.endOfLog - expected < length) {
    return {};
  }
  if (head->sectionCount != 0) {
    std::uint64_t checksum = 0;
    ZELTA_TRY(
        checksumBody(metaData, file, expected + sizeof(*head), length - sizeof(*head), &checksum));
    if (checksum == head->checksum) {
      return reportError(&metaData, Own::logEntryExists, metaData.baseName.c_str(), extension::kLog,
                         number);
    }
  }
  *found = true;
  return {};
}

/// The first entry of a log. Nothing leads to the new leaf until the header says so, so there is
/// no need of an intent.
Result appendFirst(MetaData& metaData, platform::File file, LogHeader_tag& header,
                   const LogEntryHead_tag& head) {
  struct {
    LogNode_tag root;
    LogEntryHead_tag head;
  } first{{kNodeSize, NodeType::leaf, 1, {head.number}, {kFirstEntry}}, head};
  static_assert(sizeof(first) == kFirstEntry + sizeof(head) - kFirstRoot);
  const std::uint64_t end = kFirstEntry + head.blockLength;
  SystemCode result = writeBuffer(file, kFirstRoot, &first, sizeof(first));
  // The file is never shorter than its log; stale bytes behind it go.
  if (result == 0) result = truncateFile(file, end);
  if (result == 0) result = platform::flushFile(file);
  if (result != 0) return reportLogError(metaData, result);
  header.rootPosition = kFirstRoot;
  header.freeHead = 0;
  header.endOfLog = end;
  return writeMutable(metaData, file, header);
}

/// An entry in a log that has others.
Result appendNext(MetaData& metaData, platform::File file, LogHeader_tag& header,
                  std::uint64_t expected, std::uint64_t* position, LogEntryHead_tag* head) {
  TreePath path;
  ZELTA_TRY(descend(metaData, file, header, head->number, path));
  Change change(header);
  change.end = header.endOfLog;
  ZELTA_TRY(
      allocateLogBlock(metaData, file, change, head->blockLength, position, &head->blockLength));
  if (expected != 0 && expected != *position) return positionDiffers(metaData, header, expected);
  ZELTA_TRY(insertKey(metaData, file, change, path, head->number, *position));
  header.oldEnd = header.endOfLog;
  header.newEntryPosition = *position;
  header.newEntryLength = head->blockLength;
  header.newEntryNumber = head->number;
  return carryOut(metaData, file, change);
}

struct Extents {
  ~Extents() { destroyAll(tree); }
  void add(std::uint64_t position, std::uint64_t size) {
    auto* node = new FreeExtentNode;
    node->position = position;
    node->size = size;
    insert(node, tree);
  }
  FreeExtentNode* tree = nullptr;
};

/// Takes the last entry out of a log. The header alone says that it is empty, in one write.
Result empty(MetaData& metaData, platform::File file, LogHeader_tag& header) {
  header.rootPosition = 0;
  header.freeHead = 0;
  return settle(metaData, file, header, kHeaderSize);
}

Result removeLocked(MetaData& metaData, platform::File file, LogHeader_tag& header,
                    std::uint32_t number, std::uint64_t position) {
  TreePath path;
  std::uint32_t slot = 0;
  ZELTA_TRY(locate(metaData, file, header, number, position, path, &slot));
  if (path.depth == 0) {
    return reportError(&metaData, Own::logEntryNotFound, nullptr, nullptr, number);
  }
  Change change(header);
  Extents extents;
  const std::uint64_t entry = path.leaf().node.values[slot];
  LogEntryHead_tag head{};
  if (entry < kHeaderSize || entry > header.endOfLog || header.endOfLog - entry < sizeof(head)) {
    return logIsBroken(metaData);
  }
  const SystemCode result = readBuffer(file, entry, &head, sizeof(head));
  if (result != 0) return reportLogError(metaData, result);
  if (!head.isEntry() || head.number != number || head.blockLength < sizeof(head) ||
      head.blockLength % kWideGranule != 0 || header.endOfLog - entry < head.blockLength) {
    return logIsBroken(metaData);
  }
  removeKey(change, path, slot, extents.tree);
  if (change.root == 0) return empty(metaData, file, header);
  extents.add(entry, head.blockLength);
  ZELTA_TRY(mergeWideExtents(metaData, file, change.freeHead, header.endOfLog, extents.tree,
                             change.freeList, &change.end, nullptr, nullptr));
  header.oldEnd = header.endOfLog;
  return carryOut(metaData, file, change);
}

/// A file that has no header yet holds no entry.
Result readHeaderIfAny(MetaData& metaData, platform::File file, LogHeader_tag& header,
                       bool* blank) {
  ZELTA_TRY(readRawHeader(metaData, file, header, blank));
  if (*blank) return {};
  return readLogHeader(metaData, file, header, metaData.mayWrite());
}

/// Looks for a number in one file.
Result findInFile(MetaData& metaData, platform::File file, std::uint32_t number,
                  LogHeader_tag& header, std::uint64_t* position) {
  *position = 0;
  bool blank = false;
  ZELTA_TRY(readHeaderIfAny(metaData, file, header, &blank));
  if (blank) return {};
  TreePath path;
  std::uint32_t slot = 0;
  ZELTA_TRY(locate(metaData, file, header, number, 0, path, &slot));
  if (path.depth != 0) *position = path.leaf().node.values[slot];
  // The caller reads a whole head there.
  if (*position != 0 && (*position < kHeaderSize || *position > header.endOfLog ||
                         header.endOfLog - *position < sizeof(LogEntryHead_tag))) {
    *position = 0;
    return logIsBroken(metaData);
  }
  return {};
}

bool isMissing(SystemCode result) {
  return result == code::kFileNotFound || result == code::kPathNotFound;
}

/// Opens the single file if need be. A missing one leaves `logFile` as none.
Result openSingle(MetaData& metaData) {
  const std::u16string name = singleLogName(metaData);
  if (metaData.logFile != platform::File::none) {
    LogHeader_tag header;
    bool blank = false;
    if (platform::isNamed(metaData.logFile, name.c_str())) {
      ZELTA_TRY(readRawHeader(metaData, metaData.logFile, header, &blank));
      if (blank || header.isSingle()) return {};
    }
    platform::closeFile(metaData.logFile);
    metaData.logFile = platform::File::none;
  }
  platform::File file = platform::File::none;
  const SystemCode result =
      openDatabaseFile(metaData, name.c_str(), platform::Disposition::openExisting, &file);
  if (isMissing(result)) return {};
  if (result != 0) return reportLogError(metaData, result);
  metaData.logFile = file;
  return {};
}

Result findInNumbered(MetaData& metaData, std::uint16_t first, std::uint16_t last,
                      std::uint32_t number, LogHeader_tag& header, platform::File* out,
                      std::uint64_t* position) {
  const std::vector<std::uint16_t> files = numbersInUse(metaData, first, last);
  for (auto i = files.rbegin(); i != files.rend(); ++i) {
    const std::u16string name = numberedLogName(metaData, *i);
    platform::File opened = platform::File::none;
    const SystemCode result =
        openDatabaseFile(metaData, name.c_str(), platform::Disposition::openExisting, &opened);
    if (isMissing(result)) continue;
    if (result != 0) return reportLogError(metaData, result);
    FileGuard file(opened);
    ZELTA_TRY(findInFile(metaData, file.get(), number, header, position));
    if (*position != 0) {
      *out = file.release();
      return {};
    }
  }
  return {};
}

}  // namespace

SystemCode completeLogEntry(platform::File file, std::uint64_t position,
                            const LogEntryHead_tag& head) {
  // The body first: a loss of power could leave the head on the disk without some sectors of the
  // body, and the checksum does not miss words that cancel each other out, as IDs in a row do. What
  // lies in one sector with the head goes down with it.
  constexpr std::uint64_t kSector = 512;
  const std::uint64_t end = position + head.blockLength;
  if (position / kSector != (end - 1) / kSector) {
    if (const SystemCode failure = platform::flushFile(file); failure != 0) return failure;
  }
  constexpr std::uint32_t kFrom = offsetof(LogEntryHead_tag, magic);
  const SystemCode failure = writeBuffer(
      file, position + kFrom, reinterpret_cast<const char*>(&head) + kFrom, sizeof head - kFrom);
  return failure != 0 ? failure : platform::flushFile(file);
}

Result verifyLogEntry(MetaData& metaData, platform::File file, const LogEntryHead_tag& head,
                      std::uint64_t position, bool* complete) {
  constexpr std::uint32_t kPiece = 64 * 1024;
  *complete = false;
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(file, &size); failure != 0) {
    return reportLogError(metaData, failure);
  }
  const std::uint64_t end = position + head.blockLength;
  if (!head.isEntry() || head.sectionCount == 0 || head.blockLength < sizeof head || end > size ||
      end < position) {
    return {};
  }
  char* bytes = metaData.scratchFor(Scratch::transfer).reserve(kPiece);
  std::uint64_t sum = 0;
  for (std::uint64_t at = position + sizeof head; at < end;) {
    const auto length = static_cast<std::uint32_t>(std::min<std::uint64_t>(end - at, kPiece));
    if (const SystemCode failure = readBuffer(file, at, bytes, length); failure != 0) {
      return reportLogError(metaData, failure);
    }
    xorChecksum64(sum, bytes, length);
    at += length;
  }
  *complete = sum == head.checksum;
  return {};
}

Result appendLogEntry(MetaData& metaData, platform::File file, LogHeader_tag& logHeader,
                      std::uint32_t number, std::uint64_t length, std::uint64_t* position,
                      LogEntryHead_tag* entryHead, std::uint64_t expected) {
  *position = 0;
  ZELTA_TRY(readLogHeader(metaData, file, logHeader, true));
  if (length < sizeof(LogEntryHead_tag) || length > kLengthLimit) {
    return reportError(&metaData, Own::logEntry);
  }
  const std::uint64_t need = wideBlockNeed(length, smallestBlock(logHeader));
  if (logHeader.rootPosition == 0) {
    if (expected != 0 && expected != kFirstEntry) {
      return positionDiffers(metaData, logHeader, expected);
    }
    *entryHead = newHead(number, need);
    ZELTA_TRY(appendFirst(metaData, file, logHeader, *entryHead));
    *position = kFirstEntry;
    return {};
  }
  if (expected != 0 && expected < logHeader.endOfLog) {
    bool found = false;
    ZELTA_TRY(findExpected(metaData, file, logHeader, expected, number, need, entryHead, &found));
    if (found) {
      *position = expected;
      return {};
    }
  }
  *entryHead = newHead(number, need);
  return appendNext(metaData, file, logHeader, expected, position, entryHead);
}

Result removeLogEntry(MetaData& metaData, std::uint32_t number, std::uint64_t position) {
  if (metaData.logFile == platform::File::none) {
    return reportError(&metaData, Own::logEntryNotFound, nullptr, nullptr, number);
  }
  LogMutexGuard mutex;
  ZELTA_TRY(mutex.acquire(metaData, kLogMutexWait));
  LogHeader_tag header;
  ZELTA_TRY(readLogHeader(metaData, metaData.logFile, header, true));
  return removeLocked(metaData, metaData.logFile, header, number, position);
}

Result findLogEntry(MetaData& metaData, const ControlHeader_tag* header, std::uint32_t number,
                    LogHeader_tag& logHeader, platform::File* out, std::uint64_t* position) {
  *out = platform::File::none;
  *position = 0;
  logHeader = LogHeader_tag{};
  ControlHeader_tag own{};
  if (header == nullptr) {
    const SystemCode result = readBuffer(metaData.controlFile, 0, &own, kExclusiveWord);
    if (result != 0) {
      return reportSystemError(&metaData, result, metaData.baseName.c_str(), extension::kControl);
    }
    header = &own;
  }
  LogMutexGuard mutex;
  if (metaData.mayWrite()) ZELTA_TRY(mutex.acquire(metaData, kLogMutexWait));
  if ((header->logFlags & 1) != 0) {
    return findInNumbered(metaData, header->firstLogFile, header->lastLogFile, number, logHeader,
                          out, position);
  }
  ZELTA_TRY(openSingle(metaData));
  if (metaData.logFile == platform::File::none) return {};
  ZELTA_TRY(findInFile(metaData, metaData.logFile, number, logHeader, position));
  if (*position != 0) *out = metaData.logFile;
  return {};
}

}  // namespace zelta

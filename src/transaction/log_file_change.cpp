// The header of a log file, and how a change of the file becomes atomic.
//
//  1. The intent goes into the header, and copies of all nodes and free blocks that change go
//     behind the log's end; flush. Until both are complete, the old end stands: a reader of the
//     header finds the copies cut short or their checksum wrong, and rolls back to it.
//  2. The copies are carried out; flush. Whoever comes later may do so again.
//  3. The header takes the new values and drops the intent; flush. The copies are cut off.

#include <algorithm>
#include <array>

#include "transaction/log_file_internal.h"

namespace zelta {

namespace log_file {

namespace {

/// The header's positions must lie in the log, and the log in the file.
bool headerIsSound(const LogHeader_tag& header, std::uint64_t fileSize) {
  const std::uint64_t end = header.endOfLog;
  if (end == 0) return header.rootPosition == 0 && header.freeHead == 0;
  const auto holds = [end](std::uint64_t position, std::uint64_t length) {
    return position == 0 ||
           (position >= kHeaderSize && position <= end && end - position >= length);
  };
  return end >= kHeaderSize && end <= fileSize && holds(header.rootPosition, kNodeSize) &&
         holds(header.freeHead, kWideBlockHead);
}

void clearIntent(LogHeader_tag& header) {
  std::memset(reinterpret_cast<char*>(&header) + kIntentStart, 0, kHeaderSize - kIntentStart);
}

std::uint64_t headerChecksum(const LogHeader_tag& header) {
  std::uint64_t checksum = 0;
  xorChecksum64(checksum, reinterpret_cast<const char*>(&header) + kSummedStart,
                kHeaderSize - kSummedStart);
  return checksum;
}

std::uint64_t copyAreaStart(const LogHeader_tag& header) {
  return std::max(header.intentStart, header.oldEnd);
}

/// Whether the intent's numbers fit each other and the file.
bool intentIsSound(const LogHeader_tag& header, std::uint64_t fileSize) {
  const std::uint64_t start = copyAreaStart(header);
  const std::uint64_t end = header.intentStart;
  const auto inLog = [end](std::uint64_t position, std::uint64_t length) {
    return position >= kHeaderSize && position <= end && end - position >= length;
  };
  if (header.oldEnd < kHeaderSize || end < kHeaderSize) return false;
  if (header.intentEnd > fileSize || header.intentEnd < start) return false;
  if (header.newRoot != 0 && !inLog(header.newRoot, kNodeSize)) return false;
  if (header.newFreeHead != 0 && !inLog(header.newFreeHead, kWideBlockHead)) return false;
  if (header.newEntryPosition != 0 &&
      !inLog(header.newEntryPosition, std::max<std::uint64_t>(header.newEntryLength, 32))) {
    return false;
  }
  return header.intentEnd - start == std::uint64_t{header.nodeCount} * sizeof(NodeRecord_tag) +
                                         std::uint64_t{header.freeCount} * kFreeEntrySize;
}

/// Hands the copy area to `use` in pieces of about 4 KiB, whole node records first.
template <class Use>
Result forEachNode(MetaData& metaData, platform::File file, const LogHeader_tag& header, Use use) {
  std::array<NodeRecord_tag, 12> records;
  std::uint64_t position = copyAreaStart(header);
  for (std::uint32_t left = header.nodeCount; left != 0;) {
    const auto some = std::min<std::uint32_t>(left, records.size());
    const auto length = static_cast<std::uint32_t>(some * sizeof(NodeRecord_tag));
    const SystemCode result = readBuffer(file, position, records.data(), length);
    if (result != 0) return reportLogError(metaData, result);
    for (std::uint32_t i = 0; i < some; ++i) ZELTA_TRY(use(records[i]));
    position += length;
    left -= some;
  }
  return {};
}

/// The free blocks of a copy area.
struct FreeBlocks {
  FreeBlocks() = default;
  ~FreeBlocks() { dropFreeChunks(chunks); }
  FreeBlocks(const FreeBlocks&) = delete;
  FreeBlocks& operator=(const FreeBlocks&) = delete;

  /// Reads them. `*good` becomes false if one does not lie in the log that the change leaves.
  Result read(MetaData& metaData, platform::File file, const LogHeader_tag& header, bool* good) {
    const std::uint64_t start =
        copyAreaStart(header) + std::uint64_t{header.nodeCount} * sizeof(NodeRecord_tag);
    ZELTA_TRY(readFreeBlockJournal(metaData, file, start, header.freeCount, chunks));
    const std::uint64_t end = header.intentStart;
    for (const FreeBlockChunk* chunk = chunks; chunk != nullptr; chunk = chunk->nextChunk) {
      for (std::uint32_t i = 0; i < chunk->used; ++i) {
        const FreeBlockChunk::Entry& block = chunk->entries[i];
        if (block.position < kHeaderSize || block.position > end ||
            block.size > end - block.position) {
          *good = false;
        }
      }
    }
    return {};
  }

  FreeBlockChunk* chunks = nullptr;
};

/// Whether copies and intent agree with the checksum.
Result verifyIntent(MetaData& metaData, platform::File file, const LogHeader_tag& header,
                    FreeBlocks& freeBlocks, bool* good) {
  std::uint64_t checksum = headerChecksum(header);
  std::array<char, 4096> bytes;
  for (std::uint64_t position = copyAreaStart(header); position < header.intentEnd;) {
    const auto length = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(header.intentEnd - position, bytes.size()));
    const SystemCode result = readBuffer(file, position, bytes.data(), length);
    if (result != 0) return reportLogError(metaData, result);
    xorChecksum64(checksum, bytes.data(), length);
    position += length;
  }
  *good = checksum == header.intentChecksum;
  if (!*good) return {};
  ZELTA_TRY(freeBlocks.read(metaData, file, header, good));
  return forEachNode(metaData, file, header, [&](const NodeRecord_tag& record) {
    if (record.position < kHeaderSize || record.position > header.intentStart ||
        header.intentStart - record.position < kNodeSize) {
      *good = false;
    }
    return Result();
  });
}

Result writeEntryHead(MetaData& metaData, platform::File file, const LogHeader_tag& header) {
  if (header.newEntryPosition == 0) return {};
  LogEntryHead_tag head{
      header.newEntryLength, {'Z', 'E', 'L', 'L'}, header.newEntryNumber, 0, 0, 0};
  const SystemCode result = writeBuffer(file, header.newEntryPosition, &head, sizeof(head));
  return result == 0 ? Result() : reportLogError(metaData, result);
}

Result writeNode(MetaData& metaData, platform::File file, const NodeRecord_tag& record) {
  const SystemCode result = writeBuffer(file, record.position, &record.node, kNodeSize);
  return result == 0 ? Result() : reportLogError(metaData, result);
}

Result flush(MetaData& metaData, platform::File file) {
  const SystemCode result = platform::flushFile(file);
  return result == 0 ? Result() : reportLogError(metaData, result);
}

/// The header as it is once the intent was carried out.
void takeNewValues(LogHeader_tag& header) {
  header.rootPosition = header.newRoot;
  header.freeHead = header.newFreeHead;
}

/// Carries out a pending change from its copies.
Result repeatIntent(MetaData& metaData, platform::File file, LogHeader_tag& header,
                    const FreeBlocks& freeBlocks) {
  ZELTA_TRY(forEachNode(metaData, file, header, [&](const NodeRecord_tag& record) {
    return writeNode(metaData, file, record);
  }));
  ZELTA_TRY(applyWideBlockChunks(metaData, file, freeBlocks.chunks));
  ZELTA_TRY(writeEntryHead(metaData, file, header));
  takeNewValues(header);
  ZELTA_TRY(flush(metaData, file));
  return settle(metaData, file, header, header.intentStart);
}

Result finishIntent(MetaData& metaData, platform::File file, LogHeader_tag& header,
                    std::uint64_t fileSize) {
  // A log that was empty has no old end: nothing in it is worth a repetition.
  const std::uint64_t target = header.oldEnd != 0 ? header.oldEnd : header.endOfLog;
  bool good = intentIsSound(header, fileSize);
  FreeBlocks freeBlocks;
  if (good) ZELTA_TRY(verifyIntent(metaData, file, header, freeBlocks, &good));
  if (good) return repeatIntent(metaData, file, header, freeBlocks);
  if (target > fileSize || (target != 0 && target < kHeaderSize)) return logIsBroken(metaData);
  ZELTA_TRY(flush(metaData, file));
  return settle(metaData, file, header, target);
}

}  // namespace

Result reportLogError(MetaData& metaData, SystemCode code) {
  return reportSystemError(&metaData, code, metaData.baseName.c_str(), extension::kLog);
}

Result logIsBroken(MetaData& metaData) {
  return reportError(&metaData, Own::logFile, metaData.baseName.c_str(), extension::kLog);
}

Result writeMutable(MetaData& metaData, platform::File file, const LogHeader_tag& header) {
  const SystemCode result =
      writeBuffer(file, kMutableStart, reinterpret_cast<const char*>(&header) + kMutableStart,
                  kHeaderSize - kMutableStart);
  return result == 0 ? Result() : reportLogError(metaData, result);
}

Result settle(MetaData& metaData, platform::File file, LogHeader_tag& header, std::uint64_t end) {
  clearIntent(header);
  header.endOfLog = end;
  ZELTA_TRY(writeMutable(metaData, file, header));
  ZELTA_TRY(flush(metaData, file));
  // A file begun by rotation says 0 for its end, but keeps its header.
  const SystemCode result = truncateFile(file, std::max(end, kHeaderSize));
  return result == 0 ? Result() : reportLogError(metaData, result);
}

Result carryOut(MetaData& metaData, platform::File file, Change& change) {
  LogHeader_tag& header = change.header;
  std::uint64_t checksum = 0;
  header.freeCount = 0;
  header.newFreeHead = change.freeHead;
  header.newRoot = change.root;
  header.nodeCount = static_cast<std::uint32_t>(change.nodes.size());
  for (const FreeBlock* block = change.freeList; block != nullptr; block = block->nextNode) {
    if (block->dirty == 0) continue;
    ++header.freeCount;
    xorChecksum64(checksum, block, kFreeEntrySize);
  }
  const std::uint64_t nodeBytes = change.nodes.size() * sizeof(NodeRecord_tag);
  const std::uint64_t copyBytes = nodeBytes + std::uint64_t{header.freeCount} * kFreeEntrySize;
  header.intentStart = change.end;
  header.intentEnd = copyAreaStart(header) + copyBytes;
  xorChecksum64(checksum, change.nodes.data(), nodeBytes);
  header.intentChecksum = checksum ^ headerChecksum(header);

  SystemCode result =
      writeBuffer(file, kIntentStart, reinterpret_cast<const char*>(&header) + kIntentStart,
                  kHeaderSize - kIntentStart);
  if (result != 0) return reportLogError(metaData, result);
  char* copies = metaData.scratchFor(Scratch::journal).reserve(copyBytes);
  if (nodeBytes != 0) std::memcpy(copies, change.nodes.data(), nodeBytes);
  copyFreeBlockJournal(copies + nodeBytes, change.freeList);
  result = writeBuffer(file, copyAreaStart(header), copies, static_cast<std::int64_t>(copyBytes));
  if (result != 0) return reportLogError(metaData, result);
  ZELTA_TRY(flush(metaData, file));

  for (const NodeRecord_tag& record : change.nodes) ZELTA_TRY(writeNode(metaData, file, record));
  ZELTA_TRY(writeEntryHead(metaData, file, header));
  ZELTA_TRY(applyWideBlocks(metaData, file, change.freeList));
  takeNewValues(header);
  ZELTA_TRY(flush(metaData, file));
  return settle(metaData, file, header, change.end);
}

Result readRawHeader(MetaData& metaData, platform::File file, LogHeader_tag& header, bool* blank) {
  header = LogHeader_tag{};
  std::uint32_t count = 0;
  const SystemCode result = readBuffer(file, 0, &header, kHeaderSize, &count);
  if (result != 0 && result != code::kEndOfFile) return reportLogError(metaData, result);
  *blank = false;
  if (count == kHeaderSize) {
    // A power failure can leave the length of a new file and not its bytes.
    static constexpr LogHeader_tag kZeros{};
    if (std::memcmp(&header, &kZeros, kHeaderSize) != 0) return {};
    std::uint64_t size = 0;
    const SystemCode sizeResult = platform::fileSize(file, &size);
    if (sizeResult != 0) return reportLogError(metaData, sizeResult);
    *blank = size == kHeaderSize;
    return {};
  }
  *blank = true;
  header = LogHeader_tag{};
  return {};
}

Result LogMutexGuard::acquire(MetaData& metaData, std::uint32_t milliseconds) {
  const SystemCode result = platform::waitMutex(metaData.logMutex, milliseconds);
  if (result != 0) return reportLogError(metaData, result);
  metaData_ = &metaData;
  return {};
}

void LogMutexGuard::release() {
  if (metaData_ == nullptr) return;
  const SystemCode ignored = platform::releaseMutex(metaData_->logMutex);
  static_cast<void>(ignored);
  metaData_ = nullptr;
}

}  // namespace log_file

using namespace log_file;

Result readLogHeader(MetaData& metaData, platform::File file, LogHeader_tag& logHeader,
                     bool mayRepair) {
  SystemCode result = readBuffer(file, 0, &logHeader, kHeaderSize);
  if (result != 0) return reportLogError(metaData, result);
  if (!logHeader.isSingle() && !logHeader.isNumbered()) return logIsBroken(metaData);
  if (logHeader.majorVersion != 1 || logHeader.minorVersion != 0) {
    return reportError(&metaData, Own::logVersion, metaData.baseName.c_str(), extension::kLog,
                       logHeader.majorVersion, logHeader.minorVersion);
  }
  std::uint64_t size = 0;
  result = platform::fileSize(file, &size);
  if (result != 0) return reportLogError(metaData, result);
  if (logHeader.intentStart != 0) {
    if (!mayRepair) return reportError(&metaData, Own::notWritable);
    ZELTA_TRY(finishIntent(metaData, file, logHeader, size));
    result = platform::fileSize(file, &size);
    if (result != 0) return reportLogError(metaData, result);
  }
  clearIntent(logHeader);
  return headerIsSound(logHeader, size) ? Result() : logIsBroken(metaData);
}

}  // namespace zelta

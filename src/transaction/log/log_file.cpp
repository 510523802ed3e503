#include "transaction/log/log_file.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "frame/control_file.h"
#include "platform/file_io.h"
#include "storage/free_space/free_block.h"
#include "transaction/log/log_change.h"
#include "transaction/log/log_intent.h"
#include "transaction/log/log_tree.h"

namespace zelta {

namespace {

/// No entry comes near this; sums of positions and lengths below it do not wrap.
constexpr std::uint64_t kLengthLimit = std::uint64_t{1} << 62;

/// Of an entry that is reserved and has no body yet.
LogEntryHead_tag newHead(std::uint32_t number, std::uint64_t blockLength) {
  return {blockLength, {'Z', 'E', 'L', 'L'}, number, 0, 0, 0};
}

/// The header's positions must lie in the log, and the log in the file.
bool headerIsSound(const LogHeader_tag& header, std::uint64_t fileSize) {
  const std::uint64_t end = header.endOfLog;
  if (end == 0) return header.rootPosition == 0 && header.freeHead == 0;
  const auto holds = [end](std::uint64_t position, std::uint64_t length) {
    return position == 0 || liesInLog(position, length, end);
  };
  return end >= kLogHeaderSize && end <= fileSize && holds(header.rootPosition, kLogNodeSize) &&
         holds(header.freeHead, kWideBlockHead);
}

/// Of the header in memory.
void clearIntent(LogHeader_tag& header) {
  std::memset(reinterpret_cast<char*>(&header) + kLogIntentStart, 0,
              kLogHeaderSize - kLogIntentStart);
}

}  // namespace

// -- Which file -----------------------------------------------------------------------------------

void LogFile::close() {
  if (opened_) platform::closeFile(file_);
  opened_ = false;
  file_ = platform::File::none;
}

void LogFile::useCurrent() {
  close();
  file_ = metaData_.logFile;
}

void LogFile::closeCurrent() {
  close();
  platform::closeFile(metaData_.logFile);
  metaData_.logFile = platform::File::none;
}

void LogFile::makeCurrent(platform::File file, const LogHeader_tag& header) {
  closeCurrent();
  metaData_.logFile = file;
  file_ = file;
  header_ = header;
}

Result LogFile::open(const std::u16string& path) {
  close();
  platform::File file = platform::File::none;
  const SystemCode failure =
      openDatabaseFile(metaData_, path.c_str(), platform::Disposition::openExisting, &file);
  if (failure == code::kFileNotFound || failure == code::kPathNotFound) return {};
  if (failure != 0) return report(failure);
  file_ = file;
  opened_ = true;
  return {};
}

// -- The mutex ------------------------------------------------------------------------------------

Result LogFile::lock(std::uint32_t milliseconds, const char16_t* reportedAs) {
  assert(!locked());
  const SystemCode failure = platform::waitMutex(metaData_.logMutex, milliseconds);
  if (failure == 0) mutex_.adopt(metaData_.logMutex);
  return reportSystemError(&metaData_, failure, metaData_.baseName.c_str(), reportedAs);
}

void LogFile::unlock() { static_cast<void>(mutex_.release()); }

// -- Bytes ----------------------------------------------------------------------------------------

Result LogFile::report(SystemCode code) const {
  return reportSystemError(&metaData_, code, metaData_.baseName.c_str(), extension::kLog);
}

Result LogFile::broken() const {
  return reportError(&metaData_, Own::logFile, metaData_.baseName.c_str(), extension::kLog);
}

Result LogFile::read(std::uint64_t position, void* bytes, std::uint32_t length) const {
  return report(readBuffer(file_, position, bytes, length));
}

Result LogFile::write(std::uint64_t position, const void* bytes, std::uint64_t length) const {
  return report(writeBuffer(file_, position, bytes, static_cast<std::int64_t>(length)));
}

Result LogFile::flush() const { return report(platform::flushFile(file_)); }

Result LogFile::addChecksum(std::uint64_t position, std::uint64_t end, std::span<char> buffer,
                            std::uint64_t& checksum) const {
  assert(buffer.size() % sizeof checksum == 0);
  while (position < end) {
    const auto length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(end - position, buffer.size()));
    ZELTA_TRY(read(position, buffer.data(), length));
    xorChecksum64(checksum, buffer.data(), length);
    position += length;
  }
  return {};
}

// -- The header -----------------------------------------------------------------------------------

/// Nothing is checked or repaired here: rotation looks at files that are just being made.
Result LogFile::readRawHeader(bool* blank) {
  header_ = LogHeader_tag{};
  *blank = false;
  std::uint32_t count = 0;
  const SystemCode failure = readBuffer(file_, 0, &header_, kLogHeaderSize, &count);
  if (failure != 0 && failure != code::kEndOfFile) return report(failure);
  if (count == kLogHeaderSize) {
    // A power failure can leave the length of a new file and not its bytes.
    static constexpr LogHeader_tag kZeros{};
    if (std::memcmp(&header_, &kZeros, kLogHeaderSize) != 0) return {};
    std::uint64_t size = 0;
    ZELTA_TRY(report(platform::fileSize(file_, &size)));
    *blank = size == kLogHeaderSize;
    return {};
  }
  *blank = true;
  header_ = LogHeader_tag{};
  return {};
}

Result LogFile::readHeader(bool mayRepair) {
  assert(!mayRepair || locked());
  ZELTA_TRY(read(0, &header_, kLogHeaderSize));
  if (!header_.isSingle() && !header_.isNumbered()) return broken();
  if (header_.majorVersion != 1 || header_.minorVersion != 0) {
    return reportError(&metaData_, Own::logVersion, metaData_.baseName.c_str(), extension::kLog,
                       header_.majorVersion, header_.minorVersion);
  }
  std::uint64_t size = 0;
  ZELTA_TRY(report(platform::fileSize(file_, &size)));
  if (header_.intentStart != 0) {
    if (!mayRepair) return reportError(&metaData_, Own::notWritable);
    ZELTA_TRY(finishLogIntent(*this, size));
    ZELTA_TRY(report(platform::fileSize(file_, &size)));
  }
  clearIntent(header_);
  return headerIsSound(header_, size) ? Result() : broken();
}

Result LogFile::readHeaderLocked() {
  ZELTA_TRY(lock(kLogMutexWait));
  const Result result = readHeader(true);
  unlock();
  return result;
}

Result LogFile::writeHeader() {
  return write(kLogMutableStart, reinterpret_cast<const char*>(&header_) + kLogMutableStart,
               kLogHeaderSize - kLogMutableStart);
}

Result LogFile::endChange(std::uint64_t end) {
  assert(locked());
  clearIntent(header_);
  header_.endOfLog = end;
  ZELTA_TRY(writeHeader());
  ZELTA_TRY(flush());
  // A file begun by rotation says 0 for its end, but keeps its header.
  return report(truncateFile(file_, std::max(end, kLogHeaderSize)));
}

// -- Entries --------------------------------------------------------------------------------------

SystemCode LogFile::readHead(std::uint64_t position, LogEntryHead_tag* head) const {
  std::uint32_t count = 0;
  const SystemCode failure =
      platform::readLockable(file_, logEntryLock(position), position, head, sizeof *head, &count);
  if (failure != 0) return failure;
  return count == sizeof *head ? 0 : code::kEndOfFile;
}

Result LogFile::verifyEntry(const LogEntry& entry, bool* complete) const {
  constexpr std::uint32_t kPiece = 64 * 1024;
  *complete = false;
  std::uint64_t size = 0;
  ZELTA_TRY(report(platform::fileSize(file_, &size)));
  const LogEntryHead_tag& head = entry.head;
  if (!head.isEntry() || head.sectionCount == 0 || head.blockLength < sizeof head ||
      entry.end() > size || entry.end() < entry.position) {
    return {};
  }
  char* buffer = metaData_.scratchFor(Scratch::transfer).reserve(kPiece);
  std::uint64_t sum = 0;
  ZELTA_TRY(addChecksum(entry.body(), entry.end(), {buffer, kPiece}, sum));
  *complete = sum == head.checksum;
  return {};
}

SystemCode LogFile::completeEntry(const LogEntry& entry) const {
  assert(entry.position != 0 && entry.head.sectionCount != 0);
  // The body first: a loss of power could leave the head on the disk without some sectors of the
  // body, and the checksum does not miss words that cancel each other out, as IDs in a row do. What
  // lies in one sector with the head goes down with it.
  constexpr std::uint64_t kSector = 512;
  if (entry.position / kSector != (entry.end() - 1) / kSector) {
    if (const SystemCode failure = platform::flushFile(file_); failure != 0) return failure;
  }
  constexpr std::uint32_t kFrom = offsetof(LogEntryHead_tag, magic);
  const SystemCode failure =
      writeBuffer(file_, entry.position + kFrom, reinterpret_cast<const char*>(&entry.head) + kFrom,
                  sizeof entry.head - kFrom);
  return failure != 0 ? failure : platform::flushFile(file_);
}

SystemCode LogFile::retireEntry(std::uint64_t position) const {
  assert(position != 0);
  constexpr std::uint32_t kIncomplete = 0;
  return writeBuffer(file_, position + offsetof(LogEntryHead_tag, sectionCount), &kIncomplete,
                     sizeof kIncomplete);
}

Result LogFile::find(std::uint32_t number, std::uint64_t* position) {
  *position = 0;
  assert(!metaData_.mayWrite() || locked());
  bool blank = false;
  ZELTA_TRY(readRawHeader(&blank));
  if (blank) return {};  // a file that has no header yet holds no entry
  ZELTA_TRY(readHeader(metaData_.mayWrite()));
  LogPath path(*this);
  std::uint32_t slot = 0;
  ZELTA_TRY(path.locate(number, 0, &slot));
  if (path.isEmpty()) return {};
  const std::uint64_t found = path.leaf().node.values[slot];
  // The caller reads a whole head there.
  if (found != 0 && !liesInLog(found, sizeof(LogEntryHead_tag), header_.endOfLog)) return broken();
  *position = found;
  return {};
}

// -- Appending ------------------------------------------------------------------------------------

/// Own code 68: the entry would not come to lie where it is expected.
Result LogFile::positionDiffers(std::uint64_t expected) const {
  return reportError(&metaData_, Own::logPosition, metaData_.baseName.c_str(), extension::kLog,
                     static_cast<std::int64_t>(expected), header_.fileNumber);
}

/// Looks for the very entry at the place where it is expected. `*found`: it stands there, not
/// complete yet, and `entry` is it. Code 38: it is complete.
Result LogFile::findExpected(std::uint64_t expected, LogEntry* entry, bool* found) const {
  *found = false;
  LogEntry there{expected, {}};
  if (expected < kLogFirstEntry || !liesInLog(expected, sizeof there.head, header_.endOfLog)) {
    return {};
  }
  const SystemCode failure = readHead(expected, &there.head);
  if (failure == code::kEndOfFile) return {};
  ZELTA_TRY(report(failure));
  if (!there.head.isEntry() || there.head.number != entry->head.number ||
      there.head.blockLength != entry->head.blockLength ||
      header_.endOfLog - expected < there.head.blockLength) {
    return {};
  }
  bool complete = false;
  ZELTA_TRY(verifyEntry(there, &complete));
  if (complete) {
    return reportError(&metaData_, Own::logEntryExists, metaData_.baseName.c_str(), extension::kLog,
                       there.head.number);
  }
  *entry = there;
  *found = true;
  return {};
}

/// The first entry of a log. Nothing leads to the new leaf until the header says so, so there is
/// no need of an intent.
Result LogFile::appendFirst(const LogEntryHead_tag& head) {
  assert(locked() && header_.rootPosition == 0);
  struct {
    LogNode_tag root;
    LogEntryHead_tag head;
  } first{{kLogNodeSize, LogNodeType::leaf, 1, {head.number}, {kLogFirstEntry}}, head};
  static_assert(sizeof(first) == kLogFirstEntry + sizeof(head) - kLogFirstRoot);
  const std::uint64_t end = kLogFirstEntry + head.blockLength;
  ZELTA_TRY(write(kLogFirstRoot, &first, sizeof(first)));
  // The file is never shorter than its log; stale bytes behind it go.
  ZELTA_TRY(report(truncateFile(file_, end)));
  ZELTA_TRY(flush());
  header_.rootPosition = kLogFirstRoot;
  header_.freeHead = 0;
  header_.endOfLog = end;
  return writeHeader();
}

/// An entry in a log that has others.
Result LogFile::appendNext(std::uint64_t expected, LogEntry* entry) {
  assert(locked() && header_.rootPosition != 0);
  LogPath path(*this);
  ZELTA_TRY(path.descend(entry->head.number));
  LogChange change(*this);
  ZELTA_TRY(change.allocate(entry->head.blockLength, &entry->position, &entry->head.blockLength));
  if (expected != 0 && expected != entry->position) return positionDiffers(expected);
  ZELTA_TRY(change.insertKey(path, entry->head.number, entry->position));
  return change.carryOut(entry);
}

Result LogFile::append(std::uint32_t number, std::uint64_t length, LogEntry* entry,
                       std::uint64_t expected) {
  assert(locked());
  *entry = {};
  ZELTA_TRY(readHeader(true));
  if (length < sizeof(LogEntryHead_tag) || length > kLengthLimit) {
    return reportError(&metaData_, Own::logEntry);
  }
  entry->head = newHead(number, blockNeed<LogBlocks>(length, smallestBlock(header_)));
  if (header_.rootPosition == 0) {
    if (expected != 0 && expected != kLogFirstEntry) return positionDiffers(expected);
    entry->position = kLogFirstEntry;
    return appendFirst(entry->head);
  }
  if (expected != 0 && expected < header_.endOfLog) {
    bool found = false;
    ZELTA_TRY(findExpected(expected, entry, &found));
    if (found) return {};
  }
  return appendNext(expected, entry);
}

// -- Removing -------------------------------------------------------------------------------------

Result LogFile::makeEmpty() {
  assert(locked());
  header_.rootPosition = 0;
  header_.freeHead = 0;
  return endChange(kLogHeaderSize);
}

/// The head of an entry whose block is to be free: its length must be right.
Result LogFile::readRemoved(std::uint32_t number, LogEntry* entry) const {
  LogEntryHead_tag& head = entry->head;
  if (!liesInLog(entry->position, sizeof head, header_.endOfLog)) return broken();
  ZELTA_TRY(read(entry->position, &head, sizeof head));
  const bool good = head.isEntry() && head.number == number && head.blockLength >= sizeof head &&
                    head.blockLength % kWideGranule == 0 &&
                    header_.endOfLog - entry->position >= head.blockLength;
  return good ? Result{} : broken();
}

Result LogFile::remove(std::uint32_t number, std::uint64_t position) {
  assert(locked());
  ZELTA_TRY(readHeader(true));
  LogPath path(*this);
  std::uint32_t slot = 0;
  ZELTA_TRY(path.locate(number, position, &slot));
  if (path.isEmpty()) {
    return reportError(&metaData_, Own::logEntryNotFound, nullptr, nullptr, number);
  }
  LogEntry entry{path.leaf().node.values[slot], {}};
  ZELTA_TRY(readRemoved(number, &entry));
  LogChange change(*this);
  change.removeKey(path, slot);
  if (change.leavesNothing()) return makeEmpty();
  change.release(entry.position, entry.head.blockLength);
  ZELTA_TRY(change.mergeReleased());
  return change.carryOut(nullptr);
}

Result removeLogEntry(MetaData& metaData, std::uint32_t number, std::uint64_t position) {
  if (metaData.logFile == platform::File::none) {
    return reportError(&metaData, Own::logEntryNotFound, nullptr, nullptr, number);
  }
  LogFile log(metaData, metaData.logFile);
  ZELTA_TRY(log.lock(kLogMutexWait));
  return log.remove(number, position);
}

}  // namespace zelta

// Which log file is in use: opening, making and following it.

#include "platform/clock.h"
#include "transaction/log_file_internal.h"

namespace zelta {

using namespace log_file;

namespace {

/// An hour in the steps of file times, 100 ns.
constexpr std::uint64_t kHour = 36000000000;
constexpr std::uint16_t kDefaultRetention = 120;
constexpr std::uint64_t kDefaultLimit = 0x2000000;

void closeLog(MetaData& metaData) {
  platform::closeFile(metaData.logFile);
  metaData.logFile = platform::File::none;
}

LogHeader_tag newHeader(bool numbered, std::uint16_t number, std::uint64_t end) {
  LogHeader_tag header{};
  std::memcpy(header.magic, numbered ? "ZELO" : "ZELL", 4);
  header.majorVersion = 1;
  header.fileNumber = number;
  header.endOfLog = end;
  return header;
}

/// Writes the header of a new file. Its flush also brings the file's name to the disk.
SystemCode writeNew(platform::File file, const LogHeader_tag& header, bool ignoreFlush) {
  const SystemCode result = writeBuffer(file, 0, &header, kHeaderSize);
  if (result != 0) return result;
  const SystemCode flushed = platform::flushFile(file);
  return ignoreFlush ? 0 : flushed;
}

/// Whether the handle still leads to the file of this name and form. Its header is read then.
Result isCurrent(MetaData& metaData, const std::u16string& name, const LogHeader_tag& wanted,
                 LogHeader_tag& header, bool* current) {
  *current = false;
  if (metaData.logFile == platform::File::none) return {};
  // The file may have been deleted, and another one made in its place.
  if (!platform::isNamed(metaData.logFile, name.c_str())) return {};
  bool blank = false;
  ZELTA_TRY(readRawHeader(metaData, metaData.logFile, header, &blank));
  *current = !blank && std::memcmp(header.magic, wanted.magic, 4) == 0 &&
             header.fileNumber == wanted.fileNumber;
  return {};
}

/// Opens the log file of a name, or makes it with the given header.
Result openOrCreate(MetaData& metaData, const std::u16string& name, const LogHeader_tag& fresh,
                    LogHeader_tag& header) {
  platform::File opened = platform::File::none;
  SystemCode result =
      openDatabaseFile(metaData, name.c_str(), platform::Disposition::openExisting, &opened);
  const bool create = result == code::kFileNotFound;
  if (create) {
    result = openDatabaseFile(metaData, name.c_str(), platform::Disposition::createNew, &opened);
  }
  if (result != 0) return reportLogError(metaData, result);
  FileGuard file(opened);
  bool blank = true;
  if (!create) ZELTA_TRY(readRawHeader(metaData, file.get(), header, &blank));
  if (blank) {
    result = writeNew(file.get(), fresh, fresh.isSingle());
    if (result != 0) {
      platform::closeFile(file.release());
      static_cast<void>(platform::deleteFile(name.c_str()));
      return reportLogError(metaData, result);
    }
    header = fresh;
  }
  if (std::memcmp(header.magic, fresh.magic, 4) != 0 || header.fileNumber != fresh.fileNumber) {
    return logIsBroken(metaData);
  }
  metaData.logFile = file.release();
  return {};
}

Result makeCurrent(MetaData& metaData, const std::u16string& name, const LogHeader_tag& fresh,
                   LogHeader_tag& logHeader) {
  bool current = false;
  ZELTA_TRY(isCurrent(metaData, name, fresh, logHeader, &current));
  if (current) return {};
  closeLog(metaData);
  return openOrCreate(metaData, name, fresh, logHeader);
}

/// The size above which a file is followed by the next. Reckoned in a signed 32-bit word: from
/// 2048 MiB on it is beyond all files, and 4096 MiB is none at all.
std::uint64_t sizeLimit(const ControlHeader_tag& header) {
  if (header.logFileMegabytes == 0) return kDefaultLimit;
  const auto bytes =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(header.logFileMegabytes) << 20);
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(bytes));
}

/// Whether a file is old enough to go. `*gone`: there is none.
Result isOld(MetaData& metaData, const std::u16string& name, std::uint64_t limit, bool* old,
             bool* gone) {
  *old = false;
  *gone = false;
  platform::File opened = platform::File::none;
  const SystemCode result =
      openDatabaseFile(metaData, name.c_str(), platform::Disposition::openExisting, &opened);
  if (result == code::kFileNotFound || result == code::kPathNotFound) {
    *gone = true;
    return {};
  }
  if (result != 0) return reportLogError(metaData, result);
  const FileGuard file(opened);
  std::uint64_t written = 0;
  // A file whose age is unknown stays.
  *old = platform::lastWriteTime(file.get(), &written) == 0 && written < limit;
  return {};
}

constexpr std::uint16_t next(std::uint16_t number) {
  return static_cast<std::uint16_t>(number + 1);
}

}  // namespace

Result deleteOldLogFiles(MetaData& metaData, const ControlHeader_tag& header, std::uint16_t& first,
                         std::uint16_t last) {
  const std::uint64_t now = platform::systemTime();
  if (now == 0) return reportLogError(metaData, code::kGeneralFailure);
  const std::uint16_t hours =
      header.logRetentionHours != 0 ? header.logRetentionHours : kDefaultRetention;
  const std::uint64_t limit = now - hours * kHour;
  for (const std::uint16_t number : numbersInUse(metaData, first, last)) {
    first = number;
    if (number == last) break;
    const std::u16string name = numberedLogName(metaData, number);
    bool old = false;
    bool gone = false;
    ZELTA_TRY(isOld(metaData, name, limit, &old, &gone));
    if (!old && !gone) break;  // newer files follow
    if (old) static_cast<void>(platform::deleteFile(name.c_str()));
    first = next(number);
  }
  if (first == next(last)) {
    // All numbers are in use: the oldest gives way.
    static_cast<void>(platform::deleteFile(numberedLogName(metaData, first).c_str()));
    first = next(first);
  }
  return {};
}

Result emptyLogFile(MetaData& metaData, std::uint16_t number, LogHeader_tag& logHeader) {
  closeLog(metaData);
  const std::u16string name = numberedLogName(metaData, number);
  platform::File opened = platform::File::none;
  SystemCode result =
      openDatabaseFile(metaData, name.c_str(), platform::Disposition::openAlways, &opened);
  if (result != 0) return reportLogError(metaData, result);
  FileGuard file(opened);
  const LogHeader_tag fresh = newHeader(true, number, 0);
  result = writeNew(file.get(), fresh, false);
  if (result != 0) {
    platform::closeFile(file.release());
    static_cast<void>(platform::deleteFile(name.c_str()));
    return reportLogError(metaData, result);
  }
  logHeader = fresh;
  metaData.logFile = file.release();
  return {};
}

Result beginLogFile(MetaData& metaData, ControlHeader_tag& header, std::uint16_t first,
                    std::uint16_t last, LogHeader_tag& logHeader) {
  ZELTA_TRY(emptyLogFile(metaData, last, logHeader));
  const std::uint16_t numbers[2] = {first, last};
  const SystemCode result = writeBuffer(
      metaData.controlFile, offsetof(ControlHeader_tag, firstLogFile), numbers, sizeof(numbers));
  if (result != 0) {
    closeLog(metaData);
    static_cast<void>(platform::deleteFile(numberedLogName(metaData, last).c_str()));
    return reportSystemError(&metaData, result, metaData.baseName.c_str(), extension::kControl);
  }
  header.firstLogFile = first;
  header.lastLogFile = last;
  return {};
}

Result prepareLogFile(MetaData& metaData, ControlHeader_tag& header, LogHeader_tag& logHeader) {
  if ((header.logFlags & 1) == 0) {
    return makeCurrent(metaData, singleLogName(metaData), newHeader(false, 0, kHeaderSize),
                       logHeader);
  }
  const std::uint16_t number = header.lastLogFile;
  ZELTA_TRY(makeCurrent(metaData, numberedLogName(metaData, number),
                        newHeader(true, number, kHeaderSize), logHeader));
  if (logHeader.endOfLog <= sizeLimit(header)) return {};
  std::uint16_t first = header.firstLogFile;
  ZELTA_TRY(deleteOldLogFiles(metaData, header, first, number));
  return beginLogFile(metaData, header, first, next(number), logHeader);
}

}  // namespace zelta

#include "transaction/log/log_rotation.h"

#include "platform/clock.h"
#include "platform/file_io.h"
#include "transaction/log/log_names.h"

namespace zelta {

namespace {

/// An hour in the steps of file times, 100 ns.
constexpr std::uint64_t kHour = 36000000000;
constexpr std::uint16_t kDefaultRetention = 120;
constexpr std::uint64_t kDefaultLimit = 0x2000000;

/// A log without an entry.
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
  const SystemCode failure = writeBuffer(file, 0, &header, kLogHeaderSize);
  if (failure != 0) return failure;
  const SystemCode flushed = platform::flushFile(file);
  return ignoreFlush ? 0 : flushed;
}

/// The same; after a failure the file is gone.
Result writeNewOrDelete(const LogFile& log, FileGuard& file, const std::u16string& name,
                        const LogHeader_tag& header) {
  const SystemCode failure = writeNew(file.get(), header, header.isSingle());
  if (failure != 0) {
    platform::closeFile(file.release());
    static_cast<void>(platform::deleteFile(name.c_str()));
  }
  return log.report(failure);
}

/// Whether two headers are those of one file, by form and number.
bool sameFile(const LogHeader_tag& a, const LogHeader_tag& b) {
  return std::memcmp(a.magic, b.magic, sizeof a.magic) == 0 && a.fileNumber == b.fileNumber;
}

/// Whether the file in use is still the one of this name and form. Its header is read then.
Result isCurrent(LogFile& log, const std::u16string& name, const LogHeader_tag& wanted,
                 bool* current) {
  *current = false;
  log.useCurrent();
  if (!log.isOpen()) return {};
  // The file may have been deleted, and another one made in its place.
  if (!platform::isNamed(log.handle(), name.c_str())) return {};
  bool blank = false;
  ZELTA_TRY(log.readRawHeader(&blank));
  *current = !blank && sameFile(log.header(), wanted);
  return {};
}

/// Opens the log file of a name, or makes it with the given header.
Result openOrCreate(LogFile& log, const std::u16string& name, const LogHeader_tag& fresh) {
  MetaData& metaData = log.metaData();
  platform::File opened = platform::File::none;
  SystemCode failure =
      openDatabaseFile(metaData, name.c_str(), platform::Disposition::openExisting, &opened);
  const bool create = failure == code::kFileNotFound;
  if (create) {
    failure = openDatabaseFile(metaData, name.c_str(), platform::Disposition::createNew, &opened);
  }
  if (failure != 0) return log.report(failure);
  FileGuard file(opened);
  LogFile found(metaData, opened);
  bool blank = true;
  if (!create) ZELTA_TRY(found.readRawHeader(&blank));
  if (blank) {
    ZELTA_TRY(writeNewOrDelete(log, file, name, fresh));
    found.header() = fresh;
  }
  if (!sameFile(found.header(), fresh)) return log.broken();
  log.makeCurrent(file.release(), found.header());
  return {};
}

/// Turns to the file in use if it is the wanted one, else to the one of the name.
Result openCurrent(LogFile& log, const std::u16string& name, const LogHeader_tag& fresh) {
  bool current = false;
  ZELTA_TRY(isCurrent(log, name, fresh, &current));
  if (current) return {};
  log.closeCurrent();
  return openOrCreate(log, name, fresh);
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
  LogFile log(metaData);
  ZELTA_TRY(log.open(name));
  *gone = !log.isOpen();
  std::uint64_t written = 0;
  // A file whose age is unknown stays.
  *old = !*gone && platform::lastWriteTime(log.handle(), &written) == 0 && written < limit;
  return {};
}

constexpr std::uint16_t next(std::uint16_t number) {
  return static_cast<std::uint16_t>(number + 1);
}

/// Deletes numbered files from `first` on that are older than the retention time, up to `last`,
/// and the one whose number comes next after `last` if the numbers have gone round. `first` moves
/// on.
Result deleteOldFiles(MetaData& metaData, const ControlHeader_tag& header, std::uint16_t& first,
                      std::uint16_t last) {
  const std::uint64_t now = platform::systemTime();
  if (now == 0) return LogFile(metaData).report(code::kGeneralFailure);
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

/// Begins the file of number `last` and enters both numbers in the control file.
Result rotate(ControlHeader_tag& control, std::uint16_t first, std::uint16_t last, LogFile& log) {
  MetaData& metaData = log.metaData();
  ZELTA_TRY(emptyLogFile(last, log));
  const std::uint16_t numbers[2] = {first, last};
  const SystemCode failure = writeBuffer(
      metaData.controlFile, offsetof(ControlHeader_tag, firstLogFile), numbers, sizeof(numbers));
  if (failure != 0) {
    log.closeCurrent();
    static_cast<void>(platform::deleteFile(numberedLogName(metaData, last).c_str()));
    return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
  }
  control.firstLogFile = first;
  control.lastLogFile = last;
  return {};
}

}  // namespace

Result emptyLogFile(std::uint16_t number, LogFile& log) {
  MetaData& metaData = log.metaData();
  log.closeCurrent();
  const std::u16string name = numberedLogName(metaData, number);
  platform::File opened = platform::File::none;
  ZELTA_TRY(log.report(
      openDatabaseFile(metaData, name.c_str(), platform::Disposition::openAlways, &opened)));
  FileGuard file(opened);
  const LogHeader_tag fresh = newHeader(true, number, 0);
  ZELTA_TRY(writeNewOrDelete(log, file, name, fresh));
  log.makeCurrent(file.release(), fresh);
  return {};
}

Result prepareLogFile(ControlHeader_tag& control, LogFile& log) {
  MetaData& metaData = log.metaData();
  if ((control.logFlags & 1) == 0) {
    return openCurrent(log, singleLogName(metaData), newHeader(false, 0, kLogHeaderSize));
  }
  const std::uint16_t number = control.lastLogFile;
  ZELTA_TRY(
      openCurrent(log, numberedLogName(metaData, number), newHeader(true, number, kLogHeaderSize)));
  if (log.header().endOfLog <= sizeLimit(control)) return {};
  std::uint16_t first = control.firstLogFile;
  ZELTA_TRY(deleteOldFiles(metaData, control, first, number));
  return rotate(control, first, next(number), log);
}

}  // namespace zelta

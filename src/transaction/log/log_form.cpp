#include "transaction/log/log_form.h"

#include <cstring>

#include "platform/file_io.h"
#include "transaction/log/log_names.h"
#include "transaction/log/log_rotation.h"

namespace zelta {

namespace {

constexpr std::uint32_t kKeepsFiles = 1;

Result reportControl(MetaData& metaData, SystemCode failure) {
  return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
}

/// Writes the header from one offset up to another; all of it lies in one sector.
Result writePart(MetaData& metaData, const ControlHeader_tag& header, std::size_t from,
                 std::size_t end) {
  return reportControl(metaData, writeBuffer(metaData.controlFile, from,
                                             reinterpret_cast<const char*>(&header) + from,
                                             static_cast<std::int64_t>(end - from)));
}

constexpr std::size_t kFlags = offsetof(ControlHeader_tag, logFlags);
constexpr std::size_t kFlagsEnd = offsetof(ControlHeader_tag, logRetentionHours);
constexpr std::size_t kNumbers = offsetof(ControlHeader_tag, firstLogFile);
constexpr std::size_t kNumbersEnd = offsetof(ControlHeader_tag, lastTransaction);

/// Whether file 0 is in use and others are before it.
bool zeroHasElders(const ControlHeader_tag& header) {
  if ((header.logFlags & kKeepsFiles) == 0 || header.firstLogFile == 0) return false;
  return header.lastLogFile < header.firstLogFile;  // the numbers have gone round
}

/// Steps 1 and 2.
Result keepFiles(MetaData& metaData, ControlHeader_tag& header) {
  if (zeroHasElders(header)) {
    header.firstLogFile = 0;
    ZELTA_TRY(writePart(metaData, header, kNumbers, kNumbersEnd));
    ZELTA_TRY(reportControl(metaData, platform::flushFile(metaData.controlFile)));
  }
  LogFile log(metaData);
  ZELTA_TRY(emptyLogFile(0, log));
  header.logFlags |= kKeepsFiles;
  header.firstLogFile = 0;
  header.lastLogFile = 0;
  ZELTA_TRY(writePart(metaData, header, kFlags, kNumbersEnd));
  static_cast<void>(platform::deleteFile(singleLogName(metaData).c_str()));
  return {};
}

/// Step 3.
Result giveFilesUp(MetaData& metaData, ControlHeader_tag& header) {
  header.logFlags &= ~kKeepsFiles;
  ZELTA_TRY(writePart(metaData, header, kFlags, kFlagsEnd));
  ZELTA_TRY(reportControl(metaData, platform::flushFile(metaData.controlFile)));
  // The end is reckoned in twelve bits.
  const auto end = static_cast<std::uint16_t>((header.lastLogFile + 1) & 0xFFF);
  if (header.firstLogFile != end) {
    const auto last = static_cast<std::uint16_t>(end - 1);
    for (const std::uint16_t number : numbersInUse(metaData, header.firstLogFile, last)) {
      static_cast<void>(platform::deleteFile(numberedLogName(metaData, number).c_str()));
    }
  }
  header.firstLogFile = 0;
  header.lastLogFile = 0;
  return writePart(metaData, header, kNumbers, kNumbersEnd);
}

}  // namespace

Result setLogForm(MetaData& metaData, ControlHeader_tag& header, bool keep) {
  return keep ? keepFiles(metaData, header) : giveFilesUp(metaData, header);
}

}  // namespace zelta

// Schema changes in the log: a database that keeps its log files enters them there before the
// directory changes, so that whoever follows the log makes them too.

#include <string>

#include "frame/upcalls.h"
#include "transaction/log_file_internal.h"

namespace zelta {

using namespace log_file;

namespace {

/// Schema changes belong to exclusive transactions, whose number is always 1.
constexpr std::uint32_t kSchemaNumber = 1;
constexpr std::uint64_t kBodyStart = sizeof(LogEntryHead_tag) + sizeof(LogSchemaSection_tag);

/// The bytes of an entry behind its head, without checksum and head.
std::string sectionBytes(DirectoryChange operation, std::uint32_t table, const std::string& body) {
  LogSchemaSection_tag section{
      {'Z', 'E', 'L', 'S'}, table, static_cast<std::uint32_t>(operation), 0, body.size()};
  std::string bytes(reinterpret_cast<const char*>(&section), sizeof(section));
  bytes += body;
  return bytes;
}

/// Whether the entry at `position` is complete and holds just this record.
Result isLogged(MetaData& metaData, platform::File file, const LogHeader_tag& header,
                std::uint64_t position, const std::string& section, bool* logged) {
  *logged = false;
  LogEntryHead_tag head{};
  SystemCode result = readBuffer(file, position, &head, sizeof(head));
  if (result != 0) return reportLogError(metaData, result);
  // An incomplete entry has no sections; a block much longer than the record holds another one.
  if (!head.isEntry() || head.number != kSchemaNumber || head.sectionCount != 1 ||
      head.blockLength < sizeof(head) + section.size() ||
      head.blockLength - sizeof(head) - section.size() > 2 * kNodeSize ||
      header.endOfLog - position < head.blockLength) {
    return {};
  }
  std::string bytes(head.blockLength - sizeof(head), '\0');
  result = readLargeBuffer(file, position + sizeof(head), bytes.data(),
                           static_cast<std::int64_t>(bytes.size()));
  if (result == code::kEndOfFile) return {};
  if (result != 0) return reportLogError(metaData, result);
  std::uint64_t checksum = 0;
  xorChecksum64(checksum, bytes.data(), bytes.size());
  *logged = checksum == head.checksum && bytes.compare(0, section.size(), section) == 0;
  return {};
}

Result alreadyLogged(MetaData& metaData, const ControlHeader_tag& header,
                     const std::string& section, bool* logged) {
  *logged = false;
  LogHeader_tag logHeader;
  platform::File found = platform::File::none;
  std::uint64_t position = 0;
  ZELTA_TRY(findLogEntry(metaData, &header, kSchemaNumber, logHeader, &found, &position));
  if (position == 0) return {};
  const FileGuard file(found == metaData.logFile ? platform::File::none : found);
  return isLogged(metaData, found, logHeader, position, section, logged);
}

/// Fills a reserved entry.
Result fillEntry(MetaData& metaData, std::uint64_t position, LogEntryHead_tag head,
                 const std::string& section) {
  std::string body = section;
  body.resize(head.blockLength - sizeof(head));
  head.sectionCount = 1;
  xorChecksum64(head.checksum, body.data(), body.size());
  SystemCode result = writeBuffer(metaData.logFile, position + sizeof(head), body.data(),
                                  static_cast<std::int64_t>(body.size()));
  if (result == 0) result = completeLogEntry(metaData.logFile, position, head);
  return result == 0 ? Result() : reportLogError(metaData, result);
}

}  // namespace

Result logSchemaChange(MetaData& metaData, ControlHeader_tag& header, DirectoryChange operation,
                       std::uint32_t table, const std::string& body) {
  const std::string section = sectionBytes(operation, table, body);
  bool logged = false;
  ZELTA_TRY(alreadyLogged(metaData, header, section, &logged));
  if (logged) return {};
  LogHeader_tag logHeader;
  ZELTA_TRY(prepareLogFile(metaData, header, logHeader));
  const SystemCode result = platform::flushFile(metaData.controlFile);
  if (result != 0) {
    return reportSystemError(&metaData, result, metaData.baseName.c_str(), extension::kControl);
  }
  LogMutexGuard mutex;
  ZELTA_TRY(mutex.acquire(metaData, platform::kForever));
  std::uint64_t position = 0;
  LogEntryHead_tag head;
  ZELTA_TRY(appendLogEntry(metaData, metaData.logFile, logHeader, kSchemaNumber,
                           kBodyStart + body.size(), &position, &head, 0));
  return fillEntry(metaData, position, head, section);
}

}  // namespace zelta

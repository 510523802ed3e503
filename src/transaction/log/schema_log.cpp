// Schema changes in the log: a database that keeps its log files enters them there before the
// directory changes, so that whoever follows the log makes them too.

#include <string>

#include "frame/upcalls.h"
#include "platform/file_io.h"
#include "transaction/log/log_rotation.h"
#include "transaction/log/log_search.h"

namespace zelta {

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

/// Whether an entry is complete and holds just this record.
Result isLogged(const LogFile& log, LogEntry entry, const std::string& section, bool* logged) {
  *logged = false;
  LogEntryHead_tag& head = entry.head;
  ZELTA_TRY(log.read(entry.position, &head, sizeof head));
  // A block much longer than the record holds another one.
  if (head.number != kSchemaNumber || head.sectionCount != 1 ||
      head.blockLength < sizeof head + section.size() ||
      head.blockLength - sizeof head - section.size() > 2 * kLogNodeSize ||
      log.header().endOfLog - entry.position < head.blockLength) {
    return {};
  }
  bool complete = false;
  ZELTA_TRY(log.verifyEntry(entry, &complete));
  if (!complete) return {};
  std::string bytes(section.size(), '\0');
  ZELTA_TRY(log.report(readLargeBuffer(log.handle(), entry.body(), bytes.data(),
                                       static_cast<std::int64_t>(bytes.size()))));
  *logged = bytes == section;
  return {};
}

/// Whether the last schema record in the log is this one: the change was logged before its process
/// died.
Result alreadyLogged(MetaData& metaData, const ControlHeader_tag& control,
                     const std::string& section, bool* logged) {
  *logged = false;
  LogFile log(metaData);
  LogEntry entry;
  ZELTA_TRY(findLogEntry(&control, kSchemaNumber, log, &entry.position));
  return entry.position == 0 ? Result{} : isLogged(log, entry, section, logged);
}

/// Fills a reserved entry.
Result fillEntry(const LogFile& log, LogEntry entry, const std::string& section) {
  std::string body = section;
  body.resize(entry.head.blockLength - sizeof entry.head);
  entry.head.sectionCount = 1;
  xorChecksum64(entry.head.checksum, body.data(), body.size());
  ZELTA_TRY(log.write(entry.body(), body.data(), body.size()));
  return log.report(log.completeEntry(entry));
}

}  // namespace

Result logSchemaChange(MetaData& metaData, ControlHeader_tag& header, DirectoryChange operation,
                       std::uint32_t table, const std::string& body) {
  const std::string section = sectionBytes(operation, table, body);
  bool logged = false;
  ZELTA_TRY(alreadyLogged(metaData, header, section, &logged));
  if (logged) return {};
  LogFile log(metaData);
  ZELTA_TRY(prepareLogFile(header, log));
  const SystemCode failure = platform::flushFile(metaData.controlFile);
  ZELTA_TRY(reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl));
  ZELTA_TRY(log.lock(platform::kForever));
  LogEntry entry;
  ZELTA_TRY(log.append(kSchemaNumber, kBodyStart + body.size(), &entry));
  return fillEntry(log, entry, section);
}

}  // namespace zelta

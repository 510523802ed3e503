#include "frame/parameters.h"

#include <cstring>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/upcalls.h"
#include "platform/file_io.h"

namespace zelta {

namespace {

/// Reads the header, under the database's mutex if the transaction may write.
Result readHeader(MetaData& metaData, ControlHeader_tag& header, MutexGuard& guard) {
  if (metaData.mayWrite()) ZELTA_TRY(guard.acquire(metaData, metaData.databaseMutex, kLongWait));
  return refreshControlHeader(metaData, header);
}

Result finish(MetaData& metaData, MutexGuard& guard, Result result) {
  const SystemCode failure = guard.release();
  if (result.failed() || failure == 0) return result;
  return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
}

Result listMembers(MetaData& metaData, CZELTA::DatabaseMember* members, unsigned int* size,
                   MutexGuard& guard) {
  ControlHeader_tag header;
  ZELTA_TRY(readHeader(metaData, header, guard));
  if (members == nullptr) {
    *size = (header.directorySize + 4 * header.tableCount) * 2;
    return {};
  }
  TableDirectory directory;
  ZELTA_TRY(directory.read(metaData, header));
  auto* names = reinterpret_cast<char16_t*>(members + directory.entries().size());
  CZELTA::DatabaseMember* next = members;
  for (const DirectoryEntry& entry : directory.entries()) {
    *next++ = {entry.tableId, entry.lockOrder, names};
    std::memcpy(names, entry.name.c_str(), (entry.name.size() + 1) * 2);
    names += entry.name.size() + 1;
  }
  *size = static_cast<unsigned int>(directory.entries().size());
  return {};
}

Result readParameter(MetaData& metaData, CZELTA::Parameter parameter, long long* value,
                     MutexGuard& guard) {
  ControlHeader_tag header;
  ZELTA_TRY(readHeader(metaData, header, guard));
  switch (parameter) {
    case CZELTA::ParameterKeepLogFiles:
      *value = header.logFlags & 1;
      return {};
    case CZELTA::ParameterLogFileSize:
      *value = header.logFileMegabytes;
      return {};
    case CZELTA::ParameterLogRetention:
      *value = header.logRetentionHours;
      return {};
    case CZELTA::ParameterFirstLogFile:
      *value = header.firstLogFile;
      return {};
    case CZELTA::ParameterLastLogFile:
      *value = header.lastLogFile;
      return {};
    default:
      return reportError(&metaData, Own::parameter);
  }
}

Result writeField(MetaData& metaData, std::uint64_t offset, const void* data, std::size_t length) {
  return reportSystemError(
      &metaData, writeBuffer(metaData.controlFile, offset, data, static_cast<std::int64_t>(length)),
      metaData.baseName.c_str(), extension::kControl);
}

}  // namespace

Result getDatabaseMembers(MetaData& metaData, CZELTA::DatabaseMember* members, unsigned int* size) {
  MutexGuard guard;
  return finish(metaData, guard, listMembers(metaData, members, size, guard));
}

Result getDatabaseParameter(MetaData& metaData, CZELTA::Parameter parameter, long long* value) {
  MutexGuard guard;
  return finish(metaData, guard, readParameter(metaData, parameter, value, guard));
}

Result setDatabaseParameter(MetaData& metaData, CZELTA::Parameter parameter, long long value) {
  ControlHeader_tag header;
  ZELTA_TRY(refreshControlHeader(metaData, header));
  const auto number = static_cast<std::uint16_t>(value);
  switch (parameter) {
    case CZELTA::ParameterKeepLogFiles:
      ZELTA_TRY(requireCarriedOut(metaData));  // log files go
      return setLogForm(metaData, header, (value & 1) != 0);
    case CZELTA::ParameterLogFileSize:
      return writeField(metaData, offsetof(ControlHeader_tag, logFileMegabytes), &number, 2);
    case CZELTA::ParameterLogRetention:
      return writeField(metaData, offsetof(ControlHeader_tag, logRetentionHours), &number, 2);
    default:
      return reportError(&metaData, Own::parameter);
  }
}

}  // namespace zelta

#include "frame/parameters.h"

#include <cstring>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/table_directory.h"

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

}  // namespace

Result getDatabaseMembers(MetaData& metaData, CZELTA::DatabaseMember* members, unsigned int* size) {
  MutexGuard guard;
  return finish(metaData, guard, listMembers(metaData, members, size, guard));
}

Result getDatabaseParameter(MetaData& metaData, CZELTA::Parameter parameter, long long* value) {
  MutexGuard guard;
  return finish(metaData, guard, readParameter(metaData, parameter, value, guard));
}

}  // namespace zelta

#include "transaction/log/log_parameters.h"

#include <cstddef>

#include "frame/control_file.h"
#include "platform/file_io.h"
#include "transaction/log/log_form.h"

namespace zelta {

namespace {

Result writeField(MetaData& metaData, std::uint64_t offset, const void* data, std::size_t length) {
  return reportSystemError(
      &metaData, writeBuffer(metaData.controlFile, offset, data, static_cast<std::int64_t>(length)),
      metaData.baseName.c_str(), extension::kControl);
}

}  // namespace

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

#include "transaction/log/log_search.h"

#include <vector>

#include "platform/file_io.h"
#include "transaction/log/log_names.h"

namespace zelta {

namespace {

/// Turns to the single file, which becomes the one in use. A missing one leaves none.
Result openSingle(LogFile& log) {
  const std::u16string name = singleLogName(log.metaData());
  log.useCurrent();
  if (log.isOpen()) {
    bool blank = false;
    if (platform::isNamed(log.handle(), name.c_str())) {
      ZELTA_TRY(log.readRawHeader(&blank));
      if (blank || log.header().isSingle()) return {};
    }
    log.closeCurrent();
  }
  platform::File file = platform::File::none;
  const SystemCode failure =
      openDatabaseFile(log.metaData(), name.c_str(), platform::Disposition::openExisting, &file);
  if (failure == code::kFileNotFound || failure == code::kPathNotFound) return {};
  if (failure == 0) log.makeCurrent(file, {});
  return log.report(failure);
}

/// From the last file to the first.
Result findInNumbered(const ControlHeader_tag& control, std::uint32_t number, LogFile& log,
                      std::uint64_t* position) {
  const std::vector<std::uint16_t> files =
      numbersInUse(log.metaData(), control.firstLogFile, control.lastLogFile);
  for (auto i = files.rbegin(); i != files.rend() && *position == 0; ++i) {
    ZELTA_TRY(log.open(numberedLogName(log.metaData(), *i)));
    if (log.isOpen()) ZELTA_TRY(log.find(number, position));
  }
  return {};
}

/// In the form that the control file calls for.
Result findInFiles(const ControlHeader_tag& control, std::uint32_t number, LogFile& log,
                   std::uint64_t* position) {
  if ((control.logFlags & 1) != 0) return findInNumbered(control, number, log, position);
  ZELTA_TRY(openSingle(log));
  return log.isOpen() ? log.find(number, position) : Result{};
}

}  // namespace

Result findLogEntry(const ControlHeader_tag* control, std::uint32_t number, LogFile& log,
                    std::uint64_t* position) {
  MetaData& metaData = log.metaData();
  *position = 0;
  ControlHeader_tag read{};
  if (control == nullptr) {
    const SystemCode failure = readBuffer(metaData.controlFile, 0, &read, kExclusiveWord);
    ZELTA_TRY(
        reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl));
    control = &read;
  }
  if (metaData.mayWrite()) ZELTA_TRY(log.lock(kLogMutexWait));
  const Result result = findInFiles(*control, number, log, position);
  log.unlock();
  if (*position == 0) log.close();
  return result;
}

}  // namespace zelta

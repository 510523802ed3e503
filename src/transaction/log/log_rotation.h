// Which log file is in use: opening, making and following it. The control file says which one that
// should be; MetaData::logFile is what the handle has open, and may be out of date, since others
// rotate as well.

#ifndef ZELTA_TRANSACTION_LOG_LOG_ROTATION_H
#define ZELTA_TRANSACTION_LOG_LOG_ROTATION_H

#include <cstdint>

#include "frame/control_file.h"
#include "transaction/log/log_file.h"

namespace zelta {

/// Makes the file that the control header calls for the one in use, and rotates a numbered one that
/// has grown above its limit: `control` takes the new file numbers then. `log` turns to the file,
/// with its header as it stands there. The caller owns databaseMutex.
Result prepareLogFile(ControlHeader_tag& control, LogFile& log);

/// Makes a numbered log file without an entry, whatever stood there. It is in use then, and `log`
/// turns to it. After a failure the file is gone, if it could be opened.
Result emptyLogFile(std::uint16_t number, LogFile& log);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_ROTATION_H

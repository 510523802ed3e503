// Looking for an entry in all log files of a database. Numbers of transactions come again, so the
// last entry of a number is the only one that can be of a transaction that still has its slot.

#ifndef ZELTA_TRANSACTION_LOG_LOG_SEARCH_H
#define ZELTA_TRANSACTION_LOG_LOG_SEARCH_H

#include <cstdint>

#include "frame/control_file.h"
#include "transaction/log/log_file.h"

namespace zelta {

/// Finds the last entry of a number. `*position` 0: there is none. Else `log` turns to the file
/// that has it: in the single form the one in use, in the numbered form with a handle of its own.
/// `control` null: its log words are read from the control file. Waits for logMutex and gives it
/// back, unless the transaction may not write: such a one waits for nobody, and may meet a change
/// halfway, which is a failure.
Result findLogEntry(const ControlHeader_tag* control, std::uint32_t number, LogFile& log,
                    std::uint64_t* position);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_SEARCH_H

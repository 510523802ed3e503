// Replay: applying a log entry to tables and indexes, whether or not a part of it was applied
// already.

#ifndef ZELTA_TRANSACTION_REPLAY_REPLAY_H
#define ZELTA_TRANSACTION_REPLAY_REPLAY_H

#include "storage/table.h"
#include "transaction/log/log_file.h"

namespace zelta {

/// Brings a complete entry of a log file into tables and indexes. Doing it again changes nothing.
/// Tables that it opens stay open. Own code 69: the entry makes no sense; 59: a section of an
/// unknown kind; 8: a change of a table's schema.
Result replayLogEntry(LogFile& log, const LogEntry& entry, UInt32AVLTree*& tables);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_REPLAY_REPLAY_H

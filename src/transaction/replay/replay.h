// Replay: applying a log entry to tables and indexes, whether or not a part of it was applied
// already. Whoever repairs a dead transaction that was committed does this; it is the same work as
// that of a commit behind its commit point, and like that in an order in which a death is made good
// by doing it again.

#ifndef ZELTA_TRANSACTION_REPLAY_REPLAY_H
#define ZELTA_TRANSACTION_REPLAY_REPLAY_H

#include "storage/table.h"
#include "transaction/log/log_file.h"

namespace zelta {

/// Brings a complete entry of a log file into tables and indexes. Doing it again changes nothing.
/// Tables that it opens stay open. Own code 69: the entry makes no sense; 59: a section of an
/// unknown kind; 8: a change of a table's schema. No table's mutex may be held.
Result replayLogEntry(LogFile& log, const LogEntry& entry, UInt32AVLTree*& tables);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_REPLAY_REPLAY_H

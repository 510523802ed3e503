// Replay: applying a log entry to tables and indexes, whether or not a part of it was applied
// already.

#ifndef ZELTA_TRANSACTION_REPLAY_H
#define ZELTA_TRANSACTION_REPLAY_H

#include "storage/table.h"
#include "transaction/log_file.h"

namespace zelta {

/// Applies the sections of a complete entry at `position` of a log file. Additions of objects are
/// applied; an entry with other work left to do is refused with own code 59, and nothing of it is
/// lost.
Result replayLogEntry(MetaData& metaData, UInt32AVLTree*& tables, platform::File file,
                      const LogEntryHead_tag& head, std::uint64_t position);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_REPLAY_H

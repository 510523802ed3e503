// Replay of what an entry says of one table: indexes, then the table file. commit.cpp and
// table_commit.cpp are the first attempt at the same.

#ifndef ZELTA_TRANSACTION_REPLAY_REPLAY_TABLE_H
#define ZELTA_TRANSACTION_REPLAY_REPLAY_TABLE_H

#include "storage/table.h"
#include "transaction/log/log_entries.h"

namespace zelta {

/// The entry that is replayed.
struct ReplayedEntry {
  LogFile& log;
  const LogEntry& entry;
};

/// Waits for the table's mutex. Brings a section into the files of a table, as far as it is not
/// there yet. What was done before is told by the slots: a deleted or rewritten object carries the
/// transaction's stamp until its new state stands in the table file.
Result replayTableSection(const ReplayedEntry& replayed, EntryReader& reader, Table& table,
                          const TableSection& section);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_REPLAY_REPLAY_TABLE_H

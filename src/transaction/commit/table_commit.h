// Bringing a decided transaction into a table's files. Nothing here decides anything: what fails is
// left to a replay of the log entry, which does the same once more.

#ifndef ZELTA_TRANSACTION_COMMIT_TABLE_COMMIT_H
#define ZELTA_TRANSACTION_COMMIT_TABLE_COMMIT_H

#include "storage/table.h"

namespace zelta {

/// Index file first, then the table file through its journal, then what the transaction has in the
/// memory file goes: step 5 of a commit. The sets of the table are emptied whether or not it
/// succeeds. The mutex stays with `guard`.
Result applyTableCommit(Table& table, bool releaseLocks, TableMutexGuard& guard);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_TABLE_COMMIT_H

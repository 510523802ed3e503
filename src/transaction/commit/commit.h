// Commit: the transaction's images go into the log as one entry with a checksum; that decides. Then
// each table takes its edits over. docs/concurrency.md numbers the steps, and commit.cpp names the
// function of each; table_commit.h is the part of one table.

#ifndef ZELTA_TRANSACTION_COMMIT_COMMIT_H
#define ZELTA_TRANSACTION_COMMIT_COMMIT_H

#include "frame/metadata.h"

namespace zelta {

/// Makes the edits since the last commit durable and visible. The transaction goes on. With
/// `releaseLocks` its locks on objects go. After a failure nothing is committed: one before the
/// body of the log entry is begun leaves the transaction as it was, a later one ends it, and its
/// slot is left to whoever meets it next. A commit that is decided succeeds, even if it could not
/// be carried out
/// (`MetaData::leaveSlot`).
Result commitTransaction(const Session& session, bool releaseLocks);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_COMMIT_H

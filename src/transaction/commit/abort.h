// Dropping what a transaction has changed. Committed files have none of it: its keys and images
// leave the memory file, in one journalled step for each table, and the handle forgets its sets.

#ifndef ZELTA_TRANSACTION_COMMIT_ABORT_H
#define ZELTA_TRANSACTION_COMMIT_ABORT_H

#include "frame/metadata.h"

namespace zelta {

/// Drops the edits since the last commit. The transaction goes on. With `releaseLocks` its locks on
/// objects go as well. What cannot be dropped in one table does not keep the others from it; the
/// first failure is the result. A decided commit that is still to be carried out is not dropped.
Result abortTransaction(const Session& session, bool releaseLocks);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_ABORT_H

// Commit and abort.

#ifndef ZELTA_TRANSACTION_COMMIT_H
#define ZELTA_TRANSACTION_COMMIT_H

#include "frame/metadata.h"

namespace zelta {

struct UInt32AVLTree;

/// Makes the edits since the last commit durable and visible. The transaction goes on.
Result commitTransaction(MetaData& metaData, UInt32AVLTree*& tables, bool releaseLocks);

/// Drops the edits since the last commit.
Result abortTransaction(MetaData& metaData, UInt32AVLTree*& tables, bool releaseLocks);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_H

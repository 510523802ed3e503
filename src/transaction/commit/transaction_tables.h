// The tables of a handle, one after the other.

#ifndef ZELTA_TRANSACTION_COMMIT_TRANSACTION_TABLES_H
#define ZELTA_TRANSACTION_COMMIT_TRANSACTION_TABLES_H

#include <vector>

#include "storage/table.h"

namespace zelta {

/// In the order of their IDs.
[[nodiscard]] std::vector<Table*> tablesInOrder(UInt32AVLTree* tables);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_TRANSACTION_TABLES_H

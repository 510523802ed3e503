// The tables of a handle, one after the other. Whoever goes through all of them does so in one
// order, in which table mutexes are taken as well.

#ifndef ZELTA_TRANSACTION_COMMIT_TRANSACTION_TABLES_H
#define ZELTA_TRANSACTION_COMMIT_TRANSACTION_TABLES_H

#include <vector>

#include "storage/table.h"

namespace zelta {

/// In the order of their IDs.
[[nodiscard]] std::vector<Table*> tablesInOrder(UInt32AVLTree* tables);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_TRANSACTION_TABLES_H

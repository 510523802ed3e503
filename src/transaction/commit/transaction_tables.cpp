#include "transaction/commit/transaction_tables.h"

namespace zelta {

std::vector<Table*> tablesInOrder(UInt32AVLTree* tables) {
  std::vector<UInt32AVLTree*> nodes(count(tables));
  flatten(tables, nodes.data(), nodes.data() + nodes.size());
  std::vector<Table*> out;
  out.reserve(nodes.size());
  for (UInt32AVLTree* node : nodes) out.push_back(static_cast<Table*>(node));
  return out;
}

}  // namespace zelta

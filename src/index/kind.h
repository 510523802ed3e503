// What the operations of all kinds of index have in common.

#ifndef ZELTA_INDEX_KIND_H
#define ZELTA_INDEX_KIND_H

#include <cstdint>

#include "storage/avl_tree.h"

namespace zelta {

/// The objects in either of two sets, which may be empty (null).
struct ObjectSets {
  UInt64AVLTree* first = nullptr;
  UInt64AVLTree* second = nullptr;

  [[nodiscard]] bool contain(std::uint64_t objectID) const {
    return find(second, objectID) != nullptr || find(first, objectID) != nullptr;
  }
};

}  // namespace zelta

#endif  // ZELTA_INDEX_KIND_H

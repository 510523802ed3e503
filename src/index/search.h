// Searches of an index, which leave the IDs of the objects found in the table.

#ifndef ZELTA_INDEX_SEARCH_H
#define ZELTA_INDEX_SEARCH_H

#include <cstdint>

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// Searches index `index` (counted from 1). `search` is the expression for a list. The caller has
/// made sure of a transaction, its thread and the table. `count` may be null.
Result searchIndex(MetaData& metaData, UInt32AVLTree*& tables, Table& table, std::uint32_t index,
                   const void* key, const void* search, CZELTA::Mode mode, long long* count);
/// The form for boxes, time spans and patterns.
Result searchIndex(MetaData& metaData, UInt32AVLTree*& tables, Table& table, std::uint32_t index,
                   const void* key, std::uint32_t tolerance, CZELTA::Mode mode, long long* count);

}  // namespace zelta

#endif  // ZELTA_INDEX_SEARCH_H

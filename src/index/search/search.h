// Searches of an index, which leave the IDs of the objects found in the table.

#ifndef ZELTA_INDEX_SEARCH_SEARCH_H
#define ZELTA_INDEX_SEARCH_SEARCH_H

#include <cstdint>

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// A search of words, boxes or time spans, as its caller gave it.
struct ExpressionSearch {
  std::uint32_t index;     ///< counted from 1
  const void* key;         ///< a box, a time span, or the prefix of a list
  const void* expression;  ///< for a list
  CZELTA::Mode mode;
};

/// A search of boxes, time spans or patterns.
struct ShapeSearch {
  std::uint32_t index;  ///< counted from 1
  const void* key;      ///< a box, a time span or a pattern
  std::uint32_t tolerance;
  CZELTA::Mode mode;
};

/// Searches an index. The caller has made sure of a transaction, its thread and the table. `count`
/// may be null.
Result searchIndex(const Session& session, Table& table, const ExpressionSearch& search,
                   long long* count);
Result searchIndex(const Session& session, Table& table, const ShapeSearch& search,
                   long long* count);

}  // namespace zelta

#endif  // ZELTA_INDEX_SEARCH_SEARCH_H

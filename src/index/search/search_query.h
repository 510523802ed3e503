// What a search is asked for, and what can be refused of it.

#ifndef ZELTA_INDEX_SEARCH_SEARCH_QUERY_H
#define ZELTA_INDEX_SEARCH_SEARCH_QUERY_H

#include <cstdint>

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// A search as its caller gave it, by one of two forms.
struct SearchQuery {
  enum class Form : std::uint8_t { expression, shape };
  Form form;
  std::uint32_t index;      ///< counted from 1
  const void* key;          ///< a box, a time span, a set of points, or the prefix of a list
  const void* expression;   ///< what a list is searched for; null in a search by shape
  std::uint32_t tolerance;  ///< of points; 0 in a search by expression
  CZELTA::Mode mode;        ///< of which the two flags of a search count

  [[nodiscard]] bool keepsResults() const { return (mode & CZELTA::SearchKeepResults) != 0; }
  [[nodiscard]] bool locksResults() const { return (mode & CZELTA::SearchLockResults) != 0; }
};

/// Which searches the indexes of a kind take.
struct SearchForms {
  enum class Given : std::uint8_t { key, expression };
  bool byExpression;
  bool byShape;
  Given given;  ///< what must not be null
  /// The results of a search of words are narrowed down, and must be kept. They stay those of the
  /// other index.
  bool narrows = false;
};

/// Refuses what a query must not be: own codes 7 and 19.
Result checkQuery(const Table& table, const SearchQuery& query);

}  // namespace zelta

#endif  // ZELTA_INDEX_SEARCH_SEARCH_QUERY_H

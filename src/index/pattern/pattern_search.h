// The search for patterns: which objects have, for each point of a query, a point that lies within
// the tolerance. In an index with many entries all of them must be in one row.

#ifndef ZELTA_INDEX_PATTERN_PATTERN_SEARCH_H
#define ZELTA_INDEX_PATTERN_PATTERN_SEARCH_H

#include <memory>

#include "index/search/index_search.h"
#include "index/search/search_query.h"

namespace zelta {

/// Own code 7: the query has no length that could be one, or the index is over no points.
Result preparePatternSearch(Table& table, const SearchQuery& query,
                            std::unique_ptr<IndexSearch>* search);

}  // namespace zelta

#endif  // ZELTA_INDEX_PATTERN_PATTERN_SEARCH_H

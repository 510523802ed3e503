// Searches of an index, which leave the IDs of the objects found in the table.

#ifndef ZELTA_OBJECTS_SEARCH_SEARCH_INDEX_H
#define ZELTA_OBJECTS_SEARCH_SEARCH_INDEX_H

#include "index/search/index_search.h"
#include "index/search/search_query.h"

namespace zelta {

/// Searches an index. The caller has made sure of a transaction, its thread and the table. `count`
/// may be null; a failure leaves it alone. What is refused of the query leaves the results of
/// former searches as they are.
Result searchIndex(const Session& session, Table& table, const SearchQuery& query,
                   long long* count);

/// The same with a search that is prepared already.
Result runSearch(const Session& session, Table& table, const SearchQuery& query,
                 IndexSearch& search, long long* count);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_SEARCH_SEARCH_INDEX_H

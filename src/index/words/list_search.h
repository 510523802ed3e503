// The searches by an expression: of the words of a list, and of the keys of a B+Tree by what a list
// was searched for before.

#ifndef ZELTA_INDEX_WORDS_LIST_SEARCH_H
#define ZELTA_INDEX_WORDS_LIST_SEARCH_H

#include <memory>

#include "index/search/index_search.h"
#include "index/search/search_query.h"

namespace zelta {

/// Of a list. `query.key` is the prefix, as packed bytes; a list without one has no use for it. Own
/// code 7: a prefix is missing. Own code 63: the expression makes no sense.
Result prepareAsciiSearch(Table& table, const SearchQuery& query,
                          std::unique_ptr<IndexSearch>* search);
Result prepareWideSearch(Table& table, const SearchQuery& query,
                         std::unique_ptr<IndexSearch>* search);

/// Of the texts in the keys of a B+Tree, in the language of the list whose results the table has.
/// Only those of a list of 16-bit words can be joined in this way: behind others the search fails
/// with a word of all ones and no text.
Result prepareKeyTextSearch(Table& table, const SearchQuery& query,
                            std::unique_ptr<IndexSearch>* search);

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_LIST_SEARCH_H

#include "index/search/search_query.h"

#include "index/kinds.h"
#include "schema/index_traits.h"

namespace zelta {

namespace {

/// Whether the table has results of a search of words.
bool hasWordResults(const Table& table) {
  if (table.searchIndex == 0 || table.searchIndex > table.indexCount) return false;
  const IndexTraits* traits = findTraits(table.index(table.searchIndex - 1));
  return traits != nullptr && traits->segments == SegmentRule::words;
}

bool takes(const Table& table, const SearchForms& forms, const SearchQuery& query) {
  const bool expression = query.form == SearchQuery::Form::expression;
  if (!(expression ? forms.byExpression : forms.byShape)) return false;
  return !forms.narrows || (hasWordResults(table) && query.keepsResults());
}

}  // namespace

Result checkQuery(const Table& table, const SearchQuery& query) {
  if (query.index == 0 || query.index > table.indexCount) {
    return reportError(&table.metaData, Own::parameter, table.cName(), nullptr, query.index);
  }
  const SearchForms* forms = searchForms(table, query.index - 1);
  if (forms == nullptr || !takes(table, *forms, query)) {
    return reportError(&table.metaData, Own::indexKind, table.cName(), nullptr,
                       table.index(query.index - 1).indexKind, std::int64_t{query.index} - 1);
  }
  const bool byKey = forms->given == SearchForms::Given::key;
  if ((byKey ? query.key : query.expression) != nullptr) return {};
  return reportError(&table.metaData, Own::parameter, table.cName(), nullptr, query.index);
}

}  // namespace zelta

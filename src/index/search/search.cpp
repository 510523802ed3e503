#include "index/search/search.h"

#include "index/keys/keys.h"
#include "storage/trees/key_pool.h"

namespace zelta {

namespace {

CZELTA::IndexKind kindOf(const Table& table, std::uint32_t index) {
  return static_cast<CZELTA::IndexKind>(table.index(index - 1).indexKind);
}

Result checkIndex(const Table& table, std::uint32_t index) {
  if (index != 0 && index <= table.indexCount) return {};
  return reportError(&table.metaData, Own::parameter, table.cName(), nullptr, index);
}

Result wrongKind(const Table& table, std::uint32_t index) {
  return reportError(&table.metaData, Own::indexKind, table.cName(), nullptr, kindOf(table, index),
                     std::int64_t{index} - 1);
}

/// No search of this kind can be run.
Result unavailable(MetaData& metaData) { return reportError(&metaData, Own::context); }

/// Makes the key of a box or a time span, as both forms take it.
Result searchTree(Table& table, std::uint32_t index, const void* key) {
  if (key == nullptr) return reportError(&table.metaData, Own::parameter, table.cName());
  std::uint32_t* made = nullptr;
  ZELTA_TRY(buildSearchKey(table, index - 1, key, &made));
  PooledKey searchKey;
  searchKey.take(table.keyPool(index - 1), table.keyShape(index - 1), made);
  return unavailable(table.metaData);
}

/// A B+Tree serves to narrow down the results of a list search, and for nothing else.
bool followsListSearch(const Table& table) {
  if (table.searchIndex == 0 || table.searchIndex > table.indexCount) return false;
  const CZELTA::IndexKind kind = kindOf(table, table.searchIndex);
  return kind == CZELTA::AsciiList || kind == CZELTA::WideList;
}

}  // namespace

Result searchIndex(const Session& /*session*/, Table& table, const ExpressionSearch& search,
                   long long* /*count*/) {
  ZELTA_TRY(checkIndex(table, search.index));
  switch (kindOf(table, search.index)) {
    case CZELTA::BPlusTree:
      // Without its results there is no list search left to narrow down.
      if (!followsListSearch(table) || (search.mode & CZELTA::SearchKeepResults) == 0) {
        return wrongKind(table, search.index);
      }
      break;
    case CZELTA::SpatialTree:
    case CZELTA::TemporalTree:
      return searchTree(table, search.index, search.key);
    case CZELTA::AsciiList:
    case CZELTA::WideList:
      break;
    default:
      return wrongKind(table, search.index);
  }
  if (search.expression == nullptr) {
    return reportError(&table.metaData, Own::parameter, table.cName());
  }
  return unavailable(table.metaData);
}

Result searchIndex(const Session& /*session*/, Table& table, const ShapeSearch& search,
                   long long* /*count*/) {
  ZELTA_TRY(checkIndex(table, search.index));
  switch (kindOf(table, search.index)) {
    case CZELTA::SpatialTree:
    case CZELTA::TemporalTree:
      return searchTree(table, search.index, search.key);
    case CZELTA::SpatialPattern:
      if (search.key == nullptr) return reportError(&table.metaData, Own::parameter, table.cName());
      return unavailable(table.metaData);
    default:
      return wrongKind(table, search.index);
  }
}

}  // namespace zelta

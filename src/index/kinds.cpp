#include "index/kinds.h"

#include "czelta.h"
#include "index/bplus_tree.h"
#include "storage/table.h"

namespace zelta {

namespace {

/// The answer for an index whose kind has no functions here.
Result unservedKind(MetaData& metaData, const Table& table, std::uint32_t index) {
  const auto kind = static_cast<std::uint32_t>(table.index(index).indexKind);
  if (kind > CZELTA::SpatialPattern) {
    return reportError(&metaData, Own::indexKind, table.cName(), nullptr, kind, index);
  }
  return reportError(&metaData, Own::context, table.cName());
}

bool isTree(const Table& table, std::uint32_t index) {
  return table.index(index).indexKind == CZELTA::BPlusTree;
}

}  // namespace

Result checkIndexKinds(MetaData& metaData, const Table& table) {
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    if (!isTree(table, i)) return unservedKind(metaData, table, i);
  }
  return {};
}

Result insertEntry(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                   std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID) {
  if (!isTree(table, index)) return unservedKind(metaData, table, index);
  return bplusInsert(metaData, table, file, manager, index, key, objectID);
}

Result removeEntry(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                   std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID) {
  if (!isTree(table, index)) return unservedKind(metaData, table, index);
  return bplusRemove(metaData, table, file, manager, index, key, objectID);
}

bool hasUniqueKeys(const Table& table, std::uint32_t index) { return isTree(table, index); }

Result findHolder(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                  std::uint32_t index, const std::uint32_t* key, std::uint64_t* objectID) {
  if (!isTree(table, index)) return unservedKind(metaData, table, index);
  return bplusFind(metaData, table, file, manager, index, key, objectID);
}

Result replaceHolder(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                     std::uint32_t index, const std::uint32_t* key, std::uint64_t oldID,
                     std::uint64_t newID) {
  if (!isTree(table, index)) return unservedKind(metaData, table, index);
  return bplusReplaceId(metaData, table, file, manager, index, key, oldID, newID);
}

Result holdsEntry(MetaData& metaData, Table& table, const TreeFile& file, AtomicManager& manager,
                  std::uint32_t index, const std::uint32_t* key, std::uint64_t objectID,
                  bool* holds) {
  *holds = false;
  std::uint64_t holder = 0;
  const Result result = findHolder(metaData, table, file, manager, index, key, &holder);
  if (result.is(Own::keyNotFound)) return {};
  *holds = holder == objectID;
  return result;
}

Result mergeEntries(MetaData& metaData, Table& table, const TreeFile* committed,
                    std::uint32_t memoryPageSize, AtomicManager& manager, std::uint32_t index,
                    UInt64AVLTree* committedA, UInt64AVLTree* committedB) {
  if (!isTree(table, index)) return unservedKind(metaData, table, index);
  return bplusMerge(metaData, table, committed, memoryPageSize, manager, index, committedA,
                    committedB);
}

}  // namespace zelta

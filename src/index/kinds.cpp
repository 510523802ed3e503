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

bool isTree(const IndexTree& tree) { return isTree(tree.table(), tree.index()); }

Result unservedKind(const IndexTree& tree) {
  return unservedKind(tree.metaData(), tree.table(), tree.index());
}

}  // namespace

Result checkIndexKinds(MetaData& metaData, const Table& table) {
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    if (!isTree(table, i)) return unservedKind(metaData, table, i);
  }
  return {};
}

Result insertEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  if (!isTree(tree)) return unservedKind(tree);
  return bplusInsert(tree, key, objectID);
}

Result removeEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  if (!isTree(tree)) return unservedKind(tree);
  return bplusRemove(tree, key, objectID);
}

bool hasUniqueKeys(const Table& table, std::uint32_t index) { return isTree(table, index); }

Result findHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID) {
  if (!isTree(tree)) return unservedKind(tree);
  return bplusFind(tree, key, objectID);
}

Result replaceHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                     std::uint64_t newID) {
  if (!isTree(tree)) return unservedKind(tree);
  return bplusReplaceID(tree, key, oldID, newID);
}

Result holdsEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                  bool* holds) {
  *holds = false;
  std::uint64_t holder = 0;
  const Result result = findHolder(tree, key, &holder);
  if (result.is(Own::keyNotFound)) return {};
  *holds = holder == objectID;
  return result;
}

Result mergeEntries(const IndexTree& pending, const ObjectSets& objects,
                    const IndexTree* committed) {
  if (!isTree(pending)) return unservedKind(pending);
  return bplusMerge(pending, objects, committed);
}

Result dropPendingKeys(AtomicManager& manager, const ObjectSets& objects) {
  for (std::uint32_t i = 0; i < manager.indexCount; ++i) {
    const IndexTree pending(manager, PageFile::memory, i);
    if (manager.table.listKind(i) || pending.root() == 0) continue;
    ZELTA_TRY(mergeEntries(pending, objects, nullptr));
  }
  return {};
}

}  // namespace zelta

#include "index/kinds.h"

#include <cassert>

#include "czelta.h"
#include "index/btree/btree.h"
#include "storage/table.h"

namespace zelta {

namespace {

/// A kind is of one of the two families: the other pointer is null.
struct Kind {
  CZELTA::IndexKind number;
  const KeyKind* keys;
  const ContentKind* contents;
};

/// All kinds that there are.
constexpr Kind kKinds[] = {
    {CZELTA::BPlusTree, &kBPlusTree, nullptr},
};

constexpr Kind kNoKind = {CZELTA::BPlusTree, nullptr, nullptr};

const Kind& kindOf(const Table& table, std::uint32_t index) {
  for (const Kind& kind : kKinds) {
    if (table.index(index).indexKind == kind.number) return kind;
  }
  return kNoKind;
}

const KeyKind* keyKindOf(const IndexTree& tree) { return kindOf(tree.table(), tree.index()).keys; }

/// The answer for an index whose kind is not among them, or has no keys.
Result unservedKind(const Table& table, std::uint32_t index) {
  const auto kind = static_cast<std::uint32_t>(table.index(index).indexKind);
  if (kind > CZELTA::SpatialPattern) {
    return reportError(&table.metaData, Own::indexKind, table.cName(), nullptr, kind, index);
  }
  return reportError(&table.metaData, Own::context, table.cName());
}

Result unservedKind(const IndexTree& tree) { return unservedKind(tree.table(), tree.index()); }

}  // namespace

Result checkIndexKinds(const Table& table) {
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    const Kind& kind = kindOf(table, i);
    if (kind.keys == nullptr && kind.contents == nullptr) return unservedKind(table, i);
  }
  return {};
}

const ContentKind* contentKind(const Table& table, std::uint32_t index) {
  return kindOf(table, index).contents;
}

Result insertEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  const KeyKind* kind = keyKindOf(tree);
  return kind == nullptr ? unservedKind(tree) : kind->insert(tree, key, objectID);
}

Result removeEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  const KeyKind* kind = keyKindOf(tree);
  return kind == nullptr ? unservedKind(tree) : kind->remove(tree, key, objectID);
}

bool hasUniqueKeys(const Table& table, std::uint32_t index) {
  const KeyKind* kind = kindOf(table, index).keys;
  return kind != nullptr && kind->hasUniqueKeys();
}

Result findHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID) {
  const KeyKind* kind = keyKindOf(tree);
  if (kind == nullptr) return unservedKind(tree);
  assert(kind->hasUniqueKeys());
  return kind->find(tree, key, objectID);
}

Result replaceHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                     std::uint64_t newID) {
  const KeyKind* kind = keyKindOf(tree);
  if (kind == nullptr) return unservedKind(tree);
  assert(kind->hasUniqueKeys());
  return kind->replaceID(tree, key, oldID, newID);
}

Result holdsEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                  bool* holds) {
  *holds = false;
  const KeyKind* kind = keyKindOf(tree);
  return kind == nullptr ? unservedKind(tree) : kind->holds(tree, key, objectID, holds);
}

Result mergeEntries(const IndexTree& pending, const ObjectSets& objects,
                    const IndexTree* committed) {
  const KeyKind* kind = keyKindOf(pending);
  return kind == nullptr ? unservedKind(pending) : kind->merge(pending, objects, committed);
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

#include "index/kinds.h"

#include <cassert>
#include <cstddef>
#include <utility>

#include "czelta.h"
#include "index/btree/btree.h"
#include "index/keys/extent_keys.h"
#include "index/keys/segment_keys.h"
#include "index/pattern/pattern.h"
#include "index/rtree/extent_kinds.h"
#include "index/search/key_search.h"
#include "index/words/lists.h"
#include "schema/index_traits.h"
#include "storage/table.h"

namespace zelta {

namespace {

/// One kind: which searches it takes, how its keys are made, if it has any, and its functions,
/// which are those of one of the two families.
struct Kind {
  CZELTA::IndexKind number;
  SearchForms search;
  const KeyMaker* maker = nullptr;
  const KeyKind* keys = nullptr;
  const ContentKind* contents = nullptr;
  /// Makes a search. Null: by KeyKind::search().
  Result (*prepare)(Table& table, const SearchQuery& query,
                    std::unique_ptr<IndexSearch>* search) = nullptr;
};

constexpr SearchForms kNarrowing = {true, false, SearchForms::Given::expression, true};
constexpr SearchForms kByExtent = {true, true, SearchForms::Given::key};
constexpr SearchForms kByWords = {true, false, SearchForms::Given::expression};
constexpr SearchForms kByPoints = {false, true, SearchForms::Given::key};

/// All kinds, each at its number.
constexpr Kind kKinds[] = {
    {CZELTA::BPlusTree, kNarrowing, &kSegmentKeys, &kBPlusTree, nullptr, prepareKeyTextSearch},
    {CZELTA::SpatialTree, kByExtent, &kBoxKeys, &kSpatialTree},
    {CZELTA::AsciiList, kByWords, nullptr, nullptr, &kAsciiList, prepareAsciiSearch},
    {CZELTA::WideList, kByWords, nullptr, nullptr, &kWideList, prepareWideSearch},
    {CZELTA::TemporalTree, kByExtent, &kSpanKeys, &kTemporalTree},
    {CZELTA::SpatialPattern, kByPoints, nullptr, nullptr, &kSpatialPattern, preparePatternSearch},
};
constexpr std::size_t kKindCount = sizeof(kKinds) / sizeof(kKinds[0]);

static_assert(kKindCount == kIndexKinds && [] {
  for (std::size_t i = 0; i < kKindCount; ++i) {
    if (kKinds[i].number != i) return false;
  }
  return true;
}());

bool isKnown(std::uint32_t number) { return number < kKindCount; }

const Kind& kindOf(const Table& table, std::uint32_t index) {
  const std::uint32_t number = table.index(index).indexKind;
  assert(isKnown(number));
  return kKinds[number];
}

/// Of an index with keys.
const KeyKind& keyKindOf(const IndexTree& tree) {
  const Kind& kind = kindOf(tree.table(), tree.index());
  assert(kind.keys != nullptr);
  return *kind.keys;
}

}  // namespace

Result checkIndexKinds(const Table& table) {
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    const std::uint32_t number = table.index(i).indexKind;
    if (isKnown(number)) continue;
    return reportError(&table.metaData, Own::indexKind, table.cName(), nullptr, number, i);
  }
  return {};
}

Result checkContents(const Table& table, const ObjectBytes& object) {
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    const ContentKind* kind = contentKind(table, i);
    if (kind != nullptr && kind->check != nullptr) ZELTA_TRY(kind->check(table, i, object));
  }
  return {};
}

const KeyMaker* keyMaker(const Table& table, std::uint32_t index) {
  return kindOf(table, index).maker;
}

const ContentKind* contentKind(const Table& table, std::uint32_t index) {
  return kindOf(table, index).contents;
}

const SearchForms* searchForms(const Table& table, std::uint32_t index) {
  return isKnown(table.index(index).indexKind) ? &kindOf(table, index).search : nullptr;
}

Result prepareSearch(Table& table, const SearchQuery& query, std::unique_ptr<IndexSearch>* search) {
  const std::uint32_t index = query.index - 1;
  const Kind& kind = kindOf(table, index);
  if (kind.prepare != nullptr) return kind.prepare(table, query, search);
  assert(kind.keys != nullptr && kind.keys->search != nullptr);
  auto byKey = std::make_unique<KeySearch>(table, index, *kind.keys);
  ZELTA_TRY(byKey->takeKey(query.key));
  *search = std::move(byKey);
  return {};
}

Result insertEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  return keyKindOf(tree).insert(tree, key, objectID);
}

Result removeEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  return keyKindOf(tree).remove(tree, key, objectID);
}

bool hasUniqueKeys(const Table& table, std::uint32_t index) {
  const KeyKind* kind = kindOf(table, index).keys;
  return kind != nullptr && kind->hasUniqueKeys();
}

Result findHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID) {
  assert(hasUniqueKeys(tree.table(), tree.index()));
  return keyKindOf(tree).find(tree, key, objectID);
}

Result replaceHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                     std::uint64_t newID) {
  assert(hasUniqueKeys(tree.table(), tree.index()));
  return keyKindOf(tree).replaceID(tree, key, oldID, newID);
}

Result countEntries(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                    std::uint32_t* count) {
  *count = 0;
  return keyKindOf(tree).count(tree, key, objectID, count);
}

Result mergeEntries(const IndexTree& pending, const ObjectSets& objects,
                    const IndexTree* committed) {
  assert(committed == nullptr || committed->index() == pending.index());
  return keyKindOf(pending).merge(pending, objects, committed);
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

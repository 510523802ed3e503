// The kinds of index, reached through one dispatch by `indexKind`: the layers above call these
// functions and never a kind's own. kind.h says what each has to do, and what must hold when it is
// called.

#ifndef ZELTA_INDEX_KINDS_H
#define ZELTA_INDEX_KINDS_H

#include <cstdint>
#include <memory>

#include "index/kind.h"
#include "index/search/search_query.h"
#include "index/tree/index_tree.h"

namespace zelta {

/// Own error 19 for an index of no known kind. Asked before the first object is touched; the
/// functions below, but for searchForms(), rely on it.
Result checkIndexKinds(const Table& table);

/// Whether all indexes that follow contents can follow an object that is to be stored: else the code
/// that its commit would fail with.
Result checkContents(const Table& table, const ObjectBytes& object);

/// How keys of an index (from 0) are made; null: it has none.
[[nodiscard]] const KeyMaker* keyMaker(const Table& table, std::uint32_t index);

/// The functions of an index (from 0) that follows the contents of objects; null: it has keys.
[[nodiscard]] const ContentKind* contentKind(const Table& table, std::uint32_t index);

// -- Searches -------------------------------------------------------------------------------------

/// Which searches an index (from 0) takes; null: its kind is not known.
[[nodiscard]] const SearchForms* searchForms(const Table& table, std::uint32_t index);
/// Makes a search out of a query that was checked. What the query points at is not needed after it.
Result prepareSearch(Table& table, const SearchQuery& query, std::unique_ptr<IndexSearch>* search);

// -- Indexes with keys ----------------------------------------------------------------------------

/// Enters a key of an object in an index's tree in one of the two files.
Result insertEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);
/// Takes a key of an object out.
Result removeEntry(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID);
/// Whether no two objects can have one key in the index.
[[nodiscard]] bool hasUniqueKeys(const Table& table, std::uint32_t index);
/// Who has a key in an index with unique keys. Own code 32, without a text: nobody.
Result findHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t* objectID);
/// Gives a key in an index with unique keys to another object.
Result replaceHolder(const IndexTree& tree, const std::uint32_t* key, std::uint64_t oldID,
                     std::uint64_t newID);
/// How many entries of this key a tree has for this object.
Result countEntries(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID,
                    std::uint32_t* count);
/// Moves the pending keys of objects into the committed tree; with `committed` null they are only
/// dropped.
Result mergeEntries(const IndexTree& pending, const ObjectSets& objects,
                    const IndexTree* committed);
/// Takes the pending keys of objects out of all trees of the memory file. The pages are flushed by
/// whoever removes the objects.
Result dropPendingKeys(AtomicManager& manager, const ObjectSets& objects);

}  // namespace zelta

#endif  // ZELTA_INDEX_KINDS_H

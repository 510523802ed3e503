#include "index/search/key_search.h"

namespace zelta {

EntryFilter::EntryFilter(const Table& table, PageFile file, std::uint32_t index,
                         FoundObjects& found)
    : table_(table),
      removed_(table.indexStates[index].removedKeys),
      shape_(table.keyShape(index)),
      pending_(file == PageFile::memory),
      found_(found) {}

Result KeySearch::takeKey(const void* values) {
  std::uint32_t* made = nullptr;
  ZELTA_TRY(buildSearchKey(table_, index_, values, &made));
  key_.take(table_.keyPool(index_), table_.keyShape(index_), made);
  return {};
}

Result KeySearch::run(AtomicManager& manager, FoundObjects& found) {
  const bool hasPending = table_.addedObjects != nullptr || table_.editedObjects != nullptr;
  for (const PageFile file : {PageFile::index, PageFile::memory}) {
    const IndexTree tree(manager, file, index_);
    if (tree.root() == 0 || (file == PageFile::memory && !hasPending)) continue;
    EntryFilter filter(table_, file, index_, found);
    ZELTA_TRY(kind_.search(tree, key_.get(), filter));
  }
  return {};
}

}  // namespace zelta

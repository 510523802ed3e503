// The search of a kind with keys: by one key, in the committed tree and in the pending one.

#ifndef ZELTA_INDEX_SEARCH_KEY_SEARCH_H
#define ZELTA_INDEX_SEARCH_KEY_SEARCH_H

#include <cassert>
#include <cstdint>

#include "index/kind.h"
#include "storage/table.h"
#include "storage/trees/key_pool.h"

namespace zelta {

/// Takes the entries of one tree that match, and keeps those that count for the running
/// transaction.
class EntryFilter {
 public:
  /// `index` counts from 0. The table and `found` outlive the filter.
  EntryFilter(const Table& table, PageFile file, std::uint32_t index, FoundObjects& found);

  void take(const std::uint32_t* key, std::uint64_t objectID) {
    // The memory file has entries of other transactions as well.
    if (pending_ ? table_.hasPending(objectID) : !isRemoved(key)) found_.add(objectID);
  }

 private:
  /// By the key alone: other objects that have it too are passed over with the one that gave it up.
  [[nodiscard]] bool isRemoved(const std::uint32_t* key) const {
    return removed_ != nullptr && find(removed_, shape_, key, 0) != nullptr;
  }

  const Table& table_;
  ObjectKeyNode* removed_;
  const KeyShape shape_;
  const bool pending_;
  FoundObjects& found_;
};

class KeySearch final : public IndexSearch {
 public:
  /// `index` counts from 0. The kind is searched by keys.
  KeySearch(Table& table, std::uint32_t index, const KeyKind& kind)
      : table_(table), index_(index), kind_(kind) {
    assert(kind.search != nullptr);
  }
  /// Makes the key out of what the caller of a search packs. Before run().
  Result takeKey(const void* values);
  Result run(AtomicManager& manager, FoundObjects& found) override;

 private:
  Table& table_;
  const std::uint32_t index_;
  const KeyKind& kind_;
  PooledKey key_;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_SEARCH_KEY_SEARCH_H

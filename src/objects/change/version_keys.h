// The keys of one version of an object, and what differs between two of them. An operation plans
// from the difference (key_changes.h), a replay brings it straight into the committed trees.

#ifndef ZELTA_OBJECTS_CHANGE_VERSION_KEYS_H
#define ZELTA_OBJECTS_CHANGE_VERSION_KEYS_H

#include <cstdint>
#include <utility>

#include "objects/current_keys.h"
#include "objects/small_vector.h"
#include "storage/paged/atomic_manager.h"
#include "storage/table.h"

namespace zelta {

/// All keys of a version but those of lists, in the order of the indexes, and within an index in
/// their own. They go back to the pools at the end.
class VersionKeys {
 public:
  struct Entry {
    std::uint32_t* key;
    std::uint32_t index;
    /// Gives the key up to whoever keeps it from now on.
    [[nodiscard]] std::uint32_t* release() { return std::exchange(key, nullptr); }
  };

  VersionKeys(Table& table) : metaData_(table.metaData), table_(table) {}
  ~VersionKeys() { clear(); }
  VersionKeys(const VersionKeys&) = delete;
  VersionKeys& operator=(const VersionKeys&) = delete;

  /// Makes the keys in place of those that are there. Own code 59: an index that has one key for
  /// each object gets none.
  Result make(ObjectBytes object);
  /// Gives all keys back.
  void clear();

  [[nodiscard]] Entry* begin() { return entries_.begin(); }
  [[nodiscard]] Entry* end() { return entries_.end(); }
  [[nodiscard]] std::size_t size() const { return entries_.size(); }
  /// How many entries have the index and the key of this one.
  [[nodiscard]] std::uint32_t countEqual(const Entry& entry);

 private:
  Result makeIndex(std::uint32_t index, ObjectBytes object);

  MetaData& metaData_;
  Table& table_;
  SmallVector<Entry> entries_;
};

/// The order of entries in VersionKeys: -1, 0 or 1.
[[nodiscard]] int compareEntries(const Table& table, const VersionKeys::Entry& a,
                                 const VersionKeys::Entry& b);

/// Hands each key that only one of two versions has to `use(Entry&, bool isNew)`, in their order,
/// until that fails. A key that both have pairs off.
template <typename Use>
Result forKeyDifferences(const Table& table, VersionKeys& before, VersionKeys& after, Use use) {
  VersionKeys::Entry* gone = before.begin();
  VersionKeys::Entry* fresh = after.begin();
  while (gone != before.end() || fresh != after.end()) {
    int sign = 0;
    if (gone == before.end()) {
      sign = 1;
    } else if (fresh == after.end()) {
      sign = -1;
    } else {
      sign = compareEntries(table, *gone, *fresh);
    }
    if (sign == 0) {
      ++gone;
      ++fresh;
    } else if (sign < 0) {
      ZELTA_TRY(use(*gone++, false));
    } else {
      ZELTA_TRY(use(*fresh++, true));
    }
  }
  return {};
}

/// Whether two versions have the same keys.
[[nodiscard]] bool sameKeys(const Table& table, VersionKeys& a, VersionKeys& b);

/// Brings the committed trees from the keys of one version of an object to those of another: takes
/// out what only `before` has, enters what only `after` has, index by index. Either may be empty.
/// What was done before stays so, and a key that another object of the same commit has given up is
/// taken over from it if no two objects can have it. Lists are left alone.
Result exchangeKeys(AtomicManager& manager, std::uint64_t objectID, ObjectBytes before,
                    ObjectBytes after);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_VERSION_KEYS_H

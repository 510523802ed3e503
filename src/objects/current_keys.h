// The keys of the object read last, from which walks through indexes go on: a read of the next
// object by an index is a step from the current object's key there.
//
// Most operations never ask for them, so a copy of the object is kept (Table::keySource), and a key
// is made from it when it is first wanted (IndexCursor::currentKey). Keys and copy always are of
// one version; Table::currentObjectID says whether the table still has the object as its current
// one.

#ifndef ZELTA_OBJECTS_CURRENT_KEYS_H
#define ZELTA_OBJECTS_CURRENT_KEYS_H

#include <cstdint>
#include <utility>

#include "objects/small_vector.h"
#include "schema/record_reader.h"
#include "storage/table.h"

namespace zelta {

/// How the object in the buffer was found: by which key of which index (from 0).
struct MatchedKey {
  std::uint32_t index = 0;
  PooledKey* key = nullptr;  ///< null: not by a key; else it is taken over
};

/// Makes the object whose ID is `objectID` the one that the cursors stand on. A copy of this
/// version of it is kept, and a key is made when a walk needs it. `*entry` (may be null) receives
/// the number of the entry whose key matched. After a failure the cursors stand on nothing.
Result refreshCurrentKeys(Table& table, std::uint64_t objectID, ObjectBytes object,
                          MatchedKey matched, std::uint32_t* entry);

/// For an operation that may still fail: gives the cursors the keys of another version of the
/// object that they stand on. They get those of the version before back at the end of the scope,
/// unless the change is kept.
class CurrentKeysChange {
 public:
  explicit CurrentKeysChange(Table& table) : table_(table) {}
  ~CurrentKeysChange();
  CurrentKeysChange(const CurrentKeysChange&) = delete;
  CurrentKeysChange& operator=(const CurrentKeysChange&) = delete;

  /// In an index with many entries for an object a cursor stays at its key if the object still has
  /// it.
  Result make(std::uint64_t objectID, ObjectBytes object);
  /// The change stands. Cannot fail, so that it may follow the write that decides.
  void keep() noexcept { kept_ = true; }

 private:
  /// Where a cursor stood.
  struct Place {
    std::uint32_t* key;
    ObjectKeyNode* keys;
    std::uint32_t index;
  };
  /// Moves what the cursors have to this object, and back.
  void takeOut();
  void putBack() noexcept;

  Table& table_;
  SmallVector<Place> places_;       ///< of all cursors, as they stood before
  std::uint32_t sourceLength_ = 0;  ///< the copy itself waits in Table::otherKeySource
  std::uint64_t sourceID_ = 0;
  bool made_ = false;
  bool kept_ = false;
};

/// The key in an index (from 0) of the object that the cursors stand on; null if it has none, or if
/// they stand on none. The key belongs to the cursor and is good until the cursors move. They keep
/// their place when the object is given up but not replaced.
Result currentKey(Table& table, std::uint32_t index, const std::uint32_t** key);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CURRENT_KEYS_H

// The object map of a memory file: a B+Tree from object ID to the pending version of an object,
// with the entries of all running transactions. This is the reading side; memory_file_store.h and
// memory_file_remove.h change the map, memory_file_pages.h has what they share.
//
// Invariants: IDs ascend within a leaf and from leaf to leaf, and no ID is there twice, so that no
// two transactions have one object pending; leaves are linked in both directions and never empty;
// an inner page has one child more than keys. A root of 0 is the empty map. All functions need the
// manager attached to the memory file, under the table's mutex; a map that contradicts this is own
// code 58.

#ifndef ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_MAP_H
#define ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_MAP_H

#include <cstddef>
#include <cstdint>

#include "frame/metadata.h"
#include "storage/trees/avl_tree.h"

namespace zelta {

class AtomicManager;

/// Pages of the object map: their size, their kinds, and how much they hold.
inline constexpr std::uint32_t kMapPageSize = 2040;
inline constexpr std::uint16_t kMapLeafKind = 27753;
inline constexpr std::uint16_t kMapInnerKind = 28265;
inline constexpr std::uint32_t kMapLeafEntries = 84;
inline constexpr std::uint32_t kMapInnerKeys = 126;

struct MapLeaf_tag {
  std::uint32_t size;                           ///< kMapPageSize
  std::uint16_t kind;                           ///< kMapLeafKind
  std::uint16_t count;                          ///< entries in use
  std::uint64_t previous;                       ///< position of the leaf before, 0 at the start
  std::uint64_t next;                           ///< position of the leaf behind, 0 at the end
  std::uint64_t objectIDs[kMapLeafEntries];     ///< ascending
  std::uint32_t transactions[kMapLeafEntries];  ///< who wrote the entry
  std::uint32_t lengths[kMapLeafEntries];       ///< bytes of the object
  std::uint64_t positions[kMapLeafEntries];     ///< of the object's record in this file
};
static_assert(sizeof(MapLeaf_tag) == kMapPageSize);
static_assert(offsetof(MapLeaf_tag, objectIDs) == 24);
static_assert(offsetof(MapLeaf_tag, transactions) == 696);
static_assert(offsetof(MapLeaf_tag, lengths) == 1032);
static_assert(offsetof(MapLeaf_tag, positions) == 1368);

struct MapInner_tag {
  std::uint32_t size;                         ///< kMapPageSize
  std::uint16_t kind;                         ///< kMapInnerKind
  std::uint16_t count;                        ///< keys in use
  std::uint32_t reserved[2];                  ///< unused
  std::uint64_t keys[kMapInnerKeys];          ///< ascending
  std::uint64_t children[kMapInnerKeys + 1];  ///< child i holds the IDs below key i
};
static_assert(sizeof(MapInner_tag) == kMapPageSize);
static_assert(offsetof(MapInner_tag, keys) == 16);
static_assert(offsetof(MapInner_tag, children) == 1024);

/// An entry of the object map. The record at `position` is a 32-bit word with its block's size,
/// then the object's `length` bytes.
struct PendingObject {
  std::uint64_t objectID = 0;
  std::uint64_t position = 0;
  std::uint32_t length = 0;
  std::uint32_t transaction = 0;
};

/// Bytes of an object's image in the log, as they are counted in Table::pendingBytes.
[[nodiscard]] constexpr std::uint64_t pendingImageBytes(std::uint32_t length) {
  return (std::uint64_t{length} + 7) & ~std::uint64_t{3};
}

/// Looks an ID up in the map, whatever transaction has it. `*found` false leaves `out` alone.
Result findPendingObject(AtomicManager& manager, std::uint64_t objectID, PendingObject* out,
                         bool* found);

/// The greatest ID in the map; 0 for an empty one.
Result lastPendingID(AtomicManager& manager, std::uint64_t* objectID);

/// Collects the IDs of a transaction's entries, so that its keys can be taken out before it is
/// removed. `*sole` (may be null): no other transaction has an entry. With `ids` null only that is
/// asked, and the walk ends once it is known.
Result collectTransaction(AtomicManager& manager, std::uint32_t number, UInt64AVLTree** ids,
                          bool* sole);

/// A walk over the entries of the map in ascending order of ID. It holds a copy of one leaf, so
/// that the manager may be used meanwhile, as long as the map is not changed.
class PendingObjectWalk {
 public:
  explicit PendingObjectWalk(AtomicManager& manager) : manager_(manager) {}
  PendingObjectWalk(const PendingObjectWalk&) = delete;
  PendingObjectWalk& operator=(const PendingObjectWalk&) = delete;

  /// The next entry; `*found` false at the end.
  Result next(PendingObject* out, bool* found);

 private:
  Result firstLeaf();
  Result takeLeaf(std::uint64_t position);

  AtomicManager& manager_;
  MapLeaf_tag leaf_{};
  std::uint32_t index_ = 0;
  std::uint64_t lastID_ = 0;
  bool started_ = false;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_MAP_H

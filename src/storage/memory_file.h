// The memory file of a table: everything that running transactions have changed and not yet
// committed, where all processes can see it. A header with the roots, the object map (a B+Tree from
// object ID to pending version), the pending key trees of the indexes, and the records of pending
// objects. Read and written only under the table's mutex.
//
// Every change goes through a journal behind the end of the file, so that a process may die at any
// point: the next one finds the state before or after. Nothing is flushed to the disk, as a
// committed transaction is safe in the log, and an uncommitted one ends with the machine.

#ifndef ZELTA_STORAGE_MEMORY_FILE_H
#define ZELTA_STORAGE_MEMORY_FILE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "frame/metadata.h"
#include "storage/avl_tree.h"

namespace zelta {

class AtomicManager;
class Table;

/// The part of the header that does not depend on the count n of indexes. Behind it lie the n + 1
/// roots that a standing journal brings, then the n + 1 roots in use: 0 the object map, i + 1 the
/// pending keys of index i.
struct MemoryFileHeader_tag {
  char magic[4];                  ///< "ZELM"
  std::uint16_t majorVersion;     ///< 1
  std::uint16_t minorVersion;     ///< 1
  std::uint32_t indexCount;       ///< n
  std::uint32_t pageSize;         ///< a power of two
  std::uint64_t freeHead;         ///< head of the free-space chain
  std::uint64_t endOfFile;        ///< end of the used file
  std::uint64_t journalBase;      ///< `endOfFile` when the journal was written
  std::uint64_t journalEnd;       ///< position just behind the journal
  std::uint64_t newEndOfFile;     ///< `endOfFile` after the journal; not 0: a journal stands
  std::uint64_t journalChecksum;  ///< over the fields below, the new roots and the journal
  std::uint64_t newFreeHead;      ///< `freeHead` after the journal
  std::uint32_t pageEntryCount;   ///< page images in the journal
  std::uint32_t freeEntryCount;   ///< free-block entries in the journal
};
static_assert(sizeof(MemoryFileHeader_tag) == 80);
static_assert(std::has_unique_object_representations_v<MemoryFileHeader_tag>);
static_assert(offsetof(MemoryFileHeader_tag, freeHead) == 16);
static_assert(offsetof(MemoryFileHeader_tag, journalBase) == 32);
static_assert(offsetof(MemoryFileHeader_tag, newFreeHead) == 64);

/// Bytes of the whole header of a table with n indexes.
[[nodiscard]] constexpr std::uint64_t memoryHeaderSize(std::uint32_t indexCount) {
  return sizeof(MemoryFileHeader_tag) + 16 * (std::uint64_t{indexCount} + 1);
}

/// Pages of the object map.
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

/// Opens the file if the table has not got it open, checks the header, finishes or drops a journal
/// that stands, and gives the roots to the manager. With `mayRecover` a missing or unfinished file
/// is made; without it a missing file and a standing journal are the Windows code 5.
Result readMemoryFileHeader(Table& table, MemoryFileHeader_tag& header, AtomicManager& manager,
                            bool mayRecover);

/// The same for a writer, whose manager then works on the memory file alone.
Result attachMemoryFile(Table& table, MemoryFileHeader_tag& header, AtomicManager& manager);

/// An object's record that reaches the file together with the pages.
struct MemoryRecord {
  const char* bytes = nullptr;  ///< the size word of the block, then the object
  std::uint64_t length = 0;     ///< of `bytes`; the rest of the block is filled with zeros
  std::uint64_t position = 0;
};

/// The atomic step: brings all changed memory pages, the free chain and the roots into the file, by
/// way of the journal, and drops the pages. `record` may be null. `truncate` cuts the file behind
/// its new end if that can be done.
Result flushMemoryPages(AtomicManager& manager, MemoryFileHeader_tag& header,
                        const MemoryRecord* record, bool truncate);

/// Puts an object of the running transaction into the map, or replaces its pending version, and
/// flushes. The four bytes ahead of `objectBytes` are overwritten. Keeps Table::pendingBytes. Own
/// error 59: another transaction has an entry for the ID.
Result storeObject(AtomicManager& manager, MemoryFileHeader_tag& header, Table& table,
                   char* objectBytes, std::uint32_t length, std::uint64_t objectID);

/// Takes an object out of the map and flushes. Keeps Table::pendingBytes. Own error 31: not there.
Result removeObject(AtomicManager& manager, MemoryFileHeader_tag& header, Table& table,
                    std::uint64_t objectID);

/// Takes all entries of a transaction out of the map and flushes, the pending key pages that were
/// changed before included. `*removedIDs` (may be null) receives their IDs. The file is cut back.
Result removeTransaction(AtomicManager& manager, MemoryFileHeader_tag& header, Table& table,
                         std::uint32_t number, UInt64AVLTree** removedIDs);

/// Looks an ID up in the map.
Result findPendingObject(AtomicManager& manager, std::uint64_t objectID, PendingObject* out,
                         bool* found);

/// The greatest ID in the map; 0 for an empty one.
Result lastPendingID(AtomicManager& manager, std::uint64_t* objectID);

/// Collects the IDs of a transaction's entries, so that its keys can be taken out before it is
/// removed. `*sole` (may be null): no other transaction has an entry.
Result collectTransaction(AtomicManager& manager, std::uint32_t number, UInt64AVLTree*& ids,
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

#endif  // ZELTA_STORAGE_MEMORY_FILE_H

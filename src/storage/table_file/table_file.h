// The table file: the committed objects of a table. A header, the stored schema, an array of
// 12-byte slots indexed by object ID, and the object area with records and free blocks.
//
// A slot leads to the object's record, or, if its ID is free, to the next free ID. Its last word
// has the number of the transaction whose commit is changing the object, and is where the object's
// lock lies. The file changes in commits alone, each by way of a journal: transaction/commit plans
// and writes them, table_recovery.h finishes what a dead one has left. This header has what both
// share with those who read: records' layouts, header, slots, object locks.
//
// Failures carry the table's name and the extension of the file. Damage is own code 55.

#ifndef ZELTA_STORAGE_TABLE_FILE_TABLE_FILE_H
#define ZELTA_STORAGE_TABLE_FILE_TABLE_FILE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "frame/metadata.h"
#include "storage/trees/avl_tree.h"

namespace zelta {

/// The header, at the beginning of the file. The last twelve fields are the intent of a commit:
/// zero while the file is at rest.
struct TableHeader_tag {
  char magic[4];               ///< "ZELT"
  std::uint16_t majorVersion;  ///< 1
  std::uint16_t minorVersion;  ///< 4
  std::uint32_t slotBase;      ///< slot of object n at slotBase + 12 n
  std::uint32_t schemaSize;    ///< bytes of the stored schema, which follows this header
  std::uint32_t headerSize;    ///< 6, or 10 with wide object IDs
  std::uint32_t fixedAreaSize;
  std::uint32_t minimumObjectSize;
  std::uint32_t defaultObjectSize;  ///< allocation unit
  std::uint64_t highestID;          ///< greatest ID in use
  std::uint64_t firstDeletedID;     ///< head of the list of free IDs, 0 for none
  std::uint64_t objectAreaStart;
  std::uint64_t freeHead;     ///< head of the free-space chain
  std::uint64_t endOfFile;    ///< end of the object area
  std::uint64_t journalBase;  ///< end of file when the journal was written; 0 once moves are done
  std::uint64_t journalEnd;
  std::uint64_t commitEnd;        ///< `endOfFile` after the commit; not 0: a commit is under way
  std::uint32_t journalChecksum;  ///< over the 64 bytes behind commitTransaction and the journal
  std::uint32_t commitTransaction;
  std::uint32_t freeEntryCount;
  std::uint32_t zero1;
  std::uint32_t editEntryCount;
  std::uint32_t zero2;
  std::uint64_t newObjectAreaStart;
  std::uint64_t newFreeHead;
  std::uint64_t oldSlotEnd;  ///< old highestID + 1
  std::uint64_t newHighestID;
  std::uint64_t newFirstDeletedID;
  std::uint64_t oldFirstDeletedID;
};
static_assert(sizeof(TableHeader_tag) == 168);
static_assert(std::has_unique_object_representations_v<TableHeader_tag>);
static_assert(offsetof(TableHeader_tag, highestID) == 32);
static_assert(offsetof(TableHeader_tag, journalBase) == 72);
static_assert(offsetof(TableHeader_tag, freeEntryCount) == 104);

/// A slot; 12 bytes in the file.
struct ObjectSlot {
  std::uint64_t position;     ///< of the record; or kFreeSlot and the next free ID
  std::uint32_t transaction;  ///< whose commit is still to be confirmed; place of the object's lock
  [[nodiscard]] bool isFree() const { return (position >> 63) != 0; }
  [[nodiscard]] std::uint64_t nextFree() const { return position & ~(std::uint64_t{1} << 63); }
};
inline constexpr std::uint32_t kObjectSlotSize = 12;
inline constexpr std::uint64_t kFreeSlot = std::uint64_t{1} << 63;
/// Version word of a record whose content is still to come from the log.
inline constexpr std::uint16_t kPlaceholderVersion = 0xFFFF;
/// Bytes ahead of the object in a variable table's record (size, length), and of the whole framing.
inline constexpr std::uint32_t kRecordHead = 8;
inline constexpr std::uint32_t kRecordFraming = 12;

/// An entry of the table's journal. Entries of kind moveObject come first, then those of all other
/// kinds, then the entries of the free chain.
enum class EditKind : std::uint32_t {
  moveObject = 9,
  replaceObject = 10,
  freeSlot = 11,
  newObject = 13
};
struct EditEntry_tag {
  EditKind kind;
  std::uint32_t newBlockSize;  ///< of the block at newPosition; 0: the old one is kept
  std::uint64_t objectID;
  std::uint64_t nextFreeID;   ///< freeSlot: the link. newObject: first ID of a gap
  std::uint64_t newPosition;  ///< 0: stays in place
  std::uint64_t
      oldPosition;  ///< present record. newObject: free ID whose link must lead to the gap
};
static_assert(sizeof(EditEntry_tag) == 40);

/// Reads and checks the header, and finishes or drops a commit that was cut off if `mayRecover`.
/// Called at the start of every operation on objects. Without `mayRecover` a commit under way is
/// waited for (bounded), then own code 5.
Result readTableHeader(MetaData& metaData, const char16_t* tableName, platform::File file,
                       TableHeader_tag& header, bool mayRecover);

/// Own code 55 if the file ends before the end that its header tells: what is written behind that
/// would leave a hole of any size. The caller owns the table's mutex.
Result requireWhole(MetaData& metaData, const char16_t* tableName, platform::File file,
                    const TableHeader_tag& header);

/// Failures of a table file, with its name and extension.
Result reportTable(MetaData& metaData, const char16_t* tableName, SystemCode failure);
Result reportDamagedTable(MetaData& metaData, const char16_t* tableName, std::int64_t i1,
                          std::int64_t i2);

/// Whether the numbers of a header at rest can be true.
[[nodiscard]] bool isPlausible(const TableHeader_tag& header);

[[nodiscard]] constexpr std::uint64_t slotPosition(std::uint32_t slotBase, std::uint64_t objectID) {
  return slotBase + kObjectSlotSize * objectID;
}
/// The lock of an object: the last 4 bytes of its slot.
[[nodiscard]] constexpr platform::LockWord objectLock(std::uint32_t slotBase,
                                                      std::uint64_t objectID) {
  return {slotPosition(slotBase, objectID) + 8, objectID};
}

/// Reads all 12 bytes; code 33, unreported, if another handle has the object locked.
[[nodiscard]] SystemCode readSlot(platform::File file, std::uint32_t slotBase,
                                  std::uint64_t objectID, ObjectSlot* slot);
/// Reads the position alone, locked or not; `transaction` is 0.
[[nodiscard]] SystemCode readSlotPosition(platform::File file, std::uint32_t slotBase,
                                          std::uint64_t objectID, ObjectSlot* slot);

/// Writes all 12 bytes of a slot. Nobody else may have the object locked.
Result writeSlotWhole(MetaData& metaData, const char16_t* tableName, platform::File file,
                      std::uint32_t slotBase, std::uint64_t objectID, const ObjectSlot& slot);

/// Object locks. 0 or the code of lockWord()/unlockWord().
[[nodiscard]] SystemCode lockObject(platform::File file, std::uint32_t slotBase,
                                    std::uint64_t objectID);
SystemCode unlockObject(platform::File file, std::uint32_t slotBase, std::uint64_t objectID);
/// Locks every object of the set, in ascending order of ID; stops at the first failure and undoes
/// what it did.
[[nodiscard]] SystemCode lockObjects(platform::File file, std::uint32_t slotBase,
                                     UInt64AVLTree* objects);
/// Unlocks every object of the set and destroys the nodes.
void unlockObjects(platform::File file, std::uint32_t slotBase, UInt64AVLTree*& objects);

/// Writes a transaction's number into the slots of a set, in ascending order. The caller has these
/// objects locked.
Result stampTransactions(MetaData& metaData, const char16_t* tableName, platform::File file,
                         std::uint32_t slotBase, UInt64AVLTree* objects, std::uint32_t transaction);

// -- Steps that commit and recovery share ---------------------------------------------------------

/// Applies an entry of kind moveObject: copies the record and points the slot at it.
Result applyMove(MetaData& metaData, const char16_t* tableName, platform::File file,
                 const TableHeader_tag& header, const EditEntry_tag& entry);
/// Applies the links of freeSlot and newObject entries (for newObject: the gap; not the object
/// itself).
Result applySlotLinks(MetaData& metaData, const char16_t* tableName, platform::File file,
                      const TableHeader_tag& header, const EditEntry_tag& entry);

}  // namespace zelta

#endif  // ZELTA_STORAGE_TABLE_FILE_TABLE_FILE_H

// What a commit changes in a table file: every object's place before and after, the list of free
// IDs, the free space. plan_execution.h carries a plan out. Planning is step 5.2 of a commit: it
// reads, and changes nothing on disk.

#ifndef ZELTA_TRANSACTION_COMMIT_EDIT_PLAN_H
#define ZELTA_TRANSACTION_COMMIT_EDIT_PLAN_H

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "storage/free_space/free_chain.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/table.h"
#include "storage/table_file/table_file.h"

namespace zelta {

/// An entry of the journal, and where the object's image lies.
struct Edit {
  EditEntry_tag entry;
  std::uint32_t length;         ///< of the pending object
  std::uint64_t imagePosition;  ///< in the memory file
  std::uint32_t keptSize = 0;   ///< of the block that a rewritten object keeps
};

/// The images of the transaction, in the order of their IDs.
struct PendingImages {
  std::vector<PendingObject> added;
  std::vector<PendingObject> edited;
};

/// The committed objects that the transaction takes out or gives new contents.
struct ChangedObjects {
  UInt64AVLTree* deleted = nullptr;
  UInt64AVLTree* edited = nullptr;
};

/// Made in this order: the size of the slot array, the list of free IDs, the places of records. In
/// a fixed table records lie side by side: holes are closed by moving the last records into them,
/// and a slot array that grows drives the first ones out. In a variable table records have blocks,
/// and free ones are chained.
///
/// Invariants: a move's source is no other entry's target, so that moves may be done again; a
/// record only ever gets a place that was free, lies behind the end, or was that of an object that
/// the commit deletes; the journal lies behind `allocatedEnd`. Under the table's mutex; own code 55
/// or 48 for a damaged file, 47 for a damaged list of free IDs.
class EditPlan {
 public:
  /// `changed` belongs to the caller and outlives the plan.
  EditPlan(Table& table, const TableHeader_tag& header, const ChangedObjects& changed)
      : freeSpace(table.metaData, table.tableFile, header.freeHead, header.defaultObjectSize),
        metaData_(table.metaData),
        table_(table),
        changed_(changed),
        old_(header),
        next(header) {}
  EditPlan(const EditPlan&) = delete;
  EditPlan& operator=(const EditPlan&) = delete;

  /// Makes the plan, once. The images are those of the transaction, which lie where the execution
  /// will read them.
  Result make(const PendingImages& images);

  /// A replay tells a slot that is in use among the free ones from a list with wrong links.
  bool replaying = false;

  // The result
  std::vector<Edit> moves;  ///< kind moveObject
  std::vector<Edit> edits;  ///< all others, freed slots first
  TableFreeChain freeSpace;

 private:
  MetaData& metaData_;
  Table& table_;
  ChangedObjects changed_;
  TableHeader_tag old_;

 public:
  /// The header after the commit: area, IDs, chain, end of file.
  TableHeader_tag next;
  /// End of the file with all allocations, before free space at its end was given up.
  std::uint64_t allocatedEnd = 0;

 private:
  // edit_plan.cpp
  Result placeSlotArea(std::uint64_t greatestAdded);
  Result lowerHighestID(std::uint64_t greatestAdded);
  void raiseArea(std::uint64_t greatestAdded);
  void lowerArea(std::uint64_t greatestAdded);
  [[nodiscard]] std::uint64_t areaStep() const;
  Result readPosition(std::uint64_t objectID, std::uint64_t* position);
  [[nodiscard]] bool isDeleted(std::uint64_t objectID) const;
  [[nodiscard]] bool isEdited(std::uint64_t objectID) const;
  // free_id_plan.cpp
  Result planFreeIDs(const PendingImages& images);
  Result nextFreeID(std::uint64_t id, std::uint64_t* next);
  // place_variable.cpp
  Result placeVariable(const PendingImages& images);
  Result clearTakenArea(std::map<std::uint64_t, std::uint64_t>& displaced);
  Result cutFreeSpace();
  Result allocate(std::uint64_t length, std::uint64_t* position, std::uint32_t* size);
  Result releaseRecord(std::uint64_t position);
  Result readBlock(std::uint64_t position, std::uint32_t head[2]);
  Result placeEdited(const PendingObject& image, bool displaced);
  // place_fixed.cpp
  Result placeFixed(const PendingImages& images);
  Result readRecordID(std::uint64_t position, std::uint64_t* objectID);
  std::uint64_t allocatePlace();
  Result closeHoles(std::map<std::uint64_t, std::uint64_t>& movedEdited);

  bool emptied_ = false;           ///< the table has no objects afterwards
  std::set<std::uint64_t> holes_;  ///< free places of a fixed table
  std::map<std::uint64_t, std::size_t>
      newObjects_;  ///< ID to place in `edits`, of those with a gap
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_EDIT_PLAN_H

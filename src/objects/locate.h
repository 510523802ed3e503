// Finding the object that a read means, and where its versions lie.

#ifndef ZELTA_OBJECTS_LOCATE_H
#define ZELTA_OBJECTS_LOCATE_H

#include <cstdint>
#include <memory>
#include <utility>

#include "czelta.h"
#include "objects/current_keys.h"
#include "objects/read_request.h"
#include "storage/atomic_manager.h"
#include "storage/paged_file.h"
#include "storage/table.h"
#include "storage/table_file.h"

namespace zelta {

/// A lock on an object that is given back unless it is kept.
class NewLock {
 public:
  NewLock() = default;
  ~NewLock() { giveBack(); }
  NewLock(const NewLock&) = delete;
  NewLock& operator=(const NewLock&) = delete;

  /// Once for each object of this class, or after giveBack().
  SystemCode take(Table& table, std::uint64_t objectID) {
    auto node = std::make_unique<UInt64AVLTree>();
    const SystemCode result = lockObject(table.tableFile, table.slotBase, objectID);
    if (result != 0) return result;
    node_ = std::move(node);
    table_ = &table;
    objectID_ = objectID;
    return 0;
  }
  void keep() {
    if (node_) insert(node_.release(), table_->lockedObjects, objectID_);
  }
  void giveBack() {
    if (!node_) return;
    node_.reset();
    unlockObject(table_->tableFile, table_->slotBase, objectID_);
  }

 private:
  Table* table_ = nullptr;
  std::unique_ptr<UInt64AVLTree> node_;  ///< null: nothing is locked
  std::uint64_t objectID_ = 0;
};

/// What was found.
struct Located {
  std::uint64_t objectID = 0;
  std::uint64_t tablePosition = 0;   ///< record of the committed version; 0: only pending
  std::uint64_t memoryPosition = 0;  ///< record of this transaction's pending version; 0: none
  std::uint32_t memoryLength = 0;
  std::uint32_t blocker = 0;      ///< another transaction that has left its mark on the object
  bool blockerHasEntry = false;   ///< the mark is an entry in the memory file
  bool locked = false;            ///< another handle has the object locked
  bool pendingElsewhere = false;  ///< the nearest key is pending in another transaction
  PooledKey key;                  ///< that led here
  NewLock newLock;                ///< on the object, unless this transaction had it before
};

/// The files of a table as a read needs them, opened and attached when they are.
class ReadFiles {
 public:
  ReadFiles(MetaData& metaData, Table& table) : manager(metaData, table) {}

  /// Opens the memory file (only writers have one) and with `withIndexes` the index file, and
  /// reads their headers.
  Result attach(const TableHeader_tag& header, bool writer, bool withIndexes);

  AtomicManager manager;
  MemoryFileHeader_tag memoryHeader{};
  IndexFileHeader_tag indexHeader{};
};

/// Finds the object. `files` is null for a reader that goes by object ID. Code 33: something is
/// locked, see `Located::locked`; nothing is reported for it.
Result locateObject(const ReadRequest& request, const TableHeader_tag& header, ReadFiles* files,
                    Located& out);

/// Finds both versions of an object that this transaction has locked, changed or added.
Result locateVersions(MetaData& metaData, Table& table, const TableHeader_tag& header,
                      AtomicManager& manager, std::uint64_t objectID, Located& out);

/// The roads of locateObject(). They fill `out` up to the object's slot.
Result walkIds(const ReadRequest& request, const TableHeader_tag& header, bool inverted,
               Located& out);
Result walkResults(const ReadRequest& request, const TableHeader_tag& header, Located& out);
Result walkTree(const ReadRequest& request, const TableHeader_tag& header, ReadFiles& files,
                Located& out);

/// What a slot says of an object.
enum class SlotState { inUse, free, locked };
/// Reads the slot of `out.objectID` and fills position, blocker and `locked`. An object in use is
/// locked then, which tells as much as to ask whether another one has it locked, and asks once. A
/// position that no record can have is own code 55. With ReadNoLock locks and blockers do not
/// count.
Result inspectSlot(const ReadRequest& request, const TableHeader_tag& header, Located& out,
                   SlotState* state);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_LOCATE_H

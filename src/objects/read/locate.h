// Finding the object that a read means, and where its versions lie. A request leads there by one of
// three ways: by ID, along the results of a search, or through the tree of an index. This finds
// and, for a writer, locks; object_access.h says what becomes of a pass that meets others,
// read_version.h reads the bytes.

#ifndef ZELTA_OBJECTS_READ_LOCATE_H
#define ZELTA_OBJECTS_READ_LOCATE_H

#include <cassert>
#include <cstdint>
#include <memory>
#include <utility>

#include "czelta.h"
#include "objects/current_keys.h"
#include "objects/read/read_request.h"
#include "objects/table_access.h"
#include "storage/memory_file/memory_file.h"
#include "storage/paged/atomic_manager.h"
#include "storage/paged/paged_file.h"
#include "storage/table.h"
#include "storage/table_file/table_file.h"

namespace zelta {

/// A lock on an object that is released unless it is kept: then it stays until the transaction ends
/// or lets it go, and the object is in Table::lockedObjects.
class NewLock {
 public:
  NewLock() = default;
  ~NewLock() { release(); }
  NewLock(const NewLock&) = delete;
  NewLock& operator=(const NewLock&) = delete;

  /// Once for each object of this class, or after release(). Code 33: another handle has it locked.
  SystemCode take(Table& table, std::uint64_t objectID) {
    assert(!node_);
    auto node = std::make_unique<UInt64AVLTree>();  // may throw, as long as nothing is locked
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
  void release() {
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
  std::uint64_t tablePosition = 0;  ///< record of the committed version; 0: only pending
  PendingObject pending;            ///< this transaction's pending version; position 0: none
  std::uint32_t blocker = 0;        ///< another transaction that has left its mark on the object
  bool blockerHasEntry = false;     ///< the mark is an entry in the memory file
  bool locked = false;              ///< another handle has the object locked
  bool pendingElsewhere = false;    ///< the nearest key is pending in another transaction
  PooledKey key;                    ///< that led here
  NewLock newLock;                  ///< on the object, unless this transaction had it before

  [[nodiscard]] bool isPending() const { return pending.position != 0; }
};

/// Finds the object. The access has its header; under the mutex its memory file is open, and for a
/// request by tree its index file. Code 33: something is locked, see `Located::locked`; nothing is
/// reported for it.
Result locateObject(const ReadRequest& request, TableAccess& access, Located& out);

/// Finds both versions of an object that this transaction has locked, changed or added. Under the
/// mutex, with the memory file open.
Result locateVersions(TableAccess& access, std::uint64_t objectID, Located& out);

/// What a slot says of an object.
enum class SlotState { inUse, free, locked };
/// Reads the slot of `out.objectID` and fills position, blocker and `locked`. An object in use is
/// locked then, which tells as much as to ask whether another one has it locked, and asks once. A
/// position that no record can have is own code 55. With ReadNoLock locks and blockers do not
/// count.
Result inspectSlot(const ReadRequest& request, const TableHeader_tag& header, Located& out,
                   SlotState* state);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_LOCATE_H

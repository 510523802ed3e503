// The files of a table as one operation works on them.
//
// A pass of an operation goes acquire() -> readHeader() -> openMemory(), openIndex() -> work ->
// release(), and leaves out what it does not need. All that is opened belongs to this pass: another
// one begins with acquire() and reads all headers anew, as others may have changed the files in
// between. Who opens a file under the mutex repairs what a dead process has left in it.

#ifndef ZELTA_OBJECTS_TABLE_ACCESS_H
#define ZELTA_OBJECTS_TABLE_ACCESS_H

#include <cassert>
#include <cstdint>
#include <optional>

#include "storage/memory_file/memory_file.h"
#include "storage/paged/atomic_manager.h"
#include "storage/paged/paged_file.h"
#include "storage/table.h"
#include "storage/table_file/table_file.h"

namespace zelta {

/// How long an operation on objects waits for a table's mutex.
inline constexpr std::uint32_t kTableMutexWait = 30000;  // ms

/// The mutex, the three headers and the page manager of one pass. A writer owns the mutex from
/// acquire() to release(); a reader never does, and reads table and index file as they are.
/// Whatever ends a pass early ends it with leave(), or with the destructor of the guard.
class TableAccess {
 public:
  explicit TableAccess(Table& tableIn)
      : metaData(tableIn.metaData), table(tableIn), mutex_(ownMutex_) {}
  /// Within a pass of the caller's, who owns the table's mutex by `owned` and releases it.
  TableAccess(Table& tableIn, TableMutexGuard& owned)
      : metaData(tableIn.metaData), table(tableIn), mutex_(owned) {
    assert(owned.held());
  }
  TableAccess(const TableAccess&) = delete;
  TableAccess& operator=(const TableAccess&) = delete;

  /// Waits for the table's mutex. Without it the files are open for reading alone: there is no
  /// repair, and no memory file.
  Result acquire(std::uint32_t milliseconds);
  /// To be called under the mutex before committed state is changed.
  void announceChange();
  /// Ends the pass. Nothing that it has opened or read may be used any more.
  Result release() { return mutex_.release(); }
  /// Releases the mutex if it is owned still. What led here counts: a failure leaves no text.
  void leave();
  [[nodiscard]] bool owned() const { return mutex_.held(); }

  /// Reads the header of the table file; under the mutex it finishes a commit that was cut off.
  Result readHeader();
  /// Opens the memory file, whose pages the manager has from now on. Pages that it held are gone.
  Result openMemory();
  /// The same for the index file. After readHeader(). Code 33: the file must be built, and an
  /// object waits for its content from the log.
  Result openIndex();

  /// The pages of the files that are open. After openMemory() or openIndex().
  [[nodiscard]] AtomicManager& manager() {
    assert(manager_);
    return *manager_;
  }
  [[nodiscard]] const AtomicManager& manager() const {
    assert(manager_);
    return *manager_;
  }

  MetaData& metaData;
  Table& table;
  // Not initialised: a pass that reads one of them pays for that one alone.
  TableHeader_tag header;             ///< after readHeader()
  MemoryFileHeader_tag memoryHeader;  ///< after openMemory()
  IndexFileHeader_tag indexHeader;    ///< after openIndex()

 private:
  AtomicManager& needManager();
  /// Tells the manager of what is open. Drops what it has collected.
  void attach();

  TableMutexGuard ownMutex_;
  TableMutexGuard& mutex_;
  std::optional<AtomicManager> manager_;  ///< a reader by ID does without it
  bool memoryOpen_ = false;               ///< in this pass
  bool indexOpen_ = false;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_TABLE_ACCESS_H

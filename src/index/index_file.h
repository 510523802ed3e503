// The index file of a table: the committed keys of all its indexes. Opening, building from the
// table, repair, and the step that brings a transaction's changes into it.

#ifndef ZELTA_INDEX_INDEX_FILE_H
#define ZELTA_INDEX_INDEX_FILE_H

#include <cstdint>
#include <string>

#include "frame/metadata.h"
#include "storage/avl_tree.h"
#include "storage/index_header.h"
#include "storage/table_file.h"

namespace zelta {

class AtomicManager;
class Table;

/// Opens, builds or repairs the index file and gives its roots to the manager;
/// AtomicManager::attach is the caller's. A table without indexes has none: `header` is zeroed.
/// `tableHeader` may be null, it is read for a build then. `exclusive`: the caller may write and
/// has the table's mutex. `mustExist` false: a missing or empty file is no failure, the table runs
/// without it. An object whose content is still to come from the log stops a build with the
/// internal code 33.
Result openIndexFile(MetaData& metaData, Table& table, const TableHeader_tag* tableHeader,
                     IndexFileHeader_tag& header, AtomicManager& manager, bool exclusive,
                     bool mustExist);

/// Brings a transaction's changes of one table into the index trees: what IndexCursor names in
/// `removedKeys` and `replacedKeys`, and the pending keys of the objects in the two sets, which
/// leave the pending trees. The memory file is not flushed: removeTransaction() does that later.
/// With `flush` the changed index pages reach the index file, safe on the disk, before the return.
Result commitIndexes(MetaData& metaData, Table& table, const TableHeader_tag& tableHeader,
                     IndexFileHeader_tag& header, AtomicManager& manager, UInt64AVLTree* committedA,
                     UInt64AVLTree* committedB, bool flush);

/// The journalled write of all changed index pages, the free chain and the roots.
Result flushIndexFile(MetaData& metaData, Table& table, IndexFileHeader_tag& header,
                      AtomicManager& manager);

/// Path of the table's index file.
[[nodiscard]] std::u16string indexFilePath(const MetaData& metaData, const Table& table);

/// Page size of a new index file; 0 if it would not fit in 32 bits. `firstPage` may be null.
[[nodiscard]] std::uint32_t indexPageSize(const Table& table, std::uint64_t* firstPage);

/// Reads a page that states its own length in its first word: first `atLeast` bytes or the buffer's
/// size, whichever is smaller, then the rest if there is more.
Result readSizedPage(MetaData& metaData, platform::File file, std::uint64_t position,
                     std::uint32_t atLeast, ScratchBuffer& page);

/// Makes an index file out of objects that come one by one, in ascending order of ID. Without
/// finish() the file is left empty and is closed.
class IndexBuild {
 public:
  IndexBuild(MetaData& metaData, Table& table, IndexFileHeader_tag& header, AtomicManager& manager);
  ~IndexBuild();
  IndexBuild(const IndexBuild&) = delete;
  IndexBuild& operator=(const IndexBuild&) = delete;

  /// Writes the header into the empty file that the table has open.
  Result start();
  /// Enters an object in all indexes.
  Result add(const char* object, std::uint32_t objectSize, std::uint64_t objectID);
  /// Completes the file.
  Result finish();

 private:
  MetaData& metaData_;
  Table& table_;
  IndexFileHeader_tag& header_;
  AtomicManager& manager_;
  std::uint64_t firstPage_ = 0;
  bool finished_ = false;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_INDEX_FILE_H

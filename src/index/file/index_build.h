// Building an index file from the objects of its table: for a new table, and for one whose index
// file is missing or was left unfinished. There is no journal, since there is nothing to go back
// to: the header comes first, with a journal that has no end, and whoever finds that gives the file
// up and builds again. The file is one only when the last write of finish() has cleared that.

#ifndef ZELTA_INDEX_FILE_INDEX_BUILD_H
#define ZELTA_INDEX_FILE_INDEX_BUILD_H

#include <cstdint>

#include "frame/metadata.h"
#include "index/contents.h"
#include "storage/paged/paged_file.h"
#include "storage/table_file/table_file.h"

namespace zelta {

class AtomicManager;

/// Builds the file of the manager's table, which is open and empty, and gives its roots to the
/// manager. `tableHeader` may be null, it is read then. Under the table's mutex, with leave to
/// write. Code 33: an object waits for its content from the log (Table::buildWaitsFor has its ID).
Result buildIndexFile(AtomicManager& manager, const TableHeader_tag* tableHeader,
                      IndexFileHeader_tag& header);

/// Empties the file and closes it.
void abandonIndexFile(Table& table);

/// Makes an index file out of objects that come one by one, in ascending order of ID. Without
/// finish() the file is left empty and is closed.
class IndexBuild {
 public:
  /// `manager` is for this alone: it is attached to the file.
  IndexBuild(AtomicManager& manager, IndexFileHeader_tag& header);
  ~IndexBuild();
  IndexBuild(const IndexBuild&) = delete;
  IndexBuild& operator=(const IndexBuild&) = delete;

  /// Writes the header into the empty file that the table has open, and begins all trees. Before
  /// add().
  Result start();
  /// Enters an object in all indexes. The bytes are good during the call; own code 39: they are no
  /// object of the table.
  Result add(const char* object, std::uint32_t objectSize, std::uint64_t objectID);
  /// Completes the file: pages, free space and roots, flush, then the header at rest, flush.
  Result finish();

 private:
  MetaData& metaData_;
  Table& table_;
  AtomicManager& manager_;
  IndexFileHeader_tag& header_;
  ContentUpdates contents_;
  std::uint64_t firstPage_ = 0;  ///< where pages begin; 0: not started
  bool finished_ = false;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_FILE_INDEX_BUILD_H

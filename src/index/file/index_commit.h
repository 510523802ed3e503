// Bringing a transaction into the index file: first into its trees, page by page in memory and
// shadows, then into the file in one step. Under the table's mutex, by a manager that is attached
// to both files.
//
// That is step 5.1 of a commit, as docs/concurrency.md counts. 5.1.1 to 5.1.5 are the five steps of
// PagedFlush, and the third of them is the commit point of the index file.

#ifndef ZELTA_INDEX_FILE_INDEX_COMMIT_H
#define ZELTA_INDEX_FILE_INDEX_COMMIT_H

#include "frame/metadata.h"
#include "index/contents.h"
#include "storage/paged/paged_file.h"

namespace zelta {

class AtomicManager;

/// Brings a transaction's changes of one table into the committed trees: what IndexCursor names in
/// `removedKeys` and `replacedKeys`, the pending keys of the objects, which leave the pending
/// trees, and what changes in the objects' contents. The memory file is not flushed:
/// removeTransaction() does that later. With `flush` the changed index pages reach the index file,
/// safe on the disk, before the return. After a failure the caller drops what the manager holds:
/// the index file is as it was, or has a journal that stands.
Result commitIndexes(AtomicManager& manager, IndexFileHeader_tag& header,
                     const TransactionObjects& objects, VersionSource& versions, bool flush);

/// The journalled write of all changed index pages, the free chain and the roots; PagedFlush has
/// its steps. `header` is the file's present one and follows the change. What the pages needed of
/// the memory file is cut off there.
Result flushIndexFile(AtomicManager& manager, IndexFileHeader_tag& header);

}  // namespace zelta

#endif  // ZELTA_INDEX_FILE_INDEX_COMMIT_H

#include "index/file/index_commit.h"

#include <cassert>

#include "czelta.h"
#include "index/kinds.h"
#include "platform/file_io.h"
#include "storage/paged/atomic_manager.h"
#include "storage/paged/paged_flush.h"
#include "storage/table.h"
#include "storage/trees/avl_detail.h"

namespace zelta {

namespace {

/// Takes out and hands over what the transaction gave up in one index, and moves its pending keys
/// into the committed tree.
Result commitKeys(AtomicManager& manager, std::uint32_t index, const ObjectSets& objects) {
  const IndexTree committed(manager, PageFile::index, index);
  const IndexTree pending(manager, PageFile::memory, index);
  // What leaves comes first: a key may be given up by one object and taken by another.
  const IndexCursor& cursor = manager.table.indexStates[index];
  avl::Walk<ObjectKeyNode> removed(cursor.removedKeys);
  while (const ObjectKeyNode* node = removed.next()) {
    ZELTA_TRY(removeEntry(committed, node->key, node->objectID));
  }
  avl::Walk<ObjectKeyNode> replaced(cursor.replacedKeys);
  while (const ObjectKeyNode* node = replaced.next()) {
    ZELTA_TRY(replaceHolder(committed, node->key, node->extra, node->objectID));
  }
  return pending.root() == 0 ? Result{} : mergeEntries(pending, objects, &committed);
}

}  // namespace

Result commitIndexes(AtomicManager& manager, IndexFileHeader_tag& header,
                     const TransactionObjects& objects, VersionSource& versions, bool flush) {
  const std::uint32_t indexCount = manager.indexCount;
  if (indexCount == 0) return {};
  assert(manager.indexFile != platform::File::none);
  // Asked first: an unknown kind must not leave the others half changed.
  ZELTA_TRY(checkIndexKinds(manager.table));
  manager.holdIndexPages();
  manager.deferMemoryReleases();
  for (std::uint32_t i = 0; i < indexCount; ++i) {
    const bool keys = contentKind(manager.table, i) == nullptr;
    if (keys) ZELTA_TRY(commitKeys(manager, i, objects.pending()));
  }
  ContentUpdates contents;
  contents.begin(manager, ContentMode::once);
  ZELTA_TRY(contents.changeAll(objects, versions));
  ZELTA_TRY(contents.finish());
  return flush ? flushIndexFile(manager, header) : Result{};
}

namespace {

/// Cuts off what is no longer needed: the journal, and the shadows of the pages in the memory file.
Result cutFiles(AtomicManager& manager, const PagedFlush& flush, const PagedFileHeader& header) {
  if (flush.journalEnd() != header.endOfFile) {
    const SystemCode result = truncateFile(manager.table.indexFile, header.endOfFile);
    if (result != 0) return manager.failed(PageFile::index, result);
  }
  if (manager.shadowCursor == 0) return {};
  return manager.failed(PageFile::memory,
                        truncateFile(manager.memoryFile, manager.memoryEndOfFile));
}

}  // namespace

Result flushIndexFile(AtomicManager& manager, IndexFileHeader_tag& header) {
  PagedFlush flush(kIndexForm, manager, header, nullptr);
  ZELTA_TRY(flush.prepare());  // 5.1.1
  if (flush.changesAnything()) {
    ZELTA_TRY(flush.write());  // 5.1.2 to 5.1.5, with the commit point in 5.1.3
    ZELTA_TRY(cutFiles(manager, flush, header));
    manager.indexEndOfFile = header.endOfFile;
  }
  clearIntent(header);
  manager.dropIndexChanges();
  return {};
}

}  // namespace zelta

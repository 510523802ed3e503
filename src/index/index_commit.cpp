// Bringing a transaction into the index file: first into its trees, page by page in memory and
// shadows, then into the file in one step.
//
// The journal is written behind the file and its description into the header; after a flush a
// crash rolls forward, before it back. Then the pages go to their places, the chain and the roots
// follow, and after another flush the description is cleared.

#include <cstring>

#include "czelta.h"
#include "index/bplus_tree.h"
#include "index/index_file_layout.h"
#include "index/kinds.h"
#include "platform/file_io.h"
#include "storage/atomic_manager.h"
#include "storage/atomic_manager_writer.h"
#include "storage/avl_detail.h"
#include "storage/table.h"

namespace zelta {

using index_file::clearIntent;
using index_file::failed;
using index_file::HeaderImage;
using index_file::journalStart;

namespace {

/// Takes out and hands over what the transaction gave up in one index, and moves its pending keys
/// into the committed tree.
Result commitIndex(MetaData& metaData, Table& table, TreeFile committed,
                   std::uint32_t memoryPageSize, AtomicManager& manager, std::uint32_t index,
                   UInt64AVLTree* committedA, UInt64AVLTree* committedB) {
  IndexCursor& cursor = table.indexStates[index];
  avl::Walk<ObjectKeyNode> removed(cursor.removedKeys);
  while (const ObjectKeyNode* node = removed.next()) {
    ZELTA_TRY(removeEntry(metaData, table, committed, manager, index, node->key, node->objectID));
  }
  if (table.index(index).indexKind == CZELTA::BPlusTree) {
    avl::Walk<ObjectKeyNode> replaced(cursor.replacedKeys);
    while (const ObjectKeyNode* node = replaced.next()) {
      ZELTA_TRY(bplusReplaceId(metaData, table, committed, manager, index, node->key, node->extra,
                               node->objectID));
    }
  }
  if (manager.memoryRoot(index + 1) == 0) return {};
  return mergeEntries(metaData, table, &committed, memoryPageSize, manager, index, committedA,
                      committedB);
}

}  // namespace

Result commitIndexes(MetaData& metaData, Table& table, const TableHeader_tag&,
                     IndexFileHeader_tag& header, AtomicManager& manager, UInt64AVLTree* committedA,
                     UInt64AVLTree* committedB, bool flush) {
  if (table.indexCount == 0) return {};
  // Asked first: a kind without functions must not leave the others half changed.
  ZELTA_TRY(checkIndexKinds(metaData, table));
  header.rollbackEnd = header.fileEnd;
  manager.holdIndexPages();
  manager.deferMemoryReleases();
  const TreeFile committed{PageFile::index, header.pageSize};
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    ZELTA_TRY(commitIndex(metaData, table, committed, manager.pageSize, manager, i, committedA,
                          committedB));
  }
  return flush ? flushIndexFile(metaData, table, header, manager) : Result{};
}

namespace {

class IndexFlush {
 public:
  IndexFlush(MetaData& metaData, Table& table, IndexFileHeader_tag& header, AtomicManager& manager)
      : metaData_(metaData),
        table_(table),
        header_(header),
        manager_(manager),
        oldEnd_(header.fileEnd),
        image_(table.indexCount) {}

  /// Settles the free chain and the new end.
  Result prepare();
  [[nodiscard]] bool changesAnything() const {
    return manager_.shadowPages != nullptr || header_.journalFreeRecords != 0 ||
           header_.newFileEnd != oldEnd_ || header_.newFreeListHead != header_.freeListHead;
  }
  Result writeJournal();
  /// From its end on a crash rolls forward.
  Result writeIntent();
  Result apply();
  Result finish();
  Result cut();

 private:
  [[nodiscard]] Result outcome(SystemCode result) const {
    return result == 0 ? Result{} : failed(metaData_, table_, result);
  }
  [[nodiscard]] Result flush() { return outcome(platform::flushFile(table_.indexFile)); }
  template <class Visit>
  Result visitPages(const Visit& visit);

  MetaData& metaData_;
  Table& table_;
  IndexFileHeader_tag& header_;
  AtomicManager& manager_;
  std::uint64_t oldEnd_;
  std::uint64_t journalEnd_ = 0;
  HeaderImage image_;
};

template <class Visit>
Result IndexFlush::visitPages(const Visit& visit) {
  avl::Walk<UInt64AVLTree> walk(manager_.shadowPages);
  while (UInt64AVLTree* node = walk.next()) {
    auto& page = static_cast<AtomicManager::Page&>(*node);
    const char* bytes = nullptr;
    ZELTA_TRY(manager_.changedIndexPage(page, &bytes, metaData_.scratchFor(Scratch::transfer)));
    const SystemCode result = visit(page, bytes);
    if (result != 0) return failed(metaData_, table_, result);
  }
  return {};
}

Result IndexFlush::prepare() {
  clearIntent(header_);
  header_.rollbackEnd = oldEnd_;
  ZELTA_TRY(mergeFreeExtents(metaData_, table_.indexFile, manager_.indexFreeHead,
                             manager_.indexEndOfFile, nullptr, manager_.indexFreeList,
                             &header_.newFileEnd, &header_.journalFreeRecords,
                             &header_.journalSum));
  if (header_.newFileEnd < indexHeaderSize(table_.indexCount) ||
      header_.newFileEnd > manager_.indexEndOfFile) {
    return reportError(&metaData_, Own::freeList);
  }
  header_.newFreeListHead = manager_.indexFreeHead;
  header_.journalPages = manager_.shadowPageCount;
  if (!changesAnything()) return {};
  // A file at rest is as long as its header says; behind a damaged end there would be a hole.
  std::uint64_t length = 0;
  ZELTA_TRY(outcome(platform::fileSize(table_.indexFile, &length)));
  if (length < oldEnd_) return index_file::corrupted(metaData_, table_);
  return {};
}

Result IndexFlush::writeJournal() {
  std::uint64_t position = journalStart(header_);
  GatheredWriter writer(table_.indexFile, metaData_.scratchFor(Scratch::journal),
                        std::uint64_t{header_.journalPages} * (header_.pageSize + 8) +
                            std::uint64_t{header_.journalFreeRecords} * kFreeEntrySize);
  const auto put = [&](const void* bytes, std::uint64_t length) {
    const SystemCode result = writer.write(position, bytes, length);
    position += length;
    return result;
  };
  ZELTA_TRY(visitPages([&](const AtomicManager::Page& page, const char* bytes) {
    xorChecksum64(header_.journalSum, &page.key, sizeof(page.key));
    xorChecksum64(header_.journalSum, bytes, page.size);
    const SystemCode result = put(&page.key, sizeof(page.key));
    return result == 0 ? put(bytes, page.size) : result;
  }));
  for (const FreeBlock* node = manager_.indexFreeList; node != nullptr; node = node->nextNode) {
    if (node->dirty != 0) ZELTA_TRY(outcome(put(node, kFreeEntrySize)));
  }
  ZELTA_TRY(outcome(writer.finish()));
  header_.journalEnd = position;
  journalEnd_ = position;
  return {};
}

Result IndexFlush::writeIntent() {
  xorChecksum64(header_.journalSum, &header_.newFreeListHead,
                sizeof(header_) - index_file::kSummedStart);
  xorChecksum64(header_.journalSum, manager_.indexRoots(), image_.rootBytes());
  image_.putHeader(header_);
  image_.putPending(manager_.indexRoots());
  const std::uint64_t start = index_file::kIntentStart;
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, start, image_.bytes() + start,
                                static_cast<std::int64_t>(image_.liveStart() - start))));
  return flush();
}

Result IndexFlush::apply() {
  GatheredWriter writer(table_.indexFile, metaData_.scratchFor(Scratch::journal),
                        std::uint64_t{header_.journalPages} * header_.pageSize);
  ZELTA_TRY(visitPages([&](const AtomicManager::Page& page, const char* bytes) {
    return writer.write(page.key, bytes, page.size);
  }));
  ZELTA_TRY(outcome(writer.finish()));
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, image_.liveStart(), manager_.indexRoots(),
                                static_cast<std::int64_t>(image_.rootBytes()))));
  ZELTA_TRY(applyFreeBlocks(metaData_, table_.indexFile, manager_.indexFreeList, false));
  return flush();
}

Result IndexFlush::finish() {
  header_.freeListHead = header_.newFreeListHead;
  header_.fileEnd = header_.newFileEnd;
  clearIntent(header_);
  image_.putHeader(header_);
  image_.clearPending();
  const std::uint64_t start = index_file::kChainStart;
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, start, image_.bytes() + start,
                                static_cast<std::int64_t>(image_.liveStart() - start))));
  return flush();
}

Result IndexFlush::cut() {
  if (journalEnd_ != header_.fileEnd) {
    ZELTA_TRY(outcome(truncateFile(table_.indexFile, header_.fileEnd)));
  }
  if (manager_.shadowCursor == 0) return {};
  const SystemCode result = truncateFile(manager_.memoryFile, manager_.memoryEndOfFile);
  return reportSystemError(&metaData_, result, table_.cName(), extension::kMemory);
}

}  // namespace

Result flushIndexFile(MetaData& metaData, Table& table, IndexFileHeader_tag& header,
                      AtomicManager& manager) {
  IndexFlush flush(metaData, table, header, manager);
  ZELTA_TRY(flush.prepare());
  if (flush.changesAnything()) {
    ZELTA_TRY(flush.writeJournal());
    ZELTA_TRY(flush.writeIntent());
    ZELTA_TRY(flush.apply());
    ZELTA_TRY(flush.finish());
    ZELTA_TRY(flush.cut());
    manager.indexEndOfFile = header.fileEnd;
  }
  clearIntent(header);
  manager.dropIndexChanges();
  return {};
}

}  // namespace zelta

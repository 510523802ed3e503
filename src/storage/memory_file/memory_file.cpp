#include "storage/memory_file/memory_file.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>
#include <vector>

#include "frame/control_file.h"
#include "frame/out_of_memory.h"
#include "platform/file_io.h"
#include "storage/paged/atomic_manager.h"
#include "storage/paged/atomic_manager_writer.h"
#include "storage/paged/paged_flush.h"
#include "storage/paged/paged_repair.h"

namespace zelta {

namespace {

/// About how many keys a page of pending keys has room for.
constexpr std::uint64_t kKeysOfPage = 100;

/// Opens the file for the table; `mayRecover` makes it if it is missing.
Result openFile(const AtomicManager& manager, bool mayRecover) {
  Table& table = manager.table;
  if (table.memoryFile != platform::File::none) return {};
  const std::u16string path = databasePath(manager.metaData, table.name, extension::kMemory);
  SystemCode result = openDatabaseFile(manager.metaData, path.c_str(),
                                       platform::Disposition::openExisting, &table.memoryFile);
  if (result == code::kFileNotFound) {
    if (!mayRecover) return manager.failed(PageFile::memory, code::kAccessDenied);
    result = openDatabaseFile(manager.metaData, path.c_str(), platform::Disposition::openAlways,
                              &table.memoryFile);
  }
  if (result != 0) table.memoryFile = platform::File::none;
  return result == 0 ? Result{} : manager.failed(PageFile::memory, result);
}

/// Writes the header of an empty file, with no content behind it.
Result createHeader(const AtomicManager& manager, MemoryFileHeader_tag& header,
                    PagedHeaderImage& image) {
  const Table& table = manager.table;
  const std::uint32_t pageSize = newPageSize(kMemoryForm, table, kKeysOfPage);
  static_cast<PagedFileHeader&>(header) = newPagedHeader(kMemoryForm, table, pageSize);
  if (pageSize == 0) return manager.failed(PageFile::memory, code::kNoMemory);
  header.endOfFile = image.size();
  std::memset(image.bytes(), 0, image.size());
  image.putHeader(header);
  const SystemCode result = writeBuffer(table.memoryFile, 0, image.bytes(), image.size());
  return result == 0 ? Result{} : manager.failed(PageFile::memory, result);
}

/// Whether a header can be that of the table's file, with or without a journal that stands.
bool headerIsSound(const Table& table, const MemoryFileHeader_tag& header) {
  return header.indexCount == table.indexCount && pageSizeIsSound(header) &&
         header.endOfFile >= kMemoryForm.headerSize(table.indexCount) &&
         header.endOfFile <= kPagedFileLimit;
}

}  // namespace

Result readMemoryFileHeader(AtomicManager& manager, MemoryFileHeader_tag& header, bool mayRecover) {
  Table& table = manager.table;
  ZELTA_TRY(openFile(manager, mayRecover));
  PagedHeaderImage image(kMemoryForm, table.indexCount);
  std::uint32_t have = 0;
  const SystemCode result = readBuffer(table.memoryFile, 0, image.bytes(), image.size(), &have);
  if (result != 0 && result != code::kEndOfFile) return manager.failed(PageFile::memory, result);
  constexpr std::uint32_t kIdentity = offsetof(PagedFileHeader, indexCount);
  std::memcpy(&header, image.bytes(), std::min<std::size_t>(have, sizeof(header)));
  if (have >= kIdentity && (!hasMagic(kMemoryForm, header) || !hasVersion(kMemoryForm, header))) {
    return manager.corrupted(PageFile::memory);
  }
  // A file whose header is cut short was being made when its maker died: there is nothing in it.
  if (have < image.size()) {
    if (!mayRecover) return manager.failed(PageFile::memory, code::kAccessDenied);
    ZELTA_TRY(createHeader(manager, header, image));
  }
  if (!headerIsSound(table, header)) return manager.corrupted(PageFile::memory);
  if (header.newEndOfFile != 0) {
    if (!mayRecover) return manager.failed(PageFile::memory, code::kAccessDenied);
    auto outcome = PagedRepair::dropped;
    const Result repaired = repairPagedFile(kMemoryForm, manager, header, image, &outcome);
    manager.journalApplied = outcome == PagedRepair::carriedOut;
    ZELTA_TRY(repaired);
  }
  std::memcpy(manager.memoryRoots(), image.roots(), image.rootBytes());
  std::memcpy(manager.savedMemoryRoots(), manager.memoryRoots(), image.rootBytes());
  return rootsAreSound(kMemoryForm, header, manager.memoryRoots())
             ? Result{}
             : manager.corrupted(PageFile::memory);
}

// -- The journalled write -------------------------------------------------------------------------

namespace {

/// A write has failed. What it left is dealt with as whoever comes next would do, so that nobody
/// else decides whether the change was made. Success: it was. If that can't be found out the table
/// stays uncertain.
Result decideFailedWrite(const PagedFlush& flush, AtomicManager& manager,
                         MemoryFileHeader_tag& header, Result failure, bool uncertainBefore) {
  const std::vector<std::uint64_t> roots(manager.memoryRoots(),
                                         manager.memoryRoots() + manager.indexCount + 1);
  const std::uint64_t end = header.newEndOfFile != 0 ? header.newEndOfFile : header.endOfFile;
  manager.journalApplied = false;
  if (readMemoryFileHeader(manager, header, true).failed()) return failure;
  manager.table.memoryUncertain = uncertainBefore;
  // An intent that was cut off can be complete nevertheless: what stood there before may be what
  // was to be written.
  const bool made =
      manager.journalApplied || (flush.intentIsWritten() && header.endOfFile == end &&
                                 std::equal(roots.begin(), roots.end(), manager.memoryRoots()));
  if (!made) return failure;
  clearError(manager.metaData);
  return {};
}

/// Steps 2 to 5. While the table is marked as uncertain nobody relies on what it says.
Result writeChange(PagedFlush& flush, AtomicManager& manager, MemoryFileHeader_tag& header) {
  bool& uncertain = manager.table.memoryUncertain;
  const bool before = std::exchange(uncertain, true);
  Result written = catchBadAlloc(manager.metaData, [&] { return flush.write(); });
  if (written.failed()) written = decideFailedWrite(flush, manager, header, written, before);
  if (written.ok()) uncertain = before;
  return written;
}

}  // namespace

Result flushMemoryPages(AtomicManager& manager, MemoryFileHeader_tag& header,
                        const PagedRecord* record, bool truncate) {
  PagedFlush flush(kMemoryForm, manager, header, record);
  ZELTA_TRY(flush.prepare());
  if (flush.changesAnything()) {
    ZELTA_TRY(writeChange(flush, manager, header));
    std::copy_n(manager.memoryRoots(), manager.indexCount + 1, manager.savedMemoryRoots());
    manager.memoryEndOfFile = header.endOfFile;
  }
  clearIntent(header);
  // The change stands: what is left behind the end does no harm.
  if (truncate) static_cast<void>(truncateFile(manager.memoryFile, header.endOfFile));
  manager.dropMemoryChanges();
  return {};
}

}  // namespace zelta

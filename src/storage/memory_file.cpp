#include "storage/memory_file.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>
#include <vector>

#include "frame/control_file.h"
#include "frame/exhausted_memory.h"
#include "platform/file_io.h"
#include "storage/atomic_manager.h"
#include "storage/atomic_manager_writer.h"
#include "storage/memory_file_layout.h"

namespace zelta {

namespace memory_file {

Result failed(const AtomicManager& manager, SystemCode code) {
  return reportSystemError(&manager.metaData, code, manager.table.cName(), extension::kMemory);
}

Result corrupted(const AtomicManager& manager) {
  return reportError(&manager.metaData, Own::memoryFile, manager.table.cName(), extension::kMemory);
}

void clearIntent(MemoryFileHeader_tag& header) {
  header.journalBase = 0;
  header.journalEnd = 0;
  header.newEndOfFile = 0;
  header.journalChecksum = 0;
  header.newFreeHead = 0;
  header.pageEntryCount = 0;
  header.freeEntryCount = 0;
}

}  // namespace memory_file

namespace {

using memory_file::clearIntent;
using memory_file::corrupted;
using memory_file::failed;
using memory_file::HeaderImage;
using memory_file::journalStart;

constexpr char kMagic[4] = {'Z', 'E', 'L', 'M'};
constexpr std::uint16_t kMajorVersion = 1;
constexpr std::uint16_t kMinorVersion = 1;
constexpr std::uint32_t kFirstPageSize = 64;
/// Files above the first size grow in steps of the second.
constexpr std::uint64_t kSmallFile = 64 * 1024;
constexpr std::uint64_t kReserve = 64 * 1024;
constexpr std::uint64_t kLargestPageSize = std::uint64_t{1} << 31;

/// The page unit of a new file: room for the roots, and for about a hundred keys of the mean
/// length. 0 if no unit of 32 bits gives that.
std::uint32_t newPageSize(const Table& table) {
  const std::uint64_t count = table.indexCount;
  std::uint64_t words = 0;
  for (std::uint32_t i = 0; i < table.indexCount; ++i) words += table.index(i).keyWords;
  const std::uint64_t least =
      std::max(16 * (count + 1) + 80, ((words + 2) * 100 + 20) / (count + 1));
  const std::uint64_t size = std::max<std::uint64_t>(std::bit_ceil(least), kFirstPageSize);
  return size <= kLargestPageSize ? static_cast<std::uint32_t>(size) : 0;
}

Result openFile(Table& table, const AtomicManager& manager, bool mayRecover) {
  if (table.memoryFile != platform::File::none) return {};
  const std::u16string path = databasePath(manager.metaData, table.name, extension::kMemory);
  SystemCode result = openDatabaseFile(manager.metaData, path.c_str(),
                                       platform::Disposition::openExisting, &table.memoryFile);
  if (result == code::kFileNotFound) {
    if (!mayRecover) return failed(manager, code::kAccessDenied);
    result = openDatabaseFile(manager.metaData, path.c_str(), platform::Disposition::openAlways,
                              &table.memoryFile);
  }
  if (result != 0) table.memoryFile = platform::File::none;
  return result == 0 ? Result{} : failed(manager, result);
}

/// Writes the header of an empty file, with no content behind it.
Result createHeader(const Table& table, AtomicManager& manager, MemoryFileHeader_tag& header,
                    HeaderImage& image) {
  header = {};
  std::memcpy(header.magic, kMagic, sizeof(kMagic));
  header.majorVersion = kMajorVersion;
  header.minorVersion = kMinorVersion;
  header.indexCount = table.indexCount;
  header.pageSize = newPageSize(table);
  if (header.pageSize == 0) return failed(manager, code::kNoMemory);
  header.endOfFile = image.size();
  std::memset(image.bytes(), 0, image.size());
  image.putHeader(header);
  const SystemCode result = writeBuffer(table.memoryFile, 0, image.bytes(), image.size());
  return result == 0 ? Result{} : failed(manager, result);
}

bool headerIsSound(const Table& table, const MemoryFileHeader_tag& header) {
  return header.indexCount == table.indexCount && std::has_single_bit(header.pageSize) &&
         header.pageSize >= kFirstPageSize &&
         header.endOfFile >= memoryHeaderSize(table.indexCount) &&
         header.endOfFile <= (std::uint64_t{1} << 62);
}

bool rootsAreSound(const MemoryFileHeader_tag& header, const std::uint64_t* roots) {
  for (std::uint32_t i = 0; i <= header.indexCount; ++i) {
    if (roots[i] == 0) continue;
    if (roots[i] < memoryHeaderSize(header.indexCount) || roots[i] >= header.endOfFile) {
      return false;
    }
  }
  return true;
}

}  // namespace

Result readMemoryFileHeader(Table& table, MemoryFileHeader_tag& header, AtomicManager& manager,
                            bool mayRecover) {
  ZELTA_TRY(openFile(table, manager, mayRecover));
  HeaderImage image(table.indexCount);
  std::uint32_t have = 0;
  const SystemCode result = readBuffer(table.memoryFile, 0, image.bytes(), image.size(), &have);
  if (result != 0 && result != code::kEndOfFile) return failed(manager, result);
  constexpr std::uint32_t kIdentity = offsetof(MemoryFileHeader_tag, indexCount);
  std::memcpy(&header, image.bytes(), std::min<std::size_t>(have, sizeof(header)));
  if (have >= kIdentity &&
      (std::memcmp(header.magic, kMagic, sizeof(kMagic)) != 0 ||
       header.majorVersion != kMajorVersion || header.minorVersion != kMinorVersion)) {
    return corrupted(manager);
  }
  if (have < image.size()) {
    if (!mayRecover) return failed(manager, code::kAccessDenied);
    ZELTA_TRY(createHeader(table, manager, header, image));
  }
  if (!headerIsSound(table, header)) return corrupted(manager);
  if (header.newEndOfFile != 0) {
    if (!mayRecover) return failed(manager, code::kAccessDenied);
    ZELTA_TRY(memory_file::recoverJournal(manager, table.memoryFile, header, image,
                                          &manager.journalApplied));
  }
  std::memcpy(manager.memoryRoots(), image.bytes() + image.rootsStart(), image.rootBytes());
  std::memcpy(manager.savedMemoryRoots(), manager.memoryRoots(), image.rootBytes());
  return rootsAreSound(header, manager.memoryRoots()) ? Result{} : corrupted(manager);
}

Result attachMemoryFile(Table& table, MemoryFileHeader_tag& header, AtomicManager& manager) {
  ZELTA_TRY(readMemoryFileHeader(table, header, manager, true));
  manager.attach(platform::File::none, nullptr, table.memoryFile, &header);
  return {};
}

// -- The journalled write -------------------------------------------------------------------------

namespace {

/// The steps of one flush. Until writeIntent() nothing has changed but bytes behind the file's end;
/// from there on whoever comes next finishes it. The journal comes first: it is long enough to be
/// cut off in the midst, what stood in its place before may be much like it, and the sum does not
/// notice words that have changed places.
class Flush {
 public:
  Flush(AtomicManager& manager, MemoryFileHeader_tag& header, const MemoryRecord* record)
      : manager_(manager), header_(header), record_(record), image_(manager.indexCount) {}

  Result prepare();
  [[nodiscard]] bool changesAnything() const {
    return record_ != nullptr || manager_.pageCount != 0 || header_.freeEntryCount != 0 ||
           header_.newEndOfFile != header_.endOfFile || header_.newFreeHead != header_.freeHead ||
           rootsChanged();
  }
  Result write();
  /// write() has failed. What it wrote is dealt with as whoever comes next would do, so that nobody
  /// else decides whether the change was made. Success: it was.
  Result settle(Result failure, bool uncertainBefore);

 private:
  Result writeIntent();
  Result writeJournal();
  Result apply();
  Result finish();
  [[nodiscard]] bool rootsChanged() const {
    return std::memcmp(manager_.memoryRoots(), manager_.savedMemoryRoots(), image_.rootBytes()) !=
           0;
  }
  [[nodiscard]] Result outcome(SystemCode result) const {
    return result == 0 ? Result{} : failed(manager_, result);
  }
  static void reserveAhead(GatheredWriter& writer, std::uint64_t end);
  void sum(const void* bytes, std::uint64_t length) {
    xorChecksum64(header_.journalChecksum, bytes, length);
  }
  [[nodiscard]] std::uint64_t recordBlock() const {
    std::uint32_t size = 0;
    std::memcpy(&size, record_->bytes, sizeof(size));
    return size;
  }
  template <class Visit>
  void visitPages(UInt64AVLTree* node, const Visit& visit) const {
    if (node == nullptr) return;
    visitPages(node->left, visit);
    visit(static_cast<const AtomicManager::Page&>(*node));
    visitPages(node->right, visit);
  }

  AtomicManager& manager_;
  MemoryFileHeader_tag& header_;
  const MemoryRecord* record_;
  HeaderImage image_;
  std::uint64_t length_ = 0;  ///< of the file before
  bool intentWritten_ = false;
};

Result Flush::write() {
  ZELTA_TRY(writeJournal());
  ZELTA_TRY(writeIntent());
  intentWritten_ = true;
  ZELTA_TRY(apply());
  return finish();
}

Result Flush::settle(Result failure, bool uncertainBefore) {
  Table& table = manager_.table;
  const std::vector<std::uint64_t> roots(manager_.memoryRoots(),
                                         manager_.memoryRoots() + manager_.indexCount + 1);
  const MemoryFileHeader_tag wanted = header_;
  manager_.journalApplied = false;
  if (readMemoryFileHeader(table, header_, manager_, true).failed()) return failure;
  table.memoryUncertain = uncertainBefore;
  const std::uint64_t end = wanted.newEndOfFile != 0 ? wanted.newEndOfFile : wanted.endOfFile;
  // An intent that was cut off can be complete nevertheless: what stood there before may be what
  // was to be written.
  const bool made =
      manager_.journalApplied || (intentWritten_ && header_.endOfFile == end &&
                                  std::equal(roots.begin(), roots.end(), manager_.memoryRoots()));
  if (!made) return failure;
  clearError(manager_.metaData);
  return {};
}

/// Settles the free chain and the new end, and adds up what the journal will hold.
Result Flush::prepare() {
  // Behind a damaged end there would be a hole.
  ZELTA_TRY(outcome(platform::fileSize(manager_.memoryFile, &length_)));
  if (length_ < header_.endOfFile) return corrupted(manager_);
  clearIntent(header_);
  header_.journalBase = header_.endOfFile;
  const std::uint64_t oldEnd = manager_.memoryEndOfFile;
  ZELTA_TRY(mergeFreeExtents(manager_.metaData, manager_.memoryFile, manager_.memoryFreeHead,
                             oldEnd, manager_.releasedMemory(), manager_.memoryFreeList,
                             &header_.newEndOfFile, &header_.freeEntryCount,
                             &header_.journalChecksum));
  if (header_.newEndOfFile < memoryHeaderSize(manager_.indexCount) ||
      header_.newEndOfFile > oldEnd) {
    return reportError(&manager_.metaData, Own::freeList);
  }
  header_.newFreeHead = manager_.memoryFreeHead;
  header_.pageEntryCount = manager_.pageCount + (record_ != nullptr ? 1 : 0);
  header_.journalEnd =
      journalStart(header_) + std::uint64_t{kFreeEntrySize} * header_.freeEntryCount;
  if (record_ != nullptr) {
    header_.journalEnd += sizeof(record_->position) + recordBlock();
    sum(&record_->position, sizeof(record_->position));
    sum(record_->bytes, record_->length);
  }
  visitPages(manager_.pages, [this](const AtomicManager::Page& page) {
    header_.journalEnd += sizeof(page.key) + page.size;
    sum(&page.key, sizeof(page.key));
    sum(page.bytes, page.size);
  });
  sum(&header_.newFreeHead, sizeof(header_) - memory_file::kSummedStart);
  sum(manager_.memoryRoots(), image_.rootBytes());
  return {};
}

/// The word that says that a journal stands comes last.
Result Flush::writeIntent() {
  MemoryFileHeader_tag silent = header_;
  silent.newEndOfFile = 0;
  image_.putHeader(silent);
  image_.putJournalRoots(manager_.memoryRoots());
  const std::uint64_t start = memory_file::kIntentStart;
  ZELTA_TRY(outcome(writeHeaderInOrder(manager_.memoryFile, start, image_.bytes() + start,
                                       static_cast<std::uint32_t>(image_.rootsStart() - start))));
  return outcome(writeHeaderInOrder(manager_.memoryFile,
                                    offsetof(MemoryFileHeader_tag, newEndOfFile),
                                    &header_.newEndOfFile, sizeof header_.newEndOfFile));
}

Result Flush::writeJournal() {
  std::uint64_t position = journalStart(header_);
  GatheredWriter writer(manager_.memoryFile, manager_.metaData.scratchFor(Scratch::journal),
                        header_.journalEnd - position);
  SystemCode result = 0;
  const auto put = [&](const void* bytes, std::uint64_t length) {
    if (result == 0) result = writer.write(position, bytes, length);
    position += length;
  };
  if (record_ != nullptr) {
    put(&record_->position, sizeof(record_->position));
    put(record_->bytes, record_->length);
    const std::uint64_t rest = recordBlock() - record_->length;
    if (result == 0) result = writer.zeros(position, rest);
    position += rest;
  }
  visitPages(manager_.pages, [&](const AtomicManager::Page& page) {
    put(&page.key, sizeof(page.key));
    put(page.bytes, page.size);
  });
  for (const FreeBlock* node = manager_.memoryFreeList; node != nullptr; node = node->nextNode) {
    if (node->dirty != 0) put(node, kFreeEntrySize);
  }
  if (result == 0) result = writer.finish();
  if (result == 0 && position > length_) reserveAhead(writer, position);
  return outcome(result);
}

/// Lets a file that grows grow by more than is needed, so that the next journals find room and need
/// no system call. The journal stands already: that there is no room for more is no failure.
void Flush::reserveAhead(GatheredWriter& writer, std::uint64_t end) {
  if (end < kSmallFile) return;
  const SystemCode result = writer.zeros(end, kReserve - end % kReserve);
  if (result == 0) static_cast<void>(writer.finish());
}

Result Flush::apply() {
  GatheredWriter writer(manager_.memoryFile, manager_.metaData.scratchFor(Scratch::journal),
                        header_.journalEnd - journalStart(header_));
  SystemCode result = 0;
  if (record_ != nullptr) {
    result = writer.write(record_->position, record_->bytes, record_->length);
  }
  visitPages(manager_.pages, [&](const AtomicManager::Page& page) {
    if (result == 0) result = writer.write(page.key, page.bytes, page.size);
  });
  if (result == 0) result = writer.finish();
  // The roots go before the journal is cleared, so that even a write cut in two is made good.
  if (result == 0 && rootsChanged()) {
    result = writeHeaderInOrder(manager_.memoryFile, image_.rootsStart(), manager_.memoryRoots(),
                                static_cast<std::uint32_t>(image_.rootBytes()));
  }
  ZELTA_TRY(outcome(result));
  return applyFreeBlocks(manager_.metaData, manager_.memoryFile, manager_.memoryFreeList, false);
}

Result Flush::finish() {
  header_.freeHead = header_.newFreeHead;
  header_.endOfFile = header_.newEndOfFile;
  clearIntent(header_);
  image_.putHeader(header_);
  std::memset(image_.bytes() + image_.journalRootsStart(), 0, image_.rootBytes());
  const std::uint64_t start = memory_file::kChainStart;
  // The new numbers come first, while the journal still says the same; then it goes, from its base
  // on: one without a base has been applied.
  return outcome(writeHeaderInOrder(manager_.memoryFile, start, image_.bytes() + start,
                                    static_cast<std::uint32_t>(image_.rootsStart() - start)));
}

}  // namespace

Result flushMemoryPages(AtomicManager& manager, MemoryFileHeader_tag& header,
                        const MemoryRecord* record, bool truncate) {
  Flush flush(manager, header, record);
  ZELTA_TRY(flush.prepare());
  if (flush.changesAnything()) {
    bool& uncertain = manager.table.memoryUncertain;
    const bool before = std::exchange(uncertain, true);
    Result written = reportingMemory(manager.metaData, [&] { return flush.write(); });
    if (written.failed()) written = flush.settle(written, before);
    if (written.failed()) return written;
    uncertain = before;
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

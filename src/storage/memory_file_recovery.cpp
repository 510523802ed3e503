// What becomes of the journal of a memory file whose writer died: a complete one is applied, as it
// holds final images; any other is dropped.

#include <cstring>

#include "platform/file_io.h"
#include "storage/atomic_manager.h"
#include "storage/memory_file_layout.h"
#include "storage/page_journal.h"

namespace zelta::memory_file {

namespace {

class Recovery {
 public:
  Recovery(const AtomicManager& manager, platform::File file, MemoryFileHeader_tag& header,
           HeaderImage& image)
      : manager_(manager),
        file_(file),
        header_(header),
        image_(image),
        journal_(
            manager.metaData, manager.table, PageFile::memory, file,
            {journalStart(header), header.journalEnd, header.pageEntryCount, header.freeEntryCount,
             memoryHeaderSize(manager.indexCount), header.newEndOfFile}) {}

  Result run();
  /// Whether the file holds the change that the journal was for.
  [[nodiscard]] bool applied() const { return applied_; }

 private:
  Result rollForward();
  Result drop();
  Result reset(std::uint64_t end);

  const AtomicManager& manager_;
  platform::File file_;
  MemoryFileHeader_tag& header_;
  HeaderImage& image_;
  PageJournal journal_;
  bool applied_ = false;
};

Result Recovery::run() {
  std::uint64_t length = 0;
  const SystemCode result = platform::fileSize(file_, &length);
  if (result != 0) return failed(manager_, result);
  if (header_.journalEnd > length) return drop();
  applied_ = header_.journalBase == 0;
  if (applied_) return reset(header_.newEndOfFile);  // only the header is left
  bool right = header_.journalEnd >= journalStart(header_);
  if (right) {
    std::uint64_t sum = 0;
    xorChecksum64(sum, image_.bytes() + kSummedStart, image_.rootsStart() - kSummedStart);
    ZELTA_TRY(journal_.addTo(sum));
    right = sum == header_.journalChecksum;
  }
  if (right) ZELTA_TRY(journal_.check(&right));
  applied_ = right;
  return right ? rollForward() : drop();
}

Result Recovery::rollForward() {
  ZELTA_TRY(journal_.apply());
  char* roots = image_.bytes() + image_.rootsStart();
  std::memcpy(roots, image_.bytes() + image_.journalRootsStart(), image_.rootBytes());
  const SystemCode result =
      writeBuffer(file_, image_.rootsStart(), roots, static_cast<std::int64_t>(image_.rootBytes()));
  if (result != 0) return failed(manager_, result);
  header_.freeHead = header_.newFreeHead;
  return reset(header_.newEndOfFile);
}

/// The end stays as it is: the new one is written only when all has been applied. That a journal
/// names another base is damage, and nothing to be cut off for.
Result Recovery::drop() {
  if (header_.journalBase != 0 && header_.journalBase != header_.endOfFile) {
    return corrupted(manager_);
  }
  return reset(header_.endOfFile);
}

Result Recovery::reset(std::uint64_t end) {
  if (end < memoryHeaderSize(manager_.indexCount) || end > (std::uint64_t{1} << 62)) {
    return corrupted(manager_);
  }
  header_.endOfFile = end;
  clearIntent(header_);
  image_.putHeader(header_);
  std::memset(image_.bytes() + image_.journalRootsStart(), 0, image_.rootBytes());
  SystemCode result = writeBuffer(file_, kChainStart, image_.bytes() + kChainStart,
                                  static_cast<std::int64_t>(image_.rootsStart() - kChainStart));
  // Only ever cut: a damaged header must not make the file grow.
  std::uint64_t length = 0;
  if (result == 0) result = platform::fileSize(file_, &length);
  if (result == 0 && length > end) result = truncateFile(file_, end);
  return result == 0 ? Result{} : failed(manager_, result);
}

}  // namespace

Result recoverJournal(const AtomicManager& manager, platform::File file,
                      MemoryFileHeader_tag& header, HeaderImage& image, bool* applied) {
  Recovery recovery(manager, file, header, image);
  const Result result = recovery.run();
  *applied = recovery.applied();
  return result;
}

}  // namespace zelta::memory_file

// What becomes of the journal of a memory file whose writer died: a complete one is applied, as it
// holds final images; any other is dropped.

#include <algorithm>
#include <cstring>

#include "storage/atomic_manager.h"
#include "storage/file_io.h"
#include "storage/memory_file_layout.h"

namespace zelta::memory_file {

namespace {

constexpr std::uint64_t kPieceSize = 64 * 1024;
/// A page entry: its position, and the page, which begins with its size.
constexpr std::uint64_t kEntryHead = 8;
constexpr std::uint64_t kSizeWord = 4;

class Recovery {
 public:
  Recovery(const AtomicManager& manager, platform::File file, MemoryFileHeader_tag& header,
           HeaderImage& image)
      : manager_(manager), file_(file), header_(header), image_(image) {}

  Result run();
  /// Whether the file holds the change that the journal was for.
  [[nodiscard]] bool applied() const { return applied_; }

 private:
  [[nodiscard]] ScratchBuffer& buffer() const {
    return manager_.metaData.scratchFor(Scratch::transfer);
  }
  Result checkSum(bool* right);
  /// Reads the head of a page entry and moves behind it; `*sound` false: it can't be one.
  Result entryAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size, bool* sound);
  /// Looks at all entries before any is applied: the sum is too weak to trust their positions.
  Result checkEntries(bool* sound);
  Result applyPages();
  Result copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size);
  Result applyFreeChain(std::uint64_t position);
  Result rollForward();
  Result drop();
  Result reset(std::uint64_t end);

  const AtomicManager& manager_;
  platform::File file_;
  MemoryFileHeader_tag& header_;
  HeaderImage& image_;
  std::uint64_t freeEntries_ = 0;  ///< where the free-block entries begin
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
  if (right) ZELTA_TRY(checkSum(&right));
  if (right) ZELTA_TRY(checkEntries(&right));
  applied_ = right;
  return right ? rollForward() : drop();
}

Result Recovery::checkSum(bool* right) {
  std::uint64_t sum = 0;
  xorChecksum64(sum, image_.bytes() + kSummedStart, image_.rootsStart() - kSummedStart);
  char* bytes = buffer().reserve(kPieceSize);
  for (std::uint64_t at = journalStart(header_); at < header_.journalEnd;) {
    const std::uint64_t piece = std::min(kPieceSize, header_.journalEnd - at);
    const SystemCode result = readBuffer(file_, at, bytes, static_cast<std::uint32_t>(piece));
    if (result != 0) return failed(manager_, result);
    xorChecksum64(sum, bytes, piece);
    at += piece;
  }
  *right = sum == header_.journalChecksum;
  return {};
}

Result Recovery::entryAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size,
                         bool* sound) {
  *sound = false;
  constexpr std::uint32_t kHead = kEntryHead + kSizeWord;
  if (header_.journalEnd - position < kHead) return {};
  char head[kHead];
  const SystemCode result = readBuffer(file_, position, head, kHead);
  if (result != 0) return failed(manager_, result);
  std::memcpy(target, head, kEntryHead);
  std::memcpy(size, head + kEntryHead, kSizeWord);
  position += kEntryHead;
  if (*size <= kSizeWord || *size > header_.journalEnd - position) return {};
  if (*target < memoryHeaderSize(manager_.indexCount) || *target >= header_.newEndOfFile ||
      *size > header_.newEndOfFile - *target) {
    return {};
  }
  position += *size;
  *sound = true;
  return {};
}

Result Recovery::checkEntries(bool* sound) {
  std::uint64_t position = journalStart(header_);
  for (std::uint32_t i = 0; i < header_.pageEntryCount; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    ZELTA_TRY(entryAt(position, &target, &size, sound));
    if (!*sound) return {};
  }
  freeEntries_ = position;
  *sound = header_.journalEnd - position == std::uint64_t{header_.freeEntryCount} * kFreeEntrySize;
  return {};
}

Result Recovery::copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size) {
  char* bytes = buffer().reserve(kPieceSize);
  while (size != 0) {
    const auto piece = static_cast<std::uint32_t>(std::min<std::uint64_t>(kPieceSize, size));
    SystemCode result = readBuffer(file_, from, bytes, piece);
    if (result == 0) result = writeBuffer(file_, to, bytes, piece);
    if (result != 0) return failed(manager_, result);
    from += piece;
    to += piece;
    size -= piece;
  }
  return {};
}

Result Recovery::applyPages() {
  std::uint64_t position = journalStart(header_);
  for (std::uint32_t i = 0; i < header_.pageEntryCount; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    bool sound = false;
    ZELTA_TRY(entryAt(position, &target, &size, &sound));
    if (!sound) return corrupted(manager_);
    ZELTA_TRY(copyPage(position - size, target, size));
  }
  return {};
}

Result Recovery::applyFreeChain(std::uint64_t position) {
  struct Chunks {
    FreeBlockChunk* first = nullptr;
    Chunks() = default;
    Chunks(const Chunks&) = delete;
    Chunks& operator=(const Chunks&) = delete;
    ~Chunks() { dropFreeChunks(first); }
  } chunks;
  std::uint32_t left = header_.freeEntryCount;
  while (left != 0) {
    const std::uint32_t piece = std::min(left, FreeBlockChunk::kEntries);
    ZELTA_TRY(readFreeBlockJournal(manager_.metaData, file_, position, piece, chunks.first));
    ZELTA_TRY(applyFreeBlockChunks(manager_.metaData, file_, chunks.first, false));
    dropFreeChunks(chunks.first);
    position += std::uint64_t{piece} * kFreeEntrySize;
    left -= piece;
  }
  return {};
}

Result Recovery::rollForward() {
  ZELTA_TRY(applyPages());
  ZELTA_TRY(applyFreeChain(freeEntries_));
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

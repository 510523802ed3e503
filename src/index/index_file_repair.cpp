// What becomes of an index file whose writer died. Until its journal is complete and summed up, a
// commit is undone by cutting the file; from then on it is completed, as the journal holds final
// images. A build that died leaves an empty file.

#include <algorithm>
#include <cstring>

#include "index/index_file_layout.h"
#include "storage/file_io.h"
#include "storage/free_space.h"

namespace zelta::index_file {

namespace {

constexpr std::uint64_t kPieceSize = 64 * 1024;
constexpr std::uint64_t kPositionWord = 8;
constexpr std::uint64_t kSizeWord = 4;

class Repair {
 public:
  Repair(MetaData& metaData, Table& table, IndexFileHeader_tag& header, HeaderImage& image)
      : metaData_(metaData), table_(table), header_(header), image_(image) {}

  Result run(bool* abandoned);

 private:
  [[nodiscard]] ScratchBuffer& buffer() const { return metaData_.scratchFor(Scratch::transfer); }
  [[nodiscard]] Result outcome(SystemCode result) const {
    return result == 0 ? Result{} : failed(metaData_, table_, result);
  }
  Result readPendingRoots();
  Result checkSum(bool* right);
  Result recordAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size, bool* sound);
  /// Looks at all records before any is applied: the sum is too weak to trust their positions.
  Result checkRecords(bool* sound);
  Result copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size);
  Result applyPages();
  Result applyFreeChain();
  Result rollForward();
  Result rollBack();
  Result reset(std::uint64_t target);

  MetaData& metaData_;
  Table& table_;
  IndexFileHeader_tag& header_;
  HeaderImage& image_;
  std::uint64_t freeRecords_ = 0;  ///< where the free-space records begin
};

Result Repair::run(bool* abandoned) {
  *abandoned = header_.journalEnd == 0;
  if (*abandoned) {
    abandonFile(table_);
    return {};
  }
  std::uint64_t length = 0;
  ZELTA_TRY(outcome(platform::fileSize(table_.indexFile, &length)));
  if (header_.journalEnd > length) return rollBack();
  // Applied already; only the header is left.
  if (header_.rollbackEnd == 0) return reset(header_.newFileEnd);
  ZELTA_TRY(readPendingRoots());
  bool right = header_.journalEnd >= journalStart(header_);
  if (right) ZELTA_TRY(checkSum(&right));
  if (right) ZELTA_TRY(checkRecords(&right));
  return right ? rollForward() : rollBack();
}

Result Repair::readPendingRoots() {
  return outcome(readBuffer(table_.indexFile, image_.pendingStart(),
                            image_.bytes() + image_.pendingStart(),
                            static_cast<std::uint32_t>(image_.rootBytes())));
}

Result Repair::checkSum(bool* right) {
  std::uint64_t sum = 0;
  xorChecksum64(sum, image_.bytes() + kSummedStart, image_.liveStart() - kSummedStart);
  char* bytes = buffer().reserve(kPieceSize);
  for (std::uint64_t at = journalStart(header_); at < header_.journalEnd;) {
    const std::uint64_t piece = std::min(kPieceSize, header_.journalEnd - at);
    ZELTA_TRY(outcome(readBuffer(table_.indexFile, at, bytes, static_cast<std::uint32_t>(piece))));
    xorChecksum64(sum, bytes, piece);
    at += piece;
  }
  *right = sum == header_.journalSum;
  return {};
}

Result Repair::recordAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size,
                        bool* sound) {
  *sound = false;
  constexpr std::uint32_t kHead = kPositionWord + kSizeWord;
  if (header_.journalEnd - position < kHead) return {};
  char head[kHead];
  ZELTA_TRY(outcome(readBuffer(table_.indexFile, position, head, kHead)));
  std::memcpy(target, head, kPositionWord);
  std::memcpy(size, head + kPositionWord, kSizeWord);
  position += kPositionWord;
  if (*size <= kSizeWord || *size > header_.journalEnd - position) return {};
  if (*target < indexHeaderSize(table_.indexCount) || *target >= header_.newFileEnd ||
      *size > header_.newFileEnd - *target) {
    return {};
  }
  position += *size;
  *sound = true;
  return {};
}

Result Repair::checkRecords(bool* sound) {
  std::uint64_t position = journalStart(header_);
  for (std::uint32_t i = 0; i < header_.journalPages; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    ZELTA_TRY(recordAt(position, &target, &size, sound));
    if (!*sound) return {};
  }
  freeRecords_ = position;
  *sound =
      header_.journalEnd - position == std::uint64_t{header_.journalFreeRecords} * kFreeEntrySize;
  return {};
}

Result Repair::copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size) {
  char* bytes = buffer().reserve(kPieceSize);
  while (size != 0) {
    const auto piece = static_cast<std::uint32_t>(std::min<std::uint64_t>(kPieceSize, size));
    ZELTA_TRY(outcome(readBuffer(table_.indexFile, from, bytes, piece)));
    ZELTA_TRY(outcome(writeBuffer(table_.indexFile, to, bytes, piece)));
    from += piece;
    to += piece;
    size -= piece;
  }
  return {};
}

Result Repair::applyPages() {
  std::uint64_t position = journalStart(header_);
  for (std::uint32_t i = 0; i < header_.journalPages; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    bool sound = false;
    ZELTA_TRY(recordAt(position, &target, &size, &sound));
    if (!sound) return corrupted(metaData_, table_);
    ZELTA_TRY(copyPage(position - size, target, size));
  }
  return {};
}

Result Repair::applyFreeChain() {
  struct Chunks {
    FreeBlockChunk* first = nullptr;
    Chunks() = default;
    Chunks(const Chunks&) = delete;
    Chunks& operator=(const Chunks&) = delete;
    ~Chunks() { dropFreeChunks(first); }
  } chunks;
  std::uint64_t position = freeRecords_;
  for (std::uint32_t left = header_.journalFreeRecords; left != 0;) {
    const std::uint32_t piece = std::min(left, FreeBlockChunk::kEntries);
    ZELTA_TRY(readFreeBlockJournal(metaData_, table_.indexFile, position, piece, chunks.first));
    ZELTA_TRY(applyFreeBlockChunks(metaData_, table_.indexFile, chunks.first, false));
    dropFreeChunks(chunks.first);
    position += std::uint64_t{piece} * kFreeEntrySize;
    left -= piece;
  }
  return {};
}

Result Repair::rollForward() {
  ZELTA_TRY(applyPages());
  ZELTA_TRY(applyFreeChain());
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, image_.liveStart(),
                                image_.bytes() + image_.pendingStart(),
                                static_cast<std::int64_t>(image_.rootBytes()))));
  // All of it must be on the disk before the journal that could bring it there again is given up.
  ZELTA_TRY(outcome(platform::flushFile(table_.indexFile)));
  header_.freeListHead = header_.newFreeListHead;
  return reset(header_.newFileEnd);
}

/// The end stays as it is: the new one is written only when all has been applied. That a commit
/// names another end to go back to is damage, and nothing to be cut off for.
Result Repair::rollBack() {
  if (header_.rollbackEnd != 0 && header_.rollbackEnd != header_.fileEnd) {
    return corrupted(metaData_, table_);
  }
  return reset(header_.fileEnd);
}

Result Repair::reset(std::uint64_t target) {
  if (target < indexHeaderSize(table_.indexCount)) return corrupted(metaData_, table_);
  header_.fileEnd = target;
  clearIntent(header_);
  image_.putHeader(header_);
  image_.clearPending();
  ZELTA_TRY(outcome(writeBuffer(table_.indexFile, kChainStart, image_.bytes() + kChainStart,
                                static_cast<std::int64_t>(image_.liveStart() - kChainStart))));
  ZELTA_TRY(outcome(platform::flushFile(table_.indexFile)));
  // Only ever cut: a damaged header must not make the file grow.
  std::uint64_t length = 0;
  ZELTA_TRY(outcome(platform::fileSize(table_.indexFile, &length)));
  return length > target ? outcome(truncateFile(table_.indexFile, target)) : Result{};
}

}  // namespace

Result repairIndexFile(MetaData& metaData, Table& table, IndexFileHeader_tag& header,
                       HeaderImage& image, bool* abandoned) {
  return Repair(metaData, table, header, image).run(abandoned);
}

}  // namespace zelta::index_file

#include "storage/page_journal.h"

#include <algorithm>
#include <cstring>

#include "platform/file_io.h"
#include "storage/free_space.h"

namespace zelta {

namespace {

constexpr std::uint64_t kPieceSize = 64 * 1024;
/// A page entry: its position, and the page, which begins with its size.
constexpr std::uint64_t kPositionWord = 8;
constexpr std::uint64_t kSizeWord = 4;

}  // namespace

Result PageJournal::report(SystemCode failure) {
  return reportPages(metaData_, table_, kind_, failure);
}

Result PageJournal::addTo(std::uint64_t& sum) {
  char* bytes = buffer().reserve(kPieceSize);
  for (std::uint64_t at = place_.start; at < place_.end;) {
    const std::uint64_t piece = std::min(kPieceSize, place_.end - at);
    ZELTA_TRY(report(readBuffer(file_, at, bytes, static_cast<std::uint32_t>(piece))));
    xorChecksum64(sum, bytes, piece);
    at += piece;
  }
  return {};
}

Result PageJournal::entryAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size,
                            bool* sound) {
  *sound = false;
  constexpr std::uint32_t kHead = kPositionWord + kSizeWord;
  if (place_.end - position < kHead) return {};
  char head[kHead];
  ZELTA_TRY(report(readBuffer(file_, position, head, kHead)));
  std::memcpy(target, head, kPositionWord);
  std::memcpy(size, head + kPositionWord, kSizeWord);
  position += kPositionWord;
  if (*size <= kSizeWord || *size > place_.end - position) return {};
  if (*target < place_.firstPage || *target >= place_.fileEnd || *size > place_.fileEnd - *target) {
    return {};
  }
  position += *size;
  *sound = true;
  return {};
}

/// Whether the free blocks lie where pages do.
Result PageJournal::checkFreeChain(std::uint64_t position, bool* sound) {
  for (std::uint32_t left = place_.freeEntries; left != 0; --left) {
    FreeBlockChunk::Entry entry;
    ZELTA_TRY(report(readBuffer(file_, position, &entry, sizeof entry)));
    if (entry.position < place_.firstPage || entry.position > place_.fileEnd ||
        entry.size > place_.fileEnd - entry.position) {
      *sound = false;
      return {};
    }
    position += sizeof entry;
  }
  return {};
}

Result PageJournal::check(bool* sound) {
  std::uint64_t position = place_.start;
  for (std::uint32_t i = 0; i < place_.pages; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    ZELTA_TRY(entryAt(position, &target, &size, sound));
    if (!*sound) return {};
  }
  *sound = place_.end - position == std::uint64_t{place_.freeEntries} * kFreeEntrySize;
  return *sound ? checkFreeChain(position, sound) : Result{};
}

Result PageJournal::copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size) {
  char* bytes = buffer().reserve(kPieceSize);
  while (size != 0) {
    const auto piece = static_cast<std::uint32_t>(std::min<std::uint64_t>(kPieceSize, size));
    ZELTA_TRY(report(readBuffer(file_, from, bytes, piece)));
    ZELTA_TRY(report(writeBuffer(file_, to, bytes, piece)));
    from += piece;
    to += piece;
    size -= piece;
  }
  return {};
}

Result PageJournal::applyFreeChain(std::uint64_t position) {
  struct Chunks {
    FreeBlockChunk* first = nullptr;
    Chunks() = default;
    Chunks(const Chunks&) = delete;
    Chunks& operator=(const Chunks&) = delete;
    ~Chunks() { dropFreeChunks(first); }
  } chunks;
  for (std::uint32_t left = place_.freeEntries; left != 0;) {
    const std::uint32_t piece = std::min(left, FreeBlockChunk::kEntries);
    ZELTA_TRY(readFreeBlockJournal(metaData_, file_, position, piece, chunks.first));
    ZELTA_TRY(applyFreeBlockChunks(metaData_, file_, chunks.first, false));
    dropFreeChunks(chunks.first);
    position += std::uint64_t{piece} * kFreeEntrySize;
    left -= piece;
  }
  return {};
}

Result PageJournal::apply() {
  std::uint64_t position = place_.start;
  for (std::uint32_t i = 0; i < place_.pages; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    bool sound = false;
    ZELTA_TRY(entryAt(position, &target, &size, &sound));
    if (!sound) return reportDamagedPages(metaData_, table_, kind_);
    ZELTA_TRY(copyPage(position - size, target, size));
  }
  return applyFreeChain(position);
}

}  // namespace zelta

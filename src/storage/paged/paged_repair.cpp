#include "storage/paged/paged_repair.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"
#include "storage/free_space/free_journal.h"

namespace zelta {

namespace {

using Image = PagedHeaderImage;

constexpr std::uint64_t kPieceSize = 64 * 1024;
/// A page entry: its position, and the page, which begins with its size.
constexpr std::uint64_t kPositionWord = 8;
constexpr std::uint64_t kSizeWord = 4;

/// The repair of one file. The journal: pages, each led by its position, then blocks of the free
/// chain.
class Repair {
 public:
  Repair(const PagedForm& form, const AtomicManager& manager, PagedFileHeader& header, Image& image)
      : form_(form),
        manager_(manager),
        header_(header),
        image_(image),
        file_(manager.table.*form.handle),
        firstPage_(form.headerSize(manager.indexCount)) {}

  Result run(PagedRepair* outcome);

 private:
  Result carryOut();
  Result drop();
  /// Brings the header to rest, as the last step of either.
  Result rest(std::uint64_t end);

  Result readJournalRoots();
  /// Whether the journal can be believed.
  Result believe(bool* sound);
  Result addJournal(std::uint64_t& sum);
  Result checkEntries(bool* sound);
  /// Reads the head of a page entry and moves behind it; `*sound` false: it can't be one.
  Result entryAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size, bool* sound);
  Result checkFreeBlocks(std::uint64_t position, bool* sound);
  Result applyEntries();
  Result copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size);
  Result applyFreeBlocks(std::uint64_t position);

  [[nodiscard]] Result outcomeOf(SystemCode result) const {
    return result == 0 ? Result{} : manager_.failed(form_.file, result);
  }
  Result flushToDisk() {
    return form_.outlastsPower ? outcomeOf(platform::flushFile(file_)) : Result{};
  }
  [[nodiscard]] Result corrupted() const { return manager_.corrupted(form_.file); }
  [[nodiscard]] char* buffer() const {
    return manager_.metaData.scratchFor(Scratch::transfer).reserve(kPieceSize);
  }

  const PagedForm& form_;
  const AtomicManager& manager_;
  PagedFileHeader& header_;
  Image& image_;
  platform::File file_;
  std::uint64_t firstPage_;
};

/// Decides what becomes of the journal that stands.
Result Repair::run(PagedRepair* outcome) {
  assert(header_.newEndOfFile != 0);
  *outcome = PagedRepair::dropped;
  if (form_.builtFromTable && header_.journalEnd == 0) {
    *outcome = PagedRepair::unfinishedBuild;
    return {};
  }
  std::uint64_t length = 0;
  ZELTA_TRY(outcomeOf(platform::fileSize(file_, &length)));
  if (header_.journalEnd > length) return drop();
  if (header_.journalBase == 0) {
    *outcome = PagedRepair::carriedOut;
    return rest(header_.newEndOfFile);  // only the header is left
  }
  ZELTA_TRY(readJournalRoots());
  bool sound = false;
  ZELTA_TRY(believe(&sound));
  if (!sound) return drop();
  *outcome = PagedRepair::carriedOut;
  return carryOut();
}

/// Does what steps 4 and 5 would have done. All images are final, so that it does not matter how
/// many of them are in their places already.
Result Repair::carryOut() {
  assert(header_.journalBase != 0 && header_.journalEnd >= journalStart(header_));
  ZELTA_TRY(applyEntries());
  std::memcpy(image_.roots(), image_.journalRoots(), image_.rootBytes());
  ZELTA_TRY(outcomeOf(writeBuffer(file_, image_.rootsStart(), image_.roots(),
                                  static_cast<std::int64_t>(image_.rootBytes()))));
  // All of it must be on the disk before the journal that could bring it there again is given up.
  ZELTA_TRY(flushToDisk());
  header_.freeHead = header_.newFreeHead;
  return rest(header_.newEndOfFile);
}

/// The end stays as it is: the new one is written only when all has been applied. That a journal
/// names another base is damage, and nothing to be cut off for.
Result Repair::drop() {
  if (header_.journalBase != 0 && header_.journalBase != header_.endOfFile) return corrupted();
  return rest(header_.endOfFile);
}

/// As step 5 of a flush: the end of a change that was carried out, and of one that was dropped.
Result Repair::rest(std::uint64_t end) {
  if (end < firstPage_ || end > kPagedFileLimit) return corrupted();
  header_.endOfFile = end;
  clearIntent(header_);
  image_.putAtRest(header_);
  constexpr std::uint64_t kStart = Image::kChainStart;
  ZELTA_TRY(outcomeOf(writeBuffer(file_, kStart, image_.bytes() + kStart,
                                  static_cast<std::int64_t>(image_.rootsStart() - kStart))));
  ZELTA_TRY(flushToDisk());
  // Only ever cut: a damaged header must not make the file grow.
  std::uint64_t length = 0;
  ZELTA_TRY(outcomeOf(platform::fileSize(file_, &length)));
  return length > end ? outcomeOf(truncateFile(file_, end)) : Result{};
}

// -- Whether the journal can be believed ----------------------------------------------------------

Result Repair::readJournalRoots() {
  return outcomeOf(readBuffer(file_, image_.journalRootsStart(), image_.journalRoots(),
                              static_cast<std::uint32_t>(image_.rootBytes())));
}

Result Repair::believe(bool* sound) {
  *sound = header_.journalEnd >= journalStart(header_);
  if (!*sound) return {};
  std::uint64_t sum = 0;
  xorChecksum64(sum, image_.bytes() + Image::kSummedStart,
                image_.rootsStart() - Image::kSummedStart);
  ZELTA_TRY(addJournal(sum));
  *sound = sum == header_.journalChecksum;
  return *sound ? checkEntries(sound) : Result{};
}

/// Folds the journal's bytes into a sum, piece by piece.
Result Repair::addJournal(std::uint64_t& sum) {
  char* bytes = buffer();
  for (std::uint64_t at = journalStart(header_); at < header_.journalEnd;) {
    const std::uint64_t piece = std::min(kPieceSize, header_.journalEnd - at);
    ZELTA_TRY(outcomeOf(readBuffer(file_, at, bytes, static_cast<std::uint32_t>(piece))));
    xorChecksum64(sum, bytes, piece);
    at += piece;
  }
  return {};
}

Result Repair::entryAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size,
                       bool* sound) {
  *sound = false;
  assert(position <= header_.journalEnd);
  constexpr std::uint32_t kHead = kPositionWord + kSizeWord;
  if (header_.journalEnd - position < kHead) return {};
  char head[kHead];
  ZELTA_TRY(outcomeOf(readBuffer(file_, position, head, kHead)));
  std::memcpy(target, head, kPositionWord);
  std::memcpy(size, head + kPositionWord, kSizeWord);
  position += kPositionWord;
  if (*size <= kSizeWord || *size > header_.journalEnd - position) return {};
  if (*target < firstPage_ || *target >= header_.newEndOfFile ||
      *size > header_.newEndOfFile - *target) {
    return {};
  }
  position += *size;
  *sound = true;
  return {};
}

/// Whether the free blocks lie where pages do.
Result Repair::checkFreeBlocks(std::uint64_t position, bool* sound) {
  for (std::uint32_t left = header_.freeEntryCount; left != 0; --left) {
    FreeEntry_tag entry;
    ZELTA_TRY(outcomeOf(readBuffer(file_, position, &entry, sizeof entry)));
    *sound = entry.liesWithin(firstPage_, header_.newEndOfFile);
    if (!*sound) return {};
    position += sizeof entry;
  }
  return {};
}

/// Whether each entry lies where pages or blocks do, and all of them together end where the header
/// says that the journal ends.
Result Repair::checkEntries(bool* sound) {
  std::uint64_t position = journalStart(header_);
  for (std::uint32_t i = 0; i < header_.pageEntryCount; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    ZELTA_TRY(entryAt(position, &target, &size, sound));
    if (!*sound) return {};
  }
  *sound = header_.journalEnd - position == std::uint64_t{header_.freeEntryCount} * kFreeEntrySize;
  return *sound ? checkFreeBlocks(position, sound) : Result{};
}

/// Copies a page image from the journal to its place. The two do not overlap: the journal lies
/// behind the new end, the place in front of it.
Result Repair::copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size) {
  char* bytes = buffer();
  while (size != 0) {
    const auto piece = static_cast<std::uint32_t>(std::min<std::uint64_t>(kPieceSize, size));
    ZELTA_TRY(outcomeOf(readBuffer(file_, from, bytes, piece)));
    ZELTA_TRY(outcomeOf(writeBuffer(file_, to, bytes, piece)));
    from += piece;
    to += piece;
    size -= piece;
  }
  return {};
}

Result Repair::applyFreeBlocks(std::uint64_t position) {
  PageFreeJournal journal(manager_.metaData, file_);
  for (std::uint32_t left = header_.freeEntryCount; left != 0;) {
    const std::uint32_t piece = std::min(left, PageFreeJournal::kPiece);
    ZELTA_TRY(journal.read(position, piece));
    ZELTA_TRY(journal.apply());
    journal.clear();
    position += std::uint64_t{piece} * kFreeEntrySize;
    left -= piece;
  }
  return {};
}

/// The entries were checked by believe(), so that one which does not fit now is damage.
Result Repair::applyEntries() {
  std::uint64_t position = journalStart(header_);
  for (std::uint32_t i = 0; i < header_.pageEntryCount; ++i) {
    std::uint64_t target = 0;
    std::uint32_t size = 0;
    bool sound = false;
    ZELTA_TRY(entryAt(position, &target, &size, &sound));
    if (!sound) return corrupted();
    ZELTA_TRY(copyPage(position - size, target, size));
  }
  return applyFreeBlocks(position);
}

}  // namespace

Result repairPagedFile(const PagedForm& form, const AtomicManager& manager, PagedFileHeader& header,
                       PagedHeaderImage& image, PagedRepair* outcome) {
  return Repair(form, manager, header, image).run(outcome);
}

}  // namespace zelta

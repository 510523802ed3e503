// A file of pages that changes as a whole, whoever dies meanwhile: the memory file and the index
// file of a table. Both have one form:
//
//   PagedFileHeader | roots of a journal | roots in use | pages and free blocks | journal
//                                                                               ^ endOfFile
//
// A change takes five steps (PagedFlush). Who reads the header next and may write repairs what a
// death has left (repairPagedFile):
//
//   step       what it writes                                    found after a death in it
//   1 prepare  nothing: it merges the free chain and works out   the file at rest, unchanged
//              the new end
//   2 journal  final images, behind the old and the new end      the same; what is behind the end
//                                                                means nothing
//   3 intent   where the journal is, its sum, the new roots      the same, or a journal: carried
//                                                                out if whole, else dropped
//   4 apply    pages, roots and free blocks in their places      a journal: carried out once more
//   5 finish   head of the free chain and end; then the intent   a journal: carried out once more,
//              is cleared                                        or only the intent cleared
//
// At the end of step 3 the change is made. Invariants:
//
//   1. A journal stands while `newEndOfFile` is not 0. With a `journalBase` of 0 it is applied, and
//      only the header is left to do.
//   2. Until step 4 nothing below `endOfFile` changes but the intent and the journal's roots. So a
//      change is dropped by clearing them and cutting the file at `endOfFile`.
//   3. The journal lies behind both ends, where nothing that is copied out of it overlaps it. All
//      entries are final images: carried out again they give the same bytes.
//   4. `freeHead` and `endOfFile` change in step 5, when all that they lead to is in its place.
//   5. A journal is believed if the file reaches to its end, its sum is right, and each of its
//      entries lies where pages do. The sum alone is too weak to trust positions.

#ifndef ZELTA_STORAGE_PAGED_PAGED_FILE_H
#define ZELTA_STORAGE_PAGED_PAGED_FILE_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "storage/table.h"

namespace zelta {

/// Which of a table's two paged files.
enum class PageFile { index, memory };

/// The part of the header that does not depend on the count n of indexes. Behind it lie the roots
/// that a standing journal brings (else zeros), then the roots in use.
struct PagedFileHeader {
  char magic[4];
  std::uint16_t majorVersion;
  std::uint16_t minorVersion;
  std::uint32_t indexCount;       ///< n
  std::uint32_t pageSize;         ///< a power of two
  std::uint64_t freeHead;         ///< first block of the free-space chain, 0 for none
  std::uint64_t endOfFile;        ///< end of the used file
  std::uint64_t journalBase;      ///< `endOfFile` when the journal was written
  std::uint64_t journalEnd;       ///< position just behind the journal
  std::uint64_t newEndOfFile;     ///< `endOfFile` after the journal; not 0: a journal stands
  std::uint64_t journalChecksum;  ///< over the fields below, the new roots and the journal
  std::uint64_t newFreeHead;      ///< `freeHead` after the journal
  std::uint32_t pageEntryCount;   ///< page images in the journal
  std::uint32_t freeEntryCount;   ///< free-block entries in the journal
};
static_assert(sizeof(PagedFileHeader) == 80);
static_assert(std::has_unique_object_representations_v<PagedFileHeader>);
static_assert(offsetof(PagedFileHeader, freeHead) == 16);
static_assert(offsetof(PagedFileHeader, journalBase) == 32);
static_assert(offsetof(PagedFileHeader, newFreeHead) == 64);

/// The headers of the two files, of one form, kept apart as what they are.
struct MemoryFileHeader_tag : PagedFileHeader {};
struct IndexFileHeader_tag : PagedFileHeader {};
static_assert(sizeof(MemoryFileHeader_tag) == sizeof(PagedFileHeader));
static_assert(sizeof(IndexFileHeader_tag) == sizeof(PagedFileHeader));

/// What tells the two files apart.
struct PagedForm {
  PageFile file;
  char magic[4];
  std::uint16_t majorVersion;
  std::uint16_t minorVersion;
  std::uint32_t ownRoots;  ///< roots beside the one of each index, ahead of these
  platform::File Table::*handle;
  const char16_t* extension;  ///< for reports
  Own damage;                 ///< reported for wrong content

  /// The content has to outlast a loss of power. Steps 3, 4 and 5 end with a flush to the disk, as
  /// a repair does: between two of them writes may reach it in any order. Without this the file
  /// need only outlast processes, which see all writes in their order. Nothing is flushed, the
  /// header is written in order, and the word that says that a journal stands goes last.
  bool outlastsPower;
  /// Written with every change of an object, so that each system call counts. The journal's buffer
  /// is measured page by page, so that it goes out in one write; a file that grows takes more than
  /// it needs, for which its length is asked each time, ahead of all else. Without this the length
  /// is asked only if there is something to write, as most commits leave most index files alone.
  bool writtenOften;
  /// Made from the table's objects, with its header first: a journal that has no end says that a
  /// build has died. A file without this is empty at first, and its header is made anew until it is
  /// whole.
  bool builtFromTable;

  /// Roots in the file of a table with n indexes.
  [[nodiscard]] constexpr std::uint32_t rootCount(std::uint32_t indexCount) const {
    return indexCount + ownRoots;
  }
  /// Bytes of its header with both tables of roots. Pages lie behind them.
  [[nodiscard]] constexpr std::uint64_t headerSize(std::uint32_t indexCount) const {
    return sizeof(PagedFileHeader) + 16 * (std::uint64_t{indexCount} + ownRoots);
  }
  /// Whether a page or record of this size can lie there in a file with this end.
  [[nodiscard]] constexpr bool holds(std::uint64_t position, std::uint64_t size, std::uint64_t end,
                                     std::uint32_t indexCount) const {
    return position >= headerSize(indexCount) && position < end && size <= end - position;
  }
};

/// What running transactions have changed. Root 0 is the object map, root i + 1 the pending keys of
/// index i. After a loss of power the log has all that was committed.
inline constexpr PagedForm kMemoryForm = {
    .file = PageFile::memory,
    .magic = {'Z', 'E', 'L', 'M'},
    .majorVersion = 1,
    .minorVersion = 1,
    .ownRoots = 1,
    .handle = &Table::memoryFile,
    .extension = extension::kMemory,
    .damage = Own::memoryFile,
    .outlastsPower = false,
    .writtenOften = true,
    .builtFromTable = false,
};
/// The committed keys. Root i is the tree of index i.
inline constexpr PagedForm kIndexForm = {
    .file = PageFile::index,
    .magic = {'Z', 'E', 'L', 'I'},
    .majorVersion = 1,
    .minorVersion = 0,
    .ownRoots = 0,
    .handle = &Table::indexFile,
    .extension = extension::kIndex,
    .damage = Own::indexFile,
    .outlastsPower = true,
    .writtenOften = false,
    .builtFromTable = true,
};

[[nodiscard]] constexpr const PagedForm& formOf(PageFile file) {
  return file == PageFile::memory ? kMemoryForm : kIndexForm;
}

inline constexpr std::uint32_t kSmallestPageUnit = 64;
/// No end of a sound file lies behind it.
inline constexpr std::uint64_t kPagedFileLimit = std::uint64_t{1} << 62;

/// Page size of a new file: room for the roots, and for about `keys` keys of the mean length of the
/// table's indexes, of which a file without own roots needs one. 0 if no size of 32 bits gives
/// that.
[[nodiscard]] std::uint32_t newPageSize(const PagedForm& form, const Table& table,
                                        std::uint64_t keys);

/// The header of a new file, at rest. Its end is the caller's to set.
[[nodiscard]] PagedFileHeader newPagedHeader(const PagedForm& form, const Table& table,
                                             std::uint32_t pageSize);

/// Whether a header has the form's first word, and the version that this library reads and writes.
[[nodiscard]] inline bool hasMagic(const PagedForm& form, const PagedFileHeader& header) {
  return std::memcmp(header.magic, form.magic, sizeof(header.magic)) == 0;
}
[[nodiscard]] inline bool hasVersion(const PagedForm& form, const PagedFileHeader& header) {
  return header.majorVersion == form.majorVersion && header.minorVersion == form.minorVersion;
}
/// Whether the unit of page sizes is one that newPageSize() could have given.
[[nodiscard]] inline bool pageSizeIsSound(const PagedFileHeader& header) {
  return header.pageSize >= kSmallestPageUnit && std::has_single_bit(header.pageSize);
}
/// Whether each root is 0 or lies where pages do.
[[nodiscard]] inline bool rootsAreSound(const PagedForm& form, const PagedFileHeader& header,
                                        const std::uint64_t* roots) {
  const std::uint64_t first = form.headerSize(header.indexCount);
  const std::uint32_t count = form.rootCount(header.indexCount);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (roots[i] != 0 && (roots[i] < first || roots[i] >= header.endOfFile)) return false;
  }
  return true;
}

/// Forgets the journal: `header` at rest, with `freeHead` and `endOfFile` as they are.
void clearIntent(PagedFileHeader& header);

/// The place of the journal, behind both ends.
[[nodiscard]] inline std::uint64_t journalStart(const PagedFileHeader& header) {
  return header.newEndOfFile > header.journalBase ? header.newEndOfFile : header.journalBase;
}

/// The bytes of a header with both tables of roots, on the stack for tables of usual kind. Not
/// initialised.
class PagedHeaderImage {
 public:
  // Offsets in the header that one write of a change begins at.
  /// Where the part of the header begins that a change touches.
  static constexpr std::uint64_t kChainStart = offsetof(PagedFileHeader, freeHead);
  /// Where the fields of a standing journal begin.
  static constexpr std::uint64_t kIntentStart = offsetof(PagedFileHeader, journalBase);
  /// Where the part of the header begins that the journal's checksum covers.
  static constexpr std::uint64_t kSummedStart = offsetof(PagedFileHeader, newFreeHead);

  PagedHeaderImage(const PagedForm& form, std::uint32_t indexCount)
      : rootBytes_(8 * std::uint64_t{form.rootCount(indexCount)}),
        size_(form.headerSize(indexCount)) {
    if (size_ > fixed_.size()) large_.resize(size_);
  }
  [[nodiscard]] char* bytes() { return large_.empty() ? fixed_.data() : large_.data(); }
  [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(size_); }
  /// Of either table of roots.
  [[nodiscard]] std::uint64_t rootBytes() const { return rootBytes_; }
  [[nodiscard]] std::uint64_t journalRootsStart() const { return sizeof(PagedFileHeader); }
  [[nodiscard]] std::uint64_t rootsStart() const { return journalRootsStart() + rootBytes_; }
  /// The two tables in the image.
  [[nodiscard]] char* journalRoots() { return bytes() + journalRootsStart(); }
  [[nodiscard]] char* roots() { return bytes() + rootsStart(); }

  void putHeader(const PagedFileHeader& header) { std::memcpy(bytes(), &header, sizeof(header)); }
  void putJournalRoots(const std::uint64_t* roots) {
    std::memcpy(journalRoots(), roots, rootBytes_);
  }
  /// The header at rest, and no roots of a journal.
  void putAtRest(const PagedFileHeader& header) {
    putHeader(header);
    std::memset(journalRoots(), 0, rootBytes_);
  }

 private:
  std::uint64_t rootBytes_;
  std::uint64_t size_;
  std::array<char, 512> fixed_;
  std::vector<char> large_;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_PAGED_FILE_H

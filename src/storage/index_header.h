// The header of an index file, as far as the page manager needs it too.

#ifndef ZELTA_STORAGE_INDEX_HEADER_H
#define ZELTA_STORAGE_INDEX_HEADER_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace zelta {

/// Behind it lie n pending roots (of a commit under way, else zero), then the n roots in use, then
/// zeros up to the first page.
struct IndexFileHeader_tag {
  char magic[4];                     ///< "ZELI"
  std::uint16_t majorVersion;        ///< 1
  std::uint16_t minorVersion;        ///< 0
  std::uint32_t indexCount;          ///< n
  std::uint32_t pageSize;            ///< a power of two
  std::uint64_t freeListHead;        ///< first block of the free-space chain, 0 for none
  std::uint64_t fileEnd;             ///< committed length
  std::uint64_t rollbackEnd;         ///< in a commit: the length to go back to
  std::uint64_t journalEnd;          ///< in a commit: position just behind the journal
  std::uint64_t newFileEnd;          ///< in a commit: the length after it; not 0: a commit stands
  std::uint64_t journalSum;          ///< over the fields below, the pending roots and the journal
  std::uint64_t newFreeListHead;     ///< in a commit: `freeListHead` after it
  std::uint32_t journalPages;        ///< in a commit: page records in the journal
  std::uint32_t journalFreeRecords;  ///< in a commit: free-space records in the journal
};
static_assert(sizeof(IndexFileHeader_tag) == 80);
static_assert(std::has_unique_object_representations_v<IndexFileHeader_tag>);
static_assert(offsetof(IndexFileHeader_tag, freeListHead) == 16);
static_assert(offsetof(IndexFileHeader_tag, rollbackEnd) == 32);
static_assert(offsetof(IndexFileHeader_tag, newFreeListHead) == 64);

/// Bytes of the header with both tables of roots.
[[nodiscard]] constexpr std::uint64_t indexHeaderSize(std::uint32_t indexCount) {
  return sizeof(IndexFileHeader_tag) + 16 * std::uint64_t{indexCount};
}

}  // namespace zelta

#endif  // ZELTA_STORAGE_INDEX_HEADER_H

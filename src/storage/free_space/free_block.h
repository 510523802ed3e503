// The byte forms of free space: the block as it stands in a file, the entry that describes it in a
// journal, and a policy class ("form") for each of the three kinds of file that have such space.
// FreeChain and FreeJournal are templates over the form; nothing here reads or writes.
//
// A form states the head that a block begins with, the granule that sizes are multiples of, the
// greatest size of a block, the greatest size that a journal may state, and whether a block repeats
// its size at its end.
//
// A chain leads through the blocks themselves, in ascending order of position; the header of the
// file has its first position. Nothing overlaps. docs/file-formats.md has the offsets.

#ifndef ZELTA_STORAGE_FREE_SPACE_FREE_BLOCK_H
#define ZELTA_STORAGE_FREE_SPACE_FREE_BLOCK_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace zelta {

/// A free block of a table, index or memory file.
struct NarrowBlock_tag {
  std::uint32_t size;    ///< bytes, this header included
  std::uint32_t marker;  ///< kFreeMarker
  std::uint64_t next;    ///< position of the next free block, 0 at the end
};
static_assert(sizeof(NarrowBlock_tag) == 16);
static_assert(std::has_unique_object_representations_v<NarrowBlock_tag>);

/// Head of a free block of a log file; 20 bytes in the file.
struct WideBlock_tag {
  std::uint64_t size;    ///< bytes, this header included
  std::uint64_t next;    ///< position of the next free block, 0 at the end
  std::uint32_t marker;  ///< kFreeMarker
  std::uint32_t padding;
};
inline constexpr std::uint32_t kWideBlockHead = offsetof(WideBlock_tag, padding);
static_assert(kWideBlockHead == 20);

/// Stands where a record of a table has its length.
inline constexpr std::uint32_t kFreeMarker = 0xFFFFFFFF;
/// Granule of blocks in table, index and memory files, and the smallest block in the latter two.
inline constexpr std::uint32_t kBlockGranule = 16;
inline constexpr std::uint32_t kMinimumBlock = 32;
/// Granule of blocks in log files.
inline constexpr std::uint32_t kWideGranule = 8;

/// A journal's entry: a block as it is to be. Applying an entry again gives the same bytes, since
/// it holds the whole state of the block and none of the state before. Entries of all three kinds
/// of file look like this, in the file and in memory. Applying an entry again gives the same bytes.
struct FreeEntry_tag {
  std::uint64_t position;      ///< of the block in its file
  std::uint64_t next;          ///< of the block behind it in the chain, 0 at the end
  std::uint64_t size;          ///< bytes, the head included
  std::uint64_t originalSize;  ///< size when read from the file, 0 for a block made in memory
  std::uint32_t zero;
  std::uint8_t dirty;  ///< 0: nothing is to be written
  std::uint8_t padding[3];

  /// Whether the block lies in [from, to).
  [[nodiscard]] bool liesWithin(std::uint64_t from, std::uint64_t to) const {
    return position >= from && position <= to && size <= to - position;
  }
};
inline constexpr std::uint32_t kFreeEntrySize = sizeof(FreeEntry_tag);
static_assert(kFreeEntrySize == 40);
static_assert(std::has_unique_object_representations_v<FreeEntry_tag>);

/// A stretch of a file, [position, end()). Nothing is implied about what it holds.
struct FileSpan {
  std::uint64_t position;
  std::uint64_t size;

  [[nodiscard]] std::uint64_t end() const { return position + size; }
  bool operator==(const FileSpan&) const = default;
};

/// No file is longer; sums of two positions or sizes below it do not wrap.
inline constexpr std::uint64_t kPositionLimit = std::uint64_t{1} << 62;

/// The size of a block that serves a request: the greater of the two, rounded up to the granule.
template <class Form>
[[nodiscard]] constexpr std::uint64_t blockNeed(std::uint64_t size, std::uint64_t minimum) {
  return (std::max(size, minimum) + Form::kGranule - 1) / Form::kGranule * Form::kGranule;
}

/// Blocks of index and memory files.
struct PageBlocks {
  using Head = NarrowBlock_tag;
  static constexpr std::uint32_t kHeadSize = sizeof(Head);
  static constexpr std::uint32_t kGranule = kBlockGranule;
  /// Sizes have 32 bits: neighbours whose sum would not fit stay apart.
  static constexpr std::uint64_t kLargest = 0xFFFFFFF0;
  /// What a journal's entry may state.
  static constexpr std::uint64_t kLargestEntry = 0xFFFFFFFF;
  /// Bytes at a block's end that repeat its size.
  static constexpr std::uint32_t kTailTag = 0;

  static Head head(std::uint64_t size, std::uint64_t next) {
    return {static_cast<std::uint32_t>(size), kFreeMarker, next};
  }
};

/// Blocks of table files, which can be walked from behind as records can.
struct TableBlocks : PageBlocks {
  /// A record has its size there too, so that the neighbour below any block can be found.
  static constexpr std::uint32_t kTailTag = sizeof(std::uint32_t);
};

/// Blocks of log files: sizes have 64 bits, as one entry of the log may be longer than 4 GiB.
struct LogBlocks {
  using Head = WideBlock_tag;
  static constexpr std::uint32_t kHeadSize = kWideBlockHead;
  static constexpr std::uint32_t kGranule = kWideGranule;
  static constexpr std::uint64_t kLargest = ~std::uint64_t{0};
  static constexpr std::uint64_t kLargestEntry = kPositionLimit - 1;
  static constexpr std::uint32_t kTailTag = 0;

  static Head head(std::uint64_t size, std::uint64_t next) { return {size, next, kFreeMarker, 0}; }
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_FREE_SPACE_FREE_BLOCK_H

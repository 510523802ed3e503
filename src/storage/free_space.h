// Free space in files: chains of free blocks in ascending order of position, which live in the
// blocks themselves. In memory a list mirrors the front of the chain as far as it has been walked;
// changes are made there, journalled by the owner of the file, and only then applied to the blocks.

#ifndef ZELTA_STORAGE_FREE_SPACE_H
#define ZELTA_STORAGE_FREE_SPACE_H

#include <cstddef>
#include <cstdint>

#include "frame/metadata.h"
#include "platform/file.h"

namespace zelta {

/// A free block of a table, index or memory file.
struct NarrowBlock_tag {
  std::uint32_t size;    ///< bytes, this header included
  std::uint32_t marker;  ///< kFreeMarker
  std::uint64_t next;    ///< position of the next free block, 0 at the end
};
static_assert(sizeof(NarrowBlock_tag) == 16);

/// Stands where a record of a table has its length.
inline constexpr std::uint32_t kFreeMarker = 0xFFFFFFFF;
/// Granule of blocks, and the smallest block, in memory and index files.
inline constexpr std::uint32_t kBlockGranule = 16;
inline constexpr std::uint32_t kMinimumBlock = 32;

/// Head of a free block of a log file; 20 bytes in the file.
struct WideBlock_tag {
  std::uint64_t size;    ///< bytes, this header included
  std::uint64_t next;    ///< position of the next free block, 0 at the end
  std::uint32_t marker;  ///< kFreeMarker
  std::uint32_t padding;
};
inline constexpr std::uint32_t kWideBlockHead = offsetof(WideBlock_tag, padding);
static_assert(kWideBlockHead == 20);

/// A block in memory. Its first 40 bytes are also its journal entry.
struct FreeBlock {
  std::uint64_t position;
  std::uint64_t next;
  std::uint64_t size;
  std::uint64_t originalSize;  ///< size when read from the file, 0 for a block made in memory
  std::uint32_t zero;
  std::uint8_t dirty;
  std::uint8_t padding[3];
  FreeBlock* nextNode;  ///< in memory only
};
inline constexpr std::uint32_t kFreeEntrySize = offsetof(FreeBlock, nextNode);
static_assert(kFreeEntrySize == 40);

/// 40 journal entries read back during recovery.
struct FreeBlockChunk {
  struct Entry {
    std::uint64_t position, next, size, originalSize;
    std::uint32_t zero;
    std::uint8_t dirty;
    std::uint8_t padding[3];
  };
  static constexpr std::uint32_t kEntries = 40;
  Entry entries[kEntries];
  FreeBlockChunk* nextChunk = nullptr;
  std::uint32_t used = 0;
};
static_assert(sizeof(FreeBlockChunk::Entry) == kFreeEntrySize);

/// Extents that a commit has released and not yet merged into the chain, by position.
struct FreeExtentNode {
  std::int32_t balance = 0;
  std::uint64_t size = 0;
  std::uint64_t position = 0;
  FreeExtentNode* left = nullptr;
  FreeExtentNode* right = nullptr;
};
int insert(FreeExtentNode* node, FreeExtentNode*& root);
int remove(FreeExtentNode* node, FreeExtentNode*& root);
[[nodiscard]] FreeExtentNode* find(FreeExtentNode* root, std::uint64_t position);
[[nodiscard]] std::uint32_t count(const FreeExtentNode* root);
FreeExtentNode** flatten(FreeExtentNode* root, FreeExtentNode** out);
void destroyAll(FreeExtentNode*& root);

/// Frees the list; nothing on disk changes.
void dropFreeList(FreeBlock*& list);
void dropFreeChunks(FreeBlockChunk*& chunks);

/// Releases a block and merges it with its neighbours, in the list.
Result addFreeBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                    std::uint64_t position, std::uint32_t size);

/// First fit from the low end, at or behind `lowest`. A block that would leave less than `minimum`
/// is taken whole; otherwise its tail is given out. `*outPosition` 0: nothing fits, take the file's
/// end and advance it by blockNeed(size, minimum).
Result allocateBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                     std::uint32_t size, std::uint64_t* outPosition, std::uint32_t* outSize,
                     std::uint32_t minimum, std::uint64_t lowest);
/// Bytes that a request takes: the greater of the two, rounded up to the granule.
[[nodiscard]] constexpr std::uint64_t blockNeed(std::uint64_t size, std::uint64_t minimum) {
  return ((size > minimum ? size : minimum) + kBlockGranule - 1) / kBlockGranule * kBlockGranule;
}

/// Folds released extents (may be null) into the chain, joins neighbours, and lets a block at the
/// end of the file vanish: `*outEnd` is the new end. If a counter is given, the dirty blocks are
/// added to `*journalCount` and, if an accumulator is given too, their journal entries are folded
/// into `*checksum64`. Positions and sizes of the extents are the caller's; the tree stays.
Result mergeFreeExtents(MetaData& metaData, platform::File file, std::uint64_t& head,
                        std::uint64_t endOfFile, FreeExtentNode* extents, FreeBlock*& list,
                        std::uint64_t* outEnd, std::uint32_t* journalCount,
                        std::uint64_t* checksum64);

/// Writes the entries of the dirty blocks at `position`, which moves on.
Result writeFreeBlockJournal(MetaData& metaData, platform::File file, std::uint64_t& position,
                             const FreeBlock* list);
/// Appends the entries of the dirty blocks to a buffer that has room; returns the place behind
/// them.
char* copyFreeBlockJournal(char* out, const FreeBlock* list);

/// Writes the headers of the dirty blocks, with `tailTags` also the sizes at their ends.
Result applyFreeBlocks(MetaData& metaData, platform::File file, const FreeBlock* list,
                       bool tailTags);
Result applyFreeBlockChunks(MetaData& metaData, platform::File file, const FreeBlockChunk* chunks,
                            bool tailTags);
/// Reads `entries` journal entries at `position` into chunks.
Result readFreeBlockJournal(MetaData& metaData, platform::File file, std::uint64_t position,
                            std::uint32_t entries, FreeBlockChunk*& chunks);

// -- The log file's chain, of wide blocks -------------------------------------------------------
//
// The same rules with another head in the file: sizes have 64 bits, and their granule is 8.

inline constexpr std::uint32_t kWideGranule = 8;

Result addWideBlock(MetaData& metaData, platform::File file, FreeBlock*& list, std::uint64_t& head,
                    std::uint64_t position, std::uint64_t size);
Result allocateWideBlock(MetaData& metaData, platform::File file, FreeBlock*& list,
                         std::uint64_t& head, std::uint64_t size, std::uint64_t* outPosition,
                         std::uint64_t* outSize, std::uint64_t minimum);
[[nodiscard]] constexpr std::uint64_t wideBlockNeed(std::uint64_t size, std::uint64_t minimum) {
  return ((size > minimum ? size : minimum) + kWideGranule - 1) / kWideGranule * kWideGranule;
}
Result mergeWideExtents(MetaData& metaData, platform::File file, std::uint64_t& head,
                        std::uint64_t endOfFile, FreeExtentNode* extents, FreeBlock*& list,
                        std::uint64_t* outEnd, std::uint32_t* journalCount,
                        std::uint64_t* checksum64);
Result applyWideBlocks(MetaData& metaData, platform::File file, const FreeBlock* list);
Result applyWideBlockChunks(MetaData& metaData, platform::File file, const FreeBlockChunk* chunks);

}  // namespace zelta

#endif  // ZELTA_STORAGE_FREE_SPACE_H

// The journal of a free chain, and its application to the blocks. Entries hold final values, so
// that applying a journal again gives the same bytes.

#include <array>
#include <cstring>
#include <memory>
#include <type_traits>

#include "storage/free_space_detail.h"

namespace zelta {

namespace {

using free_space::chainIsBroken;
using free_space::kPositionLimit;
using free_space::Narrow;
using free_space::Wide;

constexpr std::uint32_t kTailTag = sizeof(std::uint32_t);

/// Writes the head of a block, and with `tailTags` its size once more at its end. Works on blocks
/// of the list and on journal entries alike.
template <class Form, class Block>
SystemCode writeBlock(platform::File file, const Block& block, bool tailTags) {
  const typename Form::Head head = Form::head(block.size, block.next);
  char bytes[Form::kHeadSize + kTailTag];
  std::memcpy(bytes, &head, Form::kHeadSize);
  if (!tailTags) return writeBuffer(file, block.position, bytes, Form::kHeadSize);
  const auto tag = static_cast<std::uint32_t>(block.size);
  std::memcpy(bytes + Form::kHeadSize, &tag, kTailTag);
  if (block.size == sizeof(bytes)) return writeBuffer(file, block.position, bytes, sizeof(bytes));
  // Written even if the size is as it was read: a block that took over its lower neighbour and was
  // then split ends somewhere else.
  const SystemCode result = writeBuffer(file, block.position, bytes, Form::kHeadSize);
  if (result != 0) return result;
  return writeBuffer(file, block.position + block.size - kTailTag, &tag, kTailTag);
}

template <class Form>
Result applyList(MetaData& metaData, platform::File file, const FreeBlock* list, bool tailTags) {
  for (; list != nullptr; list = list->nextNode) {
    if (list->dirty == 0) continue;
    const SystemCode result = writeBlock<Form>(file, *list, tailTags);
    if (result != 0) return reportSystemError(&metaData, result);
  }
  return {};
}

/// The checksum of a journal is too weak to trust positions and sizes without a look at them.
template <class Form>
bool entryIsSound(const FreeBlockChunk::Entry& entry, bool tailTags) {
  const std::uint64_t least = Form::kHeadSize + (tailTags ? kTailTag : 0);
  return entry.position < kPositionLimit && entry.size >= least && entry.size < kPositionLimit &&
         entry.size <= (std::is_same_v<Form, Narrow> ? 0xFFFFFFFF : kPositionLimit);
}

template <class Form>
Result applyChunks(MetaData& metaData, platform::File file, const FreeBlockChunk* chunks,
                   bool tailTags) {
  for (; chunks != nullptr; chunks = chunks->nextChunk) {
    for (std::uint32_t i = 0; i < chunks->used; ++i) {
      const FreeBlockChunk::Entry& entry = chunks->entries[i];
      if (entry.dirty == 0 || entry.size == 0) continue;
      if (!entryIsSound<Form>(entry, tailTags)) return chainIsBroken(metaData);
      const SystemCode result = writeBlock<Form>(file, entry, tailTags);
      if (result != 0) return reportSystemError(&metaData, result);
    }
  }
  return {};
}

}  // namespace

void dropFreeChunks(FreeBlockChunk*& chunks) {
  while (chunks != nullptr) {
    const std::unique_ptr<FreeBlockChunk> chunk(chunks);
    chunks = chunk->nextChunk;
  }
}

char* copyFreeBlockJournal(char* out, const FreeBlock* list) {
  for (; list != nullptr; list = list->nextNode) {
    if (list->dirty == 0) continue;
    std::memcpy(out, list, kFreeEntrySize);
    out += kFreeEntrySize;
  }
  return out;
}

Result writeFreeBlockJournal(MetaData& metaData, platform::File file, std::uint64_t& position,
                             const FreeBlock* list) {
  // Entries lie one behind the other; some go out with each write.
  std::array<char, 100 * kFreeEntrySize> bytes;
  while (list != nullptr) {
    std::uint32_t used = 0;
    for (; list != nullptr && used < bytes.size(); list = list->nextNode) {
      if (list->dirty == 0) continue;
      std::memcpy(bytes.data() + used, list, kFreeEntrySize);
      used += kFreeEntrySize;
    }
    const SystemCode result = writeBuffer(file, position, bytes.data(), used);
    if (result != 0) return reportSystemError(&metaData, result);
    position += used;
  }
  return {};
}

Result readFreeBlockJournal(MetaData& metaData, platform::File file, std::uint64_t position,
                            std::uint32_t entries, FreeBlockChunk*& chunks) {
  FreeBlockChunk** link = &chunks;
  while (*link != nullptr) link = &(*link)->nextChunk;
  while (entries != 0) {
    auto chunk = std::make_unique<FreeBlockChunk>();
    chunk->used = entries < FreeBlockChunk::kEntries ? entries : FreeBlockChunk::kEntries;
    const std::uint32_t length = chunk->used * kFreeEntrySize;
    const SystemCode result = readBuffer(file, position, chunk->entries, length);
    if (result != 0) return reportSystemError(&metaData, result);
    position += length;
    entries -= chunk->used;
    *link = chunk.release();
    link = &(*link)->nextChunk;
  }
  return {};
}

Result applyFreeBlocks(MetaData& metaData, platform::File file, const FreeBlock* list,
                       bool tailTags) {
  return applyList<Narrow>(metaData, file, list, tailTags);
}

Result applyFreeBlockChunks(MetaData& metaData, platform::File file, const FreeBlockChunk* chunks,
                            bool tailTags) {
  return applyChunks<Narrow>(metaData, file, chunks, tailTags);
}

Result applyWideBlocks(MetaData& metaData, platform::File file, const FreeBlock* list) {
  return applyList<Wide>(metaData, file, list, false);
}

Result applyWideBlockChunks(MetaData& metaData, platform::File file, const FreeBlockChunk* chunks) {
  return applyChunks<Wide>(metaData, file, chunks, false);
}

}  // namespace zelta

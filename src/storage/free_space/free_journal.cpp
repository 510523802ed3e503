#include "storage/free_space/free_journal.h"

#include <algorithm>
#include <cstring>

#include "platform/file_io.h"

namespace zelta {

namespace {

/// The checksum of a journal is too weak to trust positions and sizes without a look at them.
template <class Form>
bool isSound(const FreeEntry_tag& entry) {
  return entry.position < kPositionLimit && entry.size >= Form::kHeadSize + Form::kTailTag &&
         entry.size <= Form::kLargestEntry;
}

}  // namespace

template <class Form>
SystemCode writeFreeBlock(platform::File file, const FreeEntry_tag& block) {
  const typename Form::Head head = Form::head(block.size, block.next);
  if constexpr (Form::kTailTag == 0) {
    return writeBuffer(file, block.position, &head, Form::kHeadSize);
  } else {
    const auto tag = static_cast<std::uint32_t>(block.size);
    static_assert(sizeof tag == Form::kTailTag);
    char bytes[Form::kHeadSize + sizeof tag];
    std::memcpy(bytes, &head, Form::kHeadSize);
    std::memcpy(bytes + Form::kHeadSize, &tag, sizeof tag);
    if (block.size == sizeof bytes) return writeBuffer(file, block.position, bytes, sizeof bytes);
    // Written even if the size is as it was read: a block that took over its lower neighbour and
    // was then split ends somewhere else.
    const SystemCode result = writeBuffer(file, block.position, bytes, Form::kHeadSize);
    if (result != 0) return result;
    return writeBuffer(file, block.position + block.size - sizeof tag, &tag, sizeof tag);
  }
}

template <class Form>
Result FreeJournal<Form>::read(std::uint64_t position, std::uint32_t count) {
  // The count comes from a file: the vector grows by what was really read, never by what is stated.
  while (count != 0) {
    const std::size_t have = entries_.size();
    const std::uint32_t some = std::min(count, kPiece);
    const std::uint32_t length = some * kFreeEntrySize;
    entries_.resize(have + some);
    const SystemCode result = readBuffer(file_, position, entries_.data() + have, length);
    if (result != 0) {
      entries_.resize(have);
      return reportSystemError(&metaData_, result);
    }
    position += length;
    count -= some;
  }
  return {};
}

template <class Form>
bool FreeJournal<Form>::liesWithin(std::uint64_t from, std::uint64_t to) const {
  return std::all_of(entries_.begin(), entries_.end(),
                     [&](const FreeEntry_tag& entry) { return entry.liesWithin(from, to); });
}

template <class Form>
Result FreeJournal<Form>::apply() const {
  for (const FreeEntry_tag& entry : entries_) {
    if (entry.dirty == 0 || entry.size == 0) continue;
    if (!isSound<Form>(entry)) return reportError(&metaData_, Own::freeList);
    const SystemCode result = writeFreeBlock<Form>(file_, entry);
    if (result != 0) return reportSystemError(&metaData_, result);
  }
  return {};
}

template SystemCode writeFreeBlock<PageBlocks>(platform::File, const FreeEntry_tag&);
template SystemCode writeFreeBlock<TableBlocks>(platform::File, const FreeEntry_tag&);
template SystemCode writeFreeBlock<LogBlocks>(platform::File, const FreeEntry_tag&);
template class FreeJournal<PageBlocks>;
template class FreeJournal<TableBlocks>;
template class FreeJournal<LogBlocks>;

}  // namespace zelta

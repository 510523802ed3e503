// The reading side of a free chain's journal, for the repair of a file whose writer died: entries
// are read back, checked, and made into blocks again. FreeChain writes them; writeFreeBlock() is
// what both have in common, so that a repair gives the same bytes as the writer would have.

#ifndef ZELTA_STORAGE_FREE_SPACE_FREE_JOURNAL_H
#define ZELTA_STORAGE_FREE_SPACE_FREE_JOURNAL_H

#include <cstdint>
#include <vector>

#include "frame/metadata.h"
#include "platform/file.h"
#include "storage/free_space/free_block.h"

namespace zelta {

/// Writes the head of a block, and in a table file its size once more at its end. 0 or the system's
/// code.
template <class Form>
[[nodiscard]] SystemCode writeFreeBlock(platform::File file, const FreeEntry_tag& block);

/// Entries read back from a journal. Form: PageBlocks, TableBlocks or LogBlocks. Failures as with
/// FreeChain.
template <class Form>
class FreeJournal {
 public:
  FreeJournal(MetaData& metaData, platform::File file) : metaData_(metaData), file_(file) {}

  /// Entries that are read with one call of the system.
  static constexpr std::uint32_t kPiece = 40;

  /// Reads `count` entries at `position` behind those that are here. The file may lie about their
  /// number: memory is taken piece by piece. Code 38: the file ends before.
  Result read(std::uint64_t position, std::uint32_t count);
  [[nodiscard]] const std::vector<FreeEntry_tag>& entries() const { return entries_; }
  /// Whether all blocks lie in [from, to). The file's owner asks this before apply(): the entries
  /// decide where bytes are written.
  [[nodiscard]] bool liesWithin(std::uint64_t from, std::uint64_t to) const;
  /// Writes the blocks, in the order of the entries, up to one that can't be a block (own code 48).
  /// Entries that are not dirty are passed by.
  Result apply() const;
  void clear() { entries_.clear(); }

 private:
  MetaData& metaData_;
  platform::File file_;
  std::vector<FreeEntry_tag> entries_;
};

extern template class FreeJournal<PageBlocks>;
extern template class FreeJournal<TableBlocks>;
extern template class FreeJournal<LogBlocks>;

using PageFreeJournal = FreeJournal<PageBlocks>;
using TableFreeJournal = FreeJournal<TableBlocks>;
using LogFreeJournal = FreeJournal<LogBlocks>;

}  // namespace zelta

#endif  // ZELTA_STORAGE_FREE_SPACE_FREE_JOURNAL_H

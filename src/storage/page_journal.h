// The journal that a change of a memory or index file leaves behind the file's end until it is
// carried out: pages, each led by its position, then blocks of the free chain. All are final
// images, which can be carried out any number of times.

#ifndef ZELTA_STORAGE_PAGE_JOURNAL_H
#define ZELTA_STORAGE_PAGE_JOURNAL_H

#include <cstdint>

#include "storage/atomic_manager.h"

namespace zelta {

/// Where a journal stands, and what it may touch.
struct PageJournalPlace {
  std::uint64_t start;
  std::uint64_t end;
  std::uint32_t pages;
  std::uint32_t freeEntries;
  std::uint64_t firstPage;  ///< pages lie from here
  std::uint64_t fileEnd;    ///< to here
};

/// Reads a journal that was found, as its writer may have died. Failures are reported with the
/// table's name and the file's extension.
class PageJournal {
 public:
  PageJournal(MetaData& metaData, const Table& table, PageFile kind, platform::File file,
              const PageJournalPlace& place)
      : metaData_(metaData), table_(table), kind_(kind), file_(file), place_(place) {}

  /// Folds its bytes into a sum.
  Result addTo(std::uint64_t& sum);
  /// Looks at all entries before any is applied: the sum is too weak to trust their positions.
  Result check(bool* sound);
  /// Carries a sound journal out.
  Result apply();

 private:
  Result report(SystemCode failure);
  [[nodiscard]] ScratchBuffer& buffer() const { return metaData_.scratchFor(Scratch::transfer); }
  /// Reads the head of a page entry and moves behind it; `*sound` false: it can't be one.
  Result entryAt(std::uint64_t& position, std::uint64_t* target, std::uint32_t* size, bool* sound);
  Result copyPage(std::uint64_t from, std::uint64_t to, std::uint32_t size);
  Result checkFreeChain(std::uint64_t position, bool* sound);
  Result applyFreeChain(std::uint64_t position);

  MetaData& metaData_;
  const Table& table_;
  PageFile kind_;
  platform::File file_;
  PageJournalPlace place_;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGE_JOURNAL_H

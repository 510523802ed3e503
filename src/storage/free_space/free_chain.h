// The free space of a file, as its owner works on it: allocating, releasing, and bringing the
// result into the file as a part of the owner's own journalled change. Table, index, memory and log
// files all use this one class.
//
// In memory a list mirrors the front of the file's chain as far as it has been walked; changes are
// made there, journalled by the owner of the file, and only then applied to the blocks. The order
// of steps:
//
//   release(), allocate(), deferred().add()  in any order; they read the file as far as they must
//   merge()                                  takes the deferred spans in and finds the new end
//   head(), sumEntries(), writeEntries()     the owner writes its journal and its intent
//   apply()                                  from the commit point on: the blocks are written
//   drop()                                   the header has the new head: the next walk reads anew

#ifndef ZELTA_STORAGE_FREE_SPACE_FREE_CHAIN_H
#define ZELTA_STORAGE_FREE_SPACE_FREE_CHAIN_H

#include <cassert>
#include <cstdint>

#include "frame/metadata.h"
#include "platform/file.h"
#include "storage/free_space/free_block.h"
#include "storage/free_space/free_extents.h"

namespace zelta {

class GatheredWriter;

/// A block in memory. `dirty` tells that it differs from the file, so that the journal has an entry
/// for it.
struct FreeBlock : FreeEntry_tag {
  FreeBlock* nextNode;
};

/// Invariants of the list: positions ascend, blocks do not overlap, the list has no gaps against
/// the chain (what it leaves out lies behind its last block), and a block is dirty if its size or
/// its link differs from the file. Memory and reading time grow with the part of the chain that was
/// walked, not with the file.
///
/// Form: PageBlocks, TableBlocks or LogBlocks. The list belongs to the object; nothing is written
/// but by writeEntries() and apply(). Whoever uses it owns the mutex that guards the file.
///
/// Failures: own code 48 for a chain that is damaged, or for a span that is free already; else the
/// system's code. Both are reported without names.
template <class Form>
class FreeChain {
 public:
  /// `head`: position of the first block, 0 for none. `minimum`: the least size that is given out,
  /// and that is left over.
  FreeChain(MetaData& metaData, platform::File file, std::uint64_t head, std::uint64_t minimum)
      : metaData_(metaData), file_(file), head_(head), minimum_(minimum) {}
  ~FreeChain() { drop(); }
  FreeChain(const FreeChain&) = delete;
  FreeChain& operator=(const FreeChain&) = delete;

  /// Forgets all that was known and looks at a chain anew.
  void attach(platform::File file, std::uint64_t head) {
    drop();
    file_ = file;
    startAt(head);
  }
  /// Forgets list and deferred spans. head() stays: the caller has written what it leads to, or
  /// attaches before the next use.
  void drop() {
    if (list_ != nullptr) deleteList();
    deferred_.clear();
    merged_ = false;
  }

  /// Position of the first block after all changes, 0 for none.
  [[nodiscard]] std::uint64_t head() const { return head_; }
  /// The first block of the list; null as long as nothing was read.
  [[nodiscard]] const FreeBlock* first() const { return list_; }
  /// Bytes that a request takes.
  [[nodiscard]] std::uint64_t need(std::uint64_t size) const {
    return blockNeed<Form>(size, minimum_);
  }

  /// Releases a span and merges it with its neighbours. Reads the chain up to the span. Must not be
  /// called between merge() and drop(): the new end is settled then.
  Result release(FileSpan span);
  /// Spans for merge() to take in all at once: cheaper than release() for many, as the chain is
  /// walked a single time. Until merge() they cannot be allocated again.
  [[nodiscard]] FreeExtents& deferred() { return deferred_; }
  /// Lets the chain begin at a later block, 0 for none, as long as nothing was read.
  void startAt(std::uint64_t head) {
    assert(list_ == nullptr);
    head_ = head;
  }
  /// Makes a span the first block, without joining it to what it touches (merge() does). It must
  /// end before the block at head().
  void releaseInFront(FileSpan span);

  /// First fit from the low end, at or behind `lowest`. A block that would leave less than the
  /// minimum is taken whole; otherwise its tail is given out. Position 0: nothing fits; the
  /// caller takes the file's end and advances it by need(size).
  Result allocate(std::uint64_t size, FileSpan* out, std::uint64_t lowest = 0);

  /// Takes the deferred spans in, joins neighbours, and lets a block at the end of the file vanish:
  /// `*newEnd` is the end without it. The deferred spans stay until drop().
  Result merge(std::uint64_t endOfFile, std::uint64_t* newEnd);

  /// Number of journal entries, one for each changed block; each is folded into the checksum, if
  /// one is given.
  [[nodiscard]] std::uint32_t sumEntries(std::uint64_t* checksum64 = nullptr) const;
  /// Hands the journal's entries to a writer at `position`, which moves on.
  [[nodiscard]] SystemCode writeEntries(GatheredWriter& writer, std::uint64_t& position) const;
  /// Copies them to a buffer with room for all; returns the place behind them.
  char* copyEntries(char* out) const;

  /// Writes the changed blocks to their places. Only after the owner's commit point, since the
  /// journal is what brings them back if this is cut off.
  Result apply() const;

 private:
  /// A place in the list: the node before it and the node at it, either may be null.
  struct Place {
    FreeBlock* before = nullptr;
    FreeBlock* at = nullptr;
  };

  void deleteList();
  [[nodiscard]] Place front() const { return {nullptr, list_}; }
  /// Position of the block at a place, 0 at the chain's end. At the end of the list that block is
  /// still to be read.
  [[nodiscard]] std::uint64_t positionAt(Place place) const;
  /// Reads the block at the end of the list and appends it.
  Result load(Place& place);
  /// Moves to the first place at or behind which `position` lies.
  Result seek(Place& place, std::uint64_t position);
  /// Moves to the place where a span belongs; own code 48 if a part of it is free already.
  Result seekGap(Place& place, FileSpan span);
  /// Changes of the list. Each keeps the link of the block before, or the head, up to date.
  void insert(Place& place, FileSpan span);
  void unlink(Place& place);
  void link(Place place) { (place.before != nullptr ? place.before->nextNode : list_) = place.at; }
  void leadTo(FreeBlock* before, std::uint64_t position);
  bool extendPredecessor(Place place, FileSpan span);
  bool extendSuccessor(Place place, FileSpan span);
  /// The two halves of merge().
  Result insertDeferred();
  Place coalesce();
  Result broken();

  MetaData& metaData_;
  platform::File file_;
  std::uint64_t head_;
  std::uint64_t minimum_;
  FreeBlock* list_ = nullptr;
  FreeExtents deferred_;
  bool merged_ = false;  ///< the list has the deferred spans
};

extern template class FreeChain<PageBlocks>;
extern template class FreeChain<TableBlocks>;
extern template class FreeChain<LogBlocks>;

using PageFreeChain = FreeChain<PageBlocks>;
using TableFreeChain = FreeChain<TableBlocks>;
using LogFreeChain = FreeChain<LogBlocks>;

}  // namespace zelta

#endif  // ZELTA_STORAGE_FREE_SPACE_FREE_CHAIN_H

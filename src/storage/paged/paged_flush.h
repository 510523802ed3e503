// The five steps that bring a set of changes into a paged file, whole or not at all. This is the
// writer's side; storage/paged/paged_repair.h is that of whoever finds a file whose writer died,
// and storage/paged/paged_file.h has the table of steps and what is found after a death in each.

#ifndef ZELTA_STORAGE_PAGED_PAGED_FLUSH_H
#define ZELTA_STORAGE_PAGED_PAGED_FLUSH_H

#include <cstdint>

#include "storage/paged/atomic_manager.h"
#include "storage/paged/paged_file.h"

namespace zelta {

class GatheredWriter;

/// A block that reaches the file together with the pages, without being held as one.
struct PagedRecord {
  const char* bytes = nullptr;  ///< begin with the size of the block (32 bits)
  std::uint64_t length = 0;     ///< of `bytes`; the rest of the block is filled with zeros
  std::uint64_t position = 0;
};

/// One change of one file, made of what a manager has collected for it. Needs the table's mutex.
///
/// A failure in step 1 or 2 has changed nothing that counts. One in step 3 leaves open whether the
/// change was made, until a repair has looked at the file; one in step 4 or 5 leaves a change that
/// is made and has to be finished by a repair.
///
/// The manager keeps its changes and its idea of the file's end; both are the caller's to bring up
/// to date afterwards.
class PagedFlush {
 public:
  /// `header` is the file's, at rest; it follows each step. `record` may be null. All outlive the
  /// object.
  PagedFlush(const PagedForm& form, AtomicManager& manager, PagedFileHeader& header,
             const PagedRecord* record);
  PagedFlush(const PagedFlush&) = delete;
  PagedFlush& operator=(const PagedFlush&) = delete;

  /// Step 1: merges the free chain and works out the new end. The form's damage if the file is
  /// shorter than its header says, own error for free lists if the chain leads out of the file.
  Result prepare();
  /// Whether there is anything to write; after step 1.
  [[nodiscard]] bool changesAnything() const;
  /// Steps 2 to 5. If one fails the file is left as it is, for a repair.
  Result write();

  /// Whether step 3 is done. If not, the intent may still stand: the write that failed can have
  /// reached the file.
  [[nodiscard]] bool intentIsWritten() const { return step_ >= Step::intent; }
  /// Where the journal ended; after step 2.
  [[nodiscard]] std::uint64_t journalEnd() const { return journalEnd_; }

 private:
  /// The last step that is done.
  enum class Step { none, prepare, journal, intent, apply, finish };

  Result writeJournal();
  Result writeIntent();
  Result apply();
  Result finish();

  // Parts of the steps. A `position` is where the next byte of the journal goes, and moves on.
  Result measureFile();
  Result putRecord(GatheredWriter& writer, std::uint64_t& position);
  Result putPages(GatheredWriter& writer, std::uint64_t& position);
  Result putFreeBlocks(GatheredWriter& writer, std::uint64_t& position);
  static void reserveAhead(GatheredWriter& writer, std::uint64_t end);
  Result writeHead(std::uint64_t position, const void* bytes, std::uint64_t length);
  Result flushToDisk();

  /// Moves on, which only the step before may do.
  void reach(Step step);
  [[nodiscard]] Result outcome(SystemCode result) const {
    return result == 0 ? Result{} : manager_.failed(form_.file, result);
  }
  [[nodiscard]] ScratchBuffer& buffer() const;
  /// What is expected of the journal, for the room of its buffer.
  [[nodiscard]] std::uint64_t journalBytes() const;
  [[nodiscard]] std::uint32_t recordBlock() const;
  [[nodiscard]] bool rootsChanged() const;
  /// Folds bytes into the journal's checksum.
  void sum(const void* bytes, std::uint64_t length);
  template <class Visit>
  Result visitPages(const Visit& visit);

  const PagedForm& form_;
  AtomicManager& manager_;
  PagedFileHeader& header_;
  const PagedRecord* record_;
  platform::File file_;
  PagedHeaderImage image_;
  std::uint64_t length_ = 0;  ///< of the file before, once it was asked
  std::uint64_t expectedBytes_ = 0;
  std::uint64_t journalEnd_ = 0;
  Step step_ = Step::none;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_PAGED_FLUSH_H

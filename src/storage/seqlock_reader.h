// Reading a table without its mutex.
//
// The count of changes that goes with the mutex is the sequence of a seqlock. A writer owns the
// mutex, makes the count odd by TableMutexGuard::announceChange() before it changes committed
// state, and even again when it releases the mutex. A reader takes the count, reads, and believes
// what it has read if the count was even and is the same still.

//
// Nothing that was read may be acted upon before that: positions and lengths may belong to two
// states of the table, so that whatever reads within a section checks them like those of a damaged
// file.

#ifndef ZELTA_STORAGE_SEQLOCK_READER_H
#define ZELTA_STORAGE_SEQLOCK_READER_H

#include <cstdint>

#include "platform/mutex.h"
#include "storage/table.h"

namespace zelta {

/// The sections that one access reads, until it got one that no writer has touched. Writers are
/// waited for with bounds: one that died leaves the count odd until the mutex is gained again, so
/// after some half a second the table is read as it stands. What is damaged then is a failure.
/// Beside writers that live, a section that one of them touches is never believed.
class SeqlockReader {
 public:
  explicit SeqlockReader(Table& table) : table_(table) {}

  /// Begins a section. False: a writer is at work, and nothing is to be read; see retry().
  [[nodiscard]] bool begin() {
    sequence_ = platform::changeCount(table_.tableMutex);
    if (isOdd(sequence_) && sequence_ == table_.ignoredChange) validating_ = false;
    return !validating_ || !isOdd(sequence_);
  }
  /// Whether a writer was at work since begin(): what was read may belong to different states of
  /// the table.
  [[nodiscard]] bool torn() const {
    return validating_ &&
           (isOdd(sequence_) || platform::changeCount(table_.tableMutex) != sequence_);
  }
  /// A section is torn, or looks so. Whether to begin another one; pauses before it says so.
  [[nodiscard]] bool retry();

 private:
  [[nodiscard]] static bool isOdd(std::uint32_t sequence) { return (sequence & 1) != 0; }

  Table& table_;
  std::uint32_t sequence_ = 0;  ///< at the begin of the section
  std::uint32_t rounds_ = 0;    ///< sections that were given up
  bool validating_ = true;      ///< false: the table is read as it stands
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_SEQLOCK_READER_H

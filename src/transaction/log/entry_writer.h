// The body of a log entry on its way into the file, with its checksum, and the commit point of a
// transaction: steps 3 and 4 of a commit.

#ifndef ZELTA_TRANSACTION_LOG_ENTRY_WRITER_H
#define ZELTA_TRANSACTION_LOG_ENTRY_WRITER_H

#include <cstdint>

#include "transaction/log/log_file.h"

namespace zelta {

/// Writes the body front to back in large pieces. Until finish() the entry is incomplete, whatever
/// happens.
class EntryWriter {
 public:
  /// For an entry that is reserved, and locked by this process. Uses the scratch buffer `image`.
  EntryWriter(const LogFile& log, const LogEntry& entry);

  /// The next bytes of the body. `data` null: zeros. The body may not be longer than the block.
  Result write(const void* data, std::uint64_t length);
  /// Fills the block, then passes the commit point of the transaction: writes what makes the entry
  /// complete, and flushes the log. After a failure the entry may be complete nevertheless.
  Result finish(std::uint32_t sections);

 private:
  Result writeOut();

  static constexpr std::uint64_t kCapacity = 256 * 1024;
  const LogFile& log_;
  LogEntry entry_;
  std::uint64_t next_;  ///< where the buffer goes
  char* buffer_;
  std::uint64_t used_ = 0;  ///< bytes in the buffer
  std::uint64_t sum_ = 0;   ///< of all that was written out
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_ENTRY_WRITER_H

// Writing to a file in large pieces: records and slots of a commit come in ascending order more
// often than not, and one call of the system serves many of them.

#ifndef ZELTA_TRANSACTION_COMMIT_JOINED_WRITER_H
#define ZELTA_TRANSACTION_COMMIT_JOINED_WRITER_H

#include <cstdint>

#include "frame/scratch_buffer.h"
#include "platform/file.h"

namespace zelta {

/// Gathers what comes, as long as it lies right behind what came before. What is gathered is lost
/// without flush().
class JoinedWriter {
 public:
  /// `buffer` is the writer's own while it lives.
  JoinedWriter(platform::File file, ScratchBuffer& buffer);

  /// 0 or the system's code. What is gathered reaches the file with flush() at the latest.
  [[nodiscard]] SystemCode write(std::uint64_t position, const void* data, std::uint64_t length);
  [[nodiscard]] SystemCode writeZeros(std::uint64_t position, std::uint64_t length);
  /// Hands what is gathered to the system.
  [[nodiscard]] SystemCode flush();

 private:
  platform::File file_;
  ScratchBuffer& buffer_;
  std::uint64_t start_ = 0;  ///< place of what is gathered
  std::uint64_t used_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_JOINED_WRITER_H

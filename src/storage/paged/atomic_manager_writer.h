// Gathers writes that follow each other in a file into few system calls. Journals are written
// through this: many small pieces whose order in the file is the order in which they come.

#ifndef ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_WRITER_H
#define ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_WRITER_H

#include <cstdint>

#include "frame/scratch_buffer.h"
#include "platform/file.h"

namespace zelta {

/// Bytes that are still in the buffer are lost when the writer goes: whoever wants them in the file
/// calls finish() and looks at its result. Writing out of order is allowed, and costs a call.
class GatheredWriter {
 public:
  /// `buffer` is the writer's alone while it lives. `expected`: bytes that will come, as far as
  /// known; the buffer stays below 256 KiB.
  GatheredWriter(platform::File file, ScratchBuffer& buffer, std::uint64_t expected);
  GatheredWriter(const GatheredWriter&) = delete;
  GatheredWriter& operator=(const GatheredWriter&) = delete;

  /// Takes bytes for a place. They may still be in the buffer when this returns.
  [[nodiscard]] SystemCode write(std::uint64_t position, const void* data, std::uint64_t length);
  /// The same with zeros.
  [[nodiscard]] SystemCode zeros(std::uint64_t position, std::uint64_t length);
  /// Writes what is in the buffer. 0 or the system's code, as above.
  [[nodiscard]] SystemCode finish();

 private:
  platform::File file_;
  char* buffer_;
  std::uint64_t capacity_;
  std::uint64_t start_ = 0;  ///< place of the buffer's first byte in the file
  std::uint64_t used_ = 0;   ///< bytes in the buffer
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_WRITER_H

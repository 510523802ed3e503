// Gathers writes that follow each other in a file into few system calls.

#ifndef ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_WRITER_H
#define ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_WRITER_H

#include <cstdint>

#include "frame/scratch_buffer.h"
#include "platform/file.h"

namespace zelta {

class GatheredWriter {
 public:
  /// `expected`: bytes that will come, as far as known; the buffer stays below 256 KiB.
  GatheredWriter(platform::File file, ScratchBuffer& buffer, std::uint64_t expected);
  GatheredWriter(const GatheredWriter&) = delete;
  GatheredWriter& operator=(const GatheredWriter&) = delete;

  /// Takes bytes for a place. They may still be in the buffer when this returns.
  [[nodiscard]] SystemCode write(std::uint64_t position, const void* data, std::uint64_t length);
  [[nodiscard]] SystemCode zeros(std::uint64_t position, std::uint64_t length);
  /// Writes what is in the buffer.
  [[nodiscard]] SystemCode finish();

 private:
  platform::File file_;
  char* buffer_;
  std::uint64_t capacity_;
  std::uint64_t start_ = 0;
  std::uint64_t used_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_WRITER_H

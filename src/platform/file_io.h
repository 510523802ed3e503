// Reading and writing files, and the checksums that guard journals. Routines return 0 or a Windows
// code and report nothing; the caller adds the names.

#ifndef ZELTA_PLATFORM_FILE_IO_H
#define ZELTA_PLATFORM_FILE_IO_H

#include <cstdint>

#include "platform/file.h"

namespace zelta {

/// Requires the whole length, or with `count` accepts a short read of at least one byte. Behind the
/// end of the file: 38.
[[nodiscard]] SystemCode readBuffer(platform::File file, std::uint64_t position, void* buffer,
                                    std::uint32_t length, std::uint32_t* count = nullptr);
/// For any length, in pieces of 1 GiB. A length of 0 or less succeeds without a call.
[[nodiscard]] SystemCode readLargeBuffer(platform::File file, std::uint64_t position, void* buffer,
                                         std::int64_t length);
[[nodiscard]] SystemCode writeBuffer(platform::File file, std::uint64_t position,
                                     const void* buffer, std::int64_t length);
/// For a header that bears to be found with its first fields new and the others old.
[[nodiscard]] SystemCode writeHeaderInOrder(platform::File file, std::uint64_t position,
                                            const void* buffer, std::uint32_t length);
/// To be asked before memory is taken for a length that stands in a file: 0 if the file has these
/// bytes, 38 if it ends before.
[[nodiscard]] SystemCode requireBytes(platform::File file, std::uint64_t position,
                                      std::uint64_t length);
/// Cuts the file; tries again while another process keeps it mapped.
[[nodiscard]] SystemCode truncateFile(platform::File file, std::uint64_t length);

/// Folds a stream into 8 bytes: byte i of the stream into byte i mod 8 of the accumulator. `phase`
/// is how far into a group the former piece stopped; a piece at a phase p must bring at least 8 - p
/// bytes. Returns the phase for the next piece.
unsigned xorChecksum64(std::uint64_t& accumulator, const void* data, std::uint64_t length,
                       unsigned phase = 0);
/// Folds 32-bit words, and a tail of 1 to 3 bytes; pieces but the last are multiples of 4.
void xorChecksum32(std::uint32_t& accumulator, const void* data, std::uint64_t length);

/// Closes a file at the end of the scope, unless it was handed on.
class FileGuard {
 public:
  explicit FileGuard(platform::File file = platform::File::none) : file_(file) {}
  ~FileGuard() { platform::closeFile(file_); }
  FileGuard(const FileGuard&) = delete;
  FileGuard& operator=(const FileGuard&) = delete;
  [[nodiscard]] platform::File get() const { return file_; }
  platform::File release() {
    const platform::File file = file_;
    file_ = platform::File::none;
    return file;
  }

 private:
  platform::File file_;
};

}  // namespace zelta

#endif  // ZELTA_PLATFORM_FILE_IO_H

// Reading pending images one after the other. They mostly lie side by side, so that one large read
// serves many.

#ifndef ZELTA_TRANSACTION_COMMIT_IMAGE_READER_H
#define ZELTA_TRANSACTION_COMMIT_IMAGE_READER_H

#include <cstdint>

#include "frame/metadata.h"
#include "platform/file.h"

namespace zelta {

/// Serves commit (from the memory file), replay and whoever goes through log entries (from the
/// log).
class ImageReader {
 public:
  /// `buffer` is the reader's own while it lives. The file must not change meanwhile. Failures are
  /// reported with a name and an extension, which outlive the reader. Nothing is read ahead beyond
  /// `end`: there may be words that others have locked, which some systems let nobody read.
  ImageReader(MetaData& metaData, platform::File file, const char16_t* name,
              const char16_t* fileExtension, ScratchBuffer& buffer,
              std::uint64_t end = ~std::uint64_t{0})
      : metaData_(metaData),
        file_(file),
        name_(name),
        extension_(fileExtension),
        buffer_(buffer),
        end_(end) {}

  /// The bytes of an object at a position of the file; good until the next call.
  Result read(std::uint64_t position, std::uint32_t length, const char** bytes) {
    const bool there =
        position >= start_ && position - start_ <= size_ && length <= size_ - (position - start_);
    if (!there) ZELTA_TRY(fill(position, length));
    *bytes = buffer_.data() + (position - start_);
    return {};
  }

 private:
  /// Reads a window that begins with the object.
  Result fill(std::uint64_t position, std::uint32_t length);
  Result fillWhole(std::uint64_t position, std::uint32_t length);
  Result report(SystemCode failure);

  MetaData& metaData_;
  platform::File file_;
  const char16_t* name_;
  const char16_t* extension_;
  ScratchBuffer& buffer_;
  std::uint64_t end_;
  std::uint64_t start_ = 0;  ///< place of the buffer's bytes in the file
  std::uint32_t size_ = 0;   ///< how many of them there are
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_IMAGE_READER_H

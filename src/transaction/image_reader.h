// Reading pending images one after the other. They mostly lie side by side, so that one large read
// serves many.

#ifndef ZELTA_TRANSACTION_IMAGE_READER_H
#define ZELTA_TRANSACTION_IMAGE_READER_H

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "frame/metadata.h"
#include "platform/file_io.h"

namespace zelta {

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
  static constexpr std::uint32_t kWindow = 256 * 1024;

  Result fill(std::uint64_t position, std::uint32_t length) {
    start_ = position;
    size_ = 0;
    if (length > kWindow || position >= end_) return fillWhole(position, length);
    char* data = buffer_.reserve(kWindow);
    const auto ahead =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(kWindow, end_ - position));
    const SystemCode failure = readBuffer(file_, position, data, ahead, &size_);
    if (failure != 0) return report(failure);
    // Either the end of the file, or a transfer that was cut short.
    return size_ < length ? fillWhole(position, length) : Result{};
  }
  /// A length that the file cannot have must not become memory.
  Result fillWhole(std::uint64_t position, std::uint32_t length) {
    std::uint64_t end = 0;
    SystemCode failure = platform::fileSize(file_, &end);
    if (failure == 0 && (position > end || length > end - position)) failure = code::kEndOfFile;
    if (failure == 0) {
      failure = readLargeBuffer(file_, position, buffer_.reserve(length), length);
    }
    if (failure != 0) return report(failure);
    size_ = length;
    return {};
  }
  Result report(SystemCode failure) {
    size_ = 0;
    return reportSystemError(&metaData_, failure, name_, extension_);
  }

  MetaData& metaData_;
  platform::File file_;
  const char16_t* name_;
  const char16_t* extension_;
  ScratchBuffer& buffer_;
  std::uint64_t end_;
  std::uint64_t start_ = 0;
  std::uint32_t size_ = 0;
};

/// Writes to a file in large pieces, as long as what comes lies behind what came before.
class JoinedWriter {
 public:
  JoinedWriter(platform::File file, ScratchBuffer& buffer) : file_(file), buffer_(buffer) {
    buffer_.reserve(kCapacity);
  }

  [[nodiscard]] SystemCode write(std::uint64_t position, const void* data, std::uint64_t length) {
    if (position != start_ + used_ || used_ + length > kCapacity) {
      if (const SystemCode failure = flush(); failure != 0) return failure;
      start_ = position;
      if (length > kCapacity) {
        start_ = position + length;
        return writeBuffer(file_, position, data, static_cast<std::int64_t>(length));
      }
    }
    if (data != nullptr) {
      std::memcpy(buffer_.data() + used_, data, length);
    } else {
      std::memset(buffer_.data() + used_, 0, length);
    }
    used_ += length;
    return 0;
  }
  [[nodiscard]] SystemCode writeZeros(std::uint64_t position, std::uint64_t length) {
    while (length > 0) {
      const std::uint64_t piece = length < kPiece ? length : kPiece;
      if (const SystemCode failure = write(position, nullptr, piece); failure != 0) return failure;
      position += piece;
      length -= piece;
    }
    return 0;
  }
  [[nodiscard]] SystemCode flush() {
    if (used_ == 0) return 0;
    const SystemCode failure =
        writeBuffer(file_, start_, buffer_.data(), static_cast<std::int64_t>(used_));
    start_ += used_;
    used_ = 0;
    return failure;
  }

 private:
  static constexpr std::uint64_t kCapacity = 256 * 1024;
  static constexpr std::uint64_t kPiece = 64 * 1024;
  platform::File file_;
  ScratchBuffer& buffer_;
  std::uint64_t start_ = 0;
  std::uint64_t used_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_IMAGE_READER_H

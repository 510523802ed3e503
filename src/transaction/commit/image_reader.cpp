#include "transaction/commit/image_reader.h"

#include <algorithm>

#include "platform/file_io.h"

namespace zelta {

namespace {

constexpr std::uint32_t kWindow = 256 * 1024;

}  // namespace

Result ImageReader::fill(std::uint64_t position, std::uint32_t length) {
  start_ = position;
  size_ = 0;
  if (length > kWindow || position >= end_) return fillWhole(position, length);
  char* data = buffer_.reserve(kWindow);
  const auto ahead = static_cast<std::uint32_t>(std::min<std::uint64_t>(kWindow, end_ - position));
  const SystemCode failure = readBuffer(file_, position, data, ahead, &size_);
  if (failure != 0) return report(failure);
  // Either the end of the file, or a transfer that was cut short.
  return size_ < length ? fillWhole(position, length) : Result{};
}

/// A length that the file cannot have must not become memory.
Result ImageReader::fillWhole(std::uint64_t position, std::uint32_t length) {
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

Result ImageReader::report(SystemCode failure) {
  size_ = 0;
  return reportSystemError(&metaData_, failure, name_, extension_);
}

}  // namespace zelta

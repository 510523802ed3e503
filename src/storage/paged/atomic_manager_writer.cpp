#include "storage/paged/atomic_manager_writer.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"

namespace zelta {

namespace {

constexpr std::uint64_t kLargestBuffer = 256 * 1024;
constexpr std::uint64_t kSmallestBuffer = 4096;

}  // namespace

GatheredWriter::GatheredWriter(platform::File file, ScratchBuffer& buffer, std::uint64_t expected)
    : file_(file),
      buffer_(buffer.reserve(std::clamp(expected, kSmallestBuffer, kLargestBuffer))),
      capacity_(std::min(buffer.size(), kLargestBuffer)) {}

SystemCode GatheredWriter::write(std::uint64_t position, const void* data, std::uint64_t length) {
  assert(used_ <= capacity_);
  if (position != start_ + used_ || length > capacity_ - used_) {
    const SystemCode result = finish();
    if (result != 0) return result;
    start_ = position;
  }
  // Larger than the whole buffer, which is empty now: straight to the file.
  if (length > capacity_) {
    start_ += length;
    return writeBuffer(file_, position, data, static_cast<std::int64_t>(length));
  }
  std::memcpy(buffer_ + used_, data, length);
  used_ += length;
  return 0;
}

SystemCode GatheredWriter::zeros(std::uint64_t position, std::uint64_t length) {
  static constexpr char kZeros[1024] = {};
  while (length != 0) {
    const std::uint64_t piece = std::min<std::uint64_t>(length, sizeof(kZeros));
    const SystemCode result = write(position, kZeros, piece);
    if (result != 0) return result;
    position += piece;
    length -= piece;
  }
  return 0;
}

SystemCode GatheredWriter::finish() {
  if (used_ == 0) return 0;
  const SystemCode result = writeBuffer(file_, start_, buffer_, static_cast<std::int64_t>(used_));
  start_ += used_;
  used_ = 0;
  return result;
}

}  // namespace zelta

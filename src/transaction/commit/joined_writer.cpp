#include "transaction/commit/joined_writer.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_io.h"

namespace zelta {

namespace {

constexpr std::uint64_t kCapacity = 256 * 1024;
constexpr std::uint64_t kPiece = 64 * 1024;

}  // namespace

JoinedWriter::JoinedWriter(platform::File file, ScratchBuffer& buffer)
    : file_(file), buffer_(buffer) {
  buffer_.reserve(kCapacity);
}

SystemCode JoinedWriter::write(std::uint64_t position, const void* data, std::uint64_t length) {
  assert(used_ <= kCapacity && (data != nullptr || length <= kCapacity));
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

SystemCode JoinedWriter::writeZeros(std::uint64_t position, std::uint64_t length) {
  while (length > 0) {
    const std::uint64_t piece = std::min(length, kPiece);
    if (const SystemCode failure = write(position, nullptr, piece); failure != 0) return failure;
    position += piece;
    length -= piece;
  }
  return 0;
}

SystemCode JoinedWriter::flush() {
  if (used_ == 0) return 0;
  const SystemCode failure =
      writeBuffer(file_, start_, buffer_.data(), static_cast<std::int64_t>(used_));
  start_ += used_;
  used_ = 0;
  return failure;
}

}  // namespace zelta

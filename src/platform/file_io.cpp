#include "platform/file_io.h"

#include <cstring>

#include "platform/clock.h"

namespace zelta {

namespace {

/// A platform call's length has 32 bits; this is the largest power of two that fits twice.
constexpr std::int64_t kPieceSize = 0x40000000;
constexpr int kTruncateRetries = 10;

/// What a transfer came to: its own code, or 38 when it silently fell short.
SystemCode transferResult(SystemCode result, std::uint32_t transferred, std::uint32_t length) {
  if (result != 0) return result;
  return transferred == length ? 0 : code::kEndOfFile;
}

SystemCode writePiece(platform::File file, std::uint64_t position, const char* data,
                      std::uint32_t length) {
  std::uint32_t transferred = 0;
  const SystemCode result = platform::writeFile(file, position, data, length, &transferred);
  return transferResult(result, transferred, length);
}

SystemCode readPiece(platform::File file, std::uint64_t position, char* data,
                     std::uint32_t length) {
  std::uint32_t transferred = 0;
  const SystemCode result = platform::readFile(file, position, data, length, &transferred);
  return transferResult(result, transferred, length);
}

/// A position that the platform refuses lies behind every end of a file.
SystemCode refusedIsEnd(SystemCode result) {
  return result == code::kInvalidParameter ? code::kEndOfFile : result;
}

}  // namespace

SystemCode readBuffer(platform::File file, std::uint64_t position, void* buffer,
                      std::uint32_t length, std::uint32_t* count) {
  if (count == nullptr) {
    return refusedIsEnd(readPiece(file, position, static_cast<char*>(buffer), length));
  }
  *count = 0;
  const SystemCode result = platform::readFile(file, position, buffer, length, count);
  if (result != 0) return result;
  return *count != 0 ? 0 : code::kEndOfFile;
}

SystemCode readLargeBuffer(platform::File file, std::uint64_t position, void* buffer,
                           std::int64_t length) {
  char* out = static_cast<char*>(buffer);
  while (length > kPieceSize) {
    const SystemCode result = readPiece(file, position, out, kPieceSize);
    if (result != 0) return result;
    out += kPieceSize;
    position += kPieceSize;
    length -= kPieceSize;
  }
  if (length <= 0) return 0;
  return refusedIsEnd(readPiece(file, position, out, static_cast<std::uint32_t>(length)));
}

SystemCode writeBuffer(platform::File file, std::uint64_t position, const void* buffer,
                       std::int64_t length) {
  const char* in = static_cast<const char*>(buffer);
  while (length > kPieceSize) {
    const SystemCode result = writePiece(file, position, in, kPieceSize);
    if (result != 0) return result;
    in += kPieceSize;
    position += kPieceSize;
    length -= kPieceSize;
  }
  if (length <= 0) return 0;
  return writePiece(file, position, in, static_cast<std::uint32_t>(length));
}

SystemCode writeHeaderInOrder(platform::File file, std::uint64_t position, const void* buffer,
                              std::uint32_t length) {
  std::uint32_t transferred = 0;
  const SystemCode result = platform::writeInOrder(file, position, buffer, length, &transferred);
  return transferResult(result, transferred, length);
}

SystemCode requireBytes(platform::File file, std::uint64_t position, std::uint64_t length) {
  std::uint64_t size = 0;
  if (const SystemCode result = platform::fileSize(file, &size); result != 0) return result;
  return position <= size && length <= size - position ? 0 : code::kEndOfFile;
}

SystemCode truncateFile(platform::File file, std::uint64_t length) {
  SystemCode result = platform::setFileSize(file, length);
  for (int retry = 0; result == code::kUserMappedFile && retry < kTruncateRetries; ++retry) {
    platform::sleepMilliseconds(0);
    result = platform::setFileSize(file, length);
  }
  return result;
}

unsigned xorChecksum64(std::uint64_t& accumulator, const void* data, std::uint64_t length,
                       unsigned phase) {
  const auto* in = static_cast<const unsigned char*>(data);
  std::uint64_t sum = accumulator;
  if (phase != 0) {
    for (; phase < 8 && length != 0; ++phase, --length) {
      sum ^= std::uint64_t{*in++} << (8 * phase);
    }
  }
  for (; length >= 8; length -= 8, in += 8) {
    std::uint64_t word;
    std::memcpy(&word, in, 8);
    sum ^= word;
  }
  phase %= 8;
  for (; length != 0; --length, ++phase) sum ^= std::uint64_t{*in++} << (8 * phase);
  accumulator = sum;
  return phase;
}

void xorChecksum32(std::uint32_t& accumulator, const void* data, std::uint64_t length) {
  const auto* in = static_cast<const unsigned char*>(data);
  std::uint32_t sum = accumulator;
  for (; length >= 4; length -= 4, in += 4) {
    std::uint32_t word;
    std::memcpy(&word, in, 4);
    sum ^= word;
  }
  for (unsigned shift = 0; length != 0; --length, shift += 8) {
    sum ^= std::uint32_t{*in++} << shift;
  }
  accumulator = sum;
}

}  // namespace zelta

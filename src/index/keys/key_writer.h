// The payload of a key as a string of bytes, earlier bytes counting more. Segments append to it one
// after the other; keys.cpp turns the bytes into words that compare as the bytes do.

#ifndef ZELTA_INDEX_KEYS_KEY_WRITER_H
#define ZELTA_INDEX_KEYS_KEY_WRITER_H

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>

namespace zelta {

/// Writes into a buffer of fixed size. Behind its end it goes on counting and writes nothing, so
/// that a caller that was wrong about the size finds out by overrun() and nothing is harmed.
class KeyWriter {
 public:
  KeyWriter(unsigned char* buffer, std::uint64_t capacity) : buffer_(buffer), capacity_(capacity) {}

  void put(unsigned char byte) {
    if (size_ < capacity_) buffer_[size_] = byte;
    ++size_;
  }
  void putBytes(const char* bytes, std::uint64_t count) {
    if (count != 0 && size_ < capacity_) {
      std::memcpy(buffer_ + size_, bytes, std::min(count, capacity_ - size_));
    }
    size_ += count;
  }
  /// The low `bytes` bytes of a number, the most significant first.
  void putNumber(std::uint64_t value, unsigned bytes) {
    while (bytes-- > 0) put(static_cast<unsigned char>(value >> (8 * bytes)));
  }
  /// Whether the byte `back` places before the end is this one.
  [[nodiscard]] bool endsWith(unsigned char byte, std::uint64_t back) const {
    return size_ > back && size_ <= capacity_ && buffer_[size_ - 1 - back] == byte;
  }
  /// Takes the last bytes away.
  void cut(std::uint64_t bytes) {
    assert(bytes <= size_);
    size_ -= bytes;
    for (std::uint64_t i = size_; i < size_ + bytes && i < capacity_; ++i) buffer_[i] = 0;
  }
  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] bool overrun() const { return size_ > capacity_; }

 private:
  unsigned char* buffer_;
  std::uint64_t capacity_;
  std::uint64_t size_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_KEY_WRITER_H

// A block of memory that is reused from call to call, so that a steady stream of operations leaves
// the heap alone. Whoever reserves it owns its contents until somebody else does: Scratch
// (frame/metadata.h) names who that may be.

#ifndef ZELTA_FRAME_SCRATCH_BUFFER_H
#define ZELTA_FRAME_SCRATCH_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace zelta {

/// Bytes of zero that stand behind an object that applications see: a damaged text ends there for
/// one that trusts its terminator, and so does a wide text at an odd address.
inline constexpr std::uint64_t kZeroTail = 8;

/// Owns malloc'd memory, so that two buffers can change places. Contents are lost when it has to
/// grow.
class ScratchBuffer {
 public:
  ScratchBuffer() = default;
  /// With `tail` more bytes behind those that are asked for, which no size counts.
  explicit ScratchBuffer(std::uint64_t tail) : tail_(tail) {}
  ~ScratchBuffer() { std::free(data_); }
  ScratchBuffer(const ScratchBuffer&) = delete;
  ScratchBuffer& operator=(const ScratchBuffer&) = delete;

  /// At least `size` bytes, in steps of 1024. Throws std::bad_alloc, with the buffer empty then.
  char* reserve(std::uint64_t size) {
    if (size > size_ || data_ == nullptr) grow((size + 1023) / 1024 * 1024);
    return data_;
  }
  /// At least `size` bytes, exactly that many if it has to grow.
  char* reserveExactly(std::uint64_t size) {
    if (size > size_ || data_ == nullptr) grow(size);
    return data_;
  }
  /// Exactly `size` fresh bytes of zero.
  char* replaceZeroed(std::uint64_t size) {
    release();
    data_ = static_cast<char*>(std::calloc(allocated(size), 1));
    if (data_ == nullptr) throw std::bad_alloc();
    size_ = size;
    return data_;
  }
  void release() {
    std::free(data_);
    data_ = nullptr;
    size_ = 0;
  }
  void swap(ScratchBuffer& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(tail_, other.tail_);
  }
  [[nodiscard]] char* data() const { return data_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }

 private:
  [[nodiscard]] std::uint64_t allocated(std::uint64_t size) const {
    return size + tail_ == 0 ? 1 : size + tail_;
  }
  void grow(std::uint64_t size) {
    release();
    data_ = static_cast<char*>(std::malloc(allocated(size)));
    if (data_ == nullptr) throw std::bad_alloc();
    size_ = size;
  }

  char* data_ = nullptr;
  std::uint64_t size_ = 0;
  std::uint64_t tail_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_FRAME_SCRATCH_BUFFER_H

// A block of memory that is reused from call to call.

#ifndef ZELTA_FRAME_SCRATCH_BUFFER_H
#define ZELTA_FRAME_SCRATCH_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>

namespace zelta {

/// Owns malloc'd memory, so that two buffers can change places. Contents are lost when it has to
/// grow.
class ScratchBuffer {
 public:
  ScratchBuffer() = default;
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
    data_ = static_cast<char*>(std::calloc(size == 0 ? 1 : size, 1));
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
  }
  [[nodiscard]] char* data() const { return data_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }

 private:
  void grow(std::uint64_t size) {
    release();
    data_ = static_cast<char*>(std::malloc(size == 0 ? 1 : size));
    if (data_ == nullptr) throw std::bad_alloc();
    size_ = size;
  }

  char* data_ = nullptr;
  std::uint64_t size_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_FRAME_SCRATCH_BUFFER_H

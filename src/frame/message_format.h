// A bounded print of the few forms that failure texts use: 16-bit text into a buffer of fixed size,
// without the heap.

#ifndef ZELTA_FRAME_MESSAGE_FORMAT_H
#define ZELTA_FRAME_MESSAGE_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace zelta {

/// Appends text to a buffer of fixed capacity, in which it always leaves room for the terminator.
/// What does not fit is cut.
class MessageWriter {
 public:
  MessageWriter(char16_t* buffer, std::size_t capacity)
      : next_(buffer), last_(buffer + capacity - 1) {
    *next_ = 0;
  }

  /// One argument of a format; which member counts depends on the conversion.
  struct Argument {
    const char16_t* text = nullptr;
    std::int64_t number = 0;
    constexpr Argument() = default;
    constexpr Argument(const char16_t* t) : text(t) {}  // NOLINT(google-explicit-constructor)
    constexpr Argument(std::int64_t n) : number(n) {}   // NOLINT(google-explicit-constructor)
  };

  /// Conversions: %s (16-bit text), %lld (signed), %x and %X (low 32 bits), %llX (64 bits).
  template <typename... Arguments>
  void print(const char* format, Arguments... arguments) {
    const Argument list[] = {Argument(arguments)..., Argument(std::int64_t{0})};
    printList(format, list);
  }

  void printList(const char* format, const Argument* arguments);

 private:
  void put(char16_t c) {
    if (next_ < last_) {
      *next_++ = c;
      *next_ = 0;
    }
  }
  void putText(const char16_t* text) {
    while (*text != 0) put(*text++);
  }
  void putDecimal(std::int64_t value);
  void putHex(std::uint64_t value, bool upper);

  char16_t* next_;
  char16_t* last_;  ///< place of the terminator of a full buffer
};

}  // namespace zelta

#endif  // ZELTA_FRAME_MESSAGE_FORMAT_H

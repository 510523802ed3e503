// The bytes of an input that say what is to be done, taken one after the other.

#ifndef ZELTA_TESTS_FUZZ_STEERING_H
#define ZELTA_TESTS_FUZZ_STEERING_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace zelta::fuzz {

class Steering {
 public:
  explicit Steering(std::string bytes) : bytes_(std::move(bytes)) {}

  [[nodiscard]] bool atEnd() const { return next_ >= bytes_.size(); }
  /// Zero behind the end.
  std::uint8_t byte() { return atEnd() ? 0 : static_cast<std::uint8_t>(bytes_[next_++]); }
  bool flag() { return (byte() & 1) != 0; }
  /// True in one of `n` cases.
  bool once(unsigned n) { return byte() % n == n - 1; }
  template <class Number>
  Number number() {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) value |= std::uint64_t{byte()} << (8 * i);
    return static_cast<Number>(value);
  }
  /// A number below `n`, which is at most 65536.
  std::uint32_t below(std::size_t n) {
    return static_cast<std::uint32_t>((n <= 256 ? byte() : number<std::uint16_t>()) % n);
  }
  template <class Value, std::size_t n>
  const Value& pick(const Value (&values)[n]) {
    return values[below(n)];
  }
  std::string text(std::size_t length) {
    std::string out;
    while (out.size() < length) out += static_cast<char>(byte());
    return out;
  }

 private:
  std::string bytes_;
  std::size_t next_ = 0;
};

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_STEERING_H

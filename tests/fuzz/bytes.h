// Numbers in the bytes of a file, by their offsets.

#ifndef ZELTA_TESTS_FUZZ_BYTES_H
#define ZELTA_TESTS_FUZZ_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace zelta::fuzz {

/// Whether the file has `length` bytes at `offset`.
inline bool has(const std::string& file, std::uint64_t offset, std::uint64_t length) {
  return offset <= file.size() && length <= file.size() - offset;
}

/// The number at an offset; 0 behind the end.
template <class Number>
Number numberAt(const std::string& file, std::uint64_t offset) {
  Number value = 0;
  if (has(file, offset, sizeof value)) std::memcpy(&value, file.data() + offset, sizeof value);
  return value;
}
inline std::uint32_t wordAt(const std::string& file, std::uint64_t offset) {
  return numberAt<std::uint32_t>(file, offset);
}
inline std::uint64_t longAt(const std::string& file, std::uint64_t offset) {
  return numberAt<std::uint64_t>(file, offset);
}

/// Nothing happens behind the end.
template <class Number>
void setNumber(std::string& file, std::uint64_t offset, Number value) {
  if (has(file, offset, sizeof value)) std::memcpy(file.data() + offset, &value, sizeof value);
}

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_BYTES_H

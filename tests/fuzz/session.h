// A handle whose every call is watched: it must end in time, and leave a text if it fails.

#ifndef ZELTA_TESTS_FUZZ_SESSION_H
#define ZELTA_TESTS_FUZZ_SESSION_H

#include <cstdint>

#include "czelta.h"
#include "fuzz/found.h"
#include "fuzz/quick_clock.h"

namespace zelta::fuzz {

/// Reads memory that the library says is the application's.
inline void touch(const void* bytes, std::size_t length) {
  const auto* at = static_cast<const volatile std::uint8_t*>(bytes);
  for (std::size_t i = 0; i < length; ++i) static_cast<void>(at[i]);
}

template <class Character>
std::size_t touchText(const Character* text) {
  std::size_t length = 0;
  while (text[length] != 0) ++length;
  return length;
}

/// Result words that applications compare with.
constexpr unsigned long long own(unsigned code) { return (1ull << 32) + code; }
constexpr unsigned long long windows(unsigned code) { return (2ull << 32) + code; }

/// The result of the operation of the handle that `operation` calls.
template <class Operation>
unsigned long long watch(CZELTA& handle, Operation operation) {
  beginOperation();
  const unsigned long long word = operation();
  const char16_t* text = nullptr;
  expect(handle.GetErrorMessage(&text) == 0 && text != nullptr, "no text");
  touchText(text);
  expect(word == 0 || (word >> 32) == 1 || (word >> 32) == 2, "a result word of nobody");
  return word;
}

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_SESSION_H

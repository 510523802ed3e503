// A handle whose every call is watched: it must end in time, and leave a text if it fails.

#ifndef ZELTA_TESTS_FUZZ_SESSION_H
#define ZELTA_TESTS_FUZZ_SESSION_H

#include <cstddef>
#include <cstdint>
#include <string>

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

/// The text of the last failure, as 8-bit characters.
inline std::string textOf(CZELTA& handle) {
  const char16_t* text = nullptr;
  handle.GetErrorMessage(&text);
  std::string out;
  for (; *text != 0; ++text) out += static_cast<char>(*text);
  return out;
}

/// Ends the process if an operation has failed that must not.
inline void must(CZELTA& handle, unsigned long long word, const char* what) {
  if (word != 0) found(std::string(what) + ": " + textOf(handle));
}

/// With FUZZ_TRACE set each operation's outcome is printed.
inline bool traces() {
  static const bool wanted = std::getenv("FUZZ_TRACE") != nullptr;
  return wanted;
}

/// The result of the operation of the handle that `operation` calls.
template <class Operation>
unsigned long long watch(CZELTA& handle, Operation operation) {
  beginOperation();
  const unsigned long long word = operation();
  const char16_t* text = nullptr;
  expect(handle.GetErrorMessage(&text) == 0 && text != nullptr, "no text");
  touchText(text);
  if (traces()) {
    std::fprintf(stderr, "  %x:%u %s\n", static_cast<unsigned>(word >> 32),
                 static_cast<unsigned>(word), word == 0 ? "" : textOf(handle).c_str());
  }
  expect(word == 0 || (word >> 32) == 1 || (word >> 32) == 2, "a result word of nobody");
  return word;
}

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_SESSION_H

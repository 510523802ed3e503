// The characters of texts, of which keys and words are made. Texts come as their bytes: those of 8-bit
// texts are sequences of UTF-8 shape, those of 16-bit texts units of two bytes, which need not be
// aligned. What has neither shape is a character of its own, and none of any class.

#ifndef ZELTA_INDEX_KEYS_CHARACTERS_H
#define ZELTA_INDEX_KEYS_CHARACTERS_H

#include <cstdint>

#include "platform/text.h"

namespace zelta {

inline constexpr char32_t kNoCharacter = 0xFFFFFFFF;  ///< a byte or unit that is none
inline constexpr char32_t kLastCharacter = 0x10FFFF;

/// A character of a text: its place, its bytes, and what it is.
struct Character {
  const unsigned char* at;
  unsigned size;
  char32_t value;  ///< kNoCharacter for a malformed one: no letter, no digit, no space
};

/// Bytes of a sequence of UTF-8 shape that begins at `at`; 1 for anything else.
[[nodiscard]] inline unsigned sequenceSize(const unsigned char* at, std::uint64_t left) {
  const unsigned size = (*at & 0xE0) == 0xC0   ? 2
                        : (*at & 0xF0) == 0xE0 ? 3
                        : (*at & 0xF8) == 0xF0 ? 4
                                               : 1;
  if (size > left) return 1;
  for (unsigned i = 1; i < size; ++i) {
    if ((at[i] & 0xC0) != 0x80) return 1;
  }
  return size;
}

/// The character of a sequence of `size` bytes, as sequenceSize() has found it.
[[nodiscard]] inline Character narrowAt(const unsigned char* at, unsigned size) {
  if (size == 1) return {at, 1, *at < 0x80 ? char32_t{*at} : kNoCharacter};
  char32_t value = *at & (0x7Fu >> size);
  for (unsigned i = 1; i < size; ++i) value = (value << 6) | (at[i] & 0x3Fu);
  return {at, size, value > kLastCharacter ? kNoCharacter : value};
}

[[nodiscard]] inline char32_t unitAt(const unsigned char* at) {
  return static_cast<char32_t>(at[0] | (at[1] << 8));
}

/// Two units count as one character when the low surrogate comes first.
[[nodiscard]] inline bool isPair(const unsigned char* at) {
  const char32_t first = unitAt(at);
  const char32_t second = unitAt(at + 2);
  return first >= 0xDC00 && first <= 0xDFFF && second >= 0xD800 && second <= 0xDBFF;
}

/// The character of a unit, or of a pair as isPair() has found it. Bytes, not units, are counted.
[[nodiscard]] inline Character wideAt(const unsigned char* at, unsigned size) {
  if (size == 2) return {at, 2, unitAt(at)};
  return {at, 4, 0x10000 + ((unitAt(at + 2) - 0xD800) << 10) + (unitAt(at) - 0xDC00)};
}

/// The first character of a text of `left` bytes, at least one, or of at least one unit.
[[nodiscard]] inline Character firstNarrow(const unsigned char* at, std::uint64_t left) {
  return narrowAt(at, sequenceSize(at, left));
}
[[nodiscard]] inline Character firstWide(const unsigned char* at, std::uint64_t left) {
  return wideAt(at, left >= 4 && isPair(at) ? 4 : 2);
}

[[nodiscard]] inline bool isDigit(char32_t c) { return c >= U'0' && c <= U'9'; }
[[nodiscard]] inline bool isAlnum(char32_t c) {
  return c != kNoCharacter && platform::isAlphanumeric(c);
}
[[nodiscard]] inline bool isBlank(char32_t c) { return c != kNoCharacter && platform::isSpace(c); }
/// As the letters of 16-bit texts are told: digits are none.
[[nodiscard]] inline bool isLetter(char32_t c) { return isAlnum(c) && !isDigit(c); }

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_CHARACTERS_H

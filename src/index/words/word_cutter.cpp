#include "index/words/word_cutter.h"

namespace zelta {

namespace {

/// In words of bytes the letters of ASCII alone are folded.
char folded(char c, std::uint32_t flags) {
  constexpr char kBetween = 'a' - 'A';
  if ((flags & CZELTA::SegmentLowerCase) != 0) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + kBetween) : c;
  }
  if ((flags & CZELTA::SegmentUpperCase) != 0) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - kBetween) : c;
  }
  return c;
}

/// Units are folded one by one: a letter that another one of two units would stand for stays.
char16_t folded(char16_t c, std::uint32_t flags) {
  char32_t other = c;
  if ((flags & CZELTA::SegmentLowerCase) != 0) {
    other = platform::toLower(c);
  } else if ((flags & CZELTA::SegmentUpperCase) != 0) {
    other = platform::toUpper(c);
  }
  return other <= 0xFFFF ? static_cast<char16_t>(other) : c;
}

}  // namespace

template <typename Unit>
typename WordMaker<Unit>::Word WordMaker<Unit>::make(const char* run, std::size_t bytes,
                                                     std::uint32_t flags) {
  const std::size_t units = bytes / sizeof(Unit) + (bytes % sizeof(Unit) != 0 ? 1 : 0);
  word_.assign(units, Unit{0});
  std::memcpy(word_.data(), run, bytes);
  std::size_t length = 0;
  for (; length < units && word_[length] != 0; ++length) {
    word_[length] = folded(word_[length], flags);
  }
  return {word_.data(), length};
}

template class WordMaker<char>;
template class WordMaker<char16_t>;

bool endsWord(const Character& character, bool wide, std::uint32_t flags) {
  const char32_t c = character.value;
  if ((flags & CZELTA::SegmentAlphanumeric) != 0) return wide ? !isLetter(c) : !isAlnum(c);
  return c == U',' || c == U'.' || isBlank(c);
}

}  // namespace zelta

#include "index/words/word_cutter.h"

#include <array>

namespace zelta {

namespace {

/// One entry for each character of ASCII, or for each byte.
template <typename Entry, std::size_t count>
using ClassTable = std::array<Entry, count>;

/// In words of bytes the letters of ASCII alone are folded.
constexpr char foldedByte(char c, bool lower, bool upper) {
  constexpr char kBetween = 'a' - 'A';
  if (lower) return c >= 'A' && c <= 'Z' ? static_cast<char>(c + kBetween) : c;
  if (upper) return c >= 'a' && c <= 'z' ? static_cast<char>(c - kBetween) : c;
  return c;
}

constexpr ClassTable<char, 256> foldTable(bool lower, bool upper) {
  ClassTable<char, 256> table{};
  for (int c = 0; c < 256; ++c) {
    table[static_cast<std::size_t>(c)] = foldedByte(static_cast<char>(c), lower, upper);
  }
  return table;
}
constexpr auto kUnfolded = foldTable(false, false);
constexpr auto kLower = foldTable(true, false);
constexpr auto kUpper = foldTable(false, true);

const ClassTable<char, 256>& foldTableOf(std::uint32_t flags) {
  if ((flags & CZELTA::SegmentLowerCase) != 0) return kLower;
  return (flags & CZELTA::SegmentUpperCase) != 0 ? kUpper : kUnfolded;
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

template <>
WordMaker<char>::Word WordMaker<char>::make(const char* run, std::size_t bytes,
                                            std::uint32_t flags) {
  if (word_.size() < bytes + 1) word_.resize(bytes + 1);
  const ClassTable<char, 256>& fold = foldTableOf(flags);
  std::size_t length = 0;
  for (; length < bytes && run[length] != 0; ++length) {
    word_[length] = fold[static_cast<unsigned char>(run[length])];
  }
  word_[length] = 0;
  return {word_.data(), length};
}

template <>
WordMaker<char16_t>::Word WordMaker<char16_t>::make(const char* run, std::size_t bytes,
                                                    std::uint32_t flags) {
  const std::size_t units = bytes / sizeof(char16_t) + bytes % sizeof(char16_t);
  word_.assign(units, 0);
  std::memcpy(word_.data(), run, bytes);
  std::size_t length = 0;
  for (; length < units && word_[length] != 0; ++length) {
    word_[length] = folded(word_[length], flags);
  }
  return {word_.data(), length};
}

template class WordMaker<char>;
template class WordMaker<char16_t>;

namespace {

/// Whether a character stands between words.
bool endsWord(const Character& character, bool wide, std::uint32_t flags) {
  const char32_t c = character.value;
  if ((flags & CZELTA::SegmentAlphanumeric) != 0) return wide ? !isLetter(c) : !isAlnum(c);
  return c == U',' || c == U'.' || isBlank(c);
}

using AsciiClass = ClassTable<bool, 128>;

/// The same for each character of ASCII in a text of bytes.
AsciiClass asciiEnds(std::uint32_t flags) {
  AsciiClass table{};
  for (unsigned c = 0; c < table.size(); ++c) table[c] = endsWord({nullptr, 1, c}, false, flags);
  return table;
}

WordEnd findNarrowEnd(const unsigned char* at, const unsigned char* end, std::uint32_t flags) {
  static const std::array<AsciiClass, 2> kEnds = {asciiEnds(0),
                                                  asciiEnds(CZELTA::SegmentAlphanumeric)};
  const AsciiClass& ends = kEnds[(flags & CZELTA::SegmentAlphanumeric) != 0 ? 1 : 0];
  while (at != end) {
    if (*at < ends.size()) {
      if (ends[*at]) return {at, 1};
      ++at;
      continue;
    }
    const Character character = firstNarrow(at, static_cast<std::uint64_t>(end - at));
    if (endsWord(character, false, flags)) return {at, character.size};
    at += character.size;
  }
  return {at, 0};
}

WordEnd findWideEnd(const unsigned char* at, const unsigned char* end, std::uint32_t flags) {
  while (at != end) {
    const Character character = firstWide(at, static_cast<std::uint64_t>(end - at));
    if (endsWord(character, true, flags)) return {at, character.size};
    at += character.size;
  }
  return {at, 0};
}

}  // namespace

WordEnd findWordEnd(const unsigned char* at, const unsigned char* end, bool wide,
                    std::uint32_t flags) {
  return wide ? findWideEnd(at, end, flags) : findNarrowEnd(at, end, flags);
}

}  // namespace zelta

// Cuts texts into the words by which objects are found in a list. The index and its searches cut in
// the same way, so that what is pending is found as what is committed.

#ifndef ZELTA_INDEX_WORDS_WORD_CUTTER_H
#define ZELTA_INDEX_WORDS_WORD_CUTTER_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "czelta.h"
#include "index/keys/characters.h"

namespace zelta {

/// A text to be cut: its bytes, of 8-bit or of 16-bit characters. An odd byte at the end of the
/// latter is no part of it.
struct WordText {
  const char* bytes;
  std::uint64_t length;
  bool wide;
};

/// Makes words of a list, whose characters are of type `Unit`, out of runs of characters.
template <typename Unit>
class WordMaker {
 public:
  using Word = std::basic_string_view<Unit>;

  /// The word of a run's bytes, folded as the segment's flags say. It ends at its first zero unit,
  /// and may be empty; behind it stands a zero unit in any case. Good until the next one is made.
  [[nodiscard]] Word make(const char* run, std::size_t bytes, std::uint32_t flags);

 private:
  std::basic_string<Unit> word_;
};

/// Where a word ends in a text, and the bytes of the character behind it: 0 at the text's end.
struct WordEnd {
  const unsigned char* at;
  unsigned behind;
};
/// The end of a word that begins at `at`; it may be empty.
[[nodiscard]] WordEnd findWordEnd(const unsigned char* at, const unsigned char* end, bool wide,
                                  std::uint32_t flags);

/// Hands each word of a text that is not empty to `use(word)`, until that returns false. `flags`
/// are those of the segment. False: `use` has ended it.
template <typename Unit, class Use>
bool cutWords(const WordText& text, std::uint32_t flags, WordMaker<Unit>& maker, Use use) {
  const auto* at = reinterpret_cast<const unsigned char*>(text.bytes);
  const unsigned char* const end = at + (text.wide ? text.length & ~std::uint64_t{1} : text.length);
  while (at != end) {
    const WordEnd found = findWordEnd(at, end, text.wide, flags);
    if (found.at != at) {
      const auto word = maker.make(reinterpret_cast<const char*>(at),
                                   static_cast<std::size_t>(found.at - at), flags);
      if (!word.empty() && !use(word)) return false;
    }
    at = found.at + found.behind;
  }
  return true;
}

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_WORD_CUTTER_H

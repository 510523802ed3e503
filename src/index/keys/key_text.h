// Texts in keys: folding, reduction to letters and digits, numbers, reversal, as the mode of a
// segment asks for them. What is written compares byte by byte as the texts shall compare; a
// terminator keeps a text apart from a longer one that begins with it. keys.h puts the segments of
// a key together.

#ifndef ZELTA_INDEX_KEYS_KEY_TEXT_H
#define ZELTA_INDEX_KEYS_KEY_TEXT_H

#include <cstdint>

#include "index/keys/key_writer.h"

namespace zelta {

/// A text without its terminator. Its bytes are the caller's, and may be malformed in any way.
struct KeyText {
  const char* bytes;
  std::uint64_t length;  ///< in bytes
  bool wide;             ///< 16-bit units
};

/// `mode` is the segment's, with its flags. Bytes that the text's key may take, terminator
/// included: at least what writeTextKey() writes, but for separators of descending forms.
[[nodiscard]] std::uint64_t textKeySize(const KeyText& text, std::uint32_t mode);

/// Appends the text's key. `out` counts on behind the end of its buffer.
void writeTextKey(const KeyText& text, std::uint32_t mode, KeyWriter& out);

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_KEY_TEXT_H

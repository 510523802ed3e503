// Texts in keys: folding, reduction to letters and digits, numbers, reversal.

#ifndef ZELTA_INDEX_KEYS_KEY_TEXT_H
#define ZELTA_INDEX_KEYS_KEY_TEXT_H

#include <cstdint>

#include "index/keys/key_writer.h"

namespace zelta {

/// A text without its terminator.
struct KeyText {
  const char* bytes;
  std::uint64_t length;  ///< in bytes
  bool wide;             ///< 16-bit units
};

/// Bytes that the text's key may take, terminator included: at least what writeTextKey() writes,
/// but for separators of descending forms.
[[nodiscard]] std::uint64_t textKeySize(const KeyText& text, std::uint32_t mode);

/// Appends the text's key.
void writeTextKey(const KeyText& text, std::uint32_t mode, KeyWriter& out);

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_KEY_TEXT_H

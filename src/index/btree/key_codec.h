// How keys stand in a node, one behind the other: their lengths and their order. A node asks once
// which codec its keys have, and goes through them with that one.
//
// A codec says how many bytes a key takes, whether one can begin where so many bytes are left, and
// how two compare; kEqualLengths, whether the place of a key follows from its number. fits() has to
// be asked before bytes() of a key that comes from a file.

#ifndef ZELTA_INDEX_BTREE_KEY_CODEC_H
#define ZELTA_INDEX_BTREE_KEY_CODEC_H

#include <algorithm>
#include <cstdint>

#include "index/tree/index_tree.h"

namespace zelta {

/// Compares words [from, to) as unsigned numbers: below 0, 0 or above 0.
[[nodiscard]] inline int compareWords(const std::uint32_t* a, const std::uint32_t* b,
                                      std::uint32_t from, std::uint32_t to) {
  for (std::uint32_t i = from; i < to; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

/// Keys of one length: the place of each follows from its number.
struct FixedWords {
  static constexpr bool kEqualLengths = true;
  std::uint32_t words;

  [[nodiscard]] std::uint32_t bytes(const std::uint32_t*) const { return words * 4; }
  /// Whether a key can begin where `left` bytes of keys are left.
  [[nodiscard]] bool fits(const std::uint32_t*, std::uint32_t left) const {
    return left >= words * 4;
  }
  [[nodiscard]] int compare(const std::uint32_t* a, const std::uint32_t* b) const {
    return compareWords(a, b, 0, words);
  }
};

/// Keys that state their length in words, itself included, in their first word. If one is the
/// beginning of the other, the shorter one comes first.
struct VariableWords {
  static constexpr bool kEqualLengths = false;

  [[nodiscard]] std::uint32_t bytes(const std::uint32_t* key) const { return key[0] * 4; }
  /// The length in a damaged node may be anything.
  [[nodiscard]] bool fits(const std::uint32_t* key, std::uint32_t left) const {
    return left >= 4 && key[0] - 1 < left / 4;  // a length of 0 wraps around
  }
  [[nodiscard]] int compare(const std::uint32_t* a, const std::uint32_t* b) const {
    const int sign = compareWords(a, b, 1, std::min(a[0], b[0]));
    if (sign != 0 || a[0] == b[0]) return sign;
    return a[0] < b[0] ? -1 : 1;
  }
};

/// Calls `use` with the codec of a tree's keys.
template <class Use>
decltype(auto) withCodec(const TreeShape& shape, Use use) {
  if (shape.variable) return use(VariableWords{});
  return use(FixedWords{shape.keyWords});
}

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_KEY_CODEC_H

// How keys stand in a node, one behind the other: their lengths and their order. A node asks once
// which codec its keys have, and goes through them with that one.
//
// A codec says how many bytes a key takes, how many one takes that comes from a file and has at most
// so many (0: none begins there), and how two keys of so many bytes compare, of which no byte more
// is looked at: a reader may meet a page that is just being written. kEqualLengths says whether the
// place of a key follows from its number.

#ifndef ZELTA_INDEX_BTREE_KEY_CODEC_H
#define ZELTA_INDEX_BTREE_KEY_CODEC_H

#include <algorithm>
#include <cstdint>
#include <cstring>

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
  [[nodiscard]] std::uint32_t measure(const std::uint32_t*, std::uint32_t left) const {
    return left >= words * 4 ? words * 4 : 0;
  }
  [[nodiscard]] int compare(const std::uint32_t* a, std::uint32_t, const std::uint32_t* b,
                            std::uint32_t) const {
    return compareWords(a, b, 0, words);
  }
};

/// Keys that state their length in words, itself included, in their first word. If one is the
/// beginning of the other, the shorter one comes first.
struct VariableWords {
  static constexpr bool kEqualLengths = false;

  [[nodiscard]] std::uint32_t bytes(const std::uint32_t* key) const { return key[0] * 4; }
  [[nodiscard]] std::uint32_t measure(const std::uint32_t* key, std::uint32_t left) const {
    return left >= 4 && key[0] <= left / 4 ? key[0] * 4 : 0;
  }
  [[nodiscard]] int compare(const std::uint32_t* a, std::uint32_t aBytes, const std::uint32_t* b,
                            std::uint32_t bBytes) const {
    const int sign = compareWords(a, b, 1, std::min(aBytes, bBytes) / 4);
    if (sign != 0 || aBytes == bBytes) return sign;
    return aBytes < bBytes ? -1 : 1;
  }
};

/// Keys of bytes: a prefix of one length, then a text that ends with a zero unit. Prefixes compare as
/// bytes, texts by their units as numbers. Nothing is aligned.
template <typename Unit>
struct PrefixedText {
  static constexpr bool kEqualLengths = false;
  std::uint32_t prefix;  ///< bytes

  [[nodiscard]] std::uint32_t bytes(const char* key) const {
    if constexpr (sizeof(Unit) == 1) {
      return prefix + static_cast<std::uint32_t>(std::strlen(key + prefix)) + 1;
    } else {
      return measure(key, ~std::uint32_t{0});
    }
  }
  [[nodiscard]] std::uint32_t measure(const char* key, std::uint32_t left) const {
    if (left <= prefix) return 0;
    if constexpr (sizeof(Unit) == 1) {
      const void* end = std::memchr(key + prefix, 0, left - prefix);
      if (end == nullptr) return 0;
      return static_cast<std::uint32_t>(static_cast<const char*>(end) - key) + 1;
    } else {
      for (std::uint32_t at = prefix; left - at >= sizeof(Unit); at += sizeof(Unit)) {
        if (unit(key, at) == 0) return at + sizeof(Unit);
      }
      return 0;
    }
  }
  [[nodiscard]] int compare(const char* a, std::uint32_t aBytes, const char* b,
                            std::uint32_t bBytes) const {
    const std::uint32_t both = std::min(aBytes, bBytes);
    if constexpr (sizeof(Unit) == 1) {
      return std::memcmp(a, b, both);  // the zero unit of the shorter one differs
    } else {
      const int sign = prefix == 0 ? 0 : std::memcmp(a, b, prefix);
      if (sign != 0) return sign;
      for (std::uint32_t at = prefix; both - at >= sizeof(Unit); at += sizeof(Unit)) {
        const Unit left = unit(a, at);
        const Unit right = unit(b, at);
        if (left != right) return left < right ? -1 : 1;
      }
      return 0;
    }
  }

 private:
  static Unit unit(const char* key, std::uint32_t at) {
    Unit value;
    std::memcpy(&value, key + at, sizeof value);
    return value;
  }
};

/// How a tree stands in nodes whose keys are words: those of index keys, which lead to objects.
struct NodeFormat : TreeShape {
  using Key = std::uint32_t;
  static constexpr std::uint32_t kFreeUnit = 4;  ///< bytes that the count of free space counts by
  static constexpr std::uint32_t kGrowthReserve = 4;  ///< bytes more than a node needs that grows

  [[nodiscard]] std::uint32_t head(bool leaf) const {
    return (leaf ? 24u : 8u) + (variable ? 4u : 0u);
  }
  [[nodiscard]] std::uint32_t pointerBytes(bool leaf) const { return leaf ? idBytes : 8u; }
  [[nodiscard]] std::uint32_t keyBytes(const Key* key) const { return words(key) * 4; }
  /// Bytes that a node needs apart from keys with their pointers: a branch has a first child.
  [[nodiscard]] std::uint32_t frame(bool leaf) const { return head(leaf) + (leaf ? 0u : 8u); }
  /// Bytes that the rules of fill leave out: a fixed branch counts the place of its first child in.
  [[nodiscard]] std::uint32_t unusable(bool leaf) const {
    return variable ? frame(leaf) : head(leaf);
  }
  /// Calls `use` with the codec of the tree's keys.
  template <class Use>
  decltype(auto) withCodec(Use use) const {
    if (variable) return use(VariableWords{});
    return use(FixedWords{keyWords});
  }
  /// Below 0, 0 or above 0.
  [[nodiscard]] int compare(const Key* a, const Key* b) const {
    return withCodec(
        [&](const auto& codec) { return codec.compare(a, codec.bytes(a), b, codec.bytes(b)); });
  }
};

/// The same for keys of bytes, each with eight bytes that say where its objects are.
struct TextNodeFormat {
  using Key = char;
  static constexpr std::uint32_t kFreeUnit = 1;
  static constexpr std::uint32_t kGrowthReserve = 8;
  static constexpr bool variable = true;

  std::uint32_t prefix = 0;  ///< bytes in front of a key's text
  bool wide = false;         ///< texts have 16-bit units

  template <class Use>
  decltype(auto) withCodec(Use use) const {
    if (wide) return use(PrefixedText<char16_t>{prefix});
    return use(PrefixedText<char>{prefix});
  }
  [[nodiscard]] std::uint32_t head(bool leaf) const { return leaf ? 28u : 12u; }
  [[nodiscard]] std::uint32_t pointerBytes(bool) const { return 8; }
  [[nodiscard]] std::uint32_t keyBytes(const Key* key) const {
    return withCodec([&](const auto& codec) { return codec.bytes(key); });
  }
  [[nodiscard]] std::uint32_t frame(bool leaf) const { return head(leaf) + (leaf ? 0u : 8u); }
  [[nodiscard]] std::uint32_t unusable(bool leaf) const { return head(leaf); }
  [[nodiscard]] int compare(const Key* a, const Key* b) const {
    return withCodec(
        [&](const auto& codec) { return codec.compare(a, codec.bytes(a), b, codec.bytes(b)); });
  }
};

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_KEY_CODEC_H

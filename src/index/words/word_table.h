// Words that are worked on together, each of them once. The bytes of all words lie in blocks that are
// given back as a whole.

#ifndef ZELTA_INDEX_WORDS_WORD_TABLE_H
#define ZELTA_INDEX_WORDS_WORD_TABLE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace zelta {

/// Numbers words in the order in which they come, from 0.
class WordTable {
 public:
  /// The number of a word, which is new if it was not there. Throws std::bad_alloc.
  std::uint32_t intern(std::string_view bytes);
  [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(words_.size()); }
  /// The bytes of a word, good until clear().
  [[nodiscard]] std::string_view word(std::uint32_t number) const {
    return {words_[number].bytes, words_[number].length};
  }
  /// Bytes of memory that are in use.
  [[nodiscard]] std::size_t memory() const;
  /// Forgets all words; keeps as much memory as usual numbers of them need.
  void clear();

 private:
  struct Word {
    const char* bytes;
    std::uint32_t length;
    std::uint32_t hash;
  };

  [[nodiscard]] std::uint32_t hashOf(std::string_view bytes) const;
  const char* keep(std::string_view bytes);
  void grow();

  static constexpr std::size_t kBlock = std::size_t{64} * 1024;
  static constexpr std::uint32_t kFree = ~std::uint32_t{0};

  /// Differs from table to table and from run to run, so that nobody can choose words that collide.
  const std::uint64_t seed_ = reinterpret_cast<std::uintptr_t>(this) * 0x9E3779B97F4A7C15 | 1;
  std::vector<Word> words_;
  std::vector<std::uint32_t> slots_;  ///< by hash: numbers of words; a power of two of them
  std::vector<std::unique_ptr<char[]>> blocks_;
  char* free_ = nullptr;  ///< in the last block
  std::size_t left_ = 0;
  std::size_t blockBytes_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_WORD_TABLE_H

// What a word of a list leads to: one object, a chain of pages with its objects, or nothing any more
// because too many have it.

#ifndef ZELTA_INDEX_WORDS_WORD_ENTRY_H
#define ZELTA_INDEX_WORDS_WORD_ENTRY_H

#include <cstdint>

#include "index/btree/key_codec.h"
#include "index/tree/index_tree.h"
#include "storage/table.h"

namespace zelta {

/// The eight bytes beside a word.
class WordEntry {
 public:
  explicit WordEntry(std::uint64_t value) : value_(value) {}
  static WordEntry ofObject(std::uint64_t objectID) { return WordEntry(objectID | kTop); }
  static WordEntry ofChain(std::uint64_t position) { return WordEntry(position); }
  /// A word that too many objects have: they are not kept.
  static WordEntry ofStopWord() { return WordEntry(~std::uint64_t{0}); }

  [[nodiscard]] bool isStopWord() const { return value_ == ~std::uint64_t{0}; }
  [[nodiscard]] bool isChain() const { return (value_ & kTop) == 0; }
  /// Also of a stop word, to which no object belongs: an ID that none has.
  [[nodiscard]] std::uint64_t object() const { return value_ & ~kTop; }
  [[nodiscard]] std::uint64_t chain() const { return value_; }
  [[nodiscard]] std::uint64_t value() const { return value_; }

 private:
  static constexpr std::uint64_t kTop = std::uint64_t{1} << 63;
  std::uint64_t value_;
};

/// How a list's keys stand in its nodes.
template <typename Unit>
[[nodiscard]] TextNodeFormat listFormat(const IndexTree& tree) {
  return {tree.table().index(tree.index()).listPrefixBytes, sizeof(Unit) == sizeof(char16_t)};
}

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_WORD_ENTRY_H

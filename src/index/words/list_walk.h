// Walking through the words of a list in their order. Nothing in a page is trusted: a reader without
// the table's mutex may meet one that is just being written.

#ifndef ZELTA_INDEX_WORDS_LIST_WALK_H
#define ZELTA_INDEX_WORDS_LIST_WALK_H

#include <cstdint>
#include <string>
#include <string_view>

#include "index/btree/walk.h"
#include "index/words/word_entry.h"

namespace zelta {

/// Stands at one word of a list after the other. The leaf at hand lies in the node buffer, which
/// nobody else may use meanwhile; the list must not be changed.
template <typename Unit>
class ListWalk {
 public:
  explicit ListWalk(const IndexTree& tree)
      : tree_(tree),
        pages_(tree, Own::wordTree),
        format_(listFormat<Unit>(tree)),
        codec_{format_.prefix},
        leavesLeft_(tree.mostPages()) {}

  /// Goes to the first word that is not below `word` under `prefix`. The list has a root.
  Result seek(const std::string& prefix, std::basic_string_view<Unit> word);
  /// Goes on to the first word, which may be the present one, that has these bytes at a whole unit; the
  /// zero unit at its end counts as its own. Words of another prefix end the walk.
  Result find(const std::string& prefix, std::string_view bytes);
  /// Goes one word on. Behind the last one the walk is not valid().
  Result next();

  [[nodiscard]] bool valid() const { return valid_; }
  [[nodiscard]] bool hasPrefix(const std::string& prefix) const {
    return std::memcmp(leaf_.keyAt(offset_), prefix.data(), format_.prefix) == 0;
  }
  /// Good until the walk moves.
  [[nodiscard]] std::basic_string_view<Unit> word() const;
  [[nodiscard]] WordEntry entry() const { return WordEntry(leaf_.pointer(number_)); }

 private:
  Result load(std::uint64_t position);
  Result step();
  Result findInLeaf(std::string_view bytes, bool* found);
  Result skipTo(const char* place);

  const IndexTree tree_;
  const TreePages pages_;
  const TextNodeFormat format_;
  const PrefixedText<Unit> codec_;
  std::uint64_t leavesLeft_;  ///< that may still be entered; bounds damaged links
  TextNode leaf_;
  std::uint32_t number_ = 0;    ///< of the word in its leaf
  std::uint32_t offset_ = 0;    ///< of its key
  std::uint32_t keyBytes_ = 0;  ///< of its key
  bool valid_ = false;
  mutable std::basic_string<Unit> aligned_;  ///< a word of 16-bit units, which may stand anywhere
};

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_LIST_WALK_H

// The changes of one word of a list: its entry in the tree, and the pages with its objects.

#ifndef ZELTA_INDEX_WORDS_WORD_CHANGES_H
#define ZELTA_INDEX_WORDS_WORD_CHANGES_H

#include <cstdint>
#include <span>
#include <vector>

#include "index/btree/walk.h"
#include "index/kind.h"
#include "index/words/posting_chain.h"

namespace zelta {

/// A word with its changes, in the order in which they came.
struct ChangedWord {
  const char* key = nullptr;  ///< its prefix and its text with the zero unit at the end
  std::span<const WordChange> changes;
};

/// Brings words into a list, in ascending order. The leaf at hand is kept as long as words belong
/// into it. Repeated changes count as made wherever that shows.
class WordWriter {
 public:
  WordWriter(const IndexTree& tree, const TextNodeFormat& format, ContentMode mode)
      : tree_(tree),
        repeated_(mode == ContentMode::repeated),
        walk_(tree, format, TextWalk::Purpose::insert),
        chain_(tree_) {}
  WordWriter(const WordWriter&) = delete;
  WordWriter& operator=(const WordWriter&) = delete;

  /// Makes all changes of the next word, whose bytes need to last until then. Own code 37: an object
  /// that gains it has it; own code 32: one that loses it is not the one that has it, or not among
  /// those that have it. A word that the list does not have may be lost.
  Result apply(const ChangedWord& word);
  /// Brings the last leaf into the list.
  Result finish() { return leave(); }

 private:
  /// What the entry of the word is at the moment.
  enum class Form : std::uint8_t { absent, object, chain, stopWord };

  void expectObjects();
  Result seek();
  Result leave();
  Result takeEntry(std::uint64_t value);
  Result changeAll();
  Result add(std::uint64_t objectID);
  Result remove(std::uint64_t objectID);
  [[nodiscard]] std::uint64_t value() const;
  Result enter();
  Result putValue(std::uint64_t before);

  const IndexTree tree_;
  const bool repeated_;
  TextWalk walk_;
  // The leaf at hand, and where the word belongs in it
  BPlusPath path_;
  TextNode leaf_;
  TreeBound<TextNodeFormat> bound_;
  TextNode::Place place_{};
  bool held_ = false;     ///< there is one
  bool changed_ = false;  ///< it is not yet stored
  // The word at hand
  ChangedWord word_;
  std::vector<WordChange> ascending_;  ///< its changes, if they came in another order
  Form form_ = Form::absent;
  std::uint64_t object_ = 0;  ///< of Form::object
  PostingChain chain_;        ///< of Form::chain
};

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_WORD_CHANGES_H

// The changes of one word of a list: its entry in the tree, and the pages with its objects.

#ifndef ZELTA_INDEX_WORDS_WORD_CHANGES_H
#define ZELTA_INDEX_WORDS_WORD_CHANGES_H

#include <cstdint>
#include <vector>

#include "index/btree/key_codec.h"
#include "index/kind.h"

namespace zelta {

/// An object gains a word, or loses it.
struct WordChange {
  std::uint64_t objectID;
  bool gains;
};

/// A word with its changes, in the order in which they came.
struct ChangedWord {
  const char* key;  ///< its prefix and its text with the zero unit at the end
  std::vector<WordChange> changes;
  std::vector<std::uint64_t> ids;  ///< of their objects, ascending, each of them once
};

/// Brings all changes of a word into a list. Own code 37: an object that gains it has it; own code
/// 32: one that loses it is not the one that has it, or not among those that have it. A word that the
/// list does not have may be lost. Repeated changes count as made wherever that shows.
Result applyChanges(const IndexTree& tree, const TextNodeFormat& format, const ChangedWord& word,
                    ContentMode mode);

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_WORD_CHANGES_H

// The two kinds of index over words: of 8-bit and of 16-bit characters. A list is a B+Tree in the
// index file, from a prefix of fixed values and a word to the objects that have the word; it follows
// the objects' contents when a transaction commits.

#ifndef ZELTA_INDEX_WORDS_LISTS_H
#define ZELTA_INDEX_WORDS_LISTS_H

#include "index/kind.h"
#include "index/words/list_search.h"
#include "index/words/list_update.h"

namespace zelta {

inline constexpr ContentKind kAsciiList = {beginAsciiUpdate};
inline constexpr ContentKind kWideList = {beginWideUpdate};

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_LISTS_H

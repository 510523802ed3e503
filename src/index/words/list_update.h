// Bringing a list in line with the objects that change. Words are collected, and then taken one
// after the other in ascending order: each is looked up once, and its objects are walked once, for
// all objects that gain or lose it.

#ifndef ZELTA_INDEX_WORDS_LIST_UPDATE_H
#define ZELTA_INDEX_WORDS_LIST_UPDATE_H

#include <memory>

#include "index/kind.h"

namespace zelta {

std::unique_ptr<ContentUpdate> beginAsciiUpdate(const IndexTree& committed, ContentMode mode);
std::unique_ptr<ContentUpdate> beginWideUpdate(const IndexTree& committed, ContentMode mode);

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_LIST_UPDATE_H

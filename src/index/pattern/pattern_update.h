// Bringing a tree of points in line with an object. Only what differs between its two versions is
// touched: a point that stays in another row gets the number of that row in its place.

#ifndef ZELTA_INDEX_PATTERN_PATTERN_UPDATE_H
#define ZELTA_INDEX_PATTERN_PATTERN_UPDATE_H

#include <memory>

#include "index/kind.h"

namespace zelta {

std::unique_ptr<ContentUpdate> beginPatternUpdate(const IndexTree& committed, ContentMode mode);

/// Own code 39: the object's points cannot be found, since they stand behind others.
Result checkPattern(const Table& table, std::uint32_t index, const ObjectBytes& object);

}  // namespace zelta

#endif  // ZELTA_INDEX_PATTERN_PATTERN_UPDATE_H

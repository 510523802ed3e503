// The kind of index over sets of points. Each point of each object is an entry of one tree of
// points in the index file; the tree follows the objects' contents when a transaction commits.

#ifndef ZELTA_INDEX_PATTERN_PATTERN_H
#define ZELTA_INDEX_PATTERN_PATTERN_H

#include "index/kind.h"
#include "index/pattern/pattern_search.h"
#include "index/pattern/pattern_update.h"

namespace zelta {

inline constexpr ContentKind kSpatialPattern = {beginPatternUpdate, checkPattern};

}  // namespace zelta

#endif  // ZELTA_INDEX_PATTERN_PATTERN_H

// The kinds of index whose keys are extents: Spatial Trees of boxes and Temporal Trees of spans.

#ifndef ZELTA_INDEX_RTREE_EXTENT_KINDS_H
#define ZELTA_INDEX_RTREE_EXTENT_KINDS_H

#include "index/kind.h"

namespace zelta {

extern const KeyKind kSpatialTree;
extern const KeyKind kTemporalTree;

}  // namespace zelta

#endif  // ZELTA_INDEX_RTREE_EXTENT_KINDS_H

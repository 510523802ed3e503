// Trees of bounds in index and memory files: Spatial Trees of boxes, Temporal Trees of spans, and
// trees of points.

#ifndef ZELTA_CHECK_CHECK_RTREE_H
#define ZELTA_CHECK_CHECK_RTREE_H

#include "check/check_entries.h"

namespace zelta::check {

/// Each walks a tree: form of the nodes, and bounds that contain what lies below them and nothing
/// more. False if parts of the tree could not be walked.
bool checkSpatialTree(const WalkContext& context);
bool checkTemporalTree(const WalkContext& context);
bool checkPatternTree(const WalkContext& context);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_RTREE_H

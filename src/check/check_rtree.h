// Trees of bounds in index and memory files: Spatial Trees of boxes, Temporal Trees of spans. The
// walk keeps the path from the root in memory, reaches every node at most once, and does not go
// deeper than a tree can be.

#ifndef ZELTA_CHECK_CHECK_RTREE_H
#define ZELTA_CHECK_CHECK_RTREE_H

#include <vector>

#include "check/check_entries.h"
#include "check/check_file.h"

namespace zelta::check {

/// Walks a tree: form of the nodes, and bounds that contain what lies below them and nothing more.
/// The nodes go to `extents`. False if parts of the tree could not be walked.
bool checkSpatialTree(Findings& findings, CheckFile& file, const TreePlace& place,
                      std::vector<Extent>& extents, const EntryVisitor& visit);
bool checkTemporalTree(Findings& findings, CheckFile& file, const TreePlace& place,
                       std::vector<Extent>& extents, const EntryVisitor& visit);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_RTREE_H

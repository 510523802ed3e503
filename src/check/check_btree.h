// B+Trees of index and memory files. The walk keeps the path from the root in memory, reaches every
// node at most once, and does not go deeper than a tree can be.

#ifndef ZELTA_CHECK_CHECK_BTREE_H
#define ZELTA_CHECK_CHECK_BTREE_H

#include <vector>

#include "check/check_entries.h"
#include "check/check_file.h"

namespace zelta::check {

/// Walks a B+Tree: form of the nodes, order of keys, separators, links of the leaves. The nodes go
/// to `extents`. False if parts of the tree could not be walked.
bool checkBPlusTree(Findings& findings, CheckFile& file, const TreePlace& place,
                    std::vector<Extent>& extents, const EntryVisitor& visit);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_BTREE_H

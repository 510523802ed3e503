// B+Trees of index and memory files.

#ifndef ZELTA_CHECK_CHECK_BTREE_H
#define ZELTA_CHECK_CHECK_BTREE_H

#include "check/check_entries.h"

namespace zelta::check {

/// Walks a B+Tree: form of the nodes, order of keys, separators, links of the leaves. False if
/// parts of the tree could not be walked.
bool checkBPlusTree(const WalkContext& context);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_BTREE_H

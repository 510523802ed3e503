// The way to an object through the tree of an index.

#ifndef ZELTA_OBJECTS_READ_TREE_WALK_H
#define ZELTA_OBJECTS_READ_TREE_WALK_H

#include "objects/read/locate.h"

namespace zelta {

/// Fills `out` up to the object's slot.
Result walkTree(const ReadRequest& request, TableAccess& access, Located& out);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_TREE_WALK_H

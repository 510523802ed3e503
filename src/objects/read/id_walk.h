// The way to an object by ID, and in the results of a search that are those that do not match.

#ifndef ZELTA_OBJECTS_READ_ID_WALK_H
#define ZELTA_OBJECTS_READ_ID_WALK_H

#include "objects/read/locate.h"

namespace zelta {

/// Fills `out` up to the object's slot.
Result walkIds(const ReadRequest& request, const TableHeader_tag& header, bool inverted,
               Located& out);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_ID_WALK_H

// The way to an object along the results of a search.

#ifndef ZELTA_OBJECTS_READ_RESULT_WALK_H
#define ZELTA_OBJECTS_READ_RESULT_WALK_H

#include "objects/read/locate.h"

namespace zelta {

/// Fills `out` up to the object's slot. Own code 32: there is none; code 33: it is locked, or was
/// deleted since the search.
Result walkResults(const ReadRequest& request, const TableHeader_tag& header, Located& out);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_RESULT_WALK_H

// Running out of memory as a failure like any other. Inside the library it is std::bad_alloc, and
// everything that is held is released by scope guards; here it becomes a result.

#ifndef ZELTA_FRAME_OUT_OF_MEMORY_H
#define ZELTA_FRAME_OUT_OF_MEMORY_H

#include <new>

#include "frame/metadata.h"

namespace zelta {

/// Runs a step; std::bad_alloc becomes Windows code 8. For the exported operations, and for steps
/// that cannot be left half done.
template <typename Step>
Result catchBadAlloc(MetaData& metaData, const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return reportSystemError(&metaData, code::kNoMemory);
  }
}

}  // namespace zelta

#endif  // ZELTA_FRAME_OUT_OF_MEMORY_H

// Exhausted memory as a failure like any other.

#ifndef ZELTA_FRAME_EXHAUSTED_MEMORY_H
#define ZELTA_FRAME_EXHAUSTED_MEMORY_H

#include <new>

#include "frame/metadata.h"

namespace zelta {

/// Runs a step; exhausted memory becomes Windows code 8. For the exported operations, and for steps
/// that cannot be left half done.
template <typename Step>
Result reportingMemory(MetaData& metaData, const Step& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    return reportSystemError(&metaData, code::kNoMemory);
  }
}

}  // namespace zelta

#endif  // ZELTA_FRAME_EXHAUSTED_MEMORY_H

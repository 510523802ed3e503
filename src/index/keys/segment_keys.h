// Keys of any number of values: a string of bytes in which earlier segments count more.

#ifndef ZELTA_INDEX_KEYS_SEGMENT_KEYS_H
#define ZELTA_INDEX_KEYS_SEGMENT_KEYS_H

#include <cstdint>

#include "index/kind.h"

namespace zelta {

Result segmentKeyOfObject(Table& table, std::uint32_t index, const KeySource& from,
                          std::uint32_t** key);
Result segmentKeyOfValues(Table& table, std::uint32_t index, const void* values,
                          std::uint32_t** key);

inline constexpr KeyMaker kSegmentKeys = {segmentKeyOfObject, segmentKeyOfValues};

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_SEGMENT_KEYS_H

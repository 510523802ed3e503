// Keys that are extents, of a box in space or of a span of time, with the lower ends first. Object
// and caller may give the ends in either order.

#ifndef ZELTA_INDEX_KEYS_EXTENT_KEYS_H
#define ZELTA_INDEX_KEYS_EXTENT_KEYS_H

#include <cstdint>

#include "index/kind.h"

namespace zelta {

Result boxKeyOfObject(Table& table, std::uint32_t index, const KeySource& from,
                      std::uint32_t** key);
/// `box`: all lower corners, then all upper ones.
Result boxKeyOfValues(Table& table, std::uint32_t index, const void* box, std::uint32_t** key);

Result spanKeyOfObject(Table& table, std::uint32_t index, const KeySource& from,
                       std::uint32_t** key);
/// `span`: begin and end.
Result spanKeyOfValues(Table& table, std::uint32_t index, const void* span, std::uint32_t** key);

inline constexpr KeyMaker kBoxKeys = {boxKeyOfObject, boxKeyOfValues};
inline constexpr KeyMaker kSpanKeys = {spanKeyOfObject, spanKeyOfValues};

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_EXTENT_KEYS_H

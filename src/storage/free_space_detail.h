// What the two forms of free chains differ in.

#ifndef ZELTA_STORAGE_FREE_SPACE_DETAIL_H
#define ZELTA_STORAGE_FREE_SPACE_DETAIL_H

#include "platform/file_io.h"
#include "storage/free_space.h"

namespace zelta::free_space {

/// Blocks of table, index and memory files.
struct Narrow {
  using Head = NarrowBlock_tag;
  static constexpr std::uint32_t kHeadSize = sizeof(Head);
  static constexpr std::uint32_t kGranule = kBlockGranule;
  /// Sizes have 32 bits: neighbours whose sum would not fit stay apart.
  static constexpr std::uint64_t kLargest = 0xFFFFFFF0;
  static Head head(std::uint64_t size, std::uint64_t next) {
    return {static_cast<std::uint32_t>(size), kFreeMarker, next};
  }
};

/// Blocks of log files.
struct Wide {
  using Head = WideBlock_tag;
  static constexpr std::uint32_t kHeadSize = kWideBlockHead;
  static constexpr std::uint32_t kGranule = kWideGranule;
  static constexpr std::uint64_t kLargest = ~std::uint64_t{0};
  static Head head(std::uint64_t size, std::uint64_t next) { return {size, next, kFreeMarker, 0}; }
};

/// No file is longer; sums of two positions or sizes below it do not wrap.
inline constexpr std::uint64_t kPositionLimit = std::uint64_t{1} << 62;

inline Result chainIsBroken(MetaData& metaData) { return reportError(&metaData, Own::freeList); }

}  // namespace zelta::free_space

#endif  // ZELTA_STORAGE_FREE_SPACE_DETAIL_H

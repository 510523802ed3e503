// The B+Tree of a log file: transaction numbers that lead to entries.
//
// Keys ascend and may repeat: the entries of one number stand in the order in which they were made.
// Here it is read; log_change.h changes it. A leaf that loses its last key leaves the tree; other
// nodes are not joined.

#ifndef ZELTA_TRANSACTION_LOG_LOG_TREE_H
#define ZELTA_TRANSACTION_LOG_LOG_TREE_H

#include <cassert>
#include <cstdint>

#include "transaction/log/log_file.h"

namespace zelta {

/// The nodes from the root to a leaf.
class LogPath {
 public:
  struct Level {
    std::uint64_t position;
    std::uint32_t child;  ///< which child was taken
    LogNode_tag node;
  };

  /// The header of `log` has been read; it outlives the path.
  explicit LogPath(const LogFile& log) : log_(log) {}

  /// Walks to the last leaf that may hold `number`.
  Result descend(std::uint32_t number);
  /// Finds an entry of a number: the one at `position`, or the last one if that is 0. The path
  /// leads to its leaf, where `*slot` is its index. An empty path: there is none.
  Result locate(std::uint32_t number, std::uint64_t position, std::uint32_t* slot);

  [[nodiscard]] bool isEmpty() const { return depth_ == 0; }
  [[nodiscard]] std::uint32_t depth() const { return depth_; }
  /// Of the root, at depth 0, and of what lies below it.
  [[nodiscard]] Level& level(std::uint32_t depth) {
    assert(depth < depth_);
    return levels_[depth];
  }
  [[nodiscard]] Level& leaf() {
    assert(depth_ != 0);
    return levels_[depth_ - 1];
  }

 private:
  Result push(std::uint64_t position);
  Result toPreviousLeaf();

  /// More levels than a tree of 2^32 numbers has, even if its nodes are nearly empty.
  static constexpr std::uint32_t kMaximumDepth = 32;

  const LogFile& log_;
  Level levels_[kMaximumDepth];
  std::uint32_t depth_ = 0;
};

/// Index of the first key above `number`.
[[nodiscard]] std::uint32_t firstAbove(const LogNode_tag& node, std::uint32_t number);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_TREE_H

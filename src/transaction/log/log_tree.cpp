#include "transaction/log/log_tree.h"

#include <algorithm>
#include <cassert>

namespace zelta {

namespace {

/// Whether what is done with a node stays within it. Its values are looked at when they are
/// followed.
bool nodeIsSound(const LogNode_tag& node) {
  const bool inner = node.type == LogNodeType::inner;
  if (!inner && node.type != LogNodeType::leaf) return false;
  if (node.keyCount == 0 || node.keyCount > kLogKeysPerNode) return false;
  if (node.blockLength < kLogNodeSize || node.blockLength >= 2 * kLogNodeSize) return false;
  return std::is_sorted(node.keys, node.keys + node.keyCount);
}

}  // namespace

std::uint32_t firstAbove(const LogNode_tag& node, std::uint32_t number) {
  return static_cast<std::uint32_t>(std::upper_bound(node.keys, node.keys + node.keyCount, number) -
                                    node.keys);
}

/// Reads a node to the end of the path. Nodes that lead in a circle end at the greatest depth.
Result LogPath::push(std::uint64_t position) {
  if (depth_ == kMaximumDepth || position % 8 != 0 ||
      !liesInLog(position, kLogNodeSize, log_.header().endOfLog)) {
    return log_.broken();
  }
  Level& level = levels_[depth_];
  ZELTA_TRY(log_.read(position, &level.node, kLogNodeSize));
  if (!nodeIsSound(level.node)) return log_.broken();
  level.position = position;
  level.child = 0;
  ++depth_;
  return {};
}

Result LogPath::descend(std::uint32_t number) {
  depth_ = 0;
  ZELTA_TRY(push(log_.header().rootPosition));
  while (leaf().node.type == LogNodeType::inner) {
    Level& level = leaf();
    level.child = firstAbove(level.node, number);
    ZELTA_TRY(push(level.node.values[level.child]));
  }
  return {};
}

/// Walks to the leaf before; an empty path: there is none.
Result LogPath::toPreviousLeaf() {
  assert(depth_ != 0);
  --depth_;
  while (depth_ != 0 && leaf().child == 0) --depth_;
  if (depth_ == 0) return {};
  --leaf().child;
  while (leaf().node.type == LogNodeType::inner) {
    Level& level = leaf();
    ZELTA_TRY(push(level.node.values[level.child]));
    leaf().child = leaf().node.keyCount;
  }
  return {};
}

Result LogPath::locate(std::uint32_t number, std::uint64_t position, std::uint32_t* slot) {
  depth_ = 0;
  if (log_.header().rootPosition == 0) return {};
  ZELTA_TRY(descend(number));
  // Entries of one number can lie in several leaves, and removals may have emptied the last one of
  // them.
  while (depth_ != 0) {
    const LogNode_tag& node = leaf().node;
    for (std::uint32_t i = firstAbove(node, number); i-- > 0;) {
      if (node.keys[i] != number) {
        depth_ = 0;
        return {};
      }
      if (position == 0 || node.values[i] == position) {
        *slot = i;
        return {};
      }
    }
    ZELTA_TRY(toPreviousLeaf());
  }
  return {};
}

}  // namespace zelta

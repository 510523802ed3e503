#include "index/btree/cursor.h"

#include <cassert>

namespace zelta {

BPlusCursor::BPlusCursor(const IndexTree& tree, PageRole role)
    : pages_(tree, Own::bPlusTree), role_(role), format_{tree.shape()} {}

Result BPlusCursor::corrupted() {
  valid_ = false;
  return pages_.corrupted();
}

/// Takes a node into the cursor's buffer. The keys of a variable node are checked one by one, as
/// they are reached.
Result BPlusCursor::load(std::uint64_t position) {
  TreePage page;
  ZELTA_TRY(pages_.view(position, role_, &page));
  if (node_.attach(page, format_, false) != BPlusNode::State::sound ||
      (node_.leaf() && node_.count() == 0)) {
    return corrupted();
  }
  position_ = position;
  return {};
}

/// Stands on an entry of the leaf, whose key's place is 0 if it is broken.
Result BPlusCursor::place(std::uint32_t entry, std::uint32_t offset) {
  if (offset == 0) return corrupted();
  assert(node_.leaf() && entry < node_.count());
  entry_ = entry;
  offset_ = offset;
  valid_ = true;
  return {};
}

/// Follows the pivot, or the edge of the tree, down to a leaf.
Result BPlusCursor::descend(CZELTA::Mode mode, const std::uint32_t* pivot) {
  std::uint64_t position = pages_.tree().root();
  for (std::uint32_t depth = 0; depth < IndexTree::kMaximumDepth; ++depth) {
    ZELTA_TRY(load(position));
    if (node_.leaf()) return {};
    std::uint32_t child = 0;
    if (mode == CZELTA::ReadLast) {
      child = node_.count();
    } else if (mode != CZELTA::ReadFirst) {
      const BPlusNode::Place place = node_.above(pivot);
      if (place.offset == 0) return corrupted();
      child = place.number;
    }
    position = node_.child(child);
  }
  return corrupted();
}

Result BPlusCursor::seek(CZELTA::Mode mode, const std::uint32_t* pivot) {
  valid_ = false;
  if (pages_.tree().root() == 0) return {};
  leavesLeft_ = pages_.tree().mostPages();
  ZELTA_TRY(descend(mode, pivot));
  if (mode == CZELTA::ReadFirst) return place(0);
  if (mode == CZELTA::ReadLast) return place(node_.count() - 1);

  assert(pivot != nullptr);
  const bool orEqual = mode != CZELTA::ReadLess && mode != CZELTA::ReadGreater;
  const bool up = mode == CZELTA::ReadGreater || mode == CZELTA::ReadGreaterEqual;
  const BPlusNode::Place found = node_.lower(pivot);
  if (found.offset == 0) return corrupted();
  if (found.equal && orEqual) return place(found.number, found.offset);
  if (mode == CZELTA::ReadEqual) return {};
  const std::uint32_t behind = found.number + (found.equal ? 1u : 0u);
  if (up && behind < node_.count()) return place(behind);
  if (!up && found.number != 0) return place(found.number - 1);
  ZELTA_TRY(enterNeighbour(up));
  if (!valid_) return {};
  // A neighbour whose keys lie on the wrong side would lead a walk in circles.
  const int sign = format_.compare(key(), pivot);
  return (up ? sign > 0 : sign < 0) ? Result() : corrupted();
}

Result BPlusCursor::next(bool up) {
  if (!valid_) return {};
  if (up && entry_ + 1 < node_.count()) return place(entry_ + 1);
  if (!up && entry_ != 0) return place(entry_ - 1);
  return enterNeighbour(up);
}

Result BPlusCursor::enterNeighbour(bool up) {
  valid_ = false;
  const std::uint64_t from = position_;
  const std::uint64_t to = up ? node_.next() : node_.previous();
  if (to == 0) return {};
  if (leavesLeft_-- == 0) return corrupted();
  ZELTA_TRY(load(to));
  if (!node_.leaf() || (up ? node_.previous() : node_.next()) != from) return corrupted();
  return place(up ? 0 : node_.count() - 1);
}

}  // namespace zelta

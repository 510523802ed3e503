#include "index/btree/join.h"

#include <cassert>

namespace zelta {

namespace {

constexpr std::uint32_t kJoined = 80;  ///< percent of fill that a joined node stays below
constexpr std::uint32_t kMaximumCount = 0xFFFF;

/// Bytes of used() when two nodes are joined; a branch takes the separator between them down.
std::uint64_t joinedUse(const BPlusNode& left, const BPlusNode& right,
                        const std::uint32_t* separator) {
  std::uint64_t used = left.used() + right.used();
  if (left.leaf()) return used;
  used += std::uint64_t{left.format().words(separator)} * 4;
  // In the variable form used() leaves out the first child, of which the joined node has one less.
  return left.format().variable ? used + 8 : used;
}

/// Appends the right node to the left one; in a branch the separator comes down between them.
void joinIntoLeft(BPlusNode& left, const BPlusNode& right, const std::uint32_t* separator) {
  if (!left.leaf()) left.append(separator, right.child(0));
  left.append(right, 0, right.count());
}

/// Puts the left node in front of the right one, whose old contents are in a copy.
void joinIntoRight(const BPlusNode& left, BPlusNode& right, const BPlusNode& oldRight,
                   const std::uint32_t* separator) {
  right.clear();
  if (!left.leaf()) right.setPointer(0, left.child(0));
  right.append(left, 0, left.count());
  if (!left.leaf()) right.append(separator, oldRight.child(0));
  right.append(oldRight, 0, oldRight.count());
}

}  // namespace

Result joinChildren(BPlusWalk& walk, BPlusNode& parent, std::uint32_t number, BPlusPair pair,
                    bool* joined) {
  BPlusNode& left = *pair.left;
  BPlusNode& right = *pair.right;
  *joined = false;
  if (left.leaf() != right.leaf() || pair.leftPosition == pair.rightPosition) {
    return walk.corrupted();
  }
  assert(!parent.leaf() && number < parent.count());
  const bool keepLeft = pair.leftPosition < pair.rightPosition;
  const std::uint64_t usable = keepLeft ? left.usable() : right.usable();
  const std::uint32_t* separator = parent.key(number);
  if (joinedUse(left, right, separator) * 100 >= usable * kJoined) return {};
  if (left.count() + right.count() + 1 > kMaximumCount) return {};

  // The leaves around them lead to the one that stays.
  if (left.leaf()) {
    const std::uint64_t previous = left.previous();
    const std::uint64_t next = right.next();
    if (keepLeft) {
      ZELTA_TRY(walk.relink(0, 0, next, pair.leftPosition, PageRole::spare));
      left.setNext(next);
    } else {
      ZELTA_TRY(walk.relink(previous, pair.rightPosition, 0, 0, PageRole::spare));
      right.setPrevious(previous);
    }
  }
  if (keepLeft) {
    joinIntoLeft(left, right, separator);
  } else {
    joinIntoRight(left, right, walk.copyAside(right), separator);
  }
  const std::uint64_t kept = keepLeft ? pair.leftPosition : pair.rightPosition;
  const std::uint64_t freed = keepLeft ? pair.rightPosition : pair.leftPosition;
  const std::uint32_t freedSize = keepLeft ? right.size() : left.size();
  parent.erase(number, number + 1);
  parent.setPointer(number, kept);
  ZELTA_TRY(walk.store(kept, keepLeft ? left : right));
  ZELTA_TRY(walk.free(freed, freedSize));
  *joined = true;
  return {};
}

Result collapseRoot(BPlusWalk& walk, bool* collapsed) {
  BPlusNode node;
  *collapsed = false;
  const std::uint64_t position = walk.root();
  ZELTA_TRY(walk.load(position, node, PageRole::node));
  if (node.leaf() || node.count() != 0) return {};
  *collapsed = true;
  walk.root() = node.child(0);
  return walk.free(position, node.size());
}

}  // namespace zelta

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
  used += left.format().keyBytes(separator);
  // In the variable form used() leaves out the first child, of which the joined node has one less.
  return left.format().variable ? used + 8 : used;
}

std::uint64_t joinedUse(const TextNode& left, const TextNode& right, const char* separator) {
  const std::uint64_t used = left.used() + right.used();
  return left.leaf() ? used : used + left.format().keyBytes(separator);
}

/// Which of the two nodes has room for both.
enum class Joined : std::uint8_t { none, left, right };

Joined roomForBoth(const BPlusPair& pair, const std::uint32_t* separator) {
  const bool keepLeft = pair.leftPosition < pair.rightPosition;
  const std::uint64_t usable = keepLeft ? pair.left->usable() : pair.right->usable();
  if (joinedUse(*pair.left, *pair.right, separator) * 100 >= usable * kJoined) return Joined::none;
  return keepLeft ? Joined::left : Joined::right;
}

Joined roomForBoth(const TreePair<TextNodeFormat>& pair, const char* separator) {
  const std::uint64_t use = joinedUse(*pair.left, *pair.right, separator);
  // The second test is one of damage: it holds for all sizes that such nodes are given.
  const auto hasRoom = [&](const TextNode& node) {
    return std::uint64_t{node.size()} * kJoined > use * 100 && use <= node.usable();
  };
  const bool leftHas = hasRoom(*pair.left);
  const bool rightHas = hasRoom(*pair.right);
  if (!leftHas && !rightHas) return Joined::none;
  if (!leftHas) return Joined::right;
  if (!rightHas) return Joined::left;
  return pair.leftPosition < pair.rightPosition ? Joined::left : Joined::right;
}

/// Appends the right node to the left one; in a branch the separator comes down between them.
template <class Format>
void joinIntoLeft(TreeNode<Format>& left, const TreeNode<Format>& right,
                  const typename Format::Key* separator) {
  if (!left.leaf()) left.append(separator, right.child(0));
  left.append(right, 0, right.count());
}

/// Puts the left node in front of the right one, whose old contents are in a copy.
template <class Format>
void joinIntoRight(const TreeNode<Format>& left, TreeNode<Format>& right,
                   const TreeNode<Format>& oldRight, const typename Format::Key* separator) {
  right.clear();
  if (!left.leaf()) right.setPointer(0, left.child(0));
  right.append(left, 0, left.count());
  if (!left.leaf()) right.append(separator, oldRight.child(0));
  right.append(oldRight, 0, oldRight.count());
}

}  // namespace

template <class Format>
Result joinChildren(TreeWalk<Format>& walk, TreeNode<Format>& parent, std::uint32_t number,
                    TreePair<Format> pair, bool* joined) {
  TreeNode<Format>& left = *pair.left;
  TreeNode<Format>& right = *pair.right;
  *joined = false;
  if (left.leaf() != right.leaf() || pair.leftPosition == pair.rightPosition) {
    return walk.corrupted();
  }
  assert(!parent.leaf() && number < parent.count());
  const typename Format::Key* separator = parent.key(number);
  const Joined into = roomForBoth(pair, separator);
  if (into == Joined::none) return {};
  const bool keepLeft = into == Joined::left;
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

template <class Format>
Result collapseRoot(TreeWalk<Format>& walk, bool* collapsed) {
  TreeNode<Format> node;
  *collapsed = false;
  const std::uint64_t position = walk.root();
  ZELTA_TRY(walk.load(position, node, PageRole::node));
  if (node.leaf() || node.count() != 0) return {};
  *collapsed = true;
  walk.root() = node.child(0);
  return walk.free(position, node.size());
}

template Result joinChildren(BPlusWalk&, BPlusNode&, std::uint32_t, BPlusPair, bool*);
template Result joinChildren(TextWalk&, TextNode&, std::uint32_t, TreePair<TextNodeFormat>, bool*);
template Result collapseRoot(BPlusWalk&, bool*);
template Result collapseRoot(TextWalk&, bool*);

}  // namespace zelta

#include "index/btree/remove.h"

#include "index/btree/join.h"
#include "index/btree/walk.h"

namespace zelta {

namespace {

/// Percent of fill below which a node looks for a sibling to be joined with.
constexpr std::uint32_t kUnderfull = 40;
/// Percent of fill below which a node that cannot be joined takes over entries of a sibling.
constexpr std::uint32_t kRedistribute = 10;
/// A variable leaf with so many keys is not joined.
constexpr std::uint32_t kManyKeys = 6;
constexpr std::uint32_t kMaximumCount = 0xFFFF;

/// One key on its way out. The path from the root is kept; behind the change the way goes up once,
/// and at each level the node at hand is taken out, joined with a sibling, refilled from one, or
/// left. A separator that equals the removed key is exchanged for the next key, so that all
/// separators that are equal to a key name one that is there.
class Removal {
 public:
  explicit Removal(BPlusWalk& walk) : walk_(walk) {}

  Result run(const std::uint32_t* key, std::uint64_t objectID);

 private:
  /// Takes the key out of a leaf that has others.
  Result removeEntry(BPlusNode& leaf, std::uint32_t number);
  /// The key was the leaf's last one: the leaf goes.
  Result removeLeaf(BPlusNode& leaf);
  Result dropChild(bool* vanished);
  Result rebalanceUpward(bool vanished);
  Result rebalanceNode(bool* joined);
  Result tryJoin(BPlusNode& parent, std::uint32_t number, BPlusNode& node, bool nodeIsLeft,
                 bool* joined);
  Result redistribute(BPlusNode& parent, BPlusNode& node);
  // Each moves keys over the separator between the two nodes; `*done` false: they found no room.
  Result moveRight(BPlusPair pair, const std::uint32_t* separator, std::uint32_t keep, bool* done);
  Result moveLeft(BPlusPair pair, const std::uint32_t* separator, std::uint32_t take, bool* done);

  BPlusWalk& walk_;
  BPlusPath path_;
  std::uint32_t level_ = 0;  ///< of the node at hand; its parent is one less
  BPlusKeyCopy separator_;
};

Result Removal::run(const std::uint32_t* key, std::uint64_t objectID) {
  if (walk_.root() == 0) return {};
  BPlusNode leaf;
  ZELTA_TRY(walk_.descend(key, path_, leaf));
  level_ = path_.last();
  const BPlusNode::Place place = leaf.lower(key);
  if (!place.equal || leaf.objectID(place.number) != objectID) {
    return walk_.tree.keyMissing(objectID);
  }
  return leaf.count() > 1 ? removeEntry(leaf, place.number) : removeLeaf(leaf);
}

Result Removal::removeEntry(BPlusNode& leaf, std::uint32_t number) {
  leaf.erase(number, number);
  ZELTA_TRY(walk_.store(path_.steps[level_].position, leaf));
  if (number == 0 && path_.equalLevel != BPlusPath::kMaximumDepth) {
    separator_.assign(walk_.format, leaf.key(0));
    ZELTA_TRY(
        walk_.replaceSeparator(path_, path_.equalLevel, path_.equalSeparator, separator_.get()));
  }
  return rebalanceUpward(false);
}

Result Removal::removeLeaf(BPlusNode& leaf) {
  const std::uint64_t position = path_.steps[level_].position;
  const std::uint64_t previous = leaf.previous();
  const std::uint64_t next = leaf.next();
  const std::uint32_t size = leaf.size();
  ZELTA_TRY(walk_.relink(previous, next, next, previous, PageRole::sibling));
  ZELTA_TRY(walk_.free(position, size));
  if (next != 0 && path_.equalLevel != BPlusPath::kMaximumDepth) {
    BPlusNode following;
    ZELTA_TRY(walk_.loadLeaf(next, following, PageRole::node));
    separator_.assign(walk_.format, following.key(0));
    ZELTA_TRY(
        walk_.replaceSeparator(path_, path_.equalLevel, path_.equalSeparator, separator_.get()));
  }
  return rebalanceUpward(true);
}

/// Goes up from a node that lost entries, or that `vanished` altogether. All nodes on the way are
/// looked at: what kept an underfull one from being joined may have passed since.
Result Removal::rebalanceUpward(bool vanished) {
  bool dropped = false;
  for (; level_ != 0; --level_) {
    if (vanished) {
      ZELTA_TRY(dropChild(&vanished));
      dropped = !vanished;
    } else {
      ZELTA_TRY(rebalanceNode(&dropped));
    }
  }
  if (vanished) {
    walk_.root() = 0;
    return {};
  }
  return dropped ? collapseRoot(walk_, &dropped) : Result();
}

/// Takes the node that vanished out of its parent, which vanishes too if it has no other child.
Result Removal::dropChild(bool* vanished) {
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  BPlusNode parent;
  ZELTA_TRY(walk_.load(up.position, parent, PageRole::parent));
  if (parent.leaf() || up.child > parent.count()) return walk_.corrupted();
  *vanished = parent.count() == 0;
  if (*vanished) return walk_.free(up.position, parent.size());
  parent.erase(up.child == 0 ? 0 : up.child - 1, up.child);
  return walk_.store(up.position, parent);
}

/// Looks after the fill of the node at hand.
Result Removal::rebalanceNode(bool* joined) {
  BPlusNode node;
  *joined = false;
  ZELTA_TRY(walk_.look(path_.steps[level_].position, node));
  if (!node.fillBelow(kUnderfull)) return {};
  ZELTA_TRY(walk_.load(path_.steps[level_].position, node, PageRole::node));
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  BPlusNode parent;
  ZELTA_TRY(walk_.load(up.position, parent, PageRole::parent));
  if (parent.leaf() || up.child > parent.count()) return walk_.corrupted();
  if (!(walk_.format.variable && node.leaf() && node.count() >= kManyKeys)) {
    if (up.child < parent.count()) ZELTA_TRY(tryJoin(parent, up.child, node, true, joined));
    if (!*joined && up.child > 0) ZELTA_TRY(tryJoin(parent, up.child - 1, node, false, joined));
  }
  if (*joined) return walk_.store(up.position, parent);
  if (parent.count() == 0 || !node.fillBelow(kRedistribute)) return {};
  return redistribute(parent, node);
}

/// Joins children `number` and `number` + 1, one of which is the node at hand.
Result Removal::tryJoin(BPlusNode& parent, std::uint32_t number, BPlusNode& node, bool nodeIsLeft,
                        bool* joined) {
  BPlusNode sibling;
  const std::uint64_t position = path_.steps[level_].position;
  const std::uint64_t siblingPosition = parent.child(nodeIsLeft ? number + 1 : number);
  ZELTA_TRY(walk_.load(siblingPosition, sibling, PageRole::sibling));
  const BPlusPair pair = nodeIsLeft ? BPlusPair{&node, position, &sibling, siblingPosition}
                                    : BPlusPair{&sibling, siblingPosition, &node, position};
  return joinChildren(walk_, parent, number, pair, joined);
}

/// Spreads the keys of the node and a sibling by the sizes of the two.
Result Removal::redistribute(BPlusNode& parent, BPlusNode& node) {
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  const std::uint64_t position = path_.steps[level_].position;
  const bool nodeIsLeft = up.child < parent.count();
  const std::uint32_t number = nodeIsLeft ? up.child : up.child - 1;
  const std::uint64_t siblingPosition = parent.child(nodeIsLeft ? number + 1 : number);
  BPlusNode sibling;
  ZELTA_TRY(walk_.load(siblingPosition, sibling, PageRole::sibling));
  if (sibling.leaf() != node.leaf() || siblingPosition == position) return walk_.corrupted();
  const BPlusPair pair = nodeIsLeft ? BPlusPair{&node, position, &sibling, siblingPosition}
                                    : BPlusPair{&sibling, siblingPosition, &node, position};
  const std::uint64_t left = pair.left->size();
  const std::uint64_t both = left + pair.right->size();
  const std::uint32_t total = pair.left->count() + pair.right->count();
  const auto keep = static_cast<std::uint32_t>((total * left + both / 2) / both);
  if (keep == pair.left->count()) return {};
  if (node.leaf() && (keep == 0 || keep == total)) return {};
  if (keep > kMaximumCount || total - keep > kMaximumCount) return {};

  bool done = false;
  const std::uint32_t* separator = parent.key(number);
  if (keep < pair.left->count()) {
    ZELTA_TRY(moveRight(pair, separator, keep, &done));
  } else {
    ZELTA_TRY(moveLeft(pair, separator, keep - pair.left->count(), &done));
  }
  if (!done) return {};
  ZELTA_TRY(walk_.store(pair.leftPosition, *pair.left));
  ZELTA_TRY(walk_.store(pair.rightPosition, *pair.right));
  return walk_.replaceSeparator(path_, level_ - 1, number, separator_.get());
}

/// Leaves `keep` keys in the left node.
Result Removal::moveRight(BPlusPair pair, const std::uint32_t* separator, std::uint32_t keep,
                          bool* done) {
  BPlusNode& left = *pair.left;
  BPlusNode& right = *pair.right;
  const bool leaf = left.leaf();
  const std::uint32_t from = keep + (leaf ? 0u : 1u);
  std::uint64_t bytes = left.keyEnd() - left.keyOffset(from) +
                        std::uint64_t{left.count() - from} * walk_.format.pointerBytes(leaf);
  if (!leaf) bytes += right.entryBytes(walk_.format.words(separator));
  if (bytes > right.freeBytes()) return {};
  separator_.assign(walk_.format, left.key(keep));
  const BPlusNode old = walk_.copyAside(right);
  right.clear();
  if (!leaf) right.setPointer(0, left.child(from));
  right.append(left, from, left.count());
  if (!leaf) right.append(separator, old.child(0));
  right.append(old, 0, old.count());
  left.truncate(keep);
  *done = true;
  return {};
}

/// Takes `take` keys over from the right node.
Result Removal::moveLeft(BPlusPair pair, const std::uint32_t* separator, std::uint32_t take,
                         bool* done) {
  BPlusNode& left = *pair.left;
  BPlusNode& right = *pair.right;
  const bool leaf = left.leaf();
  const std::uint32_t to = take - (leaf ? 0u : 1u);
  std::uint64_t bytes = right.keyOffset(to) - right.keyOffset(0) +
                        std::uint64_t{to} * walk_.format.pointerBytes(leaf);
  if (!leaf) bytes += left.entryBytes(walk_.format.words(separator));
  if (bytes > left.freeBytes()) return {};
  separator_.assign(walk_.format, right.key(leaf ? take : to));
  const BPlusNode old = walk_.copyAside(right);
  if (!leaf) left.append(separator, old.child(0));
  left.append(old, 0, to);
  right.clear();
  if (!leaf) right.setPointer(0, old.child(take));
  right.append(old, take, old.count());
  *done = true;
  return {};
}

}  // namespace

Result bplusRemove(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  BPlusWalk walk(tree, BPlusWalk::Purpose::search);
  return Removal(walk).run(key, objectID);
}

}  // namespace zelta

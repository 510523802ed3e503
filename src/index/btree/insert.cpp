#include "index/btree/insert.h"

#include <cassert>

#include "index/btree/split.h"
#include "index/btree/walk.h"

namespace zelta {

namespace {

/// One key on its way into the tree. A leaf that is full is split, the new node's separator goes
/// into the parent, which may be full as well, and so on; above the root a new one is made.
///
/// A split is written bottom up, the new node before the old one. That is for order only: the
/// manager holds all of it until a flush brings it into the file as a whole.
class Insertion {
 public:
  explicit Insertion(BPlusWalk& walk) : walk_(walk) {}

  Result run(const std::uint32_t* key, std::uint64_t objectID);

 private:
  /// The first leaf of an empty tree.
  Result makeRoot(const std::uint32_t* key, std::uint64_t objectID);
  Result splitUpward(BPlusNode& node, BPlusPending pending);
  /// Splits one node and leaves its two halves in `lower_`, `upper_` and a separator.
  Result split(BPlusNode& node, std::uint64_t position, const BPlusPending& pending);
  /// Puts a new leaf into the chain of leaves, on its side of the old one.
  Result linkNewLeaf(BPlusNode& node, std::uint64_t position, BPlusNode& fresh,
                     std::uint64_t freshPosition, bool freshIsLower);
  /// Makes a root over the two halves of the old one.
  Result splitRoot();

  BPlusWalk& walk_;
  BPlusPath path_;
  BPlusEdge edge_;
  // What a split hands to the level above
  std::uint64_t lower_ = 0;
  std::uint64_t upper_ = 0;
  BPlusKeyCopy separators_[2];  ///< the one being entered, and the one that its split makes
  std::uint32_t turn_ = 0;      ///< which of them is the newer one
};

Result Insertion::run(const std::uint32_t* key, std::uint64_t objectID) {
  if (walk_.root() == 0) return makeRoot(key, objectID);
  BPlusNode leaf;
  ZELTA_TRY(walk_.descend(key, path_, leaf));
  const BPlusNode::Place place = leaf.lower(key);
  if (place.equal) {
    return walk_.tree.keyExists(leaf.objectID(place.number));
  }
  if (leaf.fits(walk_.format.words(key))) {
    leaf.insert(place.number, place.offset, key, objectID);
    return walk_.store(path_.steps[path_.last()].position, leaf);
  }
  edge_.left = leaf.previous() == 0 && leaf.next() != 0;
  edge_.right = leaf.previous() != 0 && leaf.next() == 0;
  return splitUpward(leaf, {place.number, key, objectID});
}

Result Insertion::makeRoot(const std::uint32_t* key, std::uint64_t objectID) {
  BPlusNode leaf;
  std::uint64_t position = 0;
  const std::uint64_t bytes =
      bplusFirstNodeBytes(walk_.format, walk_.tree.pageSize(), walk_.format.words(key));
  ZELTA_TRY(walk_.allocate(bytes, true, PageRole::node, leaf, &position));
  leaf.append(key, objectID);
  ZELTA_TRY(walk_.store(position, leaf));
  walk_.root() = position;
  return {};
}

/// Splits the node, and the branches above it until one of them takes the separator.
Result Insertion::splitUpward(BPlusNode& node, BPlusPending pending) {
  for (std::uint32_t level = path_.last();; --level) {
    ZELTA_TRY(split(node, path_.steps[level].position, pending));
    if (level == 0) return splitRoot();
    const BPlusPath::Step& up = path_.steps[level - 1];
    ZELTA_TRY(walk_.load(up.position, node, PageRole::node));
    if (node.leaf() || up.child > node.count()) return walk_.corrupted();
    node.setPointer(up.child, lower_);
    pending = {up.child, separators_[turn_].get(), upper_};
    const std::uint32_t words = walk_.format.words(pending.key);
    if (!node.fits(words)) {
      if (!walk_.format.variable || node.count() >= 2) continue;
      // There is nothing to divide yet.
      const std::uint64_t missing = node.entryBytes(words) - node.freeBytes() + 4;
      ZELTA_TRY(walk_.growBranch(path_, level - 1, node, PageRole::node, missing));
    }
    node.insert(pending.number, node.keyOffset(pending.number), pending.key, pending.pointer);
    return walk_.store(up.position, node);
  }
}

Result Insertion::split(BPlusNode& node, std::uint64_t position, const BPlusPending& pending) {
  const BPlusSplit plan = planSplit(node, pending, edge_, walk_.tree.pageSize());
  if (!plan.possible) return walk_.corrupted();
  assert(plan.lower <= node.count());
  BPlusNode fresh;
  std::uint64_t freshPosition = 0;
  ZELTA_TRY(walk_.allocate(plan.newBytes, node.leaf(), PageRole::sibling, fresh, &freshPosition));
  const BPlusNode old = walk_.copyAside(node);
  node.clear();
  BPlusNode& lower = plan.newIsLower ? fresh : node;
  BPlusNode& upper = plan.newIsLower ? node : fresh;
  lower_ = plan.newIsLower ? freshPosition : position;
  upper_ = plan.newIsLower ? position : freshPosition;

  // The pending key may be the separator from below, so the new one takes the other copy.
  BPlusKeyCopy& separator = separators_[turn_ ^= 1u];
  separator.assign(walk_.format, mergedKey(old, pending, plan.lower));
  std::uint32_t from = plan.lower;
  if (!node.leaf()) {
    lower.setPointer(0, old.child(0));
    upper.setPointer(0, mergedPointer(old, pending, from++));
  }
  appendMerged(lower, old, pending, 0, plan.lower);
  appendMerged(upper, old, pending, from, old.count() + 1);
  if (node.leaf()) ZELTA_TRY(linkNewLeaf(node, position, fresh, freshPosition, plan.newIsLower));
  ZELTA_TRY(walk_.store(freshPosition, fresh));
  return walk_.store(position, node);
}

Result Insertion::linkNewLeaf(BPlusNode& node, std::uint64_t position, BPlusNode& fresh,
                              std::uint64_t freshPosition, bool freshIsLower) {
  if (freshIsLower) {
    const std::uint64_t previous = node.previous();
    fresh.setPrevious(previous);
    fresh.setNext(position);
    node.setPrevious(freshPosition);
    return walk_.relink(previous, freshPosition, 0, 0, PageRole::parent);
  }
  const std::uint64_t next = node.next();
  fresh.setPrevious(position);
  fresh.setNext(next);
  node.setNext(freshPosition);
  return walk_.relink(0, 0, next, freshPosition, PageRole::parent);
}

Result Insertion::splitRoot() {
  assert(lower_ != 0 && upper_ != 0);
  const std::uint32_t* separator = separators_[turn_].get();
  const std::uint64_t bytes =
      bplusFirstNodeBytes(walk_.format, walk_.tree.pageSize(), walk_.format.words(separator));
  BPlusNode branch;
  std::uint64_t position = 0;
  ZELTA_TRY(walk_.allocate(bytes, false, PageRole::node, branch, &position));
  branch.setPointer(0, lower_);
  branch.append(separator, upper_);
  ZELTA_TRY(walk_.store(position, branch));
  walk_.root() = position;
  return {};
}

}  // namespace

Result bplusInsert(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  BPlusWalk walk(tree, BPlusWalk::Purpose::insert);
  return Insertion(walk).run(key, objectID);
}

}  // namespace zelta

#include "index/btree/insert.h"

#include <cassert>

#include "index/btree/split.h"

namespace zelta {

namespace {

/// One key on its way into the tree. A leaf that is full is split, the new node's separator goes
/// into the parent, which may be full as well, and so on; above the root a new one is made.
///
/// A split is written bottom up, the new node before the old one. That is for order only: the
/// manager holds all of it until a flush brings it into the file as a whole.
template <class Format>
class Insertion {
 public:
  using Node = TreeNode<Format>;
  using Key = typename Format::Key;
  using Pending = TreePending<Format>;

  Insertion(TreeWalk<Format>& walk, BPlusPath& path) : walk_(walk), path_(path) {}

  Result run(Node& leaf, const Pending& pending);

 private:
  Result splitUpward(Node& node, Pending pending);
  /// Splits one node and leaves its two halves in `lower_`, `upper_` and a separator.
  Result split(Node& node, std::uint64_t position, const Pending& pending);
  /// Puts a new leaf into the chain of leaves, on its side of the old one.
  Result linkNewLeaf(Node& node, std::uint64_t position, Node& fresh, std::uint64_t freshPosition,
                     bool freshIsLower);
  /// Makes a root over the two halves of the old one.
  Result splitRoot();

  TreeWalk<Format>& walk_;
  BPlusPath& path_;
  BPlusEdge edge_;
  // What a split hands to the level above
  std::uint64_t lower_ = 0;
  std::uint64_t upper_ = 0;
  TreeKeyCopy<Format> separators_[2];  ///< the one being entered, and the one that its split makes
  std::uint32_t turn_ = 0;             ///< which of them is the newer one
};

template <class Format>
Result Insertion<Format>::run(Node& leaf, const Pending& pending) {
  edge_.left = leaf.previous() == 0 && leaf.next() != 0;
  edge_.right = leaf.previous() != 0 && leaf.next() == 0;
  return splitUpward(leaf, pending);
}

/// Splits the node, and the branches above it until one of them takes the separator.
template <class Format>
Result Insertion<Format>::splitUpward(Node& node, Pending pending) {
  for (std::uint32_t level = path_.last();; --level) {
    ZELTA_TRY(split(node, path_.steps[level].position, pending));
    if (level == 0) return splitRoot();
    const BPlusPath::Step& up = path_.steps[level - 1];
    ZELTA_TRY(walk_.load(up.position, node, PageRole::node));
    if (node.leaf() || up.child > node.count()) return walk_.corrupted();
    node.setPointer(up.child, lower_);
    pending = {up.child, separators_[turn_].get(), upper_};
    const std::uint32_t keyBytes = walk_.format.keyBytes(pending.key);
    if (!node.fits(keyBytes)) {
      if (!walk_.format.variable || node.count() >= 2) continue;
      // There is nothing to divide yet.
      const std::uint64_t missing =
          node.entryBytes(keyBytes) - node.freeBytes() + Format::kGrowthReserve;
      ZELTA_TRY(walk_.growBranch(path_, level - 1, node, PageRole::node, missing));
    }
    node.insert(pending.number, node.keyOffset(pending.number), pending.key, pending.pointer);
    return walk_.store(up.position, node);
  }
}

template <class Format>
Result Insertion<Format>::split(Node& node, std::uint64_t position, const Pending& pending) {
  const BPlusSplit plan = planSplit(node, pending, edge_, walk_.tree.pageSize());
  if (!plan.possible) return walk_.corrupted();
  assert(plan.lower <= node.count());
  Node fresh;
  std::uint64_t freshPosition = 0;
  ZELTA_TRY(walk_.allocate(plan.newBytes, node.leaf(), PageRole::sibling, fresh, &freshPosition));
  const Node old = walk_.copyAside(node);
  node.clear();
  Node& lower = plan.newIsLower ? fresh : node;
  Node& upper = plan.newIsLower ? node : fresh;
  lower_ = plan.newIsLower ? freshPosition : position;
  upper_ = plan.newIsLower ? position : freshPosition;

  // The pending key may be the separator from below, so the new one takes the other copy.
  TreeKeyCopy<Format>& separator = separators_[turn_ ^= 1u];
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

template <class Format>
Result Insertion<Format>::linkNewLeaf(Node& node, std::uint64_t position, Node& fresh,
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

template <class Format>
Result Insertion<Format>::splitRoot() {
  assert(lower_ != 0 && upper_ != 0);
  const Key* separator = separators_[turn_].get();
  const std::uint64_t bytes =
      firstNodeBytes(walk_.format, walk_.tree.pageSize(), walk_.format.keyBytes(separator), false);
  Node branch;
  std::uint64_t position = 0;
  ZELTA_TRY(walk_.allocate(bytes, false, PageRole::node, branch, &position));
  branch.setPointer(0, lower_);
  branch.append(separator, upper_);
  ZELTA_TRY(walk_.store(position, branch));
  walk_.root() = position;
  return {};
}

}  // namespace

template <class Format>
Result plantTree(TreeWalk<Format>& walk, const typename Format::Key* key, std::uint64_t pointer) {
  assert(walk.root() == 0);
  TreeNode<Format> leaf;
  std::uint64_t position = 0;
  const std::uint64_t bytes =
      firstNodeBytes(walk.format, walk.tree.pageSize(), walk.format.keyBytes(key), true);
  ZELTA_TRY(walk.allocate(bytes, true, PageRole::node, leaf, &position));
  leaf.append(key, pointer);
  ZELTA_TRY(walk.store(position, leaf));
  walk.root() = position;
  return {};
}

template <class Format>
Result enterKey(TreeWalk<Format>& walk, BPlusPath& path, TreeNode<Format>& leaf,
                typename TreeNode<Format>::Place place, const typename Format::Key* key,
                std::uint64_t pointer) {
  assert(!place.equal);
  if (leaf.fits(walk.format.keyBytes(key))) {
    leaf.insert(place.number, place.offset, key, pointer);
    return walk.store(path.steps[path.last()].position, leaf);
  }
  return Insertion<Format>(walk, path).run(leaf, {place.number, key, pointer});
}

template Result plantTree(TextWalk&, const char*, std::uint64_t);
template Result enterKey(TextWalk&, BPlusPath&, TextNode&, TextNode::Place, const char*,
                         std::uint64_t);

Result bplusInsert(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  BPlusWalk walk(tree, BPlusWalk::Purpose::insert);
  if (walk.root() == 0) return plantTree(walk, key, objectID);
  BPlusPath path;
  BPlusNode leaf;
  ZELTA_TRY(walk.descend(key, path, leaf));
  const BPlusNode::Place place = leaf.lower(key);
  if (place.equal) return tree.keyExists(leaf.objectID(place.number));
  return enterKey(walk, path, leaf, place, key, objectID);
}

}  // namespace zelta

#include "index/rtree/rtree.h"
#include "index/rtree/walk.h"

namespace zelta {

namespace {

template <class Entry>
class Insertion {
 public:
  using Walk = RTreeWalk<Entry>;
  using Bounds = typename Walk::Bounds;

  explicit Insertion(const IndexTree& tree) : walk_(tree) {}

  Result run(const Entry& entry, std::uint64_t objectID);

 private:
  Result makeRoot(const Entry& entry, std::uint64_t objectID);
  Result descend(const Entry& entry);
  template <class Key>
  Result split(RTreeNode<Key>* node, bool leaf, const Key& key, std::uint64_t value);
  Result splitRoot();
  Result climb(const Bounds& before, const Bounds& after);
  Result climbSplit();

  const Walk walk_;
  RTreePath path_;
  // What a split hands to the level above
  Bounds bounds_;  ///< of the node that was divided
  Bounds freshBounds_;
  std::uint64_t fresh_ = 0;  ///< position of the new node
};

template <class Entry>
Result Insertion<Entry>::run(const Entry& entry, std::uint64_t objectID) {
  if (walk_.root() == 0) return makeRoot(entry, objectID);
  ZELTA_TRY(descend(entry));
  typename Walk::Leaf leaf;
  ZELTA_TRY(walk_.loadLeaf(path_.last().position, PageRole::node, &leaf));
  if (leaf.full()) {
    ZELTA_TRY(split(&leaf, true, entry, objectID));
    return climbSplit();
  }
  if (leaf.count() == 0) return walk_.corrupted();
  const Bounds before = leaf.bounds();
  leaf.append(entry, objectID);
  ZELTA_TRY(walk_.store(path_.last().position, &leaf));
  Bounds after = before;
  after.join(boundsOf(entry));
  return climb(before, after);
}

template <class Entry>
Result Insertion<Entry>::makeRoot(const Entry& entry, std::uint64_t objectID) {
  typename Walk::Leaf leaf;
  std::uint64_t position = 0;
  ZELTA_TRY(walk_.allocate(true, PageRole::node, &leaf, &position));
  if (leaf.full()) return walk_.corrupted();
  leaf.append(entry, objectID);
  ZELTA_TRY(walk_.store(position, &leaf));
  walk_.root() = position;
  return {};
}

/// Follows the child that suits the entry best, the first of equals, down to a leaf.
template <class Entry>
Result Insertion<Entry>::descend(const Entry& entry) {
  path_.depth = 0;
  std::uint64_t position = walk_.root();
  for (;;) {
    if (path_.depth == RTreePath::kMaximumDepth) return walk_.corrupted();
    RTreePath::Step& step = path_.steps[path_.depth++];
    step = {position, 0};
    TreePage page;
    RTreeHead head;
    ZELTA_TRY(walk_.look(position, &page, &head));
    if (head.leaf()) return {};
    typename Walk::Branch branch;
    ZELTA_TRY(walk_.attach(page, head, false, &branch));
    if (branch.count() == 0) return walk_.corrupted();
    auto least = descentRank(branch.key(0), entry);
    for (std::uint32_t i = 1; i < branch.count(); ++i) {
      const auto rank = descentRank(branch.key(i), entry);
      if (rank >= least) continue;
      least = rank;
      step.entry = i;
    }
    position = branch.value(step.entry);
  }
}

/// Makes room for one more entry by a new node beside a full one, which the path leads to.
template <class Entry>
template <class Key>
Result Insertion<Entry>::split(RTreeNode<Key>* node, bool leaf, const Key& key,
                               std::uint64_t value) {
  RTreeNode<Key> fresh;
  ZELTA_TRY(walk_.allocate(leaf, PageRole::sibling, &fresh, &fresh_));
  if (fresh.full()) return walk_.corrupted();
  fresh.append(key, value);
  ZELTA_TRY(walk_.divide(node, &fresh));
  bounds_ = node->bounds();
  freshBounds_ = fresh.bounds();
  ZELTA_TRY(walk_.store(path_.last().position, node));
  return walk_.store(fresh_, &fresh);
}

/// Enters the new node in the branch above, and splits full branches up to one with room.
template <class Entry>
Result Insertion<Entry>::climbSplit() {
  for (--path_.depth; path_.depth != 0; --path_.depth) {
    typename Walk::Branch branch;
    ZELTA_TRY(walk_.loadBranch(path_.last(), PageRole::parent, &branch));
    if (branch.full()) {
      branch.setKey(path_.last().entry, bounds_);
      ZELTA_TRY(split(&branch, false, Bounds(freshBounds_), fresh_));
      continue;
    }
    const Bounds before = branch.bounds();
    branch.setKey(path_.last().entry, bounds_);
    branch.append(freshBounds_, fresh_);
    ZELTA_TRY(walk_.store(path_.last().position, &branch));
    return climb(before, branch.bounds());
  }
  return splitRoot();
}

template <class Entry>
Result Insertion<Entry>::splitRoot() {
  typename Walk::Branch branch;
  std::uint64_t position = 0;
  ZELTA_TRY(walk_.allocate(false, PageRole::parent, &branch, &position));
  if (!branch.holds(2)) return walk_.corrupted();
  branch.append(bounds_, walk_.root());
  branch.append(freshBounds_, fresh_);
  ZELTA_TRY(walk_.store(position, &branch));
  walk_.root() = position;
  return {};
}

/// Widens the bounds above a node that has grown, as far as they change.
template <class Entry>
Result Insertion<Entry>::climb(const Bounds& before, const Bounds& after) {
  Bounds old = before;
  Bounds now = after;
  for (--path_.depth; path_.depth != 0 && !(old == now); --path_.depth) {
    typename Walk::Branch branch;
    ZELTA_TRY(walk_.loadBranch(path_.last(), PageRole::parent, &branch));
    old = branch.bounds();
    branch.setKey(path_.last().entry, now);
    ZELTA_TRY(walk_.store(path_.last().position, &branch));
    now = branch.bounds();
  }
  return {};
}

}  // namespace

template <class Entry>
Result rtreeInsert(const IndexTree& tree, const Entry& entry, std::uint64_t objectID) {
  return Insertion<Entry>(tree).run(entry, objectID);
}

#define ZELTA_INSTANCE(Entry) \
  template Result rtreeInsert(const IndexTree& tree, const Entry& entry, std::uint64_t objectID);
ZELTA_EACH_RTREE_ENTRY(ZELTA_INSTANCE)

}  // namespace zelta

#include <utility>

#include "index/rtree/rtree.h"

namespace zelta {

namespace {

// Shares of a node's room, in percent.
constexpr std::uint32_t kUnderfull = 40;  ///< below it looks for a sibling
constexpr std::uint32_t kJoined = 80;     ///< below this both together become one node
constexpr std::uint32_t kStarved = 10;    ///< below this entries are divided anew between both

template <class Entry>
class Removal {
 public:
  using Walk = RTreeWalk<Entry>;
  using Bounds = typename Walk::Bounds;
  using Branch = typename Walk::Branch;

  explicit Removal(const IndexTree& tree) : walk_(tree) {}

  Result run(const Entry& entry, std::uint64_t objectID);

 private:
  /// A node on the path, and the branch above it.
  template <class Key>
  struct Level {
    RTreeNode<Key> node;
    std::uint64_t position;
    bool leaf;
    Branch parent;
    std::uint32_t number;  ///< of the node's entry in the parent
  };
  template <class Key>
  Result keepRoot(Level<Key>& level);
  template <class Key>
  Result settle(Level<Key>& level, PageRole parentRole, bool* parentChanged);
  template <class Key>
  Result refill(Level<Key>& level, const Bounds& bounds, bool* done);
  template <class Key>
  Result joinSibling(Level<Key>& level, RTreeNode<Key>& sibling, std::uint32_t number,
                     bool* joined);

  const Walk walk_;
  RTreePath path_;
};

template <class Entry>
Result Removal<Entry>::run(const Entry& entry, std::uint64_t objectID) {
  bool found = false;
  ZELTA_TRY(walk_.find(entry, objectID, &path_, &found));
  if (!found) return walk_.tree.keyMissing(objectID);
  Level<Entry> bottom{};
  bottom.position = path_.last().position;
  bottom.leaf = true;
  ZELTA_TRY(walk_.loadLeaf(bottom.position, PageRole::node, &bottom.node));
  if (path_.last().entry >= bottom.node.count()) return walk_.corrupted();
  bottom.node.erase(path_.last().entry);
  // The branch of one level is the node of the next, whose own branch needs another buffer.
  PageRole role = PageRole::parent;
  bool changed = false;
  ZELTA_TRY(settle(bottom, role, &changed));
  Level<Bounds> level{};
  level.parent = bottom.parent;
  while (changed) {
    --path_.depth;
    level.node = level.parent;
    level.position = path_.last().position;
    role = role == PageRole::parent ? PageRole::node : PageRole::parent;
    ZELTA_TRY(settle(level, role, &changed));
  }
  return {};
}

/// Stores a node that has lost an entry, or gives it up. `*parentChanged`: the branch above has
/// another entry for it, and is still to be stored.
template <class Entry>
template <class Key>
Result Removal<Entry>::settle(Level<Key>& level, PageRole parentRole, bool* parentChanged) {
  *parentChanged = false;
  if (path_.depth == 1) return keepRoot(level);
  const RTreePath::Step& above = path_.steps[path_.depth - 2];
  ZELTA_TRY(walk_.loadBranch(above, parentRole, &level.parent));
  level.number = above.entry;
  *parentChanged = true;
  if (level.node.count() == 0) {
    level.parent.erase(level.number);
    return walk_.free(level.position, level.node.size());
  }
  const Bounds bounds = level.node.bounds();
  if (level.node.fillBelow(kUnderfull, level.node.count()) && level.parent.count() > 1) {
    bool done = false;
    ZELTA_TRY(refill(level, bounds, &done));
    if (done) return {};
  }
  *parentChanged = !(level.parent.key(level.number) == bounds);
  if (*parentChanged) level.parent.setKey(level.number, bounds);
  return walk_.store(level.position, &level.node);
}

/// A root with one child gives way to it, one without entries to nothing.
template <class Entry>
template <class Key>
Result Removal<Entry>::keepRoot(Level<Key>& level) {
  const std::uint32_t count = level.node.count();
  if (count > 1 || (level.leaf && count == 1)) return walk_.store(level.position, &level.node);
  walk_.root() = count == 0 ? 0 : level.node.value(0);
  return walk_.free(level.position, level.node.size());
}

/// Joins an underfull node with the sibling that suits it best, or takes entries over from it.
template <class Entry>
template <class Key>
Result Removal<Entry>::refill(Level<Key>& level, const Bounds& bounds, bool* done) {
  Branch& parent = level.parent;
  std::uint32_t best = level.number == 0 ? 1 : 0;
  std::uint64_t least = joiningCost(parent.key(best), bounds);
  for (std::uint32_t i = best + 1; i < parent.count(); ++i) {
    if (i == level.number) continue;
    const std::uint64_t cost = joiningCost(parent.key(i), bounds);
    if (cost >= least) continue;
    least = cost;
    best = i;
  }
  const std::uint64_t position = parent.value(best);
  if (position == level.position) return walk_.corrupted();
  RTreeNode<Key> sibling;
  ZELTA_TRY(walk_.load(position, level.leaf, PageRole::sibling, &sibling));
  RTreeNode<Key>& node = level.node;
  if (node.fillBelow(kJoined, std::uint64_t{node.count()} + sibling.count())) {
    ZELTA_TRY(joinSibling(level, sibling, best, done));
    if (*done) return {};
  } else if (node.count() == 1 || node.fillBelow(kStarved, node.count())) {
    ZELTA_TRY(walk_.divide(&node, &sibling));
    parent.setKey(level.number, node.bounds());
    parent.setKey(best, sibling.bounds());
    *done = true;
    ZELTA_TRY(walk_.store(position, &sibling));
    return walk_.store(level.position, &node);
  }
  return {};
}

/// Makes one node of two, in the page that lies lower in the file. The sibling's entry above becomes
/// that of both.
template <class Entry>
template <class Key>
Result Removal<Entry>::joinSibling(Level<Key>& level, RTreeNode<Key>& sibling, std::uint32_t number,
                                   bool* joined) {
  Branch& parent = level.parent;
  const std::uint64_t siblingPosition = parent.value(number);
  const bool nodeStays = level.position < siblingPosition;
  RTreeNode<Key>& staying = nodeStays ? level.node : sibling;
  RTreeNode<Key>& leaving = nodeStays ? sibling : level.node;
  const std::uint64_t position = nodeStays ? level.position : siblingPosition;
  const std::uint64_t freed = nodeStays ? siblingPosition : level.position;
  if (!staying.holds(std::uint64_t{staying.count()} + leaving.count())) return {};
  for (std::uint32_t i = 0; i < leaving.count(); ++i)
    staying.append(leaving.key(i), leaving.value(i));
  parent.setKey(number, staying.bounds());
  parent.setValue(number, position);
  parent.erase(level.number);
  *joined = true;
  ZELTA_TRY(walk_.store(position, &staying));
  return walk_.free(freed, leaving.size());
}

}  // namespace

template <class Entry>
Result rtreeRemove(const IndexTree& tree, const Entry& entry, std::uint64_t objectID) {
  return Removal<Entry>(tree).run(entry, objectID);
}

template <class Entry>
Result rtreeReplace(const IndexTree& tree, const Entry& entry, std::uint64_t objectID,
                    const Entry& other) {
  const RTreeWalk<Entry> walk(tree);
  RTreePath path;
  bool found = false;
  ZELTA_TRY(walk.find(entry, objectID, &path, &found));
  if (!found) return tree.keyMissing(objectID);
  RTreeNode<Entry> leaf;
  ZELTA_TRY(walk.loadLeaf(path.last().position, PageRole::node, &leaf));
  if (path.last().entry >= leaf.count()) return walk.corrupted();
  leaf.setKey(path.last().entry, other);
  return walk.store(path.last().position, &leaf);
}

template <class Entry>
Result rtreeCount(const IndexTree& tree, const Entry& entry, std::uint64_t objectID,
                  std::uint32_t* count) {
  using Walk = RTreeWalk<Entry>;
  *count = 0;
  const BoundsOf<Entry> bounds = boundsOf(entry);
  RTreePath path;
  bool taken = false;
  return Walk(tree).visit(
      &path, &taken, [&](const BoundsOf<Entry>& child) { return child.contains(bounds); },
      [&](const typename Walk::Leaf& leaf, RTreePath::Step&) {
        for (std::uint32_t i = 0; i < leaf.count(); ++i) {
          if (leaf.value(i) == objectID && leaf.key(i) == entry) ++*count;
        }
        return false;
      });
}

#define ZELTA_INSTANCE(Entry)                                                                     \
  template Result rtreeRemove(const IndexTree& tree, const Entry& entry, std::uint64_t objectID); \
  template Result rtreeReplace(const IndexTree& tree, const Entry& entry, std::uint64_t objectID, \
                               const Entry& other);                                               \
  template Result rtreeCount(const IndexTree& tree, const Entry& entry, std::uint64_t objectID,   \
                             std::uint32_t* count);
ZELTA_EACH_RTREE_ENTRY(ZELTA_INSTANCE)

}  // namespace zelta

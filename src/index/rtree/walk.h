// One operation's way through a tree of bounds: nodes by their positions, and the path from the
// root.

#ifndef ZELTA_INDEX_RTREE_WALK_H
#define ZELTA_INDEX_RTREE_WALK_H

#include <cassert>
#include <cstdint>
#include <vector>

#include "index/rtree/clustering.h"
#include "index/rtree/node.h"
#include "index/tree/tree_pages.h"

namespace zelta {

/// The branches from the root down to a leaf, and the leaf itself.
struct RTreePath {
  static constexpr std::uint32_t kMaximumDepth = IndexTree::kMaximumDepth;
  struct Step {
    std::uint64_t position;
    std::uint32_t entry;  ///< of the branch that was followed; of the leaf the one that was found
  };
  Step steps[kMaximumDepth];
  std::uint32_t depth = 0;

  [[nodiscard]] Step& last() { return steps[depth - 1]; }
};

/// Pages that a walk is still to look at, the last one first.
class PagesAhead {
 public:
  struct Page {
    std::uint64_t position;
    std::uint32_t depth;
  };

  [[nodiscard]] bool empty() const { return count_ == 0; }
  [[nodiscard]] std::uint64_t count() const { return count_ + more_.size(); }
  void push(const Page& page) {
    if (count_ < kInPlace) {
      first_[count_++] = page;
    } else {
      more_.push_back(page);
    }
  }
  Page pop() {
    assert(!empty());
    if (more_.empty()) return first_[--count_];
    const Page page = more_.back();
    more_.pop_back();
    return page;
  }

 private:
  static constexpr std::uint32_t kInPlace = 256;
  Page first_[kInPlace];
  std::uint32_t count_ = 0;
  std::vector<Page> more_;
};

/// The walk through a tree with leaves of `Entry`. Nodes that are loaded lie in the buffers of
/// their roles, see tree_pages.h.
template <class Entry>
class RTreeWalk {
 public:
  using Bounds = BoundsOf<Entry>;
  using Leaf = RTreeNode<Entry>;
  using Branch = RTreeNode<Bounds>;

  explicit RTreeWalk(const IndexTree& treeOf) : tree(treeOf), pages_(treeOf, kTreeDamage<Entry>) {}

  /// A page that is only looked at, with its head, until the manager is used again. Others may
  /// change it meanwhile; what it holds then makes no sense, but lies within the page.
  Result look(std::uint64_t position, TreePage* page, RTreeHead* head) const;
  /// The node in it, which is known to be a leaf or a branch.
  template <class Key>
  Result attach(const TreePage& page, const RTreeHead& head, bool leaf,
                RTreeNode<Key>* node) const {
    const std::uint32_t valueBytes = leaf ? tree.shape().idBytes : kChildBytes;
    const bool sound =
        node->attach(page, head, leaf, valueBytes) && node->size() <= 2 * pageBytes();
    return sound ? Result() : corrupted();
  }
  /// A node that may be changed.
  template <class Key>
  Result load(std::uint64_t position, bool leaf, PageRole role, RTreeNode<Key>* node) const {
    TreePage page;
    ZELTA_TRY(pages_.load(position, role, &page));
    return attach(page, RTreeHead::of(page.bytes()), leaf, node);
  }
  Result loadLeaf(std::uint64_t position, PageRole role, Leaf* node) const {
    return load(position, true, role, node);
  }
  /// With the entry that a path follows.
  Result loadBranch(const RTreePath::Step& step, PageRole role, Branch* node) const;

  /// Puts a changed node; it leads to the page's own bytes afterwards, if there are such.
  template <class Key>
  Result store(std::uint64_t position, RTreeNode<Key>* node) const {
    TreePage page = node->page();
    bool moved = false;
    ZELTA_TRY(pages_.store(position, &page, &moved));
    if (moved) node->moveTo(page);
    return {};
  }
  template <class Key>
  Result allocate(bool leaf, PageRole role, RTreeNode<Key>* node, std::uint64_t* position) const {
    TreePage page;
    ZELTA_TRY(pages_.allocate(pageBytes(), role, position, &page));
    node->makeEmpty(page, leaf, leaf ? tree.shape().idBytes : kChildBytes);
    return {};
  }
  Result free(std::uint64_t position, std::uint32_t size) const {
    return pages_.free(position, size);
  }

  /// Divides the entries of two nodes anew, so that both have some. Own damage code, and nothing
  /// changed: they do not fit, or there are too few.
  template <class Key>
  Result divide(RTreeNode<Key>* first, RTreeNode<Key>* second) const {
    if (first->count() + second->count() < 2) return corrupted();
    Clustering<Key> groups(*first, *second);
    groups.divide();
    // Of two entries one node gets both, but no two sound nodes have so few and do not fit in one.
    if (groups.size(0) == 0 || groups.size(1) == 0) return corrupted();
    if (!first->holds(groups.size(0)) || !second->holds(groups.size(1))) return corrupted();
    groups.write(0, *first);
    groups.write(1, *second);
    return {};
  }

  /// Goes through the leaves behind all children whose bounds `follow` accepts, until `take` has what
  /// it wants: it is given a leaf, and the step of the path in which it may note an entry. `*taken`:
  /// whether it has, and then the path leads to that leaf. Pages are only looked at: `take` does not
  /// use the manager.
  template <class Follow, class Take>
  Result visit(RTreePath* path, bool* taken, Follow follow, Take take) const;

  /// Goes through all leaves behind children whose bounds `follow` accepts, and looks at each page
  /// once. `take(leaf)` does not use the manager.
  template <class Follow, class Take>
  Result visitLeaves(Follow follow, Take take) const;

  /// Goes to an entry. `*found` false: the tree does not have it.
  Result find(const Entry& entry, std::uint64_t objectID, RTreePath* path, bool* found) const;

  Result corrupted() const { return pages_.corrupted(); }
  [[nodiscard]] std::uint64_t& root() const { return tree.root(); }

  const IndexTree tree;

 private:
  static constexpr std::uint32_t kChildBytes = 8;

  /// The size of all pages of the tree; five entries fit into a branch of bounds. A block of the
  /// file that was a little larger may have been taken whole.
  [[nodiscard]] std::uint64_t pageBytes() const;

  const TreePages pages_;
};

template <class Entry>
template <class Follow, class Take>
Result RTreeWalk<Entry>::visit(RTreePath* path, bool* taken, Follow follow, Take take) const {
  *taken = false;
  path->depth = 0;
  if (root() == 0) return {};
  VisitBound bound(tree);
  path->steps[path->depth++] = {root(), 0};
  bool arrived = true;  // at a node that was not looked at before
  while (path->depth != 0) {
    if (arrived && !bound.enter(path->depth - 1)) return corrupted();
    arrived = false;
    RTreePath::Step& step = path->last();
    TreePage page;
    RTreeHead head;
    ZELTA_TRY(look(step.position, &page, &head));
    if (head.leaf()) {
      Leaf leaf;
      ZELTA_TRY(attach(page, head, true, &leaf));
      *taken = take(leaf, step);
      if (*taken) return {};
    } else {
      Branch branch;
      ZELTA_TRY(attach(page, head, false, &branch));
      while (step.entry < branch.count() && !follow(branch.key(step.entry))) ++step.entry;
      if (step.entry < branch.count()) {
        if (path->depth == RTreePath::kMaximumDepth) return corrupted();
        path->steps[path->depth++] = {branch.value(step.entry), 0};
        arrived = true;
        continue;
      }
    }
    if (--path->depth != 0) ++path->last().entry;
  }
  return {};
}

template <class Entry>
template <class Follow, class Take>
Result RTreeWalk<Entry>::visitLeaves(Follow follow, Take take) const {
  if (root() == 0) return {};
  VisitBound bound(tree);
  PagesAhead ahead;
  ahead.push({root(), 0});
  while (!ahead.empty()) {
    const auto [position, depth] = ahead.pop();
    if (!bound.enter(depth, ahead.count())) return corrupted();
    TreePage page;
    RTreeHead head;
    ZELTA_TRY(look(position, &page, &head));
    if (head.leaf()) {
      Leaf leaf;
      ZELTA_TRY(attach(page, head, true, &leaf));
      take(leaf);
      continue;
    }
    Branch branch;
    ZELTA_TRY(attach(page, head, false, &branch));
    const std::uint32_t below = depth + 1;
    branch.select(follow, [&](std::uint32_t i) { ahead.push({branch.value(i), below}); });
  }
  return {};
}

}  // namespace zelta

#endif  // ZELTA_INDEX_RTREE_WALK_H

#include "index/btree/merge.h"

#include <utility>

#include "index/btree/insert.h"
#include "index/btree/join.h"
#include "index/btree/walk.h"

namespace zelta {

namespace {

/// Walks the pending tree depth first. Of each leaf the entries of the objects go into the
/// committed tree, the others stay; a leaf without any is freed, and branches with it. On the way
/// up separators follow the first keys below them, and underfull children are joined.
///
/// The walk may use the buffers of all roles, and so does entering a key in the other tree:
/// whatever is used across a call of either is loaded again, or is held by the manager.
class Merge {
 public:
  Merge(BPlusWalk& walk, const ObjectSets& objects, const IndexTree* committed)
      : walk_(walk), bound_(walk.tree), objects_(objects), committed_(committed) {}

  Result run();

 private:
  // `first` receives the first key that is left below, unless nothing is.
  Result visit(std::uint64_t position, std::uint32_t depth, bool* emptied, BPlusKeyCopy& first);
  Result mergeLeaf(std::uint64_t position, BPlusNode& leaf, bool* emptied);
  Result mergeBranch(std::uint64_t position, std::uint32_t depth, bool* emptied,
                     BPlusKeyCopy& first);
  Result refreshSeparator(std::uint64_t position, std::uint32_t number, const std::uint32_t* key);
  Result joinAll(std::uint64_t position);

  BPlusWalk& walk_;
  VisitBound bound_;
  const ObjectSets& objects_;
  const IndexTree* committed_;
  bool changed_ = false;  ///< below the node at hand; of the whole tree in the end
};

Result Merge::run() {
  const std::uint64_t root = walk_.root();
  if (root == 0) return {};
  bool emptied = false;
  BPlusKeyCopy first;
  ZELTA_TRY(visit(root, 0, &emptied, first));
  if (emptied) {
    walk_.root() = 0;
    return {};
  }
  bool collapsed = changed_;
  while (collapsed) ZELTA_TRY(collapseRoot(walk_, &collapsed));
  return {};
}

Result Merge::visit(std::uint64_t position, std::uint32_t depth, bool* emptied,
                    BPlusKeyCopy& first) {
  if (!bound_.enter(depth)) return walk_.corrupted();
  BPlusNode node;
  ZELTA_TRY(walk_.load(position, node, PageRole::node));
  if (!node.leaf()) return mergeBranch(position, depth, emptied, first);
  ZELTA_TRY(mergeLeaf(position, node, emptied));
  if (!*emptied) first.assign(walk_.format, node.key(0));
  return {};
}

/// Enters the entries that go in the committed tree, then rewrites the leaf with those that stay.
Result Merge::mergeLeaf(std::uint64_t position, BPlusNode& leaf, bool* emptied) {
  std::uint32_t first = 0;
  while (first < leaf.count() && !objects_.contain(leaf.objectID(first))) ++first;
  if (first == leaf.count()) return {};
  changed_ = true;
  // The page is held from here on, so that its keys stay where they are while others are entered.
  ZELTA_TRY(walk_.store(position, leaf));
  if (committed_ != nullptr) {
    std::uint32_t offset = leaf.keyOffset(first);
    for (std::uint32_t i = first; i < leaf.count(); ++i) {
      const std::uint32_t* key = leaf.keyAt(offset);
      offset += walk_.format.words(key) * 4;
      if (!objects_.contain(leaf.objectID(i))) continue;
      ZELTA_TRY(bplusInsert(*committed_, key, leaf.objectID(i)));
    }
  }
  const BPlusNode old = walk_.copyAside(leaf);
  leaf.truncate(first);
  for (std::uint32_t i = first; i < old.count(); ++i) {
    if (!objects_.contain(old.objectID(i))) leaf.append(old, i, i + 1);
  }
  if (leaf.count() != 0) return walk_.store(position, leaf);
  *emptied = true;
  ZELTA_TRY(
      walk_.relink(old.previous(), old.next(), old.next(), old.previous(), PageRole::sibling));
  return walk_.free(position, old.size());
}

/// The branch is loaded anew after each child: what happens below may use its buffer.
Result Merge::mergeBranch(std::uint64_t position, std::uint32_t depth, bool* emptied,
                          BPlusKeyCopy& first) {
  BPlusNode branch;
  BPlusKeyCopy firstOfChild;
  bool changedBelow = false;
  for (std::uint32_t i = 0;;) {
    ZELTA_TRY(walk_.load(position, branch, PageRole::node));
    if (branch.leaf()) return walk_.corrupted();
    if (i > branch.count()) break;
    bool childEmptied = false;
    const bool changedBefore = std::exchange(changed_, false);
    ZELTA_TRY(visit(branch.child(i), depth + 1, &childEmptied, i == 0 ? first : firstOfChild));
    const bool changedHere = std::exchange(changed_, changed_ || changedBefore);
    changedBelow = changedBelow || changedHere;
    if (!childEmptied) {
      if (changedHere && i != 0) ZELTA_TRY(refreshSeparator(position, i - 1, firstOfChild.get()));
      ++i;
      continue;
    }
    ZELTA_TRY(walk_.load(position, branch, PageRole::node));
    if (branch.leaf() || i > branch.count()) return walk_.corrupted();
    if (branch.count() == 0) {
      *emptied = true;
      return walk_.free(position, branch.size());
    }
    branch.erase(i == 0 ? 0 : i - 1, i);
    ZELTA_TRY(walk_.store(position, branch));
  }
  return changedBelow ? joinAll(position) : Result();
}

/// Makes the first key of a child the separator in front of it. If the branch has no room for a
/// longer one, that which was there stays, and separates as well: pages are only given back here.
Result Merge::refreshSeparator(std::uint64_t position, std::uint32_t number,
                               const std::uint32_t* key) {
  BPlusNode branch;
  ZELTA_TRY(walk_.load(position, branch, PageRole::parent));
  if (branch.leaf() || number >= branch.count()) return walk_.corrupted();
  if (walk_.format.compare(branch.key(number), key) == 0) return {};
  return branch.replaceKey(number, key) ? walk_.store(position, branch) : Result();
}

/// Joins neighbouring children that have become underfull.
Result Merge::joinAll(std::uint64_t position) {
  for (std::uint32_t i = 0;;) {
    BPlusNode branch;
    ZELTA_TRY(walk_.load(position, branch, PageRole::parent));
    if (i >= branch.count()) return {};
    BPlusNode left;
    BPlusNode right;
    ZELTA_TRY(walk_.load(branch.child(i), left, PageRole::node));
    ZELTA_TRY(walk_.load(branch.child(i + 1), right, PageRole::sibling));
    bool joined = false;
    ZELTA_TRY(joinChildren(walk_, branch, i, {&left, branch.child(i), &right, branch.child(i + 1)},
                           &joined));
    if (joined) {
      ZELTA_TRY(walk_.store(position, branch));
    } else {
      ++i;
    }
  }
}

/// Frees a node and all that lies below it.
Result dropNode(BPlusWalk& walk, VisitBound& bound, std::uint64_t position, std::uint32_t depth) {
  if (!bound.enter(depth)) return walk.corrupted();
  BPlusNode node;
  ZELTA_TRY(walk.load(position, node, PageRole::node));
  const std::uint32_t size = node.size();
  const std::uint32_t children = node.leaf() ? 0 : node.count() + 1;
  for (std::uint32_t i = 0; i < children; ++i) {
    if (i != 0) ZELTA_TRY(walk.load(position, node, PageRole::node));
    if (i > node.count()) return walk.corrupted();
    ZELTA_TRY(dropNode(walk, bound, node.child(i), depth + 1));
  }
  return walk.free(position, size);
}

}  // namespace

Result bplusMerge(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed) {
  BPlusWalk walk(pending, BPlusWalk::Purpose::merge);
  return Merge(walk, objects, committed).run();
}

Result bplusDropTree(const IndexTree& tree) {
  BPlusWalk walk(tree, BPlusWalk::Purpose::search);
  if (tree.root() == 0) return {};
  VisitBound bound(tree);
  ZELTA_TRY(dropNode(walk, bound, tree.root(), 0));
  tree.root() = 0;
  return {};
}

}  // namespace zelta

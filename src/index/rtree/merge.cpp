#include <utility>

#include "index/rtree/rtree.h"

namespace zelta {

namespace {

template <class Entry>
class Merge {
 public:
  using Walk = RTreeWalk<Entry>;
  using Bounds = typename Walk::Bounds;
  using Leaf = typename Walk::Leaf;
  using Branch = typename Walk::Branch;

  Merge(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed)
      : walk_(pending),
        bound_(pending),
        packsLeft_(4 * pending.mostPages()),
        objects_(objects),
        committed_(committed) {}

  Result run();

 private:
  /// What became of a node.
  struct Outcome {
    bool changed = false;
    bool emptied = false;  ///< and its page freed
    Bounds bounds{};       ///< of a node that has changed
  };
  Result visit(std::uint64_t position, std::uint32_t depth, Outcome* outcome);
  Result mergeLeaf(std::uint64_t position, Outcome* outcome);
  Result mergeBranch(std::uint64_t position, std::uint32_t depth, Outcome* outcome);
  Result collapseRoot();

  /// Two children of a branch.
  struct Pair {
    std::uint64_t position;
    std::uint64_t partner;
    Bounds bounds{};         ///< of the first, afterwards
    Bounds partnerBounds{};  ///< of the partner, if it is still there
    bool packBoth = false;
    bool packFirst = false;
    bool joined = false;
    bool divided = false;
  };
  Result pack(std::uint64_t position, std::uint32_t depth);
  Result packPair(Pair& pair);
  template <class Key>
  Result packPair(Pair& pair, bool leaf);

  const Walk walk_;
  VisitBound bound_;
  /// A branch is packed when it has changed, and again with a sibling when one of the two has a
  /// single child, which it does not keep.
  std::uint64_t packsLeft_;
  const ObjectSets& objects_;
  const IndexTree* committed_;
};

template <class Entry>
Result Merge<Entry>::run() {
  if (walk_.root() == 0) return {};
  Outcome outcome;
  ZELTA_TRY(visit(walk_.root(), 0, &outcome));
  if (outcome.emptied) {
    walk_.root() = 0;
    return {};
  }
  return outcome.changed ? collapseRoot() : Result();
}

template <class Entry>
Result Merge<Entry>::visit(std::uint64_t position, std::uint32_t depth, Outcome* outcome) {
  if (!bound_.enter(depth)) return walk_.corrupted();
  TreePage page;
  RTreeHead head;
  ZELTA_TRY(walk_.look(position, &page, &head));
  return head.leaf() ? mergeLeaf(position, outcome) : mergeBranch(position, depth, outcome);
}

template <class Entry>
Result Merge<Entry>::mergeLeaf(std::uint64_t position, Outcome* outcome) {
  Leaf leaf;
  ZELTA_TRY(walk_.loadLeaf(position, PageRole::node, &leaf));
  std::uint32_t kept = 0;
  while (kept < leaf.count() && !objects_.contain(leaf.value(kept))) ++kept;
  if (kept == leaf.count()) return {};
  outcome->changed = true;
  // The page is held from here on, so that its bytes stay where they are while others are entered.
  ZELTA_TRY(walk_.store(position, &leaf));
  for (std::uint32_t i = kept; i < leaf.count(); ++i) {
    const Entry entry = leaf.key(i);
    const std::uint64_t objectID = leaf.value(i);
    if (!objects_.contain(objectID)) {
      leaf.setKey(kept, entry);
      leaf.setValue(kept++, objectID);
    } else if (committed_ != nullptr) {
      ZELTA_TRY(rtreeInsert(*committed_, entry, objectID));
    }
  }
  leaf.truncate(kept);
  outcome->emptied = kept == 0;
  if (outcome->emptied) return walk_.free(position, leaf.size());
  outcome->bounds = leaf.bounds();
  return walk_.store(position, &leaf);
}

template <class Entry>
Result Merge<Entry>::mergeBranch(std::uint64_t position, std::uint32_t depth, Outcome* outcome) {
  Branch branch;
  for (std::uint32_t i = 0;;) {
    ZELTA_TRY(walk_.load(position, false, PageRole::node, &branch));
    if (i >= branch.count()) break;
    Outcome child;
    ZELTA_TRY(visit(branch.value(i), depth + 1, &child));
    if (!child.changed) {
      ++i;
      continue;
    }
    outcome->changed = true;
    ZELTA_TRY(walk_.load(position, false, PageRole::node, &branch));
    if (i >= branch.count()) return walk_.corrupted();
    if (child.emptied) {
      branch.erase(i);
    } else {
      branch.setKey(i++, child.bounds);
    }
    ZELTA_TRY(walk_.store(position, &branch));
  }
  if (!outcome->changed) return {};
  outcome->emptied = branch.count() == 0;
  if (outcome->emptied) return walk_.free(position, branch.size());
  outcome->bounds = branch.bounds();
  return branch.count() > 1 ? pack(position, depth) : Result();
}

template <class Entry>
Result Merge<Entry>::collapseRoot() {
  for (std::uint32_t depth = 0; depth < RTreePath::kMaximumDepth; ++depth) {
    TreePage page;
    RTreeHead head;
    ZELTA_TRY(walk_.look(walk_.root(), &page, &head));
    if (head.leaf()) return {};
    Branch branch;
    ZELTA_TRY(walk_.attach(page, head, false, &branch));
    if (branch.count() != 1) return {};
    const std::uint64_t old = std::exchange(walk_.root(), branch.value(0));
    ZELTA_TRY(walk_.free(old, branch.size()));
  }
  return walk_.corrupted();
}

/// Joins children of a branch that have become small, each with the one behind it that suits it
/// best.
template <class Entry>
Result Merge<Entry>::pack(std::uint64_t position, std::uint32_t depth) {
  if (depth >= RTreePath::kMaximumDepth || packsLeft_-- == 0) return walk_.corrupted();
  for (std::uint32_t i = 0;;) {
    Branch branch;
    ZELTA_TRY(walk_.load(position, false, PageRole::parent, &branch));
    if (i + 1 >= branch.count()) return {};
    const Bounds bounds = branch.key(i);
    std::uint32_t best = i + 1;
    for (std::uint32_t k = i + 2; k < branch.count(); ++k) {
      if (joiningCost(bounds, branch.key(k)) < joiningCost(bounds, branch.key(best))) best = k;
    }
    Pair pair{branch.value(i), branch.value(best)};
    if (pair.position == pair.partner) return walk_.corrupted();
    ZELTA_TRY(packPair(pair));
    if (pair.joined || pair.divided) {
      branch.setKey(i, pair.bounds);
      if (pair.joined) {
        branch.erase(best);
      } else {
        branch.setKey(best, pair.partnerBounds);
      }
      ZELTA_TRY(walk_.store(position, &branch));
    }
    if (pair.packFirst || pair.packBoth) ZELTA_TRY(pack(pair.position, depth + 1));
    if (pair.packBoth) ZELTA_TRY(pack(pair.partner, depth + 1));
    if (!pair.joined) ++i;
  }
}

template <class Entry>
Result Merge<Entry>::packPair(Pair& pair) {
  TreePage page;
  RTreeHead head;
  ZELTA_TRY(walk_.look(pair.position, &page, &head));
  return head.leaf() ? packPair<Entry>(pair, true) : packPair<Bounds>(pair, false);
}

template <class Entry>
template <class Key>
Result Merge<Entry>::packPair(Pair& pair, bool leaf) {
  RTreeNode<Key> first;
  RTreeNode<Key> partner;
  ZELTA_TRY(walk_.load(pair.position, leaf, PageRole::node, &first));
  ZELTA_TRY(walk_.load(pair.partner, leaf, PageRole::sibling, &partner));
  const std::uint64_t total = std::uint64_t{first.count()} + partner.count();
  const bool single = !leaf && (first.count() == 1 || partner.count() == 1);
  // Reckoned with the entries of a branch, whatever the children are.
  constexpr std::uint64_t kBranchEntry = sizeof(Bounds) + 8;
  if (total * kBranchEntry >= first.usable() || !first.holds(total)) {
    if (!single) return {};
    ZELTA_TRY(walk_.divide(&first, &partner));
    pair.divided = pair.packBoth = true;
    pair.bounds = first.bounds();
    pair.partnerBounds = partner.bounds();
    ZELTA_TRY(walk_.store(pair.partner, &partner));
    return walk_.store(pair.position, &first);
  }
  for (std::uint32_t i = 0; i < partner.count(); ++i)
    first.append(partner.key(i), partner.value(i));
  if (first.count() == 0) return walk_.corrupted();
  pair.joined = true;
  pair.packFirst = single;
  pair.bounds = first.bounds();
  ZELTA_TRY(walk_.store(pair.position, &first));
  return walk_.free(pair.partner, partner.size());
}

}  // namespace

template <class Entry>
Result rtreeMerge(const IndexTree& pending, const ObjectSets& objects, const IndexTree* committed) {
  return Merge<Entry>(pending, objects, committed).run();
}

#define ZELTA_INSTANCE(Entry)                                                            \
  template Result rtreeMerge<Entry>(const IndexTree& pending, const ObjectSets& objects, \
                                    const IndexTree* committed);
ZELTA_EACH_RTREE_ENTRY(ZELTA_INSTANCE)

}  // namespace zelta

#include "index/btree/remove.h"

#include <algorithm>
#include <type_traits>

#include "index/btree/join.h"
#include "index/btree/split.h"

namespace zelta {

namespace {

/// Percent of fill below which a node looks for a sibling to be joined with.
constexpr std::uint32_t kUnderfull = 40;
/// Percent of fill below which more is done for a node that cannot be joined.
constexpr std::uint32_t kRedistribute = 10;
/// A variable leaf with so many keys is not joined.
constexpr std::uint32_t kManyKeys = 6;
constexpr std::uint32_t kMaximumCount = 0xFFFF;
/// No leaf of texts shrinks below so many bytes.
constexpr std::uint64_t kSmallestLeaf = 140;

/// One key on its way out. The path from the root is kept; behind the change the way goes up once,
/// and at each level the node at hand is taken out, joined with a sibling, refilled from one, or
/// left. A separator that equals the removed key is exchanged for the next key, so that all
/// separators that are equal to a key name one that is there.
///
/// What a node gets that cannot be joined depends on the form of the keys. Nodes with index keys, of
/// one size as a rule, take over entries of a sibling. Nodes with texts are as large as their texts
/// need: a leaf shrinks, a branch is joined with its right sibling into a larger one.
template <class Format>
class Removal {
 public:
  using Node = TreeNode<Format>;
  using Key = typename Format::Key;
  using Pair = TreePair<Format>;

  Removal(TreeWalk<Format>& walk, BPlusPath& path)
      : walk_(walk), path_(path), level_(path.last()) {}

  Result run(Node& leaf, std::uint32_t number) {
    return leaf.count() > 1 ? removeEntry(leaf, number) : removeLeaf(leaf);
  }

 private:
  static constexpr bool kText = std::is_same_v<Format, TextNodeFormat>;

  /// Takes the key out of a leaf that has others.
  Result removeEntry(Node& leaf, std::uint32_t number);
  /// The key was the leaf's last one: the leaf goes.
  Result removeLeaf(Node& leaf);
  Result dropChild(bool* vanished);
  Result rebalanceUpward(bool vanished);
  Result rebalanceNode(bool* joined);
  Result tryJoin(Node& parent, std::uint32_t number, Node& node, bool nodeIsLeft, bool* joined);
  Result redistribute(Node& parent, Node& node);
  // Each moves keys over the separator between the two nodes; `*done` false: they found no room.
  Result moveRight(Pair pair, const Key* separator, std::uint32_t keep, bool* done);
  Result moveLeft(Pair pair, const Key* separator, std::uint32_t take, bool* done);

  // The same for texts.
  Result shrinkRoot();
  Result shrinkLeaf(Node& leaf);
  Result joinIntoLarger(Node& parent, Node& node, bool* joined);

  TreeWalk<Format>& walk_;
  BPlusPath& path_;
  std::uint32_t level_;  ///< of the node at hand; its parent is one less
  TreeKeyCopy<Format> separator_;
};

template <class Format>
Result Removal<Format>::removeEntry(Node& leaf, std::uint32_t number) {
  leaf.erase(number, number);
  ZELTA_TRY(walk_.store(path_.steps[level_].position, leaf));
  if (number == 0 && path_.equalLevel != BPlusPath::kMaximumDepth) {
    separator_.assign(walk_.format, leaf.key(0));
    ZELTA_TRY(
        walk_.replaceSeparator(path_, path_.equalLevel, path_.equalSeparator, separator_.get()));
  }
  return rebalanceUpward(false);
}

template <class Format>
Result Removal<Format>::removeLeaf(Node& leaf) {
  const std::uint64_t position = path_.steps[level_].position;
  const std::uint64_t previous = leaf.previous();
  const std::uint64_t next = leaf.next();
  const std::uint32_t size = leaf.size();
  ZELTA_TRY(walk_.relink(previous, next, next, previous, PageRole::sibling));
  ZELTA_TRY(walk_.free(position, size));
  if (next != 0 && path_.equalLevel != BPlusPath::kMaximumDepth) {
    Node following;
    ZELTA_TRY(walk_.loadLeaf(next, following, PageRole::node));
    separator_.assign(walk_.format, following.key(0));
    ZELTA_TRY(
        walk_.replaceSeparator(path_, path_.equalLevel, path_.equalSeparator, separator_.get()));
  }
  return rebalanceUpward(true);
}

/// Goes up from a node that lost entries, or that `vanished` altogether. All nodes on the way are
/// looked at: what kept an underfull one from being joined may have passed since.
template <class Format>
Result Removal<Format>::rebalanceUpward(bool vanished) {
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
  if (dropped) return collapseRoot(walk_, &dropped);
  if constexpr (kText) return shrinkRoot();
  return {};
}

/// Takes the node that vanished out of its parent, which vanishes too if it has no other child.
template <class Format>
Result Removal<Format>::dropChild(bool* vanished) {
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  Node parent;
  ZELTA_TRY(walk_.load(up.position, parent, PageRole::parent));
  if (parent.leaf() || up.child > parent.count()) return walk_.corrupted();
  *vanished = parent.count() == 0;
  if (*vanished) return walk_.free(up.position, parent.size());
  parent.erase(up.child == 0 ? 0 : up.child - 1, up.child);
  return walk_.store(up.position, parent);
}

/// Looks after the fill of the node at hand.
template <class Format>
Result Removal<Format>::rebalanceNode(bool* joined) {
  Node node;
  *joined = false;
  ZELTA_TRY(walk_.look(path_.steps[level_].position, node));
  if (!node.fillBelow(kUnderfull)) return {};
  ZELTA_TRY(walk_.load(path_.steps[level_].position, node, PageRole::node));
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  Node parent;
  ZELTA_TRY(walk_.load(up.position, parent, PageRole::parent));
  if (parent.leaf() || up.child > parent.count()) return walk_.corrupted();
  if (!(walk_.format.variable && node.leaf() && node.count() >= kManyKeys)) {
    if (up.child < parent.count()) ZELTA_TRY(tryJoin(parent, up.child, node, true, joined));
    if (!*joined && up.child > 0) ZELTA_TRY(tryJoin(parent, up.child - 1, node, false, joined));
  }
  if (*joined) return walk_.store(up.position, parent);
  if constexpr (kText) {
    if (node.leaf()) return shrinkLeaf(node);
    if (up.child == parent.count() || !node.fillBelow(kRedistribute)) return {};
    return joinIntoLarger(parent, node, joined);
  } else {
    if (parent.count() == 0 || !node.fillBelow(kRedistribute)) return {};
    return redistribute(parent, node);
  }
}

/// Joins children `number` and `number` + 1, one of which is the node at hand.
template <class Format>
Result Removal<Format>::tryJoin(Node& parent, std::uint32_t number, Node& node, bool nodeIsLeft,
                                bool* joined) {
  Node sibling;
  const std::uint64_t position = path_.steps[level_].position;
  const std::uint64_t siblingPosition = parent.child(nodeIsLeft ? number + 1 : number);
  ZELTA_TRY(walk_.load(siblingPosition, sibling, PageRole::sibling));
  const Pair pair = nodeIsLeft ? Pair{&node, position, &sibling, siblingPosition}
                               : Pair{&sibling, siblingPosition, &node, position};
  return joinChildren(walk_, parent, number, pair, joined);
}

/// Spreads the keys of the node and a sibling by the sizes of the two.
template <class Format>
Result Removal<Format>::redistribute(Node& parent, Node& node) {
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  const std::uint64_t position = path_.steps[level_].position;
  const bool nodeIsLeft = up.child < parent.count();
  const std::uint32_t number = nodeIsLeft ? up.child : up.child - 1;
  const std::uint64_t siblingPosition = parent.child(nodeIsLeft ? number + 1 : number);
  Node sibling;
  ZELTA_TRY(walk_.load(siblingPosition, sibling, PageRole::sibling));
  if (sibling.leaf() != node.leaf() || siblingPosition == position) return walk_.corrupted();
  const Pair pair = nodeIsLeft ? Pair{&node, position, &sibling, siblingPosition}
                               : Pair{&sibling, siblingPosition, &node, position};
  const std::uint64_t left = pair.left->size();
  const std::uint64_t both = left + pair.right->size();
  const std::uint32_t total = pair.left->count() + pair.right->count();
  const auto keep = static_cast<std::uint32_t>((total * left + both / 2) / both);
  if (keep == pair.left->count()) return {};
  if (node.leaf() && (keep == 0 || keep == total)) return {};
  if (keep > kMaximumCount || total - keep > kMaximumCount) return {};

  bool done = false;
  const Key* separator = parent.key(number);
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
template <class Format>
Result Removal<Format>::moveRight(Pair pair, const Key* separator, std::uint32_t keep, bool* done) {
  Node& left = *pair.left;
  Node& right = *pair.right;
  const bool leaf = left.leaf();
  const std::uint32_t from = keep + (leaf ? 0u : 1u);
  std::uint64_t bytes = left.keyEnd() - left.keyOffset(from) +
                        std::uint64_t{left.count() - from} * walk_.format.pointerBytes(leaf);
  if (!leaf) bytes += right.entryBytes(walk_.format.keyBytes(separator));
  if (bytes > right.freeBytes()) return {};
  separator_.assign(walk_.format, left.key(keep));
  const Node old = walk_.copyAside(right);
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
template <class Format>
Result Removal<Format>::moveLeft(Pair pair, const Key* separator, std::uint32_t take, bool* done) {
  Node& left = *pair.left;
  Node& right = *pair.right;
  const bool leaf = left.leaf();
  const std::uint32_t to = take - (leaf ? 0u : 1u);
  std::uint64_t bytes = right.keyOffset(to) - right.keyOffset(0) +
                        std::uint64_t{to} * walk_.format.pointerBytes(leaf);
  if (!leaf) bytes += left.entryBytes(walk_.format.keyBytes(separator));
  if (bytes > left.freeBytes()) return {};
  separator_.assign(walk_.format, right.key(leaf ? take : to));
  const Node old = walk_.copyAside(right);
  if (!leaf) left.append(separator, old.child(0));
  left.append(old, 0, to);
  right.clear();
  if (!leaf) right.setPointer(0, old.child(take));
  right.append(old, take, old.count());
  *done = true;
  return {};
}

/// The root is not looked at on the way up.
template <class Format>
Result Removal<Format>::shrinkRoot() {
  Node root;
  ZELTA_TRY(walk_.look(walk_.root(), root));
  if (!root.leaf() || !root.fillBelow(kUnderfull)) return {};
  ZELTA_TRY(walk_.load(walk_.root(), root, PageRole::node));
  return shrinkLeaf(root);
}

/// Moves the leaf at hand to a smaller page, if that saves a page unit.
template <class Format>
Result Removal<Format>::shrinkLeaf(Node& leaf) {
  const std::uint64_t content = leaf.size() - leaf.freeBytes();
  const std::uint64_t size = wholePages(std::max(content, kSmallestLeaf), walk_.tree.pageSize());
  if (size >= leaf.size()) return {};
  const Node old = walk_.copyAside(leaf);
  std::uint64_t& position = path_.steps[level_].position;
  ZELTA_TRY(walk_.free(position, old.size()));
  ZELTA_TRY(walk_.allocate(size, true, PageRole::node, leaf, &position));
  leaf.setPrevious(old.previous());
  leaf.setNext(old.next());
  leaf.append(old, 0, old.count());
  ZELTA_TRY(walk_.store(position, leaf));
  ZELTA_TRY(walk_.relink(old.previous(), position, old.next(), position, PageRole::sibling));
  return walk_.relinkChild(path_, level_);
}

/// Joins the branch at hand, which has next to nothing, with its right sibling, whatever room that
/// takes.
template <class Format>
Result Removal<Format>::joinIntoLarger(Node& parent, Node& node, bool* joined) {
  BPlusPath::Step& step = path_.steps[level_];
  const BPlusPath::Step& up = path_.steps[level_ - 1];
  const std::uint64_t siblingPosition = parent.child(up.child + 1);
  Node sibling;
  ZELTA_TRY(walk_.load(siblingPosition, sibling, PageRole::sibling));
  if (sibling.leaf() || siblingPosition == step.position) return walk_.corrupted();
  if (node.count() + sibling.count() + 1 > kMaximumCount) return {};
  *joined = true;
  separator_.assign(walk_.format, parent.key(up.child));
  const std::uint32_t separatorBytes = walk_.format.keyBytes(separator_.get());
  const std::uint64_t content = std::uint64_t{node.size()} - node.freeBytes() + sibling.size() -
                                sibling.freeBytes() + separatorBytes - walk_.format.head(false);
  const bool keepNode = step.position < siblingPosition;
  const std::uint64_t grown =
      std::uint64_t{keepNode ? node.size() : sibling.size()} + walk_.tree.pageSize();
  const std::uint64_t size = wholePages(std::max(content, grown), walk_.tree.pageSize());

  const Node left = walk_.copyAside(node);
  ZELTA_TRY(walk_.free(step.position, left.size()));
  ZELTA_TRY(walk_.allocate(size, false, PageRole::node, node, &step.position));
  node.setPointer(0, left.child(0));
  node.append(left, 0, left.count());
  node.append(separator_.get(), sibling.child(0));
  node.append(sibling, 0, sibling.count());
  ZELTA_TRY(walk_.store(step.position, node));
  ZELTA_TRY(walk_.free(siblingPosition, sibling.size()));
  parent.erase(up.child, up.child + 1);
  parent.setPointer(up.child, step.position);
  return walk_.store(up.position, parent);
}

}  // namespace

template <class Format>
Result removeKey(TreeWalk<Format>& walk, BPlusPath& path, TreeNode<Format>& leaf,
                 std::uint32_t number) {
  return Removal<Format>(walk, path).run(leaf, number);
}

template Result removeKey(TextWalk&, BPlusPath&, TextNode&, std::uint32_t);

Result bplusRemove(const IndexTree& tree, const std::uint32_t* key, std::uint64_t objectID) {
  BPlusWalk walk(tree, BPlusWalk::Purpose::search);
  if (walk.root() == 0) return {};
  BPlusPath path;
  BPlusNode leaf;
  ZELTA_TRY(walk.descend(key, path, leaf));
  const BPlusNode::Place place = leaf.lower(key);
  if (!place.equal || leaf.objectID(place.number) != objectID) return tree.keyMissing(objectID);
  return removeKey(walk, path, leaf, place.number);
}

}  // namespace zelta

#include "index/btree/walk.h"

#include <cassert>

namespace zelta {

template <class Format>
void TreeKeyCopy<Format>::assign(const Format& format, const Key* key) {
  const std::uint32_t bytes = format.keyBytes(key);
  std::unique_ptr<Key[]> large;
  if (bytes > sizeof(small_)) large.reset(new Key[bytes / sizeof(Key)]);
  std::memcpy(large ? large.get() : small_, key, bytes);
  large_ = std::move(large);
}

template <class Format>
TreeWalk<Format>::TreeWalk(const IndexTree& treeOf, const Format& formatOf, Purpose purpose)
    : tree(treeOf),
      format{formatOf},
      pages_(treeOf, kText ? Own::wordTree : Own::bPlusTree),
      purpose_(purpose) {}

/// Which code a damaged node of a B+Tree is reported with depends on the operation and on what is
/// wrong.
template <class Format>
Result TreeWalk<Format>::damaged(typename Node::State state, bool leaf) const {
  if constexpr (kText) return corrupted();
  if (state == Node::State::badKeys && purpose_ == Purpose::insert) {
    return tree.fileDamaged(code::kFileCorrupt);
  }
  if (state == Node::State::badFreeSpace && purpose_ == Purpose::merge) {
    return tree.fileDamaged(code::kBufferTooSmall);
  }
  if (leaf && (state == Node::State::badKeys || state == Node::State::badFreeSpace)) {
    return tree.damaged(Own::variableLeaf);
  }
  return corrupted();
}

template <class Format>
Result TreeWalk<Format>::attach(const TreePage& page, Node& node, bool walk) const {
  const typename Node::State state = node.attach(page, format, walk);
  return state == Node::State::sound ? Result() : damaged(state, node.leaf());
}

template <class Format>
Result TreeWalk<Format>::load(std::uint64_t position, Node& node, PageRole role) {
  TreePage page;
  ZELTA_TRY(pages_.load(position, role, &page));
  ZELTA_TRY(attach(page, node, true));
  if (node.leaf() && node.count() == 0) return corrupted();
  return {};
}

template <class Format>
Result TreeWalk<Format>::look(std::uint64_t position, Node& node) {
  TreePage page;
  ZELTA_TRY(pages_.glance(position, &page));
  return attach(page, node, false);
}

template <class Format>
Result TreeWalk<Format>::loadLeaf(std::uint64_t position, Node& node, PageRole role) {
  ZELTA_TRY(load(position, node, role));
  return node.leaf() ? Result() : corrupted();
}

template <class Format>
Result TreeWalk<Format>::store(std::uint64_t position, Node& node) {
  TreePage page = node.page();
  bool moved = false;
  ZELTA_TRY(pages_.store(position, &page, &moved));
  if (moved && node.attach(page, format, false) != Node::State::sound) return corrupted();
  return {};
}

template <class Format>
Result TreeWalk<Format>::allocate(std::uint64_t size, bool leaf, PageRole role, Node& node,
                                  std::uint64_t* position) {
  TreePage page;
  ZELTA_TRY(pages_.allocate(size, role, position, &page));
  node.makeEmpty(page, static_cast<std::uint32_t>(size), leaf, format);
  return {};
}

template <class Format>
Result TreeWalk<Format>::descend(const Key* key, BPlusPath& path, Node& leaf,
                                 TreeBound<Format>* bound) {
  if (bound != nullptr) bound->given = false;
  path.depth = 0;
  path.equalLevel = BPlusPath::kMaximumDepth;
  std::uint64_t position = root();
  for (;;) {
    if (path.depth == BPlusPath::kMaximumDepth) return corrupted();
    ZELTA_TRY(look(position, leaf));
    BPlusPath::Step& step = path.steps[path.depth++];
    step = {position, 0};
    if (leaf.leaf()) return load(position, leaf, PageRole::node);
    const typename Node::Place place = leaf.above(key);
    if (place.offset == 0) {
      ZELTA_TRY(load(position, leaf, PageRole::node));
      return corrupted();
    }
    if (place.equal) {
      path.equalLevel = path.last();
      path.equalSeparator = place.number - 1;
    }
    if (bound != nullptr && place.number < leaf.count()) {
      bound->key.assign(format, leaf.keyAt(place.offset));
      bound->given = true;
    }
    step.child = place.number;
    position = leaf.child(place.number);
  }
}

template <class Format>
TreeNode<Format> TreeWalk<Format>::copyAside(const Node& node) {
  Node result = node;
  result.moveTo(pages_.copyAside(node.bytes(), node.size()));
  return result;
}

template <class Format>
Result TreeWalk<Format>::growBranch(BPlusPath& path, std::uint32_t level, Node& node, PageRole role,
                                    std::uint64_t bytes) {
  assert(!node.leaf() && level < path.depth);
  const Node old = copyAside(node);
  const std::uint64_t wanted = old.size() + bytes;
  const std::uint64_t size = (wanted + tree.pageSize() - 1) / tree.pageSize() * tree.pageSize();
  std::uint64_t& position = path.steps[level].position;
  // The old place goes first: if there is room behind it, the page grows where it is.
  ZELTA_TRY(free(position, old.size()));
  ZELTA_TRY(allocate(size, false, role, node, &position));
  node.setPointer(0, old.child(0));
  node.append(old, 0, old.count());
  ZELTA_TRY(store(position, node));
  return relinkChild(path, level);
}

template <class Format>
Result TreeWalk<Format>::relinkChild(const BPlusPath& path, std::uint32_t level) {
  const std::uint64_t position = path.steps[level].position;
  if (level == 0) {
    root() = position;
    return {};
  }
  const BPlusPath::Step& up = path.steps[level - 1];
  Node parent;
  ZELTA_TRY(load(up.position, parent, PageRole::sibling));
  if (parent.leaf() || up.child > parent.count()) return corrupted();
  parent.setPointer(up.child, position);
  return store(up.position, parent);
}

template <class Format>
Result TreeWalk<Format>::replaceSeparator(BPlusPath& path, std::uint32_t level,
                                          std::uint32_t number, const Key* key) {
  Node branch;
  ZELTA_TRY(load(path.steps[level].position, branch, PageRole::parent));
  if (branch.leaf() || number >= branch.count()) return corrupted();
  if (!branch.replaceKey(number, key)) {
    ZELTA_TRY(growBranch(path, level, branch, PageRole::parent, format.keyBytes(key)));
    if (!branch.replaceKey(number, key)) return corrupted();
  }
  return store(path.steps[level].position, branch);
}

template <class Format>
Result TreeWalk<Format>::relink(std::uint64_t previous, std::uint64_t forPrevious,
                                std::uint64_t next, std::uint64_t forNext, PageRole role) {
  Node leaf;
  if (previous != 0) {
    ZELTA_TRY(loadLeaf(previous, leaf, role));
    leaf.setNext(forPrevious);
    ZELTA_TRY(store(previous, leaf));
  }
  if (next == 0) return {};
  ZELTA_TRY(loadLeaf(next, leaf, role));
  leaf.setPrevious(forNext);
  return store(next, leaf);
}

template class TreeKeyCopy<NodeFormat>;
template class TreeKeyCopy<TextNodeFormat>;
template class TreeWalk<NodeFormat>;
template class TreeWalk<TextNodeFormat>;

}  // namespace zelta

#include "index/btree/walk.h"

#include <cassert>

namespace zelta {

void BPlusKeyCopy::assign(const NodeFormat& format, const std::uint32_t* key) {
  const std::uint32_t words = format.words(key);
  std::unique_ptr<std::uint32_t[]> large;
  if (words > sizeof(small_) / sizeof(small_[0])) large.reset(new std::uint32_t[words]);
  std::memcpy(large ? large.get() : small_, key, std::size_t{words} * 4);
  large_ = std::move(large);
}

BPlusWalk::BPlusWalk(const IndexTree& treeOf, Purpose purpose)
    : tree(treeOf), format{treeOf.shape()}, pages_(treeOf, Own::bPlusTree), purpose_(purpose) {}

/// Which code a damaged node is reported with depends on the operation and on what is wrong.
Result BPlusWalk::damaged(BPlusNode::State state, bool leaf) const {
  if (state == BPlusNode::State::badKeys && purpose_ == Purpose::insert) {
    return tree.fileDamaged(code::kFileCorrupt);
  }
  if (state == BPlusNode::State::badFreeWords && purpose_ == Purpose::merge) {
    return tree.fileDamaged(code::kBufferTooSmall);
  }
  if (leaf && (state == BPlusNode::State::badKeys || state == BPlusNode::State::badFreeWords)) {
    return tree.damaged(Own::variableLeaf);
  }
  return corrupted();
}

Result BPlusWalk::attach(const TreePage& page, BPlusNode& node, bool walk) const {
  const BPlusNode::State state = node.attach(page, format, walk);
  return state == BPlusNode::State::sound ? Result() : damaged(state, node.leaf());
}

Result BPlusWalk::load(std::uint64_t position, BPlusNode& node, PageRole role) {
  TreePage page;
  ZELTA_TRY(pages_.load(position, role, &page));
  ZELTA_TRY(attach(page, node, true));
  if (node.leaf() && node.count() == 0) return corrupted();
  return {};
}

Result BPlusWalk::look(std::uint64_t position, BPlusNode& node) {
  TreePage page;
  ZELTA_TRY(pages_.glance(position, &page));
  return attach(page, node, false);
}

Result BPlusWalk::loadLeaf(std::uint64_t position, BPlusNode& node, PageRole role) {
  ZELTA_TRY(load(position, node, role));
  return node.leaf() ? Result() : corrupted();
}

Result BPlusWalk::store(std::uint64_t position, BPlusNode& node) {
  TreePage page = node.page();
  bool moved = false;
  ZELTA_TRY(pages_.store(position, &page, &moved));
  if (moved && node.attach(page, format, false) != BPlusNode::State::sound) return corrupted();
  return {};
}

Result BPlusWalk::allocate(std::uint64_t size, bool leaf, PageRole role, BPlusNode& node,
                           std::uint64_t* position) {
  TreePage page;
  ZELTA_TRY(pages_.allocate(size, role, position, &page));
  node.makeEmpty(page, static_cast<std::uint32_t>(size), leaf, format);
  return {};
}

Result BPlusWalk::descend(const std::uint32_t* key, BPlusPath& path, BPlusNode& leaf) {
  path.depth = 0;
  std::uint64_t position = root();
  for (;;) {
    if (path.depth == BPlusPath::kMaximumDepth) return corrupted();
    ZELTA_TRY(look(position, leaf));
    BPlusPath::Step& step = path.steps[path.depth++];
    step = {position, 0};
    if (leaf.leaf()) return load(position, leaf, PageRole::node);
    const BPlusNode::Place place = leaf.above(key);
    if (place.offset == 0) {
      ZELTA_TRY(load(position, leaf, PageRole::node));
      return corrupted();
    }
    if (place.equal) {
      path.equalLevel = path.last();
      path.equalSeparator = place.number - 1;
    }
    step.child = place.number;
    position = leaf.child(place.number);
  }
}

BPlusNode BPlusWalk::copyAside(const BPlusNode& node) {
  BPlusNode result = node;
  result.moveTo(pages_.copyAside(node.bytes(), node.size()));
  return result;
}

Result BPlusWalk::growBranch(BPlusPath& path, std::uint32_t level, BPlusNode& node, PageRole role,
                             std::uint64_t bytes) {
  assert(!node.leaf() && level < path.depth);
  const BPlusNode old = copyAside(node);
  const std::uint64_t wanted = old.size() + bytes;
  const std::uint64_t size = (wanted + tree.pageSize() - 1) / tree.pageSize() * tree.pageSize();
  std::uint64_t& position = path.steps[level].position;
  // The old place goes first: if there is room behind it, the page grows where it is.
  ZELTA_TRY(free(position, old.size()));
  ZELTA_TRY(allocate(size, false, role, node, &position));
  node.setPointer(0, old.child(0));
  node.append(old, 0, old.count());
  ZELTA_TRY(store(position, node));
  if (level == 0) {
    root() = position;
    return {};
  }
  const BPlusPath::Step& up = path.steps[level - 1];
  BPlusNode parent;
  ZELTA_TRY(load(up.position, parent, PageRole::sibling));
  if (parent.leaf() || up.child > parent.count()) return corrupted();
  parent.setPointer(up.child, position);
  return store(up.position, parent);
}

Result BPlusWalk::replaceSeparator(BPlusPath& path, std::uint32_t level, std::uint32_t number,
                                   const std::uint32_t* key) {
  BPlusNode branch;
  ZELTA_TRY(load(path.steps[level].position, branch, PageRole::parent));
  if (branch.leaf() || number >= branch.count()) return corrupted();
  if (!branch.replaceKey(number, key)) {
    ZELTA_TRY(
        growBranch(path, level, branch, PageRole::parent, std::uint64_t{format.words(key)} * 4));
    if (!branch.replaceKey(number, key)) return corrupted();
  }
  return store(path.steps[level].position, branch);
}

Result BPlusWalk::relink(std::uint64_t previous, std::uint64_t forPrevious, std::uint64_t next,
                         std::uint64_t forNext, PageRole role) {
  BPlusNode leaf;
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

}  // namespace zelta

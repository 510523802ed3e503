#include "index/bplus_walk.h"

namespace zelta {

namespace {
/// Upper limit of a node's size: sizes are counted in 32 bits.
constexpr std::uint64_t kMaximumNode = 0x7FFFFFFF;
}  // namespace

void BPlusKeyCopy::assign(const BPlusShape& shape, const std::uint32_t* key) {
  const std::uint32_t words = shape.words(key);
  std::unique_ptr<std::uint32_t[]> large;
  if (words > sizeof(small_) / sizeof(small_[0])) large.reset(new std::uint32_t[words]);
  std::memcpy(large ? large.get() : small_, key, std::size_t{words} * 4);
  large_ = std::move(large);
}

BPlusShape bplusShape(const Table& table, std::uint32_t index) {
  BPlusShape shape;
  shape.variable = table.keyShape(index).variable();
  shape.keyWords = table.index(index).keyWords;
  shape.idBytes = table.idSize();
  return shape;
}

BPlusWalk::BPlusWalk(MetaData& metaDataOf, Table& tableOf, TreeFile fileOf,
                     AtomicManager& managerOf, std::uint32_t indexOf, Purpose purposeOf)
    : metaData(metaDataOf),
      table(tableOf),
      file(fileOf),
      manager(managerOf),
      index(indexOf),
      shape(bplusShape(tableOf, indexOf)),
      purpose(purposeOf) {}

Result BPlusWalk::corrupted() {
  return reportError(&metaData, Own::bPlusTree, table.cName(), nullptr, index);
}

Result BPlusWalk::keyMissing(std::uint64_t objectID) {
  return reportError(&metaData, Own::keyNotFound, table.cName(), u".zlt",
                     static_cast<std::int64_t>(objectID), index);
}

Result BPlusWalk::damaged(BPlusNode::State state, bool leaf) {
  const char16_t* extensionOfFile =
      file.file == PageFile::memory ? extension::kMemory : extension::kIndex;
  if (state == BPlusNode::State::badKeys && purpose == Purpose::insert) {
    return reportSystemError(&metaData, code::kFileCorrupt, table.cName(), extensionOfFile);
  }
  if (state == BPlusNode::State::badFreeWords && purpose == Purpose::merge) {
    return reportSystemError(&metaData, code::kBufferTooSmall, table.cName(), extensionOfFile);
  }
  if (leaf && (state == BPlusNode::State::badKeys || state == BPlusNode::State::badFreeWords)) {
    return reportError(&metaData, Own::variableLeaf, table.cName(), nullptr, index);
  }
  return corrupted();
}

Result BPlusWalk::load(std::uint64_t position, BPlusNode& node, BPlusBuffer which) {
  char* page = nullptr;
  if (position == 0) return corrupted();
  ZELTA_TRY(manager.readPage(file.file, position, &page, buffer(which)));
  if (page == nullptr) return corrupted();
  const BPlusNode::State state = node.attach(page, shape, true);
  if (state != BPlusNode::State::sound) return damaged(state, node.leaf());
  if (node.leaf() && node.count() == 0) return corrupted();
  return {};
}

Result BPlusWalk::look(std::uint64_t position, BPlusNode& node) {
  const char* page = nullptr;
  if (position == 0) return corrupted();
  ZELTA_TRY(manager.viewPage(file.file, position, true, &page, buffer(kNodeBuffer)));
  if (page == nullptr) return corrupted();
  const BPlusNode::State state = node.attach(const_cast<char*>(page), shape, false);
  return state == BPlusNode::State::sound ? Result() : damaged(state, node.leaf());
}

Result BPlusWalk::loadLeaf(std::uint64_t position, BPlusNode& node, BPlusBuffer which) {
  ZELTA_TRY(load(position, node, which));
  return node.leaf() ? Result() : corrupted();
}

Result BPlusWalk::store(std::uint64_t position, BPlusNode& node) {
  char* held = nullptr;
  ZELTA_TRY(manager.writePage(file.file, position, node.bytes(), &held));
  if (held != nullptr && held != node.bytes()) {
    const BPlusNode::State state = node.attach(held, shape, false);
    if (state != BPlusNode::State::sound) return corrupted();
  }
  return {};
}

Result BPlusWalk::allocate(std::uint64_t size, bool leaf, BPlusNode& node, std::uint64_t* position,
                           BPlusBuffer which) {
  if (size > kMaximumNode) return reportSystemError(&metaData, code::kNoMemory);
  char* page = nullptr;
  const auto bytes = static_cast<std::uint32_t>(size);
  ZELTA_TRY(manager.allocatePage(file.file, bytes, &page, position, buffer(which)));
  node.format(page, bytes, leaf, shape);
  return {};
}

Result BPlusWalk::free(std::uint64_t position, std::uint32_t size) {
  return manager.freePage(file.file, position, size);
}

Result BPlusWalk::descend(const std::uint32_t* key, BPlusPath& path, BPlusNode& leaf) {
  path.depth = 0;
  std::uint64_t position = root();
  for (;;) {
    if (path.depth == BPlusPath::kMaximumDepth) return corrupted();
    ZELTA_TRY(look(position, leaf));
    BPlusPath::Step& step = path.steps[path.depth++];
    step = {position, 0};
    if (leaf.leaf()) return load(position, leaf, kNodeBuffer);
    const BPlusNode::Place place = leaf.above(key);
    if (place.offset == 0) {
      ZELTA_TRY(load(position, leaf, kNodeBuffer));
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
  char* copy = buffer(kSpareBuffer).reserve(node.size());
  std::memcpy(copy, node.bytes(), node.size());
  BPlusNode result = node;
  result.moveTo(copy);
  return result;
}

Result BPlusWalk::growBranch(BPlusPath& path, std::uint32_t level, BPlusNode& node,
                             BPlusBuffer which, std::uint64_t bytes) {
  const BPlusNode old = copyAside(node);
  const std::uint64_t wanted = old.size() + bytes;
  const std::uint64_t size = (wanted + file.pageSize - 1) / file.pageSize * file.pageSize;
  std::uint64_t& position = path.steps[level].position;
  // The old place goes first: if there is room behind it, the page grows where it is.
  ZELTA_TRY(free(position, old.size()));
  ZELTA_TRY(allocate(size, false, node, &position, which));
  node.setPointer(0, old.child(0));
  node.append(old, 0, old.count());
  ZELTA_TRY(store(position, node));
  if (level == 0) {
    root() = position;
    return {};
  }
  const BPlusPath::Step& up = path.steps[level - 1];
  BPlusNode parent;
  ZELTA_TRY(load(up.position, parent, kSiblingBuffer));
  if (parent.leaf() || up.child > parent.count()) return corrupted();
  parent.setPointer(up.child, position);
  return store(up.position, parent);
}

Result BPlusWalk::replaceSeparator(BPlusPath& path, std::uint32_t level, std::uint32_t number,
                                   const std::uint32_t* key) {
  BPlusNode branch;
  ZELTA_TRY(load(path.steps[level].position, branch, kParentBuffer));
  if (branch.leaf() || number >= branch.count()) return corrupted();
  if (!branch.replaceKey(number, key)) {
    ZELTA_TRY(growBranch(path, level, branch, kParentBuffer, std::uint64_t{shape.words(key)} * 4));
    if (!branch.replaceKey(number, key)) return corrupted();
  }
  return store(path.steps[level].position, branch);
}

Result BPlusWalk::relink(std::uint64_t previous, std::uint64_t forPrevious, std::uint64_t next,
                         std::uint64_t forNext, BPlusBuffer which) {
  BPlusNode leaf;
  if (previous != 0) {
    ZELTA_TRY(loadLeaf(previous, leaf, which));
    leaf.setNext(forPrevious);
    ZELTA_TRY(store(previous, leaf));
  }
  if (next == 0) return {};
  ZELTA_TRY(loadLeaf(next, leaf, which));
  leaf.setPrevious(forNext);
  return store(next, leaf);
}

}  // namespace zelta

#include "transaction/log/log_change.h"

#include <algorithm>
#include <cassert>
#include <memory>

namespace zelta {

namespace {

/// Keys that stay in the left part of a node that is split; of an inner node one more rises.
constexpr std::uint32_t kLeftLeafKeys = 20;
constexpr std::uint32_t kLeftInnerKeys = 19;

template <class T>
void insertAt(T* items, std::uint32_t count, std::uint32_t at, T item) {
  std::copy_backward(items + at, items + count, items + count + 1);
  items[at] = item;
}

template <class T>
void removeAt(T* items, std::uint32_t count, std::uint32_t at) {
  std::copy(items + at + 1, items + count, items + at);
  items[count - 1] = T{};
}

/// A key that is to be entered in a node, at an index; in an inner node the child lies behind it.
struct NewKey {
  std::uint32_t key;
  std::uint64_t value;
  std::uint32_t at;
};

void insertInto(LogNode_tag& node, const NewKey& entered) {
  assert(node.keyCount < kLogKeysPerNode && entered.at <= node.keyCount);
  const std::uint32_t keyCount = node.keyCount;
  insertAt(node.keys, keyCount, entered.at, entered.key);
  if (node.type == LogNodeType::leaf) {
    insertAt(node.values, keyCount, entered.at, entered.value);
  } else {
    insertAt(node.values, keyCount + 1, entered.at + 1, entered.value);
  }
  ++node.keyCount;
}

/// Moves keys and values of `node` from the given indexes on to the front of `right`.
void moveTail(LogNode_tag& node, LogNode_tag& right, std::uint32_t firstKey,
              std::uint32_t firstValue, std::uint32_t valueCount) {
  assert(node.keyCount == kLogKeysPerNode);
  right.type = node.type;
  right.keyCount = static_cast<std::uint16_t>(node.keyCount - firstKey);
  std::copy(node.keys + firstKey, node.keys + node.keyCount, right.keys);
  std::copy(node.values + firstValue, node.values + valueCount, right.values);
  std::fill(node.keys + firstKey, node.keys + node.keyCount, 0u);
  std::fill(node.values + firstValue, node.values + valueCount, std::uint64_t{0});
  node.keyCount = static_cast<std::uint16_t>(firstKey);
}

/// Splits a full leaf and enters the key. Returns the first key of the right part.
std::uint32_t splitLeaf(LogNode_tag& node, LogNode_tag& right, NewKey entered) {
  const std::uint32_t separator = node.keys[kLeftLeafKeys];
  moveTail(node, right, kLeftLeafKeys, kLeftLeafKeys, kLogKeysPerNode);
  if (entered.key >= separator) {
    entered.at -= kLeftLeafKeys;
    insertInto(right, entered);
  } else {
    insertInto(node, entered);
  }
  return separator;
}

/// Splits a full inner node and enters key and child. Returns the key that rises.
std::uint32_t splitInner(LogNode_tag& node, LogNode_tag& right, NewKey entered) {
  const std::uint32_t middle = node.keys[kLeftInnerKeys];
  moveTail(node, right, kLeftInnerKeys + 1, kLeftInnerKeys + 1, kLogKeysPerNode + 1);
  node.keys[kLeftInnerKeys] = 0;
  node.keyCount = kLeftInnerKeys;
  // The new child belongs right behind the one that was split, whatever equal keys there are.
  if (entered.at > kLeftInnerKeys) {
    entered.at -= kLeftInnerKeys + 1;
    insertInto(right, entered);
  } else {
    insertInto(node, entered);
  }
  return middle;
}

}  // namespace

LogChange::LogChange(LogFile& log) : log_(log), contents_(log) { assert(log.locked()); }

// -- Blocks ---------------------------------------------------------------------------------------

Result LogChange::allocate(std::uint64_t length, std::uint64_t* position,
                           std::uint64_t* blockLength) {
  FileSpan block{};
  ZELTA_TRY(contents_.freeSpace.allocate(length, &block));
  *position = block.position;
  *blockLength = block.size;
  if (*position != 0) {
    const bool inside = liesInLog(*position, *blockLength, log_.header().endOfLog);
    return inside ? Result{} : log_.broken();
  }
  *position = contents_.end;
  *blockLength = contents_.freeSpace.need(length);
  contents_.end += *blockLength;
  return {};
}

// -- The tree -------------------------------------------------------------------------------------

Result LogChange::allocateNode(LogNode_tag& node, std::uint64_t* position) {
  node = LogNode_tag{};
  return allocate(kLogNodeSize, position, &node.blockLength);
}

Result LogChange::growRoot(std::uint32_t separator, std::uint64_t right) {
  LogNode_tag root;
  std::uint64_t position = 0;
  ZELTA_TRY(allocateNode(root, &position));
  root.type = LogNodeType::inner;
  root.keyCount = 1;
  root.keys[0] = separator;
  root.values[0] = contents_.root;
  root.values[1] = right;
  put(position, root);
  contents_.root = position;
  return {};
}

/// From the leaf up: a full node is split, and its separator goes into the one above. `put` notes
/// the new images; the tree in the file stays as it is.
Result LogChange::insertKey(LogPath& path, std::uint32_t number, std::uint64_t position) {
  NewKey entered{number, position, firstAbove(path.leaf().node, number)};
  for (std::uint32_t depth = path.depth(); depth-- > 0;) {
    LogPath::Level& level = path.level(depth);
    if (depth + 1 != path.depth()) entered.at = level.child;
    if (level.node.keyCount < kLogKeysPerNode) {
      insertInto(level.node, entered);
      put(level.position, level.node);
      return {};
    }
    LogNode_tag right;
    std::uint64_t rightPosition = 0;
    ZELTA_TRY(allocateNode(right, &rightPosition));
    entered.key = level.node.type == LogNodeType::leaf ? splitLeaf(level.node, right, entered)
                                                       : splitInner(level.node, right, entered);
    entered.value = rightPosition;
    put(level.position, level.node);
    put(rightPosition, right);
  }
  return growRoot(entered.key, entered.value);
}

/// A leaf that becomes empty leaves the tree, and an inner node with a single child gives way to
/// it. Nodes are not joined otherwise.
void LogChange::removeKey(LogPath& path, std::uint32_t slot) {
  LogPath::Level& leaf = path.leaf();
  assert(slot < leaf.node.keyCount);
  if (leaf.node.keyCount > 1) {
    removeAt(leaf.node.keys, leaf.node.keyCount, slot);
    removeAt(leaf.node.values, leaf.node.keyCount, slot);
    --leaf.node.keyCount;
    put(leaf.position, leaf.node);
    return;
  }
  release(leaf.position, leaf.node.blockLength);
  if (path.depth() == 1) {
    contents_.root = 0;
    return;
  }
  LogPath::Level& parent = path.level(path.depth() - 2);
  const std::uint32_t keyCount = parent.node.keyCount;
  assert(parent.child <= keyCount);
  removeAt(parent.node.values, keyCount + 1, parent.child);
  if (keyCount > 1) {
    removeAt(parent.node.keys, keyCount, parent.child == 0 ? 0 : parent.child - 1);
    --parent.node.keyCount;
    put(parent.position, parent.node);
    return;
  }
  // An inner node with one child gives way to it.
  release(parent.position, parent.node.blockLength);
  const std::uint64_t child = parent.node.values[0];
  if (path.depth() == 2) {
    contents_.root = child;
    return;
  }
  LogPath::Level& above = path.level(path.depth() - 3);
  above.node.values[above.child] = child;
  put(above.position, above.node);
}

Result LogChange::carryOut(const LogEntry* added) {
  assert(log_.locked());
  return carryOutLogIntent(log_, contents_, added);
}

}  // namespace zelta

// The B+Tree of a log file: nodes, walks, insertion and removal of keys.

#include <algorithm>

#include "transaction/log_file_internal.h"

namespace zelta::log_file {

namespace {

/// Keys that stay in the left part of a node that is split; of an inner node one more rises.
constexpr std::uint32_t kLeftLeafKeys = 20;
constexpr std::uint32_t kLeftInnerKeys = 19;

bool nodeIsSound(const LogNode_tag& node) {
  const bool inner = node.type == NodeType::inner;
  if (!inner && node.type != NodeType::leaf) return false;
  if (node.keyCount == 0 || node.keyCount > kKeysPerNode) return false;
  if (node.blockLength < kNodeSize || node.blockLength >= 2 * kNodeSize) return false;
  return std::is_sorted(node.keys, node.keys + node.keyCount);
}

/// Reads a node to the end of a path.
Result readNode(MetaData& metaData, platform::File file, const LogHeader_tag& header,
                std::uint64_t position, TreePath& path) {
  if (path.depth == kMaximumDepth || position < kHeaderSize || position % 8 != 0 ||
      position > header.endOfLog || header.endOfLog - position < kNodeSize) {
    return logIsBroken(metaData);
  }
  TreePath::Level& level = path.levels[path.depth];
  const SystemCode result = readBuffer(file, position, &level.node, kNodeSize);
  if (result != 0) return reportLogError(metaData, result);
  if (!nodeIsSound(level.node)) return logIsBroken(metaData);
  level.position = position;
  level.child = 0;
  ++path.depth;
  return {};
}

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
struct Pending {
  std::uint32_t key;
  std::uint64_t value;
  std::uint32_t at;
};

void insertInto(LogNode_tag& node, const Pending& pending) {
  const std::uint32_t keyCount = node.keyCount;
  insertAt(node.keys, keyCount, pending.at, pending.key);
  if (node.type == NodeType::leaf) {
    insertAt(node.values, keyCount, pending.at, pending.value);
  } else {
    insertAt(node.values, keyCount + 1, pending.at + 1, pending.value);
  }
  ++node.keyCount;
}

/// Moves keys and values of `node` from the given indexes on to the front of `right`.
void moveTail(LogNode_tag& node, LogNode_tag& right, std::uint32_t firstKey,
              std::uint32_t firstValue, std::uint32_t valueCount) {
  right.type = node.type;
  right.keyCount = static_cast<std::uint16_t>(node.keyCount - firstKey);
  std::copy(node.keys + firstKey, node.keys + node.keyCount, right.keys);
  std::copy(node.values + firstValue, node.values + valueCount, right.values);
  std::fill(node.keys + firstKey, node.keys + node.keyCount, 0u);
  std::fill(node.values + firstValue, node.values + valueCount, std::uint64_t{0});
  node.keyCount = static_cast<std::uint16_t>(firstKey);
}

/// Splits a full leaf and enters the key. Returns the first key of the right part.
std::uint32_t splitLeaf(LogNode_tag& node, LogNode_tag& right, Pending pending) {
  const std::uint32_t separator = node.keys[kLeftLeafKeys];
  moveTail(node, right, kLeftLeafKeys, kLeftLeafKeys, kKeysPerNode);
  if (pending.key >= separator) {
    pending.at -= kLeftLeafKeys;
    insertInto(right, pending);
  } else {
    insertInto(node, pending);
  }
  return separator;
}

/// Splits a full inner node and enters key and child. Returns the key that rises.
std::uint32_t splitInner(LogNode_tag& node, LogNode_tag& right, Pending pending) {
  const std::uint32_t middle = node.keys[kLeftInnerKeys];
  moveTail(node, right, kLeftInnerKeys + 1, kLeftInnerKeys + 1, kKeysPerNode + 1);
  node.keys[kLeftInnerKeys] = 0;
  node.keyCount = kLeftInnerKeys;
  // The new child belongs right behind the one that was split, whatever equal keys there are.
  if (pending.at > kLeftInnerKeys) {
    pending.at -= kLeftInnerKeys + 1;
    insertInto(right, pending);
  } else {
    insertInto(node, pending);
  }
  return middle;
}

Result allocateNode(MetaData& metaData, platform::File file, Change& change, LogNode_tag& node,
                    std::uint64_t* position) {
  node = LogNode_tag{};
  return allocateLogBlock(metaData, file, change, kNodeSize, position, &node.blockLength);
}

void addExtent(FreeExtentNode*& extents, std::uint64_t position, std::uint64_t size) {
  auto* node = new FreeExtentNode;
  node->position = position;
  node->size = size;
  insert(node, extents);
}

}  // namespace

std::uint32_t firstAbove(const LogNode_tag& node, std::uint32_t number) {
  return static_cast<std::uint32_t>(std::upper_bound(node.keys, node.keys + node.keyCount, number) -
                                    node.keys);
}

Result descend(MetaData& metaData, platform::File file, const LogHeader_tag& header,
               std::uint32_t number, TreePath& path) {
  path.depth = 0;
  ZELTA_TRY(readNode(metaData, file, header, header.rootPosition, path));
  while (path.leaf().node.type == NodeType::inner) {
    TreePath::Level& level = path.leaf();
    level.child = firstAbove(level.node, number);
    ZELTA_TRY(readNode(metaData, file, header, level.node.values[level.child], path));
  }
  return {};
}

Result previousLeaf(MetaData& metaData, platform::File file, const LogHeader_tag& header,
                    TreePath& path) {
  --path.depth;
  while (path.depth != 0 && path.leaf().child == 0) --path.depth;
  if (path.depth == 0) return {};
  --path.leaf().child;
  while (path.leaf().node.type == NodeType::inner) {
    TreePath::Level& level = path.leaf();
    ZELTA_TRY(readNode(metaData, file, header, level.node.values[level.child], path));
    path.leaf().child = path.leaf().node.keyCount;
  }
  return {};
}

Result locate(MetaData& metaData, platform::File file, const LogHeader_tag& header,
              std::uint32_t number, std::uint64_t position, TreePath& path, std::uint32_t* slot) {
  path.depth = 0;
  if (header.rootPosition == 0) return {};
  ZELTA_TRY(descend(metaData, file, header, number, path));
  // Entries of one number can lie in several leaves, and removals may have emptied the last one of
  // them.
  while (path.depth != 0) {
    const LogNode_tag& leaf = path.leaf().node;
    for (std::uint32_t i = firstAbove(leaf, number); i-- > 0;) {
      if (leaf.keys[i] != number) {
        path.depth = 0;
        return {};
      }
      if (position == 0 || leaf.values[i] == position) {
        *slot = i;
        return {};
      }
    }
    ZELTA_TRY(previousLeaf(metaData, file, header, path));
  }
  return {};
}

Result insertKey(MetaData& metaData, platform::File file, Change& change, TreePath& path,
                 std::uint32_t number, std::uint64_t position) {
  Pending pending{number, position, firstAbove(path.leaf().node, number)};
  for (std::uint32_t depth = path.depth; depth-- > 0;) {
    TreePath::Level& level = path.levels[depth];
    if (depth + 1 != path.depth) pending.at = level.child;
    if (level.node.keyCount < kKeysPerNode) {
      insertInto(level.node, pending);
      change.put(level.position, level.node);
      return {};
    }
    LogNode_tag right;
    std::uint64_t rightPosition = 0;
    ZELTA_TRY(allocateNode(metaData, file, change, right, &rightPosition));
    pending.key = level.node.type == NodeType::leaf ? splitLeaf(level.node, right, pending)
                                                    : splitInner(level.node, right, pending);
    pending.value = rightPosition;
    change.put(level.position, level.node);
    change.put(rightPosition, right);
  }
  LogNode_tag root;
  std::uint64_t rootPosition = 0;
  ZELTA_TRY(allocateNode(metaData, file, change, root, &rootPosition));
  root.type = NodeType::inner;
  root.keyCount = 1;
  root.keys[0] = pending.key;
  root.values[0] = change.root;
  root.values[1] = pending.value;
  change.put(rootPosition, root);
  change.root = rootPosition;
  return {};
}

void removeKey(Change& change, TreePath& path, std::uint32_t slot, FreeExtentNode*& extents) {
  TreePath::Level& leaf = path.leaf();
  if (leaf.node.keyCount > 1) {
    removeAt(leaf.node.keys, leaf.node.keyCount, slot);
    removeAt(leaf.node.values, leaf.node.keyCount, slot);
    --leaf.node.keyCount;
    change.put(leaf.position, leaf.node);
    return;
  }
  addExtent(extents, leaf.position, leaf.node.blockLength);
  if (path.depth == 1) {
    change.root = 0;
    return;
  }
  TreePath::Level& parent = path.levels[path.depth - 2];
  const std::uint32_t keyCount = parent.node.keyCount;
  removeAt(parent.node.values, keyCount + 1, parent.child);
  if (keyCount > 1) {
    removeAt(parent.node.keys, keyCount, parent.child == 0 ? 0 : parent.child - 1);
    --parent.node.keyCount;
    change.put(parent.position, parent.node);
    return;
  }
  // An inner node with one child gives way to it.
  addExtent(extents, parent.position, parent.node.blockLength);
  const std::uint64_t child = parent.node.values[0];
  if (path.depth == 2) {
    change.root = child;
    return;
  }
  TreePath::Level& above = path.levels[path.depth - 3];
  above.node.values[above.child] = child;
  change.put(above.position, above.node);
}

}  // namespace zelta::log_file

#include "check/check_btree.h"

#include <algorithm>
#include <unordered_set>

namespace zelta::check {

namespace {

constexpr std::uint16_t kBranch = 0x6E69;
constexpr std::uint16_t kLeaf = 0x6C69;
constexpr std::size_t kDeepest = 64;

/// Below 0, 0 or above 0. The first word of a variable key is its length.
int compare(const TreePlace& place, const std::uint32_t* a, const std::uint32_t* b) {
  const std::uint32_t from = place.variable ? 1 : 0;
  const std::uint32_t to = place.variable ? std::min(a[0], b[0]) : place.keyWords;
  for (std::uint32_t i = from; i < to; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  if (!place.variable || a[0] == b[0]) return 0;
  return a[0] < b[0] ? -1 : 1;
}

/// A node as it was read, and how far the walk has come in it.
struct Node {
  std::uint64_t position = 0;
  std::vector<std::uint32_t> words;  ///< the bytes, aligned
  bool leaf = false;
  std::uint32_t count = 0;
  std::vector<std::uint32_t> keys;  ///< byte offsets of the keys
  std::uint32_t keyEnd = 0;
  std::uint32_t nextChild = 0;
  const std::uint32_t* low = nullptr;   ///< no key below it; null: no bound
  const std::uint32_t* high = nullptr;  ///< all keys below it

  [[nodiscard]] const char* bytes() const { return reinterpret_cast<const char*>(words.data()); }
  [[nodiscard]] std::uint64_t size() const { return words.size() * 4; }
  [[nodiscard]] const std::uint32_t* key(std::uint32_t i) const {
    return words.data() + keys[i] / 4;
  }
};

/// A walk without recursion: the path holds a copy of each node on the way down. Bounds go down
/// with it, so that every key is held against all separators above it; leaves are held against the
/// one before. No position is visited twice, so the walk ends whatever the links say.
class TreeWalk {
 public:
  TreeWalk(Findings& findings, CheckFile& file, const TreePlace& place,
           std::vector<Extent>& extents, const EntryVisitor& visit)
      : findings_(findings), file_(file), place_(place), extents_(extents), visit_(visit) {}

  bool run();

 private:
  /// Reports why a node cannot be walked; the tree is not complete then.
  bool fail(std::uint64_t offset, std::string what) {
    findings_.damage(file_, offset, std::move(what));
    complete_ = false;
    return false;
  }
  void wrong(std::uint64_t offset, std::string what) {
    findings_.damage(file_, offset, std::move(what));
  }
  bool read(std::uint64_t position, std::uint64_t linkOffset, Node& node);
  bool readHead(std::uint64_t position, std::uint64_t linkOffset, Node& node);
  bool sizeFits(const Node& node);
  bool findKeys(Node& node);
  void checkRoom(const Node& node);
  void checkKeys(const Node& node);
  void checkLeaf(const Node& node);
  void descend(Node& parent);
  [[nodiscard]] std::uint32_t head(const Node& node) const {
    return (node.leaf ? 24u : 8u) + (place_.variable ? 4u : 0u);
  }
  [[nodiscard]] std::uint64_t pointerBytes(const Node& node) const {
    return node.leaf ? std::uint64_t{place_.idBytes} * node.count
                     : 8 * (std::uint64_t{node.count} + 1);
  }
  [[nodiscard]] std::uint64_t pointerOffset(const Node& node, std::uint32_t i) const {
    return node.size() - std::uint64_t{node.leaf ? place_.idBytes : 8u} * (i + 1);
  }

  Findings& findings_;
  CheckFile& file_;
  const TreePlace& place_;
  std::vector<Extent>& extents_;
  const EntryVisitor& visit_;
  std::vector<Node> path_;
  std::unordered_set<std::uint64_t> seen_;  ///< positions of nodes that were met
  std::size_t leafDepth_ = 0;
  std::uint64_t lastLeaf_ = 0;  ///< the leaf before, and where it says that the next one is
  std::uint64_t lastNext_ = 0;
  bool complete_ = true;
};

bool TreeWalk::run() {
  if (place_.root == 0) return true;
  path_.reserve(kDeepest);
  Node root;
  if (!read(place_.root, place_.rootOffset, root)) return false;
  path_.push_back(std::move(root));
  while (!path_.empty() && !findings_.full()) {
    Node& node = path_.back();
    if (node.leaf) {
      checkLeaf(node);
      path_.pop_back();
    } else if (node.nextChild > node.count) {
      path_.pop_back();
    } else {
      descend(node);
    }
  }
  if (complete_ && lastNext_ != 0) {
    wrong(lastLeaf_ + 16, "last leaf leads to " + text(lastNext_));
  }
  return complete_ && !findings_.full();
}

/// On to the next child of a branch.
void TreeWalk::descend(Node& parent) {
  const std::uint32_t i = parent.nextChild++;
  const std::uint64_t offset = pointerOffset(parent, i);
  const auto child = load<std::uint64_t>(parent.bytes(), offset);
  if (path_.size() == kDeepest) {
    fail(parent.position + offset, "tree is deeper than any can be");
    return;
  }
  Node node;
  node.low = i == 0 ? parent.low : parent.key(i - 1);
  node.high = i == parent.count ? parent.high : parent.key(i);
  const std::uint64_t linkOffset = parent.position + offset;
  if (read(child, linkOffset, node)) path_.push_back(std::move(node));
}

/// Reads a node and checks all that can be seen in it alone; `linkOffset` is where the link to it
/// stands.
bool TreeWalk::read(std::uint64_t position, std::uint64_t linkOffset, Node& node) {
  if (!readHead(position, linkOffset, node)) return false;
  const char* bytes = file_.view(position, node.size());
  if (bytes == nullptr) return fail(linkOffset, "node cannot be read");
  std::memcpy(node.words.data(), bytes, node.size());
  extents_.push_back({position, node.size()});
  ++findings_.counts.pages;
  if (!findKeys(node)) return false;
  checkRoom(node);
  checkKeys(node);
  return true;
}

bool TreeWalk::readHead(std::uint64_t position, std::uint64_t linkOffset, Node& node) {
  constexpr std::uint64_t kHead = 8;
  if (position < place_.from || position >= place_.to || place_.to - position < kHead) {
    return fail(linkOffset, "node " + text(position) + " lies outside");
  }
  if (!seen_.insert(position).second) {
    return fail(linkOffset, "node " + text(position) + " is reached twice");
  }
  const char* bytes = file_.view(position, kHead);
  if (bytes == nullptr) return fail(linkOffset, "node cannot be read");
  node.position = position;
  const auto size = load<std::uint32_t>(bytes, 0);
  const auto tag = load<std::uint16_t>(bytes, 4);
  node.count = load<std::uint16_t>(bytes, 6);
  if (tag != kBranch && tag != kLeaf) return fail(position + 4, "neither branch nor leaf");
  node.leaf = tag == kLeaf;
  const std::uint64_t least = head(node) + pointerBytes(node);
  if (size % 4 != 0 || size > place_.to - position || size < 8) {
    return fail(position, "node of impossible size " + text(size));
  }
  if (least > size) return fail(position + 6, "more keys than the node has room for");
  node.words.resize(size / 4);
  return sizeFits(node);
}

/// All nodes are whole units; the nodes of a tree of fixed keys are of one size.
bool TreeWalk::sizeFits(const Node& node) {
  const std::uint64_t unit = place_.pageSize;
  if (node.size() % unit != 0) return fail(node.position, "size is not a multiple of the unit");
  if (place_.variable) return true;
  const std::uint64_t key = 4 * std::uint64_t{place_.keyWords};
  const std::uint64_t size = (key + (key + 14) * 4 + unit - 1) / unit * unit;
  return node.size() == size || fail(node.position, "node is not " + text(size) + " bytes long");
}

/// Notes where each key begins.
bool TreeWalk::findKeys(Node& node) {
  std::uint64_t at = head(node);
  const std::uint64_t limit = node.size() - pointerBytes(node);
  node.keys.reserve(node.count);
  for (std::uint32_t i = 0; i < node.count; ++i) {
    if (limit - at < 4) return fail(node.position + 6, "more keys than the node has room for");
    const std::uint64_t words = place_.variable ? node.words[at / 4] : place_.keyWords;
    if (place_.variable && words < 2) {
      return fail(node.position + at, "key of impossible length " + text(words));
    }
    if (words * 4 > limit - at) return fail(node.position + at, "key leads out of the node");
    node.keys.push_back(static_cast<std::uint32_t>(at));
    at += words * 4;
  }
  node.keyEnd = static_cast<std::uint32_t>(at);
  return true;
}

/// What lies between keys and pointers is zero, and counted in a node of variable keys.
void TreeWalk::checkRoom(const Node& node) {
  const std::uint64_t end = node.size() - pointerBytes(node);
  if (place_.variable) {
    const std::uint32_t offset = head(node) - 4;
    const auto words = load<std::uint32_t>(node.bytes(), offset);
    if (words != (end - node.keyEnd) / 4) {
      wrong(node.position + offset,
            "count of free words is " + text(words) + ", not " + text((end - node.keyEnd) / 4));
    }
  }
  for (std::uint64_t at = node.keyEnd; at < end; ++at) {
    if (node.bytes()[at] == 0) continue;
    return wrong(node.position + at, "the room between keys and pointers is not zero");
  }
}

void TreeWalk::checkKeys(const Node& node) {
  for (std::uint32_t i = 0; i < node.count; ++i) {
    const std::uint64_t offset = node.position + node.keys[i];
    if (i != 0 && compare(place_, node.key(i - 1), node.key(i)) >= 0) {
      wrong(offset, "keys do not ascend");
    } else if (node.low != nullptr && compare(place_, node.key(i), node.low) < 0) {
      wrong(offset, "key is below the separator in front of its node");
    } else if (node.high != nullptr && compare(place_, node.key(i), node.high) >= 0) {
      wrong(offset, "key is not below the separator behind its node");
    } else {
      continue;
    }
    return;
  }
}

void TreeWalk::checkLeaf(const Node& node) {
  if (leafDepth_ == 0) leafDepth_ = path_.size();
  if (leafDepth_ != path_.size()) wrong(node.position + 4, "leaf at another depth");
  if (node.count == 0) wrong(node.position + 6, "leaf without keys");
  const auto previous = load<std::uint64_t>(node.bytes(), 8);
  if (complete_ && previous != lastLeaf_) {
    wrong(node.position + 8, "previous leaf is " + text(previous) + ", not " + text(lastLeaf_));
  }
  if (complete_ && lastLeaf_ != 0 && lastNext_ != node.position) {
    wrong(lastLeaf_ + 16, "next leaf is " + text(lastNext_) + ", not " + text(node.position));
  }
  lastLeaf_ = node.position;
  lastNext_ = load<std::uint64_t>(node.bytes(), 16);
  for (std::uint32_t i = 0; i < node.count; ++i) {
    std::uint64_t id = 0;
    std::memcpy(&id, node.bytes() + pointerOffset(node, i), place_.idBytes);
    const std::uint32_t* key = node.key(i);
    visit_({key, place_.variable ? key[0] : place_.keyWords, id, node.position + node.keys[i]});
  }
}

}  // namespace

bool checkBPlusTree(Findings& findings, CheckFile& file, const TreePlace& place,
                    std::vector<Extent>& extents, const EntryVisitor& visit) {
  return TreeWalk(findings, file, place, extents, visit).run();
}

}  // namespace zelta::check

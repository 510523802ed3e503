#include "check/check_rtree.h"

#include <algorithm>
#include <array>
#include <unordered_set>

namespace zelta::check {

namespace {

constexpr std::uint16_t kBranch = 0x6E69;
constexpr std::uint16_t kLeaf = 0x6C69;
constexpr std::uint64_t kHead = 8;
constexpr std::uint64_t kChild = 8;
constexpr std::size_t kDeepest = 64;
constexpr std::size_t kMostAxes = 3;

/// The coordinates of keys: all lower ones, then all upper ones.
struct Coordinates {
  std::uint32_t axes;
  std::uint32_t bytes;  ///< of one
  bool isSigned;
};

/// Bounds in numbers that stand in the order of the coordinates, whatever these are.
struct Bounds {
  std::array<std::uint64_t, kMostAxes> lower{};
  std::array<std::uint64_t, kMostAxes> upper{};

  friend bool operator==(const Bounds&, const Bounds&) = default;

  void join(const Bounds& other) {
    for (std::size_t a = 0; a < kMostAxes; ++a) {
      lower[a] = std::min(lower[a], other.lower[a]);
      upper[a] = std::max(upper[a], other.upper[a]);
    }
  }
  [[nodiscard]] bool isInsideOut() const {
    for (std::size_t a = 0; a < kMostAxes; ++a) {
      if (upper[a] < lower[a]) return true;
    }
    return false;
  }
};

/// A node as it was read, and how far the walk has come in it.
struct Node {
  std::uint64_t position = 0;
  std::vector<std::uint32_t> words;  ///< the bytes, aligned
  bool leaf = false;
  std::uint32_t count = 0;
  std::uint32_t nextChild = 0;
  Bounds bounds;

  [[nodiscard]] const char* bytes() const { return reinterpret_cast<const char*>(words.data()); }
  [[nodiscard]] std::uint64_t size() const { return words.size() * 4; }
};

/// A walk without recursion: the path holds a copy of each node on the way down. No position is
/// visited twice, so the walk ends whatever the links say.
class TreeWalk {
 public:
  TreeWalk(Findings& findings, CheckFile& file, const TreePlace& place,
           const Coordinates& coordinates, std::vector<Extent>& extents, const EntryVisitor& visit)
      : findings_(findings),
        file_(file),
        place_(place),
        coordinates_(coordinates),
        extents_(extents),
        visit_(visit) {}

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
  void checkRoom(const Node& node);
  void measure(Node& node);
  void checkLeaf(const Node& node);
  void descend(Node& parent);
  [[nodiscard]] Bounds boundsAt(const Node& node, std::uint32_t i) const;
  [[nodiscard]] std::uint64_t keyBytes() const { return std::uint64_t{place_.keyWords} * 4; }
  [[nodiscard]] std::uint64_t valueBytes(const Node& node) const {
    return node.leaf ? place_.idBytes : kChild;
  }
  [[nodiscard]] std::uint64_t keyOffset(std::uint32_t i) const { return kHead + keyBytes() * i; }
  [[nodiscard]] std::uint64_t valueOffset(const Node& node, std::uint32_t i) const {
    return node.size() - valueBytes(node) * (std::uint64_t{i} + 1);
  }

  Findings& findings_;
  CheckFile& file_;
  const TreePlace& place_;
  const Coordinates& coordinates_;
  std::vector<Extent>& extents_;
  const EntryVisitor& visit_;
  std::vector<Node> path_;
  std::unordered_set<std::uint64_t> seen_;  ///< positions of nodes that were met
  std::size_t leafDepth_ = 0;
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
    if (!node.leaf && node.nextChild < node.count) {
      descend(node);
      continue;
    }
    if (node.leaf) checkLeaf(node);
    path_.pop_back();
  }
  return complete_ && !findings_.full();
}

/// On to the next child of a branch.
void TreeWalk::descend(Node& parent) {
  const std::uint32_t i = parent.nextChild++;
  const std::uint64_t offset = valueOffset(parent, i);
  const auto child = load<std::uint64_t>(parent.bytes(), offset);
  const std::uint64_t linkOffset = parent.position + offset;
  if (path_.size() == kDeepest) {
    fail(linkOffset, "tree is deeper than any can be");
    return;
  }
  Node node;
  if (!read(child, linkOffset, node)) return;
  if (node.count != 0 && node.bounds != boundsAt(parent, i)) {
    wrong(parent.position + keyOffset(i), "bounds are not those of node " + text(child));
  }
  path_.push_back(std::move(node));
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
  checkRoom(node);
  measure(node);
  return true;
}

bool TreeWalk::readHead(std::uint64_t position, std::uint64_t linkOffset, Node& node) {
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
  if (size % 4 != 0 || size > place_.to - position || size < kHead) {
    return fail(position, "node of impossible size " + text(size));
  }
  if (kHead + (keyBytes() + valueBytes(node)) * node.count > size) {
    return fail(position + 6, "more entries than the node has room for");
  }
  // A block of the file that was a little larger was taken whole.
  constexpr std::uint64_t kSpare = 32;
  const std::uint64_t unit = place_.pageSize;
  const std::uint64_t whole = (48 + 5 * keyBytes() + unit - 1) / unit * unit;
  if (size < whole || size >= whole + kSpare) {
    return fail(position, "node is not " + text(whole) + " bytes long");
  }
  if (node.count == 0) wrong(position + 6, "node without entries");
  node.words.resize(size / 4);
  return true;
}

/// What lies between keys and values is zero.
void TreeWalk::checkRoom(const Node& node) {
  const std::uint64_t end = node.size() - valueBytes(node) * node.count;
  for (std::uint64_t at = keyOffset(node.count); at < end; ++at) {
    if (node.bytes()[at] == 0) continue;
    return wrong(node.position + at, "the room between keys and values is not zero");
  }
}

Bounds TreeWalk::boundsAt(const Node& node, std::uint32_t i) const {
  const auto coordinate = [&](std::uint32_t number) -> std::uint64_t {
    const std::uint64_t at = keyOffset(i) + std::uint64_t{number} * coordinates_.bytes;
    if (coordinates_.bytes == 8) return load<std::uint64_t>(node.bytes(), at);
    constexpr std::uint32_t kSign = 0x80000000;
    return load<std::uint32_t>(node.bytes(), at) ^ (coordinates_.isSigned ? kSign : 0);
  };
  Bounds bounds;
  for (std::uint32_t a = 0; a < coordinates_.axes; ++a) {
    bounds.lower[a] = coordinate(a);
    bounds.upper[a] = coordinate(a + coordinates_.axes);
  }
  return bounds;
}

void TreeWalk::measure(Node& node) {
  for (std::uint32_t i = 0; i < node.count; ++i) {
    const Bounds bounds = boundsAt(node, i);
    if (bounds.isInsideOut()) wrong(node.position + keyOffset(i), "bounds are inside out");
    if (i == 0) {
      node.bounds = bounds;
    } else {
      node.bounds.join(bounds);
    }
  }
}

void TreeWalk::checkLeaf(const Node& node) {
  if (leafDepth_ == 0) leafDepth_ = path_.size();
  if (leafDepth_ != path_.size()) wrong(node.position + 4, "leaf at another depth");
  for (std::uint32_t i = 0; i < node.count; ++i) {
    std::uint64_t id = 0;
    std::memcpy(&id, node.bytes() + valueOffset(node, i), place_.idBytes);
    visit_(
        {node.words.data() + keyOffset(i) / 4, place_.keyWords, id, node.position + keyOffset(i)});
  }
}

}  // namespace

bool checkSpatialTree(Findings& findings, CheckFile& file, const TreePlace& place,
                      std::vector<Extent>& extents, const EntryVisitor& visit) {
  const Coordinates coordinates = {place.keyWords / 2, 4, true};
  return TreeWalk(findings, file, place, coordinates, extents, visit).run();
}

bool checkTemporalTree(Findings& findings, CheckFile& file, const TreePlace& place,
                       std::vector<Extent>& extents, const EntryVisitor& visit) {
  const Coordinates coordinates = {1, place.keyWords * 2, false};
  return TreeWalk(findings, file, place, coordinates, extents, visit).run();
}

}  // namespace zelta::check

#include "check/check_rtree.h"

#include <algorithm>
#include <array>

#include "check/check_tree.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHead = 8;
constexpr std::size_t kMostAxes = 3;

/// What keys are made of. Bounds are all lower coordinates, then all upper ones.
struct Coordinates {
  std::uint32_t axes;
  std::uint32_t bytes;  ///< of one
  bool isSigned;
  bool points = false;  ///< in leaves: one coordinate for each axis
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

struct BoundsNode : TreeNode {
  Bounds bounds;
};

class BoundsWalk final : public TreeWalk<BoundsNode> {
 public:
  BoundsWalk(const WalkContext& context, const Coordinates& coordinates)
      : TreeWalk(context), coordinates_(coordinates) {}

 private:
  bool fits(const BoundsNode& node, const PageHead& head) override;
  bool examine(BoundsNode& node, const BoundsNode* parent, std::uint32_t number) override;
  [[nodiscard]] std::uint32_t childCount(const BoundsNode& branch) const override {
    return branch.count;
  }
  void visitLeaf(const BoundsNode& leaf) override;

  void checkRoom(const BoundsNode& node);
  void measure(BoundsNode& node);
  [[nodiscard]] Bounds boundsAt(const BoundsNode& node, std::uint32_t i) const;
  [[nodiscard]] std::uint64_t entryBytes() const { return std::uint64_t{place_.keyWords} * 4; }
  [[nodiscard]] std::uint64_t keyBytes(const BoundsNode& node) const {
    return node.leaf ? entryBytes() : std::uint64_t{2} * coordinates_.axes * coordinates_.bytes;
  }
  [[nodiscard]] std::uint64_t valueBytes(const BoundsNode& node) const {
    return node.leaf ? place_.idBytes : 8;
  }
  [[nodiscard]] std::uint64_t keyOffset(const BoundsNode& node, std::uint32_t i) const {
    return kHead + keyBytes(node) * i;
  }

  const Coordinates coordinates_;
};

bool BoundsWalk::fits(const BoundsNode& node, const PageHead& head) {
  // A block of the file that was a little larger was taken whole.
  constexpr std::uint64_t kSpare = 32;
  const std::uint64_t unit = place_.pageSize;
  const std::uint64_t whole = (48 + 5 * entryBytes() + unit - 1) / unit * unit;
  if (head.size < whole || head.size >= whole + kSpare) {
    return fail(head.position, "node is not " + text(whole) + " bytes long");
  }
  if (kHead + (keyBytes(node) + valueBytes(node)) * node.count > head.size) {
    return fail(head.position + 6, "more entries than the node has room for");
  }
  return true;
}

bool BoundsWalk::examine(BoundsNode& node, const BoundsNode* parent, std::uint32_t number) {
  if (node.count == 0) wrong(node.position + 6, "node without entries");
  checkRoom(node);
  measure(node);
  if (parent != nullptr && node.count != 0 && node.bounds != boundsAt(*parent, number)) {
    wrong(parent->position + keyOffset(*parent, number),
          "bounds are not those of node " + text(node.position));
  }
  return true;
}

/// What lies between keys and values is zero.
void BoundsWalk::checkRoom(const BoundsNode& node) {
  const std::uint64_t end = node.size() - valueBytes(node) * node.count;
  for (std::uint64_t at = keyOffset(node, node.count); at < end; ++at) {
    if (node.bytes()[at] == 0) continue;
    return wrong(node.position + at, "the room between keys and values is not zero");
  }
}

Bounds BoundsWalk::boundsAt(const BoundsNode& node, std::uint32_t i) const {
  const auto coordinate = [&](std::uint32_t number) -> std::uint64_t {
    const std::uint64_t at = keyOffset(node, i) + std::uint64_t{number} * coordinates_.bytes;
    if (coordinates_.bytes == 8) return load<std::uint64_t>(node.bytes(), at);
    constexpr std::uint32_t kSign = 0x80000000;
    return load<std::uint32_t>(node.bytes(), at) ^ (coordinates_.isSigned ? kSign : 0);
  };
  const bool point = node.leaf && coordinates_.points;
  Bounds bounds;
  for (std::uint32_t a = 0; a < coordinates_.axes; ++a) {
    bounds.lower[a] = coordinate(a);
    bounds.upper[a] = coordinate(point ? a : a + coordinates_.axes);
  }
  return bounds;
}

void BoundsWalk::measure(BoundsNode& node) {
  for (std::uint32_t i = 0; i < node.count; ++i) {
    const Bounds bounds = boundsAt(node, i);
    if (bounds.isInsideOut()) wrong(node.position + keyOffset(node, i), "bounds are inside out");
    if (i == 0) {
      node.bounds = bounds;
    } else {
      node.bounds.join(bounds);
    }
  }
}

void BoundsWalk::visitLeaf(const BoundsNode& leaf) {
  for (std::uint32_t i = 0; i < leaf.count; ++i) {
    std::uint64_t id = 0;
    const std::uint64_t value = leaf.size() - valueBytes(leaf) * (std::uint64_t{i} + 1);
    std::memcpy(&id, leaf.bytes() + value, place_.idBytes);
    const std::uint32_t* key = leaf.words.data() + keyOffset(leaf, i) / 4;
    visit_({hashKey(key, place_.keyWords), id, leaf.position + keyOffset(leaf, i)});
  }
}

}  // namespace

bool checkSpatialTree(const WalkContext& context) {
  return BoundsWalk(context, {context.place.keyWords / 2, 4, true}).run();
}

bool checkTemporalTree(const WalkContext& context) {
  return BoundsWalk(context, {1, context.place.keyWords * 2, false}).run();
}

bool checkPatternTree(const WalkContext& context) {
  const std::uint32_t rows = context.place.manyEntries ? 1 : 0;
  return BoundsWalk(context, {context.place.keyWords - rows, 4, true, true}).run();
}

}  // namespace zelta::check

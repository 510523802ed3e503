#include "check/check_ordered.h"

namespace zelta::check {

namespace {

// In a leaf
constexpr std::uint64_t kPrevious = 8;
constexpr std::uint64_t kNext = 16;

}  // namespace

bool OrderedWalk::fits(const OrderedNode& node, const PageHead& page) {
  if (head(node) + tail(node) > page.size) {
    return fail(page.position + 6, "more keys than the node has room for");
  }
  return sizeFits(page);
}

bool OrderedWalk::examine(OrderedNode& node, const OrderedNode* parent, std::uint32_t number) {
  if (parent != nullptr) {
    node.low = number == 0 ? parent->low : parent->key(number - 1);
    node.high = number == parent->count ? parent->high : parent->key(number);
  }
  if (!findKeys(node)) return false;
  checkRoom(node);
  checkKeys(node);
  return true;
}

/// Notes where each key begins.
bool OrderedWalk::findKeys(OrderedNode& node) {
  std::uint64_t at = head(node);
  const std::uint64_t limit = node.size() - tail(node);
  node.keys.reserve(node.count);
  for (std::uint32_t i = 0; i < node.count; ++i) {
    const std::uint64_t bytes = keyBytes(node, at, limit - at);
    if (bytes == 0) return false;
    node.keys.push_back(static_cast<std::uint32_t>(at));
    at += bytes;
  }
  node.keyEnd = static_cast<std::uint32_t>(at);
  return true;
}

/// What lies between keys and values is zero, and counted if the kind counts it.
void OrderedWalk::checkRoom(const OrderedNode& node) {
  const std::uint64_t end = node.size() - tail(node);
  if (form_.freeUnit != 0) {
    const std::uint32_t offset = head(node) - 4;
    const auto counted = load<std::uint32_t>(node.bytes(), offset);
    const std::uint64_t free = (end - node.keyEnd) / form_.freeUnit;
    if (counted != free) {
      wrong(node.position + offset, "free room is " + text(free) + ", not " + text(counted));
    }
  }
  for (std::uint64_t at = node.keyEnd; at < end; ++at) {
    if (node.bytes()[at] == 0) continue;
    return wrong(node.position + at, "the room between keys and values is not zero");
  }
}

void OrderedWalk::checkKeys(const OrderedNode& node) {
  for (std::uint32_t i = 0; i < node.count; ++i) {
    const std::uint64_t offset = node.position + node.keys[i];
    if (i != 0 && compare(node.key(i - 1), node.key(i)) >= 0) {
      wrong(offset, "keys do not ascend");
    } else if (node.low != nullptr && compare(node.key(i), node.low) < 0) {
      wrong(offset, "key is below the separator in front of its node");
    } else if (node.high != nullptr && compare(node.key(i), node.high) >= 0) {
      wrong(offset, "key is not below the separator behind its node");
    } else {
      continue;
    }
    return;
  }
}

void OrderedWalk::checkLinks(const OrderedNode& leaf) {
  const auto previous = load<std::uint64_t>(leaf.bytes(), kPrevious);
  if (complete_ && previous != lastLeaf_) {
    wrong(leaf.position + kPrevious,
          "previous leaf is " + text(previous) + ", not " + text(lastLeaf_));
  }
  if (complete_ && lastLeaf_ != 0 && lastNext_ != leaf.position) {
    wrong(lastLeaf_ + kNext, "next leaf is " + text(lastNext_) + ", not " + text(leaf.position));
  }
  lastLeaf_ = leaf.position;
  lastNext_ = load<std::uint64_t>(leaf.bytes(), kNext);
}

void OrderedWalk::visitLeaf(const OrderedNode& leaf) {
  if (leaf.count == 0) wrong(leaf.position + 6, "leaf without keys");
  checkLinks(leaf);
  for (std::uint32_t i = 0; i < leaf.count; ++i) visitEntry(leaf, i);
}

void OrderedWalk::finish() {
  if (lastNext_ != 0) wrong(lastLeaf_ + kNext, "last leaf leads to " + text(lastNext_));
}

}  // namespace zelta::check

// The shape of trees, node by node, against a second form of the rules that knows nothing of pages:
// nodes are vectors here, and every rule stands as it is told, not as it is made fast.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <utility>

#include "index/tree_model.h"

namespace zelta::testing {
namespace {

struct PlainNode {
  bool leaf = true;
  std::uint64_t bytes = 0;
  std::uint64_t position = 0;  ///< of the real node, as the last comparison has found it
  bool moved = false;          ///< it has grown since, and lies elsewhere
  std::vector<Words> keys;
  std::vector<std::uint64_t> ids;
  std::vector<std::unique_ptr<PlainNode>> children;
};
using NodePointer = std::unique_ptr<PlainNode>;

class PlainTree {
 public:
  explicit PlainTree(const TreeForm& form) : form_(form) {}

  void insert(const Words& key, std::uint64_t id);
  void remove(const Words& key);
  [[nodiscard]] PlainNode* root() const { return root_.get(); }
  /// Of two joined nodes the one that lies lower stays, with its size. Where that is not known,
  /// since one has moved in the same removal, the tree must learn() the outcome.
  [[nodiscard]] bool isUnsure() const { return unsure_; }
  void learn(TreeBench& bench) {
    root_ = bench.root() == 0 ? nullptr : nodeAt(bench, bench.root());
    unsure_ = false;
  }

 private:
  struct Step {
    PlainNode* node;
    std::size_t child;
  };
  [[nodiscard]] NodePointer nodeAt(TreeBench& bench, std::uint64_t position) const;
  [[nodiscard]] std::uint64_t idBytes() const { return form_.wideIds ? 8 : 4; }
  /// Words of a key as it is stored.
  [[nodiscard]] std::uint64_t words(const Words& key) const {
    return key.size() + (form_.variable ? 1 : 0);
  }
  [[nodiscard]] std::uint64_t rounded(std::uint64_t bytes) const {
    return (bytes + form_.pageSize - 1) / form_.pageSize * form_.pageSize;
  }
  [[nodiscard]] std::uint64_t firstBytes(const Words& key) const {
    const std::uint64_t k = form_.keyWords;
    if (!form_.variable) return rounded(4 * k + (4 * k + 14) * 4);
    return rounded(words(key) > k ? (words(key) + 4 * k) * 4 + 60 : k * 5 * 4 + 60);
  }
  [[nodiscard]] std::uint64_t entryBytes(const PlainNode& node, const Words& key) const {
    return words(key) * 4 + (node.leaf ? idBytes() : 8);
  }
  [[nodiscard]] std::uint64_t entries(const PlainNode& node) const {
    std::uint64_t bytes = 0;
    for (const Words& key : node.keys) bytes += entryBytes(node, key);
    return bytes;
  }
  [[nodiscard]] std::uint64_t head(const PlainNode& node) const {
    return form_.variable ? (node.leaf ? 28 : 20) : (node.leaf ? 24 : 16);
  }
  [[nodiscard]] bool fits(const PlainNode& node, const Words& key) const {
    return node.bytes >= head(node) + entries(node) + entryBytes(node, key);
  }
  [[nodiscard]] std::vector<Step> descend(const Words& key) const;

  NodePointer splitFixed(PlainNode& node, Words key, std::uint64_t id, NodePointer child);
  NodePointer splitVariable(PlainNode& node, const Words& key, std::uint64_t id, NodePointer child,
                            bool* newIsLower);
  [[nodiscard]] std::size_t lowerShare(const std::vector<std::uint64_t>& sizes) const;
  [[nodiscard]] std::uint64_t partBytes(const PlainNode& part) const;
  static void put(PlainNode& node, const Words& key, std::uint64_t id, NodePointer child);
  static void moveTop(PlainNode& from, PlainNode& to, std::size_t keys);

  void replaceSeparator(PlainNode& parent, std::size_t number, const Words& key);
  static void dropChild(PlainNode& parent, std::size_t child);
  [[nodiscard]] bool fillBelow(const PlainNode& node, std::uint64_t percent) const;
  bool join(PlainNode& parent, std::size_t left);
  void share(PlainNode& parent, std::size_t left);
  bool balance(PlainNode& parent, std::size_t child);

  TreeForm form_;
  NodePointer root_;
  bool leftEdge_ = false;
  bool rightEdge_ = false;
  bool unsure_ = false;
  Words separator_;  ///< that a split hands up
};

std::vector<PlainTree::Step> PlainTree::descend(const Words& key) const {
  std::vector<Step> path;
  PlainNode* node = root_.get();
  for (;;) {
    std::size_t child = 0;
    while (child < node->keys.size() && !(key < node->keys[child])) ++child;
    path.push_back({node, child});
    if (node->leaf) return path;
    node = node->children[child].get();
  }
}

/// At its place; a child stands to the right of its key.
void PlainTree::put(PlainNode& node, const Words& key, std::uint64_t id, NodePointer child) {
  const auto at = std::lower_bound(node.keys.begin(), node.keys.end(), key) - node.keys.begin();
  node.keys.insert(node.keys.begin() + at, key);
  if (node.leaf) {
    node.ids.insert(node.ids.begin() + at, id);
  } else {
    node.children.insert(node.children.begin() + at + 1, std::move(child));
  }
}

void PlainTree::moveTop(PlainNode& from, PlainNode& to, std::size_t keys) {
  const auto move = [](auto& source, auto& target, std::size_t count) {
    const auto first = source.end() - static_cast<std::ptrdiff_t>(count);
    target.insert(target.begin(), std::make_move_iterator(first),
                  std::make_move_iterator(source.end()));
    source.erase(first, source.end());
  };
  move(from.keys, to.keys, keys);
  if (from.leaf) {
    move(from.ids, to.ids, keys);
  } else {
    move(from.children, to.children, keys + 1);
  }
}

// -- Inserting ------------------------------------------------------------------------------------

NodePointer PlainTree::splitFixed(PlainNode& node, Words key, std::uint64_t id, NodePointer child) {
  auto fresh = std::make_unique<PlainNode>();
  fresh->leaf = node.leaf;
  fresh->bytes = firstBytes(key);
  const std::uint64_t c = node.keys.size();
  const std::uint64_t a = node.bytes;
  const std::uint64_t b = fresh->bytes;
  const std::uint64_t bound = (b - head(node)) / entryBytes(node, key) - 1;
  std::uint64_t m = c * b / (a + b);
  if (rightEdge_) m = c * b / ((a + b) * 2);
  if (leftEdge_) m = c * b * 2 / (a + b);
  if (node.leaf && m == 0) m = 1;
  if (!rightEdge_) m = std::min({m, bound, c - 1});
  moveTop(node, *fresh, m);
  if (node.leaf) {
    separator_ = fresh->keys.front();
  } else {
    separator_ = node.keys.back();
    node.keys.pop_back();
  }
  put(separator_ < key ? *fresh : node, key, id, std::move(child));
  return fresh;
}

/// How many keys of these sizes in words, the new one among them, the lower leaf gets.
std::size_t PlainTree::lowerShare(const std::vector<std::uint64_t>& sizes) const {
  const std::uint64_t total = std::accumulate(sizes.begin(), sizes.end(), std::uint64_t{0});
  const std::uint64_t target = rightEdge_ ? total - total / 4 : leftEdge_ ? total / 4 : total / 2;
  std::uint64_t sum = 0;
  std::size_t lower = 0;
  while (sum + sizes[lower] < target) sum += sizes[lower++];
  if (sum + sizes[lower] - target < target - sum) ++lower;
  return std::clamp<std::size_t>(lower, 1, sizes.size() - 1);
}

std::uint64_t PlainTree::partBytes(const PlainNode& part) const {
  const std::uint64_t pointer = part.leaf ? idBytes() : 8;
  std::uint64_t bytes = entries(part) + head(part);
  for (std::size_t n = part.keys.size(); n < 5; ++n) bytes += form_.keyWords * 4 + pointer - 4;
  if (!part.leaf) bytes = std::max<std::uint64_t>(bytes, (form_.keyWords + 3) * 20);
  return (bytes / form_.pageSize + 1) * form_.pageSize;
}

NodePointer PlainTree::splitVariable(PlainNode& node, const Words& key, std::uint64_t id,
                                     NodePointer child, bool* newIsLower) {
  put(node, key, id, std::move(child));
  const std::size_t c = node.keys.size();
  std::size_t lower = leftEdge_ ? c / 4 : rightEdge_ ? c - c / 4 : c / 2;
  lower = std::clamp<std::size_t>(lower, 1, c - 1);
  if (node.leaf) {
    std::vector<std::uint64_t> sizes;
    for (const Words& each : node.keys) sizes.push_back(entryBytes(node, each) / 4);
    lower = lowerShare(sizes);
  }
  auto upper = std::make_unique<PlainNode>();
  upper->leaf = node.leaf;
  moveTop(node, *upper, node.leaf ? c - lower : c - lower - 1);
  if (node.leaf) {
    separator_ = upper->keys.front();
  } else {
    separator_ = node.keys.back();
    node.keys.pop_back();
  }
  const std::uint64_t room = node.bytes - head(node);
  const bool tooLarge = node.leaf ? entries(node) >= room : entries(node) > room;
  *newIsLower = tooLarge && entries(*upper) <= room;
  upper->bytes = *newIsLower ? node.bytes : partBytes(*upper);
  if (*newIsLower) node.bytes = partBytes(node);
  return upper;
}

void PlainTree::insert(const Words& key, std::uint64_t id) {
  if (!root_) {
    root_ = std::make_unique<PlainNode>();
    root_->bytes = firstBytes(key);
    put(*root_, key, id, nullptr);
    return;
  }
  std::vector<Step> path = descend(key);
  const auto all = [&](auto good) { return std::all_of(path.begin(), path.end() - 1, good); };
  const bool first = all([](const Step& step) { return step.child == 0; });
  const bool last = all([](const Step& step) { return step.child == step.node->keys.size(); });
  leftEdge_ = first && !last;
  rightEdge_ = last && !first;
  Words pending = key;
  NodePointer child;
  for (; !path.empty(); path.pop_back()) {
    PlainNode& node = *path.back().node;
    if (!fits(node, pending) && form_.variable && !node.leaf && node.keys.size() < 2) {
      node.bytes = rounded(head(node) + entries(node) + entryBytes(node, pending) + 4);
    }
    if (fits(node, pending)) return put(node, pending, id, std::move(child));
    bool newIsLower = false;  // in vectors the lower part stays where it is, whoever has the page
    child = form_.variable ? splitVariable(node, pending, id, std::move(child), &newIsLower)
                           : splitFixed(node, pending, id, std::move(child));
    pending = separator_;
  }
  auto top = std::make_unique<PlainNode>();
  top->leaf = false;
  top->bytes = firstBytes(pending);
  top->children.push_back(std::move(root_));
  put(*top, pending, 0, std::move(child));
  root_ = std::move(top);
}

// -- Removing -------------------------------------------------------------------------------------

/// A branch that has no room for a longer separator grows.
void PlainTree::replaceSeparator(PlainNode& parent, std::size_t number, const Words& key) {
  parent.keys[number] = key;
  if (head(parent) + entries(parent) <= parent.bytes) return;
  parent.bytes = rounded(parent.bytes + words(key) * 4);
  parent.moved = true;
}

void PlainTree::dropChild(PlainNode& parent, std::size_t child) {
  parent.children.erase(parent.children.begin() + static_cast<std::ptrdiff_t>(child));
  if (parent.keys.empty()) return;
  parent.keys.erase(parent.keys.begin() + static_cast<std::ptrdiff_t>(child == 0 ? 0 : child - 1));
}

bool PlainTree::fillBelow(const PlainNode& node, std::uint64_t percent) const {
  // The first child of a fixed branch counts on both sides.
  const std::uint64_t first = !form_.variable && !node.leaf ? 8 : 0;
  return (entries(node) + first) * 100 < (node.bytes - head(node) + first) * percent;
}

/// The keys of two neighbours; between those of branches stands their separator.
std::vector<Words> keysOfBoth(const PlainNode& parent, std::size_t left) {
  std::vector<Words> keys = parent.children[left]->keys;
  if (!parent.children[left]->leaf) keys.push_back(parent.keys[left]);
  const std::vector<Words>& more = parent.children[left + 1]->keys;
  keys.insert(keys.end(), more.begin(), more.end());
  return keys;
}

template <class Thing>
std::vector<Thing> joined(std::vector<Thing>& a, std::vector<Thing>& b) {
  std::vector<Thing> out;
  for (auto* part : {&a, &b}) {
    for (Thing& thing : *part) out.push_back(std::move(thing));
  }
  return out;
}

bool PlainTree::join(PlainNode& parent, std::size_t left) {
  PlainNode& a = *parent.children[left];
  PlainNode& b = *parent.children[left + 1];
  const PlainNode& kept = a.position < b.position ? a : b;
  PlainNode both;
  both.leaf = a.leaf;
  both.bytes = kept.bytes;
  both.position = kept.position;
  both.keys = keysOfBoth(parent, left);
  if ((a.moved || b.moved) && a.bytes != b.bytes) {
    PlainNode larger;
    larger.leaf = both.leaf;
    larger.bytes = std::max(a.bytes, b.bytes);
    larger.keys = both.keys;
    unsure_ = unsure_ || fillBelow(larger, 80);
  }
  if (!fillBelow(both, 80)) return false;
  both.ids = joined(a.ids, b.ids);
  both.children = joined(a.children, b.children);
  *parent.children[left] = std::move(both);
  dropChild(parent, left + 1);
  return true;
}

void PlainTree::share(PlainNode& parent, std::size_t left) {
  PlainNode& a = *parent.children[left];
  PlainNode& b = *parent.children[left + 1];
  const std::size_t total = a.keys.size() + b.keys.size();
  const std::size_t keep = (total * a.bytes + (a.bytes + b.bytes) / 2) / (a.bytes + b.bytes);
  if (keep == a.keys.size() || (a.leaf && (keep == 0 || keep == total))) return;
  const std::vector<Words> keys = keysOfBoth(parent, left);
  const auto middle = keys.begin() + static_cast<std::ptrdiff_t>(keep);
  PlainNode lower;
  PlainNode upper;
  lower.leaf = upper.leaf = a.leaf;
  lower.keys.assign(keys.begin(), middle);
  upper.keys.assign(middle + (a.leaf ? 0 : 1), keys.end());
  if (head(a) + entries(lower) > a.bytes || head(b) + entries(upper) > b.bytes) return;
  const auto divide = [](auto& first, auto& second, std::size_t count) {
    auto all = joined(first, second);
    const auto end = all.begin() + static_cast<std::ptrdiff_t>(count);
    first.assign(std::make_move_iterator(all.begin()), std::make_move_iterator(end));
    second.assign(std::make_move_iterator(end), std::make_move_iterator(all.end()));
  };
  if (a.leaf) {
    divide(a.ids, b.ids, keep);
  } else {
    divide(a.children, b.children, keep + 1);
  }
  a.keys = lower.keys;
  b.keys = upper.keys;
  replaceSeparator(parent, left, *middle);
}

/// Whether the parent has lost a child.
bool PlainTree::balance(PlainNode& parent, std::size_t child) {
  const PlainNode& node = *parent.children[child];
  if (!fillBelow(node, 40)) return false;
  const bool many = form_.variable && node.leaf && node.keys.size() >= 6;
  if (!many && child < parent.keys.size() && join(parent, child)) return true;
  if (!many && child > 0 && join(parent, child - 1)) return true;
  if (parent.keys.empty() || !fillBelow(node, 10)) return false;
  share(parent, child < parent.keys.size() ? child : child - 1);
  return false;
}

void PlainTree::remove(const Words& key) {
  std::vector<Step> path = descend(key);
  PlainNode& leaf = *path.back().node;
  const auto at = std::lower_bound(leaf.keys.begin(), leaf.keys.end(), key) - leaf.keys.begin();
  leaf.keys.erase(leaf.keys.begin() + at);
  leaf.ids.erase(leaf.ids.begin() + at);
  // The leaf's first key that follows, be it in this leaf or in the next one.
  std::vector<const PlainNode*> leaves;
  const std::function<void(const PlainNode&)> collect = [&](const PlainNode& node) {
    if (node.leaf) leaves.push_back(&node);
    for (const NodePointer& child : node.children) collect(*child);
  };
  collect(*root_);
  auto next = std::find(leaves.begin(), leaves.end(), &leaf);
  while (next != leaves.end() && (*next)->keys.empty()) ++next;
  for (const Step& step : path) {
    if (step.node->leaf) continue;
    const auto equal = std::find(step.node->keys.begin(), step.node->keys.end(), key);
    if (equal == step.node->keys.end() || next == leaves.end()) continue;
    replaceSeparator(*step.node, static_cast<std::size_t>(equal - step.node->keys.begin()),
                     (*next)->keys.front());
  }
  bool vanished = leaf.keys.empty();
  bool dropped = false;
  for (path.pop_back(); !path.empty(); path.pop_back()) {
    PlainNode& parent = *path.back().node;
    const std::size_t child = path.back().child;
    if (vanished) {
      dropChild(parent, child);
      vanished = parent.children.empty();
      dropped = true;
    } else {
      dropped = balance(parent, child);
    }
  }
  if (vanished) {
    root_.reset();
  } else if (dropped && root_->children.size() == 1) {
    root_ = NodePointer(std::move(root_->children.front()));
  }
}

// -- Comparing ------------------------------------------------------------------------------------

NodePointer PlainTree::nodeAt(TreeBench& bench, std::uint64_t position) const {
  const std::string bytes = bench.node(position);
  auto node = std::make_unique<PlainNode>();
  node->leaf = numberAt<std::uint16_t>(bytes, 4) == 0x6C69;
  node->bytes = bytes.size();
  node->position = position;
  const std::size_t count = numberAt<std::uint16_t>(bytes, 6);
  std::size_t offset = (node->leaf ? 24u : 8u) + (form_.variable ? 4u : 0u);
  for (std::size_t i = 0; i < count; ++i) {
    std::size_t words = form_.keyWords;
    if (form_.variable) {
      words = numberAt<std::uint32_t>(bytes, offset) - 1;
      offset += 4;
    }
    Words key(words);
    std::memcpy(key.data(), bytes.data() + offset, words * 4);
    offset += words * 4;
    node->keys.push_back(std::move(key));
  }
  const std::size_t width = node->leaf ? idBytes() : 8;
  for (std::size_t i = 0; i < count + (node->leaf ? 0 : 1); ++i) {
    std::uint64_t pointer = 0;
    std::memcpy(&pointer, bytes.data() + bytes.size() - width * (i + 1), width);
    if (node->leaf) {
      node->ids.push_back(pointer);
    } else {
      node->children.push_back(nodeAt(bench, pointer));
    }
  }
  return node;
}

/// The node's bytes by the published layout against the plain node, and so on down.
void compare(TreeBench& bench, std::uint64_t position, PlainNode& expected) {
  expected.position = position;
  expected.moved = false;
  const std::string bytes = bench.node(position);
  const bool variable = bench.form.variable;
  const std::size_t width = expected.leaf ? (bench.form.wideIds ? 8 : 4) : 8;
  ASSERT_EQ(bytes.size(), expected.bytes);
  ASSERT_EQ(numberAt<std::uint16_t>(bytes, 4), expected.leaf ? 0x6C69 : 0x6E69);
  ASSERT_EQ(numberAt<std::uint16_t>(bytes, 6), expected.keys.size());
  std::size_t offset = (expected.leaf ? 24u : 8u) + (variable ? 4u : 0u);
  for (const Words& key : expected.keys) {
    const Words stored = bench.encode(key);
    ASSERT_EQ(bytes.substr(offset, stored.size() * 4),
              std::string(reinterpret_cast<const char*>(stored.data()), stored.size() * 4));
    offset += stored.size() * 4;
  }
  const std::size_t pointers = expected.leaf ? expected.ids.size() : expected.children.size();
  for (std::size_t i = 0; i < pointers; ++i) {
    std::uint64_t pointer = 0;
    std::memcpy(&pointer, bytes.data() + bytes.size() - width * (i + 1), width);
    if (expected.leaf) {
      ASSERT_EQ(pointer, expected.ids[i]);
    } else {
      ASSERT_NO_FATAL_FAILURE(compare(bench, pointer, *expected.children[i]));
    }
  }
}

struct RulesCase {
  const char* name;
  TreeForm form;
};

class BPlusRules : public ::testing::TestWithParam<RulesCase> {
 protected:
  void insert(const Words& key) {
    ASSERT_TRUE(bench_.insert(key, ++lastId_).ok());
    model_[key] = lastId_;
    plain_.insert(key, lastId_);
  }
  void remove(TreeModel::iterator entry) {
    ASSERT_TRUE(bench_.remove(entry->first, entry->second).ok());
    plain_.remove(entry->first);
    if (plain_.isUnsure()) {
      plain_.learn(bench_);
      ++learned_;
    }
    model_.erase(entry);
  }
  void expectSame() {
    ASSERT_EQ(bench_.root() == 0, plain_.root() == nullptr);
    if (plain_.root() != nullptr) compare(bench_, bench_.root(), *plain_.root());
  }
  /// Keys that compare like their number; the lengths of variable ones differ, some of them much.
  Words keyOf(std::uint32_t number) {
    if (!bench_.form.variable) {
      Words key(bench_.form.keyWords, 0);
      key.back() = number;
      return key;
    }
    Random shape(number);
    return Words(1 + (shape() % 50 == 0 ? shape() % 150 : shape() % 6), number);
  }

  TreeBench bench_{GetParam().form};
  PlainTree plain_{GetParam().form};
  TreeModel model_;
  std::uint64_t lastId_ = 0;
  int learned_ = 0;
};

TEST_P(BPlusRules, NodesAreThoseOfThePlainTreeAfterInsertsInAnyOrder) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  std::vector<std::uint32_t> numbers(900);
  std::iota(numbers.begin(), numbers.end(), 100000u);
  for (std::uint32_t i = 0; i < 900; ++i) numbers.push_back(99999 - i);
  for (std::uint32_t i = 0; i < 900; ++i) numbers.push_back(random());
  for (std::uint32_t i = 0; i < 300; ++i) numbers.push_back(50000 - i % 2 * (i + 1) + i);
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const Words key = keyOf(numbers[i]);
    if (model_.count(key) != 0) continue;
    ASSERT_NO_FATAL_FAILURE(insert(key));
    if (i % 25 != 0) continue;
    ASSERT_NO_FATAL_FAILURE(expectSame()) << "after insert " << i;
  }
  ASSERT_NO_FATAL_FAILURE(expectSame());
}

TEST_P(BPlusRules, NodesAreThoseOfThePlainTreeAfterRemoves) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (int round = 0; round < 6; ++round) {
    for (int i = 0; i < 280; ++i) {
      const Words key = keyOf(random() % 5000);
      if (model_.count(key) != 0) continue;
      ASSERT_NO_FATAL_FAILURE(insert(key));
    }
    ASSERT_NO_FATAL_FAILURE(expectSame());
    // Runs from one end, from the other, and here and there.
    const std::size_t leave = round == 5 ? 0 : random() % 100;
    while (model_.size() > leave) {
      auto victim = round % 3 == 1 ? std::prev(model_.end()) : model_.begin();
      if (round % 3 == 2) std::advance(victim, random() % model_.size());
      ASSERT_NO_FATAL_FAILURE(remove(victim));
      // Each time: which node of two stays is a matter of their places.
      ASSERT_NO_FATAL_FAILURE(expectSame()) << model_.size();
    }
  }
  EXPECT_LE(learned_, 10) << "of some thousand removals";
}

INSTANTIATE_TEST_SUITE_P(Forms, BPlusRules,
                         ::testing::Values(RulesCase{"fixed", {false, false, 2, 256}},
                                           RulesCase{"fixedWide", {false, true, 5, 128}},
                                           RulesCase{"fixedInIndexFile",
                                                     {false, false, 1, 128, PageFile::index}},
                                           RulesCase{"variable", {true, false, 4, 256}},
                                           RulesCase{"variableWide", {true, true, 2, 128}},
                                           RulesCase{"variableRoomy", {true, false, 40, 1024}}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
}  // namespace zelta::testing

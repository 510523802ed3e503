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
  [[nodiscard]] const PlainNode* root() const { return root_.get(); }

 private:
  struct Step {
    PlainNode* node;
    std::size_t child;
  };
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

  void dropChild(PlainNode& parent, std::size_t child);
  [[nodiscard]] bool fillBelow(const PlainNode& node, std::uint64_t percent) const;
  bool join(PlainNode& parent, std::size_t left);
  void share(PlainNode& parent, std::size_t left);
  bool balance(PlainNode& parent, std::size_t child);

  TreeForm form_;
  NodePointer root_;
  bool leftEdge_ = false;
  bool rightEdge_ = false;
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

// -- Removing, in trees whose nodes are all of one size -------------------------------------------

void PlainTree::dropChild(PlainNode& parent, std::size_t child) {
  parent.children.erase(parent.children.begin() + static_cast<std::ptrdiff_t>(child));
  if (parent.keys.empty()) return;
  parent.keys.erase(parent.keys.begin() + static_cast<std::ptrdiff_t>(child == 0 ? 0 : child - 1));
}

bool PlainTree::fillBelow(const PlainNode& node, std::uint64_t percent) const {
  const std::uint64_t usable = node.bytes - (node.leaf ? 24 : 8);
  const std::uint64_t used = entries(node) + (node.leaf ? 0 : 8);
  return used * 100 < usable * percent;
}

bool PlainTree::join(PlainNode& parent, std::size_t left) {
  PlainNode& a = *parent.children[left];
  PlainNode& b = *parent.children[left + 1];
  PlainNode both;
  both.leaf = a.leaf;
  both.bytes = a.bytes;
  both.keys = a.keys;
  if (!a.leaf) both.keys.push_back(parent.keys[left]);
  both.keys.insert(both.keys.end(), b.keys.begin(), b.keys.end());
  if (!fillBelow(both, 80)) return false;
  a.keys = both.keys;
  a.ids.insert(a.ids.end(), b.ids.begin(), b.ids.end());
  for (NodePointer& child : b.children) a.children.push_back(std::move(child));
  dropChild(parent, left + 1);
  return true;
}

void PlainTree::share(PlainNode& parent, std::size_t left) {
  PlainNode& a = *parent.children[left];
  PlainNode& b = *parent.children[left + 1];
  const std::size_t total = a.keys.size() + b.keys.size();
  const std::size_t keep = (total * a.bytes + (a.bytes + b.bytes) / 2) / (a.bytes + b.bytes);
  Words& separator = parent.keys[left];
  while (a.keys.size() != keep) {
    const bool right = a.keys.size() > keep;
    PlainNode& from = right ? a : b;
    PlainNode& to = right ? b : a;
    const auto source = right ? from.keys.end() - 1 : from.keys.begin();
    const auto target = right ? to.keys.begin() : to.keys.end();
    const Words moved = *source;
    from.keys.erase(source);
    to.keys.insert(target, a.leaf ? moved : separator);
    if (a.leaf) {
      const auto id = right ? from.ids.end() - 1 : from.ids.begin();
      to.ids.insert(right ? to.ids.begin() : to.ids.end(), *id);
      from.ids.erase(id);
      separator = b.keys.front();
    } else {
      const auto child = right ? from.children.end() - 1 : from.children.begin();
      to.children.insert(right ? to.children.begin() : to.children.end(), std::move(*child));
      from.children.erase(child);
      separator = moved;
    }
  }
}

/// Whether the parent has lost a child.
bool PlainTree::balance(PlainNode& parent, std::size_t child) {
  if (!fillBelow(*parent.children[child], 40)) return false;
  if (child < parent.keys.size() && join(parent, child)) return true;
  if (child > 0 && join(parent, child - 1)) return true;
  if (parent.keys.empty() || !fillBelow(*parent.children[child], 10)) return false;
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
    if (equal != step.node->keys.end() && next != leaves.end()) *equal = (*next)->keys.front();
  }
  bool vanished = leaf.keys.empty();
  bool changed = true;
  for (path.pop_back(); !path.empty() && changed; path.pop_back()) {
    PlainNode& parent = *path.back().node;
    const std::size_t child = path.back().child;
    if (vanished) {
      dropChild(parent, child);
      vanished = parent.children.empty();
    } else {
      changed = balance(parent, child);
    }
  }
  if (vanished) {
    root_.reset();
  } else if (!root_->leaf && root_->children.size() == 1) {
    root_ = NodePointer(std::move(root_->children.front()));
  }
}

// -- Comparing ------------------------------------------------------------------------------------

/// The node's bytes by the published layout against the plain node, and so on down.
void compare(TreeBench& bench, std::uint64_t position, const PlainNode& expected) {
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

TEST_P(BPlusRules, NodesOfOneSizeAreThoseOfThePlainTreeAfterRemoves) {
  if (GetParam().form.variable) return;  // which node of two stays rules their sizes
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  for (int round = 0; round < 8; ++round) {
    for (int i = 0; i < 500; ++i) {
      const Words key = keyOf(random() % 5000);
      if (model_.count(key) != 0) continue;
      ASSERT_NO_FATAL_FAILURE(insert(key));
    }
    // Runs from one end, from the other, and here and there.
    const std::size_t leave = round == 7 ? 0 : random() % 100;
    while (model_.size() > leave) {
      auto victim = round % 3 == 1 ? std::prev(model_.end()) : model_.begin();
      if (round % 3 == 2) std::advance(victim, random() % model_.size());
      ASSERT_NO_FATAL_FAILURE(remove(victim));
      if (model_.size() % 7 != 0) continue;
      ASSERT_NO_FATAL_FAILURE(expectSame()) << model_.size();
    }
    ASSERT_NO_FATAL_FAILURE(expectSame());
  }
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

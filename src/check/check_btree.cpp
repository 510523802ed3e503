#include "check/check_btree.h"

#include <algorithm>

#include "check/check_ordered.h"

namespace zelta::check {

namespace {

/// Keys are words; the first word of a variable one is its length.
class BPlusWalk final : public OrderedWalk {
 public:
  explicit BPlusWalk(const WalkContext& context) : OrderedWalk(context, formOf(context.place)) {}

 private:
  static Form formOf(const TreePlace& place) {
    const std::uint32_t count = place.variable ? 4 : 0;
    return {24 + count, 8 + count, place.idBytes, count};
  }
  static std::uint32_t word(const char* key, std::uint32_t i) {
    return load<std::uint32_t>(key, 4 * std::uint64_t{i});
  }

  std::uint64_t keyBytes(const OrderedNode& node, std::uint64_t at, std::uint64_t left) override;
  [[nodiscard]] int compare(const char* a, const char* b) const override;
  bool sizeFits(const PageHead& head) override;
  void visitEntry(const OrderedNode& leaf, std::uint32_t number) override;
};

std::uint64_t BPlusWalk::keyBytes(const OrderedNode& node, std::uint64_t at, std::uint64_t left) {
  if (left < 4) {
    fail(node.position + 6, "more keys than the node has room for");
    return 0;
  }
  const std::uint64_t words = place_.variable ? node.words[at / 4] : place_.keyWords;
  if (place_.variable && words < 2) {
    fail(node.position + at, "key of impossible length " + text(words));
    return 0;
  }
  if (words * 4 <= left) return words * 4;
  fail(node.position + at, "key leads out of the node");
  return 0;
}

int BPlusWalk::compare(const char* a, const char* b) const {
  const std::uint32_t from = place_.variable ? 1 : 0;
  const std::uint32_t to = place_.variable ? std::min(word(a, 0), word(b, 0)) : place_.keyWords;
  for (std::uint32_t i = from; i < to; ++i) {
    if (word(a, i) != word(b, i)) return word(a, i) < word(b, i) ? -1 : 1;
  }
  if (!place_.variable || word(a, 0) == word(b, 0)) return 0;
  return word(a, 0) < word(b, 0) ? -1 : 1;
}

/// All nodes are whole units; the nodes of a tree of fixed keys are of one size.
bool BPlusWalk::sizeFits(const PageHead& head) {
  const std::uint64_t unit = place_.pageSize;
  if (head.size % unit != 0) return fail(head.position, "size is not a multiple of the unit");
  if (place_.variable) return true;
  const std::uint64_t key = 4 * std::uint64_t{place_.keyWords};
  const std::uint64_t size = (key + (key + 14) * 4 + unit - 1) / unit * unit;
  return head.size == size || fail(head.position, "node is not " + text(size) + " bytes long");
}

void BPlusWalk::visitEntry(const OrderedNode& leaf, std::uint32_t number) {
  std::uint64_t id = 0;
  std::memcpy(&id, leaf.bytes() + valueOffset(leaf, number), place_.idBytes);
  const std::uint32_t* key = leaf.words.data() + leaf.keys[number] / 4;
  const std::uint32_t words = place_.variable ? key[0] : place_.keyWords;
  visit_({hashKey(key, words), id, leaf.position + leaf.keys[number]});
}

}  // namespace

bool checkBPlusTree(const WalkContext& context) { return BPlusWalk(context).run(); }

}  // namespace zelta::check

#include "check/check_list.h"

#include <algorithm>
#include <utility>

#include "check/check_ordered.h"

namespace zelta::check {

namespace {

constexpr std::uint16_t kChainTag = 0x6269;
constexpr std::uint64_t kChainNext = 8;
constexpr std::uint64_t kChainHead = 16;
constexpr std::uint64_t kStopWord = ~std::uint64_t{0};
constexpr std::uint64_t kSingle = std::uint64_t{1} << 63;

template <typename Unit>
class ListWalk final : public OrderedWalk {
 public:
  explicit ListWalk(const WalkContext& context) : OrderedWalk(context, {28, 12, 8, 1}) {}

 private:
  /// A key whose objects are listed.
  struct Word {
    std::uint64_t hash;
    std::uint64_t offset;
  };

  std::uint64_t keyBytes(const OrderedNode& node, std::uint64_t at, std::uint64_t left) override;
  [[nodiscard]] int compare(const char* a, const char* b) const override;
  bool sizeFits(const PageHead& head) override {
    return head.size % place_.pageSize == 0 ||
           fail(head.position, "size is not a multiple of the unit");
  }
  void visitEntry(const OrderedNode& leaf, std::uint32_t number) override;

  void visitObject(const Word& word, std::uint64_t objectID, std::uint64_t offset);
  void walkChain(const Word& word, std::uint64_t position, std::uint64_t linkOffset);
  bool readChainPage(std::uint64_t position, std::uint64_t linkOffset, PageHead& head);
  void takeObjects(const Word& word, const PageHead& head);
  void checkRepeats();
  [[nodiscard]] const char* pageBytes() const {
    return reinterpret_cast<const char*>(page_.data());
  }

  std::vector<std::uint32_t> page_;                               ///< of a chain
  std::vector<std::pair<std::uint64_t, std::uint64_t>> objects_;  ///< of a chain, with their places
};

/// A prefix of one length, and a word with its end.
template <typename Unit>
std::uint64_t ListWalk<Unit>::keyBytes(const OrderedNode& node, std::uint64_t at,
                                       std::uint64_t left) {
  std::uint64_t length = place_.prefixBytes;
  for (; length + sizeof(Unit) <= left; length += sizeof(Unit)) {
    if (load<Unit>(node.bytes(), at + length) != 0) continue;
    if (length == place_.prefixBytes) wrong(node.position + at, "word without characters");
    return length + sizeof(Unit);
  }
  fail(node.position + at, "key without an end");
  return 0;
}

template <typename Unit>
int ListWalk<Unit>::compare(const char* a, const char* b) const {
  const int prefix = std::memcmp(a, b, place_.prefixBytes);
  if (prefix != 0) return prefix;
  for (std::uint64_t at = place_.prefixBytes;; at += sizeof(Unit)) {
    const auto left = static_cast<std::make_unsigned_t<Unit>>(load<Unit>(a, at));
    const auto right = static_cast<std::make_unsigned_t<Unit>>(load<Unit>(b, at));
    if (left != right) return left < right ? -1 : 1;
    if (left == 0) return 0;
  }
}

template <typename Unit>
void ListWalk<Unit>::visitEntry(const OrderedNode& leaf, std::uint32_t number) {
  const std::uint64_t valueAt = valueOffset(leaf, number);
  const auto value = load<std::uint64_t>(leaf.bytes(), valueAt);
  const bool last = number + 1 == leaf.count;
  const std::uint32_t end = last ? leaf.keyEnd : leaf.keys[number + 1];
  const std::uint64_t bytes = end - leaf.keys[number] - sizeof(Unit);
  const Word word = {hashKey(leaf.key(number), bytes), leaf.position + leaf.keys[number]};
  const std::uint64_t place = leaf.position + valueAt;
  if (value == kStopWord) {
    if (place_.mostObjectsPower == 0) wrong(place, "stop word in a list without such words");
    visit_({word.hash, 0, word.offset, true});
  } else if ((value & kSingle) != 0) {
    visitObject(word, value & ~kSingle, place);
  } else {
    walkChain(word, value, place);
  }
}

template <typename Unit>
void ListWalk<Unit>::visitObject(const Word& word, std::uint64_t objectID, std::uint64_t offset) {
  const std::uint64_t highest = place_.idBytes == 4 ? 0xFFFFFFFF : kSingle - 1;
  if (objectID == 0 || objectID > highest) {
    return wrong(offset, "impossible object ID " + text(objectID));
  }
  visit_({word.hash, objectID, word.offset});
}

/// Pages of objects that share a word, each linked from the one before.
template <typename Unit>
void ListWalk<Unit>::walkChain(const Word& word, std::uint64_t position, std::uint64_t linkOffset) {
  objects_.clear();
  for (bool first = true; first || position != 0; first = false) {
    PageHead head;
    if (!readChainPage(position, linkOffset, head)) return;
    // Only a page further on may have lost its last object and still be there.
    if (first && head.count == 0) wrong(position + 6, "chain begins without an object");
    takeObjects(word, head);
    linkOffset = position + kChainNext;
    position = load<std::uint64_t>(pageBytes(), kChainNext);
  }
  checkRepeats();
}

template <typename Unit>
bool ListWalk<Unit>::readChainPage(std::uint64_t position, std::uint64_t linkOffset,
                                   PageHead& head) {
  if (!readHead(position, linkOffset, head)) return false;
  if (head.tag != kChainTag) return fail(position + 4, "no page of a chain");
  if (head.size != place_.pageSize) return fail(position, "page of a chain is not one unit long");
  if (kChainHead + std::uint64_t{head.count} * place_.idBytes > head.size) {
    return fail(position + 6, "more objects than the page has room for");
  }
  return readPage(head, page_);
}

template <typename Unit>
void ListWalk<Unit>::takeObjects(const Word& word, const PageHead& head) {
  std::uint64_t at = kChainHead;
  for (std::uint32_t i = 0; i < head.count; ++i, at += place_.idBytes) {
    std::uint64_t id = 0;
    std::memcpy(&id, pageBytes() + at, place_.idBytes);
    objects_.emplace_back(id, head.position + at);
    visitObject(word, id, head.position + at);
  }
  for (; at < head.size; ++at) {
    if (pageBytes()[at] == 0) continue;
    return wrong(head.position + at, "the room behind the objects is not zero");
  }
}

template <typename Unit>
void ListWalk<Unit>::checkRepeats() {
  std::sort(objects_.begin(), objects_.end());
  for (std::size_t i = 1; i < objects_.size() && !findings_.full(); ++i) {
    const auto& [id, offset] = objects_[i];
    if (id == objects_[i - 1].first) {
      wrong(offset, "object " + text(id) + " is twice in a chain");
    }
  }
}

}  // namespace

bool checkAsciiList(const WalkContext& context) { return ListWalk<char>(context).run(); }

bool checkWideList(const WalkContext& context) { return ListWalk<char16_t>(context).run(); }

}  // namespace zelta::check

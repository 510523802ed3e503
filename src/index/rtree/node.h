// The bytes of a node in a tree of bounds. Keys (bounds in a branch, entries in a leaf) grow from
// the front, values (child positions, object IDs) from the back; what lies between is zero. Nothing
// here knows of files.

#ifndef ZELTA_INDEX_RTREE_NODE_H
#define ZELTA_INDEX_RTREE_NODE_H

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <limits>

#include "index/rtree/geometry.h"
#include "index/tree/tree_pages.h"

namespace zelta {

/// What all nodes begin with.
struct RTreeHead {
  static constexpr std::uint16_t kBranch = 0x6E69;
  static constexpr std::uint16_t kLeaf = 0x6C69;
  static constexpr std::uint32_t kBytes = 8;

  std::uint32_t size;  ///< of the page
  std::uint16_t tag;
  std::uint16_t count;

  [[nodiscard]] bool leaf() const { return tag == kLeaf; }
  /// Looks at the bytes once, even if others change them.
  [[nodiscard]] static RTreeHead of(const char* bytes) {
    return std::bit_cast<RTreeHead>(*reinterpret_cast<const volatile std::uint64_t*>(bytes));
  }
};
static_assert(sizeof(RTreeHead) == RTreeHead::kBytes);

/// A node whose keys are of one type.
template <class Key>
class RTreeNode {
 public:
  RTreeNode() = default;

  /// Takes the node in a page; false if its head makes no sense, or is that of the other kind of
  /// node. `valueBytes`: 8 in a branch, the width of object IDs in a leaf.
  [[nodiscard]] bool attach(const TreePage& page, bool leaf, std::uint32_t valueBytes) {
    return attach(page, RTreeHead::of(page.bytes()), leaf, valueBytes);
  }
  /// The same with its head, as it was looked at before.
  [[nodiscard]] bool attach(const TreePage& page, const RTreeHead& head, bool leaf,
                            std::uint32_t valueBytes) {
    page_ = page;
    valueBytes_ = valueBytes;
    size_ = head.size;
    count_ = head.count;
    return head.tag == (leaf ? RTreeHead::kLeaf : RTreeHead::kBranch) && size_ >= needed(count_);
  }
  /// Makes an empty node of a page whose bytes are zero but for its size.
  void makeEmpty(const TreePage& page, bool leaf, std::uint32_t valueBytes) {
    const std::uint16_t tag = leaf ? RTreeHead::kLeaf : RTreeHead::kBranch;
    std::memcpy(page.bytes() + 4, &tag, sizeof tag);
    [[maybe_unused]] const bool sound = attach(page, leaf, valueBytes);
    assert(sound && count_ == 0);
  }
  /// Follows the node to a copy of its page.
  void moveTo(const TreePage& page) { page_ = page; }

  [[nodiscard]] const TreePage& page() const { return page_; }
  [[nodiscard]] std::uint32_t size() const { return size_; }
  [[nodiscard]] std::uint32_t count() const { return count_; }
  [[nodiscard]] std::uint32_t valueBytes() const { return valueBytes_; }

  [[nodiscard]] Key key(std::uint32_t number) const {
    assert(number < count_);
    Key key;
    std::memcpy(&key, keyAt(number), sizeof key);
    return key;
  }
  void setKey(std::uint32_t number, const Key& key) {
    assert(number < count_);
    std::memcpy(keyAt(number), &key, sizeof key);
  }
  [[nodiscard]] std::uint64_t value(std::uint32_t number) const {
    assert(number < count_);
    std::uint64_t value = 0;
    std::memcpy(&value, valueAt(number), valueBytes_);
    return value;
  }
  void setValue(std::uint32_t number, std::uint64_t value) {
    assert(number < count_);
    std::memcpy(valueAt(number), &value, valueBytes_);
  }

  /// Calls `take(number)` for the entries whose keys `test` accepts, in order. The keys are tested
  /// many at a time, so that the processor has no answer to guess before it tests the next one.
  template <class Test, class Take>
  void select(Test test, Take take) const {
    constexpr std::uint32_t kAtATime = 64;
    for (std::uint32_t first = 0; first < count_; first += kAtATime) {
      const std::uint32_t tested = std::min(count_ - first, kAtATime);
      const char* keys = keyAt(first);
      std::uint64_t accepted = 0;
      for (std::uint32_t i = tested; i-- != 0;) {  // the first one ends in the lowest bit
        Key key;
        std::memcpy(&key, keys + std::size_t{i} * sizeof(Key), sizeof key);
        accepted = accepted << 1 | std::uint64_t{test(key)};
      }
      for (; accepted != 0; accepted &= accepted - 1) {
        take(first + static_cast<std::uint32_t>(std::countr_zero(accepted)));
      }
    }
  }

  /// Whether so many entries would fit. They are counted in 16 bits.
  [[nodiscard]] bool holds(std::uint64_t entries) const {
    return entries <= std::numeric_limits<std::uint16_t>::max() && needed(entries) <= size_;
  }
  [[nodiscard]] bool full() const { return !holds(std::uint64_t{count_} + 1); }

  void append(const Key& key, std::uint64_t value) {
    assert(!full());
    setCount(count_ + 1);
    setKey(count_ - 1, key);
    setValue(count_ - 1, value);
  }
  /// The last entry takes the place of the one that goes.
  void erase(std::uint32_t number) {
    const std::uint32_t last = count_ - 1;
    if (number != last) {
      setKey(number, key(last));
      setValue(number, value(last));
    }
    truncate(last);
  }
  /// Keeps the first `count` entries only.
  void truncate(std::uint32_t count) {
    assert(count <= count_);
    const std::size_t gone = count_ - count;
    std::memset(keyAt(count), 0, gone * sizeof(Key));
    if (gone != 0) std::memset(valueAt(count_ - 1), 0, gone * valueBytes_);
    setCount(count);
  }
  void clear() {
    std::memset(page_.bytes() + RTreeHead::kBytes, 0, size_ - RTreeHead::kBytes);
    setCount(0);
  }

  /// The bounds of all entries, of which there is one at least.
  [[nodiscard]] BoundsOf<Key> bounds() const {
    BoundsOf<Key> all = boundsOf(key(0));
    for (std::uint32_t i = 1; i < count_; ++i) all.join(boundsOf(key(i)));
    return all;
  }

  // -- Rules of fill ------------------------------------------------------------------------------

  [[nodiscard]] std::uint64_t usable() const { return size_ - RTreeHead::kBytes; }
  [[nodiscard]] std::uint64_t entryBytes() const { return sizeof(Key) + valueBytes_; }
  /// Whether so many entries fill less than a share of the node.
  [[nodiscard]] bool fillBelow(std::uint32_t percent, std::uint64_t entries) const {
    return usable() * percent > entries * entryBytes() * 100;
  }

 private:
  [[nodiscard]] std::uint64_t needed(std::uint64_t entries) const {
    return RTreeHead::kBytes + entries * entryBytes();
  }
  [[nodiscard]] char* keyAt(std::uint32_t number) const {
    return page_.bytes() + RTreeHead::kBytes + std::size_t{number} * sizeof(Key);
  }
  [[nodiscard]] char* valueAt(std::uint32_t number) const {
    return page_.bytes() + size_ - (std::size_t{number} + 1) * valueBytes_;
  }
  void setCount(std::uint32_t count) {
    count_ = count;
    const auto stored = static_cast<std::uint16_t>(count);
    std::memcpy(page_.bytes() + 6, &stored, sizeof stored);
  }

  TreePage page_;
  std::uint32_t size_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t valueBytes_ = 8;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_RTREE_NODE_H

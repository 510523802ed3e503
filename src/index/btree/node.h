// The bytes of a B+Tree's nodes. Nothing here knows of files: walk.h brings the pages.
//
//   all nodes       0 size (32 bits), 4 tag (16), 6 count of keys (16)
//   leaf            8 previous leaf (64), 16 next leaf (64)
//   variable keys   the last four bytes of the head: free space between keys and pointers, in words
//                   or, where keys are bytes, in bytes
//   from the head   keys, in ascending order, one behind the other
//   from the end    pointers, the first one last: object IDs (or, of keys of bytes, what leads to
//                   them) in a leaf, positions of children (64)
//                   in a branch, which has one more of them than keys
//
// What lies between keys and pointers is zero.

#ifndef ZELTA_INDEX_BTREE_NODE_H
#define ZELTA_INDEX_BTREE_NODE_H

#include <cstdint>
#include <cstring>

#include "index/btree/key_codec.h"
#include "index/tree/tree_pages.h"

namespace zelta {

inline constexpr std::uint16_t kBranchTag = 0x6E69;
inline constexpr std::uint16_t kLeafTag = 0x6C69;

/// A node in a page: a view, which owns nothing and is good as long as the page is. Before anything
/// else is asked, attach() must have found them sound.
template <class Format>
class TreeNode {
 public:
  using Key = typename Format::Key;

  enum class State {
    sound,
    unknownTag,   ///< neither branch nor leaf
    badCount,     ///< more entries than the node has room for
    badKeys,      ///< a key runs out of the zone of keys
    badFreeSpace  ///< the count of free space does not agree with the keys
  };

  TreeNode() = default;
  /// Takes the node in a page. With `walk` the lengths of all variable
  /// keys are followed; without it search() and keyOffset() may find them broken.
  [[nodiscard]] State attach(TreePage page, const Format& format, bool walk);
  /// Makes an empty node of a page whose bytes are zero.
  void makeEmpty(TreePage page, std::uint32_t size, bool leaf, const Format& format);

  /// Follows the node to a copy of its page.
  void moveTo(TreePage page) { page_ = page; }

  [[nodiscard]] const TreePage& page() const { return page_; }
  [[nodiscard]] char* bytes() const { return page_.bytes(); }
  [[nodiscard]] std::uint32_t size() const { return size_; }
  [[nodiscard]] std::uint32_t count() const { return count_; }
  [[nodiscard]] bool leaf() const { return leaf_; }
  [[nodiscard]] const Format& format() const { return format_; }

  // -- Keys -----------------------------------------------------------------------------------

  /// Place of a key by its number; `number` = count() gives the end of the keys. 0 if a length is
  /// broken.
  [[nodiscard]] std::uint32_t keyOffset(std::uint32_t number) const;
  [[nodiscard]] const Key* keyAt(std::uint32_t offset) const {
    return reinterpret_cast<const Key*>(bytes() + offset);
  }
  [[nodiscard]] const Key* key(std::uint32_t number) const { return keyAt(keyOffset(number)); }
  [[nodiscard]] std::uint32_t keyEnd() const { return keyEnd_; }

  struct Place {
    std::uint32_t number;
    std::uint32_t offset;  ///< 0: a key's length is broken
    bool equal;            ///< lower: the key there equals. above: the key in front of it does
  };
  /// The first key that is not less than `key`.
  [[nodiscard]] Place lower(const Key* key) const;
  /// The same, where no key in front of `from` is not less.
  [[nodiscard]] Place lower(const Key* key, Place from) const;
  /// The first key that is greater than `key`: in a branch the number of the child to follow.
  [[nodiscard]] Place above(const Key* key) const;

  // -- Pointers -------------------------------------------------------------------------------

  [[nodiscard]] std::uint64_t objectID(std::uint32_t number) const { return pointer(number); }
  [[nodiscard]] std::uint64_t child(std::uint32_t number) const { return pointer(number); }
  [[nodiscard]] std::uint64_t pointer(std::uint32_t number) const;
  void setPointer(std::uint32_t number, std::uint64_t value);
  [[nodiscard]] std::uint64_t previous() const { return link(8); }
  [[nodiscard]] std::uint64_t next() const { return link(16); }
  void setPrevious(std::uint64_t position) { std::memcpy(bytes() + 8, &position, 8); }
  void setNext(std::uint64_t position) { std::memcpy(bytes() + 16, &position, 8); }

  // -- Room -----------------------------------------------------------------------------------

  /// Bytes between keys and pointers.
  [[nodiscard]] std::uint32_t freeBytes() const { return freeBytes_; }
  /// Whether another key of so many bytes fits, with its pointer.
  [[nodiscard]] bool fits(std::uint32_t keyBytes) const;
  /// The two sides of the rules of fill.
  [[nodiscard]] std::uint64_t usable() const { return usableOf(size_); }
  [[nodiscard]] std::uint64_t used() const;
  /// Bytes that a key of so many bytes counts for.
  [[nodiscard]] std::uint64_t entryBytes(std::uint64_t keyBytes) const {
    return keyBytes + format_.pointerBytes(leaf_);
  }
  [[nodiscard]] bool fillBelow(std::uint32_t percent) const {
    return used() * 100 < usable() * percent;
  }
  [[nodiscard]] std::uint64_t usableOf(std::uint32_t size) const;

  // -- Changes --------------------------------------------------------------------------------

  /// Puts a key at `place`. In a leaf its pointer stands beside it, in a branch it is the child
  /// behind the key. It must fit.
  void insert(std::uint32_t number, std::uint32_t offset, const Key* key, std::uint64_t pointer);
  /// Takes key `number` out, with pointer `pointerNumber`.
  void erase(std::uint32_t number, std::uint32_t pointerNumber);
  /// Exchanges a key for another; false, and nothing changed, if it does not fit.
  [[nodiscard]] bool replaceKey(std::uint32_t number, const Key* key);
  /// Appends entries [from, to) of a node of the same kind; in a branch a key takes the child
  /// behind it along. They must fit.
  void append(const TreeNode& source, std::uint32_t from, std::uint32_t to);
  /// Appends one entry.
  void append(const Key* key, std::uint64_t pointer);
  /// Keeps the first `count` entries only.
  void truncate(std::uint32_t count);
  /// Empties the node; a leaf keeps its links.
  void clear();

 private:
  [[nodiscard]] std::uint64_t link(std::uint32_t offset) const {
    std::uint64_t position;
    std::memcpy(&position, bytes() + offset, 8);
    return position;
  }
  [[nodiscard]] char* pointerAt(std::uint32_t number) const {
    return bytes() + size_ - std::uint64_t{format_.pointerBytes(leaf_)} * (number + 1);
  }
  [[nodiscard]] std::uint32_t pointerCount() const { return count_ + (leaf_ ? 0u : 1u); }
  /// Bytes of the key there, 0 if none begins there.
  template <class Codec>
  [[nodiscard]] std::uint32_t measure(const Codec& codec, std::uint32_t offset) const {
    return codec.measure(keyAt(offset), keyEnd_ - offset);
  }
  template <class Codec>
  [[nodiscard]] State walkKeys(const Codec& codec) const;
  template <class Codec>
  [[nodiscard]] std::uint32_t offsetOf(const Codec& codec, std::uint32_t number) const;
  template <class Codec>
  [[nodiscard]] Place firstNotBelow(const Codec& codec, const Key* key, Place from) const;
  template <class Codec>
  [[nodiscard]] Place firstAbove(const Codec& codec, const Key* key) const;
  template <class Codec, class Stop>
  [[nodiscard]] Place scan(const Codec& codec, Place from, Stop stop) const;
  [[nodiscard]] Place start() const { return {0, format_.head(leaf_), false}; }
  void changeCounts(std::uint32_t count, std::uint32_t keyEnd);

  TreePage page_;
  std::uint32_t size_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t keyEnd_ = 0;
  std::uint32_t freeBytes_ = 0;
  bool leaf_ = false;
  Format format_;
};

using BPlusNode = TreeNode<NodeFormat>;
using TextNode = TreeNode<TextNodeFormat>;

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_NODE_H

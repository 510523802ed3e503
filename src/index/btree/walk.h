// One operation's way through a tree of keys: nodes by their positions, and the path from the root.
// Insert, remove, merge and join all load and store nodes here, so that a page is checked in one
// place and a damaged one is reported with the code that its operation is to answer with.

#ifndef ZELTA_INDEX_BTREE_WALK_H
#define ZELTA_INDEX_BTREE_WALK_H

#include <cassert>
#include <cstdint>
#include <memory>
#include <type_traits>

#include "index/btree/node.h"
#include "index/tree/tree_pages.h"

namespace zelta {

/// A copy of a key. All but giants need no memory from the heap.
template <class Format>
class TreeKeyCopy {
 public:
  using Key = typename Format::Key;

  void assign(const Format& format, const Key* key);
  [[nodiscard]] const Key* get() const { return large_ ? large_.get() : small_; }

 private:
  Key small_[256 / sizeof(Key)];
  std::unique_ptr<Key[]> large_;
};

/// What all keys of a node lie below; none of the last one in its level.
template <class Format>
struct TreeBound {
  TreeKeyCopy<Format> key;
  bool given = false;
};

/// The branches from the root down to a node, and the node itself.
struct BPlusPath {
  static constexpr std::uint32_t kMaximumDepth = IndexTree::kMaximumDepth;
  struct Step {
    std::uint64_t position;
    std::uint32_t child;  ///< number of the child that was followed
  };
  Step steps[kMaximumDepth];
  std::uint32_t depth = 0;
  /// Branch that has a separator equal to the key, and the separator's number; none if it is
  /// `kMaximumDepth`.
  std::uint32_t equalLevel = kMaximumDepth;
  std::uint32_t equalSeparator = 0;

  /// The level of the node itself; the root has level 0.
  [[nodiscard]] std::uint32_t last() const {
    assert(depth != 0);
    return depth - 1;
  }
};

/// Loads, changes and stores nodes of one tree. A node is good until another one takes the buffer
/// of its role; one that was changed counts only once it is stored.
template <class Format>
class TreeWalk {
 public:
  using Node = TreeNode<Format>;
  using Key = typename Format::Key;

  /// Tells which code a damaged node is reported with.
  enum class Purpose { search, insert, merge };

  TreeWalk(const IndexTree& treeOf, const Format& formatOf, Purpose purpose);
  template <class Shaped = Format>
  requires std::is_base_of_v<TreeShape, Shaped> TreeWalk(const IndexTree& treeOf, Purpose purpose)
      : TreeWalk(treeOf, Shaped{treeOf.shape()}, purpose) {}

  /// Takes a node into the buffer of `role`. All of it is checked; a leaf has a key at least.
  Result load(std::uint64_t position, Node& node, PageRole role);
  /// The same for a node that is only looked at, until the manager is used again. Variable keys may
  /// turn out broken.
  Result look(std::uint64_t position, Node& node);
  /// The same for what must be a leaf.
  Result loadLeaf(std::uint64_t position, Node& node, PageRole role);
  /// Puts a changed node; `node` leads to the page's own bytes afterwards, if there are such.
  Result store(std::uint64_t position, Node& node);
  /// Makes an empty node of `size` bytes, which whole pages must be. Its position is `*position`.
  Result allocate(std::uint64_t size, bool leaf, PageRole role, Node& node,
                  std::uint64_t* position);
  /// Gives a node's page up.
  Result free(std::uint64_t position, std::uint32_t size) { return pages_.free(position, size); }
  /// Follows `key` down to its leaf, which is loaded into the node buffer. `bound`: all keys that
  /// lead there from here on are below it.
  Result descend(const Key* key, BPlusPath& path, Node& leaf, TreeBound<Format>* bound = nullptr);

  /// Copies a node to the spare buffer, so that its own bytes can be filled anew.
  [[nodiscard]] Node copyAside(const Node& node);
  /// Moves a branch to a larger page, with room for `bytes` more at least, and puts the link to it
  /// right. Uses the sibling's and the spare buffer.
  Result growBranch(BPlusPath& path, std::uint32_t level, Node& node, PageRole role,
                    std::uint64_t bytes);
  /// Leads from above to a node whose position in the path has changed. Uses the sibling's buffer.
  Result relinkChild(const BPlusPath& path, std::uint32_t level);
  /// Exchanges a separator for another key.
  Result replaceSeparator(BPlusPath& path, std::uint32_t level, std::uint32_t number,
                          const Key* key);
  /// Links a leaf to its neighbours: they get `forPrevious` as their next and `forNext` as their
  /// previous leaf.
  Result relink(std::uint64_t previous, std::uint64_t forPrevious, std::uint64_t next,
                std::uint64_t forNext, PageRole role);

  Result corrupted() const { return pages_.corrupted(); }

  /// Position of the root, 0 for an empty tree. Setting it is all that a new root takes.
  [[nodiscard]] std::uint64_t& root() const { return tree.root(); }

  const IndexTree tree;
  const Format format;

 private:
  static constexpr bool kText = std::is_same_v<Format, TextNodeFormat>;

  Result attach(const TreePage& page, Node& node, bool walk) const;
  Result damaged(typename Node::State state, bool leaf) const;

  const TreePages pages_;
  const Purpose purpose_;
};

using BPlusKeyCopy = TreeKeyCopy<NodeFormat>;
using BPlusWalk = TreeWalk<NodeFormat>;
using TextWalk = TreeWalk<TextNodeFormat>;

}  // namespace zelta

#endif  // ZELTA_INDEX_BTREE_WALK_H

// The frame of every walk through a tree of an index.
//
// A walk does not recurse: it keeps the path from the root in memory, with a copy of each node on
// it. No position is visited twice, no path is deeper than a tree can be, and the pages together
// are not larger than the part of the file that they lie in. So a walk ends, and needs no more
// memory than the file is large, whatever the links say.

#ifndef ZELTA_CHECK_CHECK_TREE_H
#define ZELTA_CHECK_CHECK_TREE_H

#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "check/check_entries.h"
#include "check/check_file.h"

namespace zelta::check {

inline constexpr std::uint16_t kBranchTag = 0x6E69;
inline constexpr std::uint16_t kLeafTag = 0x6C69;

/// What every page of a tree begins with.
struct PageHead {
  std::uint64_t position = 0;
  std::uint64_t linkOffset = 0;  ///< where the link to it stands
  std::uint32_t size = 0;
  std::uint16_t tag = 0;
  std::uint16_t count = 0;
};

/// The pages of a tree, each of which is met once.
class TreePages {
 protected:
  explicit TreePages(const WalkContext& context)
      : findings_(context.findings),
        file_(context.file),
        place_(context.place),
        visit_(context.visit),
        extents_(context.extents) {}

  /// Reports why a page cannot be walked; the tree is not complete then.
  bool fail(std::uint64_t offset, std::string what) {
    findings_.damage(file_, offset, std::move(what));
    complete_ = false;
    return false;
  }
  void wrong(std::uint64_t offset, std::string what) {
    findings_.damage(file_, offset, std::move(what));
  }
  /// Reads the head of a page that was not met before; its size is one that the page may have.
  bool readHead(std::uint64_t position, std::uint64_t linkOffset, PageHead& head);
  /// Reads the whole page, which belongs to the tree from then on.
  bool readPage(const PageHead& head, std::vector<std::uint32_t>& words);

  Findings& findings_;
  CheckFile& file_;
  const TreePlace& place_;
  const EntryVisitor& visit_;
  bool complete_ = true;

 private:
  std::vector<Extent>& extents_;
  std::unordered_set<std::uint64_t> seen_;  ///< positions of pages that were met
  std::uint64_t bytes_ = 0;                 ///< of the pages that were read
};

/// A node as it was read, and how far the walk has come in it.
struct TreeNode {
  std::uint64_t position = 0;
  std::vector<std::uint32_t> words;  ///< the bytes, aligned
  bool leaf = false;
  std::uint32_t count = 0;
  std::uint32_t nextChild = 0;

  [[nodiscard]] const char* bytes() const { return reinterpret_cast<const char*>(words.data()); }
  [[nodiscard]] std::uint64_t size() const { return words.size() * 4; }
  /// Where the position of a branch's child stands, in any kind of tree.
  [[nodiscard]] std::uint64_t childOffset(std::uint32_t i) const {
    return size() - 8 * (std::uint64_t{i} + 1);
  }
};

/// The walk, to which a kind adds what its nodes must be like. `Node` is a TreeNode.
template <class Node>
class TreeWalk : protected TreePages {
 public:
  using TreePages::TreePages;
  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;
  virtual ~TreeWalk() = default;

  /// False if parts of the tree could not be walked.
  bool run();

 protected:
  /// Whether a node may be so large and has room for what it counts. False is reported.
  virtual bool fits(const Node& node, const PageHead& head) = 0;
  /// Looks at a node, whose bytes are there, as child `number` of a node, or as the root (null).
  /// False, and reported: it cannot be walked.
  virtual bool examine(Node& node, const Node* parent, std::uint32_t number) = 0;
  [[nodiscard]] virtual std::uint32_t childCount(const Node& branch) const = 0;
  virtual void visitLeaf(const Node& leaf) = 0;
  /// After a walk that has met all nodes.
  virtual void finish() {}

 private:
  bool enter(std::uint64_t position, std::uint64_t linkOffset, std::uint32_t number);

  static constexpr std::size_t kDeepest = 64;
  std::vector<Node> path_;
  std::size_t leafDepth_ = 0;
};

template <class Node>
bool TreeWalk<Node>::run() {
  if (place_.root == 0) return true;
  path_.reserve(kDeepest);  // nodes point into those above them
  if (!enter(place_.root, place_.rootOffset, 0)) return false;
  while (!path_.empty() && !findings_.full()) {
    Node& node = path_.back();
    if (node.leaf) {
      if (leafDepth_ == 0) leafDepth_ = path_.size();
      if (leafDepth_ != path_.size()) wrong(node.position + 4, "leaf at another depth");
      visitLeaf(node);
      path_.pop_back();
    } else if (node.nextChild == childCount(node)) {
      path_.pop_back();
    } else {
      const std::uint32_t number = node.nextChild++;
      const std::uint64_t offset = node.childOffset(number);
      enter(load<std::uint64_t>(node.bytes(), offset), node.position + offset, number);
    }
  }
  if (complete_ && !findings_.full()) finish();
  return complete_ && !findings_.full();
}

/// Reads a node and puts it at the end of the path.
template <class Node>
bool TreeWalk<Node>::enter(std::uint64_t position, std::uint64_t linkOffset, std::uint32_t number) {
  if (path_.size() == kDeepest) return fail(linkOffset, "tree is deeper than any can be");
  PageHead head;
  if (!readHead(position, linkOffset, head)) return false;
  if (head.tag != kBranchTag && head.tag != kLeafTag) {
    return fail(position + 4, "neither branch nor leaf");
  }
  Node node;
  node.position = position;
  node.leaf = head.tag == kLeafTag;
  node.count = head.count;
  if (!fits(node, head) || !readPage(head, node.words)) return false;
  if (!examine(node, path_.empty() ? nullptr : &path_.back(), number)) return false;
  path_.push_back(std::move(node));
  return true;
}

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_TREE_H

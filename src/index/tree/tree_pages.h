// The pages of a tree while an operation works on it. Kinds of index put their nodes into them.
//
// A page that is loaded lies in a buffer of the table, one for each role that a page plays in an
// operation, until the buffer gets the next one; or it is the manager's own copy of a page of the
// memory file that was changed before, which stays until it is freed, and in which every change
// counts at once. Which it is, is left open: a changed page is always stored.

#ifndef ZELTA_INDEX_TREE_TREE_PAGES_H
#define ZELTA_INDEX_TREE_TREE_PAGES_H

#include <cassert>
#include <cstdint>

#include "index/tree/index_tree.h"
#include "storage/paged/page_buffer.h"

namespace zelta {

/// What a page is in an operation, and with it the buffer that it is loaded into.
enum class PageRole : std::uint32_t { node, sibling, parent, spare };

/// The bytes of a page, which begin with its size.
class TreePage {
 public:
  TreePage() = default;
  /// Bytes that need no buffer, or those of its present lease.
#ifdef NDEBUG
  explicit TreePage(char* bytes, const PageBuffer* = nullptr) : bytes_(bytes) {}
#else
  explicit TreePage(char* bytes, const PageBuffer* buffer = nullptr)
      : bytes_(bytes), buffer_(buffer), lease_(buffer == nullptr ? 0 : buffer->leases()) {}
#endif

  [[nodiscard]] char* bytes() const {
    assert(isPresent());
    return bytes_;
  }

 private:
  char* bytes_ = nullptr;
#ifndef NDEBUG
  /// False: another page was read into the buffer since.
  [[nodiscard]] bool isPresent() const {
    return bytes_ != nullptr && (buffer_ == nullptr || buffer_->leases() == lease_);
  }

  const PageBuffer* buffer_ = nullptr;
  std::uint32_t lease_ = 0;
#endif
};

/// Brings the pages of one tree. A page that is handed out is good until its role gets the next
/// one; `position` 0 and a page that is none are damage of the tree.
class TreePages {
 public:
  /// `damage`: the code that a link to no page is reported with.
  TreePages(const IndexTree& tree, Own damage) : tree_(tree), damage_(damage) {}

  [[nodiscard]] const IndexTree& tree() const { return tree_; }

  /// A page that may be changed.
  Result load(std::uint64_t position, PageRole role, TreePage* page) const {
    PageBuffer& into = buffer(role);
    char* bytes = nullptr;
    if (position != 0) {
      ZELTA_TRY(tree_.manager().readPage(tree_.file(), position, &bytes, into.lease()));
    }
    return take(bytes, into, page);
  }
  /// A page that is only read: it may be the file's own bytes. Good as long as the table's mutex is
  /// held, nobody changes the page and the role's buffer gets no other one.
  Result view(std::uint64_t position, PageRole role, TreePage* page) const {
    return look(position, role, false, page);
  }
  /// The same, good only until the manager is used again. May take the buffer of `role`.
  Result glance(std::uint64_t position, TreePage* page, PageRole role = PageRole::node) const {
    return look(position, role, true, page);
  }
  /// The same while others may change the page's bytes at any time, so that each of them is to be
  /// looked at once. `*size`: how many there are, whatever the first word says by then.
  Result peek(std::uint64_t position, TreePage* page, std::uint32_t* size) const {
    PageBuffer& into = buffer(PageRole::node);
    const char* bytes = nullptr;
    if (position != 0) {
      ZELTA_TRY(tree_.manager().peekPage(tree_.file(), position, &bytes, size, into.lease()));
    }
    return take(const_cast<char*>(bytes), into, page);
  }
  /// Brings a changed page to where it is kept. `*page` leads there afterwards, if that is the
  /// manager's copy; `*moved` tells.
  Result store(std::uint64_t position, TreePage* page, bool* moved) const;
  /// A new page of zeros with its size in the first word. System code 8: there is no such size.
  Result allocate(std::uint64_t size, PageRole role, std::uint64_t* position, TreePage* page) const;
  /// Gives a page up, whose size is the one that it states. Copies of it must not be used any more.
  Result free(std::uint64_t position, std::uint32_t size) const;
  /// Copies a page to the buffer of `spare`, so that its own bytes can be filled anew.
  [[nodiscard]] TreePage copyAside(const char* bytes, std::uint32_t size) const;

  Result corrupted() const { return tree_.damaged(damage_); }

 private:
  [[nodiscard]] PageBuffer& buffer(PageRole role) const {
    return tree_.table().pageBuffers[static_cast<std::uint32_t>(role)];
  }
  Result look(std::uint64_t position, PageRole role, bool briefly, TreePage* page) const {
    PageBuffer& into = buffer(role);
    const char* bytes = nullptr;
    if (position != 0) {
      ZELTA_TRY(tree_.manager().viewPage(tree_.file(), position, briefly, &bytes, into.lease()));
    }
    return take(const_cast<char*>(bytes), into, page);  // nobody changes a page that is only read
  }
  /// Null: the position leads to no page.
  Result take(char* bytes, const PageBuffer& into, TreePage* page) const {
    if (bytes == nullptr) return corrupted();
    *page = pageIn(bytes, into);
    return {};
  }
  [[nodiscard]] static TreePage pageIn(char* bytes, const PageBuffer& buffer) {
    return TreePage(bytes, bytes == buffer.data() ? &buffer : nullptr);
  }

  IndexTree tree_;
  Own damage_;
};

/// Bounds a walk over all pages of a tree whose links are not trusted: no deeper than trees can be,
/// and no more pages than the file has room for.
class VisitBound {
 public:
  explicit VisitBound(const IndexTree& tree) : pagesLeft_(tree.mostPages()) {}
  /// To be asked at every page; false: the links must be damaged. The root has depth 0.
  [[nodiscard]] bool enter(std::uint32_t depth) { return enter(depth, 0); }
  /// The same, with so many other pages waiting to be entered.
  [[nodiscard]] bool enter(std::uint32_t depth, std::uint64_t ahead) {
    return depth < IndexTree::kMaximumDepth && ahead <= pagesLeft_ && pagesLeft_-- != 0;
  }

 private:
  std::uint64_t pagesLeft_;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_TREE_TREE_PAGES_H

// The objects of a word that more than one has: a chain of overflow pages, each with object IDs in
// no order.
//
//   all pages   0 size (32 bits, the unit of page sizes), 4 tag (16), 6 count of IDs (16),
//               8 next page (64), 16 the IDs (32 or 64 each)
//
// A chain is walked once, whatever number of objects it then gains and loses.

#ifndef ZELTA_INDEX_WORDS_POSTING_CHAIN_H
#define ZELTA_INDEX_WORDS_POSTING_CHAIN_H

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "index/tree/tree_pages.h"

namespace zelta {

inline constexpr std::uint16_t kPostingTag = 0x6269;
inline constexpr std::uint32_t kPostingHead = 16;
inline constexpr std::uint32_t kMostPostings = 0xFFFF;  ///< of a page, whose count has 16 bits

/// An overflow page: a view, good as long as the page is.
class PostingPage {
 public:
  PostingPage() = default;
  /// False: the page is none, or has more IDs than room.
  [[nodiscard]] bool attach(TreePage page, std::uint32_t width);
  /// Makes an empty one of a page of zeros.
  void makeEmpty(TreePage page, std::uint32_t width);

  [[nodiscard]] const TreePage& page() const { return page_; }
  [[nodiscard]] std::uint32_t size() const { return size_; }
  [[nodiscard]] std::uint32_t count() const { return count_; }
  [[nodiscard]] std::uint64_t next() const;
  void setNext(std::uint64_t position);
  [[nodiscard]] std::uint64_t id(std::uint32_t number) const;
  /// Appends all IDs.
  void appendTo(std::vector<std::uint64_t>& ids) const;
  [[nodiscard]] bool hasRoom() const {
    return count_ < kMostPostings && size_ >= kPostingHead + width_ * (count_ + 1);
  }
  void append(std::uint64_t objectID);
  /// Takes one ID out; the last one takes its place.
  void erase(std::uint32_t number);
  /// Keeps the first `count` IDs.
  void truncate(std::uint32_t count);
  /// The bytes of the IDs.
  [[nodiscard]] const char* ids() const { return page_.bytes() + kPostingHead; }

 private:
  [[nodiscard]] char* at(std::uint32_t number) const {
    return page_.bytes() + kPostingHead + std::size_t{width_} * number;
  }
  void setCount(std::uint32_t count);

  TreePage page_;
  std::uint32_t size_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t width_ = 4;
};

/// Hands the IDs of each page of a chain to `use(const PostingPage&)`. Own code 62: a page is none,
/// or the links lead nowhere. `*left`: how many pages there may be, less those that were seen.
template <class Use>
Result forEachPostingPage(const IndexTree& tree, std::uint64_t first, std::uint64_t* left,
                          Use use) {
  const TreePages pages(tree, Own::postings);
  if (first == 0) return pages.corrupted();
  for (std::uint64_t position = first; position != 0;) {
    TreePage bytes;
    PostingPage page;
    ZELTA_TRY(pages.glance(position, &bytes, PageRole::sibling));
    const bool sound = page.attach(bytes, tree.shape().idBytes) && page.size() == tree.pageSize();
    if (!sound || *left == 0) return pages.corrupted();
    --*left;
    position = page.next();
    use(page);
  }
  return {};
}

/// An object gains a word, or loses it. IDs of objects have 63 bits at most, as entries of words need
/// the last one too.
class WordChange {
 public:
  WordChange() = default;
  WordChange(std::uint64_t objectID, bool gains) : bits_(objectID << 1 | (gains ? 1u : 0u)) {}
  [[nodiscard]] std::uint64_t objectID() const { return bits_ >> 1; }
  [[nodiscard]] bool gains() const { return (bits_ & 1) != 0; }

 private:
  std::uint64_t bits_ = 0;
};

/// The chain of one word on its way from one state to another. Uses the sibling's buffer.
class PostingChain {
 public:
  explicit PostingChain(const IndexTree& tree);

  /// Begins with another word. Only objects of `changes` will be asked for: ascending, each of them
  /// once, and good until the next word.
  void expect(std::span<const WordChange> changes) { expected_ = changes; }
  /// Goes through the chain at `first`, and forgets the one before.
  Result open(std::uint64_t first);
  /// Makes a chain of two objects, and forgets the one before.
  Result create(std::uint64_t one, std::uint64_t other);
  /// Whether an object that was to be expected is in the chain.
  [[nodiscard]] bool has(std::uint64_t objectID) { return pageOf(objectID) != kNone; }
  /// Adds one that is not there; `*full`: the word has become one that too many objects have, and
  /// nothing was added.
  Result add(std::uint64_t objectID, bool* full);
  /// Takes one out that is there; `*empty`: it was the last one.
  Result remove(std::uint64_t objectID, bool* empty);
  /// Gives all pages up.
  Result free();
  /// Brings all changes to where pages are kept.
  Result store();
  /// Position of the first page.
  [[nodiscard]] std::uint64_t first() const { return pages_[first_].position; }

 private:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};
  struct Page {
    std::uint64_t position;
    std::uint32_t count;
    std::uint32_t next;  ///< kNone for the last one
  };

  [[nodiscard]] std::size_t placeOf(std::uint64_t objectID);
  [[nodiscard]] std::uint32_t pageOf(std::uint64_t objectID);
  void reset();
  void locate(std::uint64_t objectID, std::uint32_t page);
  void locateAll(const PostingPage& bytes, std::uint32_t page);
  [[nodiscard]] bool isFull(std::uint32_t count) const;
  [[nodiscard]] std::uint32_t before(std::uint32_t page) const;
  [[nodiscard]] std::uint32_t partner(std::uint32_t page, std::uint32_t count) const;
  [[nodiscard]] bool fitTogether(std::uint64_t count, std::uint32_t percent) const;
  Result use(std::uint32_t page);
  Result extend(std::uint64_t objectID);
  Result merge(std::uint32_t into, std::uint32_t from);
  Result freePage(std::uint32_t page);

  const IndexTree tree_;
  const TreePages store_;
  const std::uint32_t width_;
  const std::uint32_t unit_;  ///< bytes of a page
  std::span<const WordChange> expected_;
  std::vector<std::uint32_t> where_;  ///< of each of their objects: its page in `pages_`
  std::size_t asked_ = 0;             ///< the place in `expected_` that was asked for last
  std::vector<Page> pages_;           ///< linked by their numbers; those given up stay
  std::uint32_t pageCount_ = 0;       ///< of those in the chain
  std::uint32_t first_ = kNone;
  std::uint32_t last_ = kNone;
  std::uint32_t room_ = kNone;  ///< none before it has room
  // The page at hand
  PostingPage page_;
  std::uint32_t current_ = kNone;
  bool changed_ = false;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_POSTING_CHAIN_H

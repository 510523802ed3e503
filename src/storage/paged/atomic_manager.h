// The pages of a table's memory and index files, and the set of changes that one operation makes to
// them. Everything that works on pages (the object map, the index trees, their kinds) goes through
// an AtomicManager; PagedFlush brings what has collected here into a file, as a whole or not at
// all.
//
// A manager lives for one call. It has two sets of pages for each file:
//
//   changed    memory pages, in full, until flushMemoryPages(); index pages, in memory or in a
//              shadow copy behind the end of the memory file, until flushIndexFile()
//   unchanged  pages as they were read, so that they need not be read twice; may go at any time
//
// A page is in one of them at most. The size of a page is its first word, and what a manager holds
// as `size` says the same. Nothing reaches the part of a file that counts before a flush, so that a
// manager which is just dropped has changed nothing.
//
// Whoever uses a manager owns the table's mutex, or has attached files that are open for reading
// alone. Positions and sizes come from files: each is checked against the header and the end of its
// file before it is used, and a wrong one is the form's damage (own code 58 or 57).

#ifndef ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_H
#define ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_H

#include <cassert>
#include <cstdint>
#include <memory>

#include "storage/free_space/free_chain.h"
#include "storage/paged/page_set.h"
#include "storage/paged/paged_file.h"
#include "storage/table.h"
#include "storage/trees/avl_detail.h"

namespace zelta {

class AtomicManager {
 public:
  using Page = PageNode;

  /// For one table, with no file attached; `table` outlives the manager.
  explicit AtomicManager(Table& table);
  ~AtomicManager();
  AtomicManager(const AtomicManager&) = delete;
  AtomicManager& operator=(const AtomicManager&) = delete;

  /// Drops lists and pages and takes chain heads and ends from the headers, which may be null. The
  /// roots, which the readers of the headers have filled in, stay. Called each time that the
  /// table's mutex was gained.
  void attach(platform::File index, const IndexFileHeader_tag* indexHeader, platform::File memory,
              const MemoryFileHeader_tag* memoryHeader);

  /// Gives a page: held bytes, or a copy in `scratch`. A file that is not open gives null.
  Result readPage(PageFile file, std::uint64_t position, char** page, ScratchBuffer& scratch);
  /// The same for a page that is only looked at: it may be the file's own bytes, good as long as
  /// the table's mutex is held. With `briefly` only until the next call.
  Result viewPage(PageFile file, std::uint64_t position, bool briefly, const char** page,
                  ScratchBuffer& scratch);
  /// The same for a look that bears with bytes which change under it, until the next call; a page of
  /// `*size` bytes, whatever its first word says by then.
  Result peekPage(PageFile file, std::uint64_t position, const char** page, std::uint32_t* size,
                  ScratchBuffer& scratch);
  /// Puts a page, whose size is its first word. A memory page that is held already was changed in
  /// place; else its bytes are copied, and `*held` (if given) receives the copy. An index page goes
  /// to its shadow, or without a memory file straight into the index file.
  Result writePage(PageFile file, std::uint64_t position, const char* page, char** held = nullptr);
  /// A new page of zeros with its size in the first word. `size` is rounded up to 8.
  Result allocatePage(PageFile file, std::uint32_t size, char** page, std::uint64_t* position,
                      ScratchBuffer& scratch);
  /// Gives a page up: what is held of it is gone, and its space is free for the next allocation.
  /// `size` is the page's own.
  Result freePage(PageFile file, std::uint64_t position, std::uint32_t size);
  /// The unit of page sizes in a file; 0 if its header was not given.
  [[nodiscard]] std::uint32_t pageSize(PageFile file) const {
    return file == PageFile::memory ? memoryPageSize_ : indexPageSize_;
  }

  /// The memory file's roots: 0 the object map, i + 1 the pending keys of index i.
  [[nodiscard]] std::uint64_t& memoryRoot(std::uint32_t i) {
    assert(i <= indexCount);
    return roots_[i];
  }
  /// The index file's roots.
  [[nodiscard]] std::uint64_t& indexRoot(std::uint32_t i) {
    assert(i < indexCount);
    return roots_[indexCount + 1 + i];
  }
  /// The root of index i's tree in either file.
  [[nodiscard]] std::uint64_t& treeRoot(PageFile file, std::uint32_t i) {
    return file == PageFile::memory ? memoryRoot(i + 1) : indexRoot(i);
  }
  /// All of them, indexCount + 1 and indexCount in number.
  [[nodiscard]] std::uint64_t* memoryRoots() { return roots_; }
  [[nodiscard]] std::uint64_t* indexRoots() { return roots_ + indexCount + 1; }

  // -- For the memory file ------------------------------------------------------------------------

  /// A memory page itself, read if it is not held. Good until the next call of readPage(),
  /// dropUnchanged() or freePage() unless it is marked as changed.
  Result holdMemoryPage(std::uint64_t position, std::uint32_t size, Page** page);
  /// The bytes of a memory page, good until the next call.
  Result viewMemoryPage(std::uint64_t position, std::uint32_t size, const char** bytes);
  /// A held page is going to be changed: it will be written.
  void markChanged(Page* page);
  /// A new memory page of zeros, held and marked.
  Result newMemoryPage(std::uint32_t size, Page** page);
  /// Forgets pages that are held only because they were read.
  void dropUnchanged();
  /// Allocates a block of either file, from its free space or its end. `*blockSize` may exceed
  /// `size`. Code 8: no block is that large; own code 48: the free space leads out of the file.
  Result allocateSpace(PageFile file, std::uint32_t size, std::uint64_t* position,
                       std::uint32_t* blockSize);
  /// Releases a block, or the end of one. It must lie in the file, or the file is damaged.
  Result releaseSpace(PageFile file, std::uint64_t position, std::uint32_t size);
  /// From now on released space of the memory file waits apart until the next flush, which merges
  /// it in one pass; for steps that release much and allocate little.
  void deferMemoryReleases() { deferReleases_ = true; }
  /// Forgets changed pages, free lists and released space of the memory file, after a flush.
  void dropMemoryChanges();
  /// The memory roots as the file has them.
  [[nodiscard]] std::uint64_t* savedMemoryRoots() { return roots_ + 2 * indexCount + 1; }

  // -- For the index file -------------------------------------------------------------------------

  /// Index pages are kept in memory from now on, within bounds, before they go where writePage()
  /// would have brought them; for steps that work much on one tree. Pages that were read are kept
  /// too, so nobody else may write the index file meanwhile.
  void holdIndexPages() { holdIndexPages_ = true; }
  /// Writes held index pages where they belong, if there is no memory file.
  Result writeHeldIndexPages();
  /// Forgets changed index pages, shadows and the free list of the index file, after a flush.
  void dropIndexChanges();
  /// The bound of what holdIndexPages() keeps.
  std::uint64_t heldIndexLimit = 8 * 1024 * 1024;

  // -- For a flush of either file -----------------------------------------------------------------

  [[nodiscard]] platform::File handle(PageFile file) const {
    return file == PageFile::memory ? memoryFile : indexFile;
  }
  /// Hands pages that were changed and not yet flushed to `visit(Page&)`, by ascending positions.
  template <class Visit>
  Result visitChangedPages(PageFile file, const Visit& visit) {
    if (file == PageFile::index) {
      for (Page* page : shadowPages.ascending()) ZELTA_TRY(visit(*page));
      return {};
    }
    avl::Walk<UInt64AVLTree> walk(pages);
    while (UInt64AVLTree* node = walk.next()) ZELTA_TRY(visit(static_cast<Page&>(*node)));
    return {};
  }
  [[nodiscard]] std::uint32_t changedPageCount(PageFile file) const {
    return file == PageFile::memory ? pageCount : shadowPages.size();
  }
  /// The bytes of one: its own, or those of its shadow in `scratch`. A page without bytes has a
  /// shadow.
  Result changedBytes(const Page& page, const char** bytes, ScratchBuffer& scratch) {
    *bytes = page.bytes;
    return page.bytes != nullptr ? Result{} : readShadow(page, bytes, scratch);
  }
  /// The roots as they are to be, with the changes of this manager.
  [[nodiscard]] std::uint64_t* roots(PageFile file) {
    return file == PageFile::memory ? memoryRoots() : indexRoots();
  }
  /// The roots as the file has them; null if that is not known.
  [[nodiscard]] const std::uint64_t* savedRoots(PageFile file) {
    return file == PageFile::memory ? savedMemoryRoots() : nullptr;
  }
  [[nodiscard]] PageFreeChain& freeSpace(PageFile file) {
    return file == PageFile::memory ? memoryFreeSpace : indexFreeSpace;
  }
  /// Behind the last page of a file.
  [[nodiscard]] std::uint64_t endOfFile(PageFile file) const {
    return file == PageFile::memory ? memoryEndOfFile : indexEndOfFile;
  }

  // -- Checks and reports, in the name of either file ---------------------------------------------

  /// Whether a page or record of this size can lie there.
  [[nodiscard]] bool inside(PageFile file, std::uint64_t position, std::uint64_t size) const;
  /// Reports wrong content.
  Result corrupted(PageFile file) const;
  /// Reports a failed call; code 0 is none.
  Result failed(PageFile file, SystemCode code) const;

  // State, as the readers of the headers and the flushes of the two files need it. Both ends count
  // what was allocated here; the header's is the file's own until the flush.
  MetaData& metaData;
  Table& table;
  UInt64AVLTree* pages = nullptr;  ///< changed memory pages
  PageSet shadowPages;             ///< changed index pages
  std::uint32_t indexCount = 0;
  std::uint32_t pageCount = 0;
  std::uint64_t indexEndOfFile = 0;
  std::uint64_t memoryEndOfFile = 0;
  bool journalApplied = false;     ///< by the last repair of the memory file
  std::uint64_t shadowCursor = 0;  ///< where the next shadow goes in the memory file; 0: none yet
  PageFreeChain indexFreeSpace;
  PageFreeChain memoryFreeSpace;
  platform::File indexFile = platform::File::none;
  platform::File memoryFile = platform::File::none;

 private:
  [[nodiscard]] Page* changedPage(PageFile file, std::uint64_t position) const;
  [[nodiscard]] Page* unchangedPage(PageFile file, std::uint64_t position) const;
  [[nodiscard]] UInt64AVLTree*& unchangedTree(PageFile file) {
    return unchanged_[file == PageFile::memory ? 1 : 0];
  }

  // Reading
  using FileView = SystemCode (*)(platform::File, std::uint64_t, std::uint32_t, const char**);
  template <FileView kView>
  Result viewFilePage(PageFile file, std::uint64_t position, const char** page,
                      std::uint32_t* size);
  Result readFromFile(PageFile file, std::uint64_t position, ScratchBuffer& scratch,
                      std::uint32_t* size);
  Result readRest(PageFile file, std::uint64_t position, std::uint32_t have, std::uint32_t size,
                  ScratchBuffer& scratch);
  Page* keepUnchanged(PageFile file, std::uint64_t position, const char* bytes, std::uint32_t size);
  void dropUnchangedPage(PageFile file, std::uint64_t position);

  // Changed index pages (atomic_manager_shadow.cpp). Those with bytes are in a list by their last
  // use, whose oldest ones move to shadows when heldIndexLimit is passed.
  Result readShadow(const Page& page, const char** bytes, ScratchBuffer& scratch);
  Result readChangedIndexPage(Page& page, char** bytes, ScratchBuffer& scratch);
  Result writeMemoryPage(std::uint64_t position, const char* page, std::uint32_t size, char** held);
  Result writeIndexPage(std::uint64_t position, const char* page, std::uint32_t size);
  Result takeIndexBytes(Page& page, const char* bytes, std::uint32_t size);
  void assignShadow(Page& page);
  void releaseIndexBytes(Page& page);
  void use(Page& page);
  void unuse(Page& page);
  Result shrinkHeldIndex();
  // Space
  Result allocateAtEnd(PageFile file, std::uint64_t need, std::uint64_t* position);
  Result allocatePageSpace(PageFile file, std::uint32_t size, std::uint64_t* position);

  static constexpr std::size_t kFewRoots = 20;
  std::uint64_t fewRoots_[kFewRoots] = {};
  std::unique_ptr<std::uint64_t[]> manyRoots_;
  std::uint64_t* roots_ = fewRoots_;                  ///< memory, index, memory as saved
  UInt64AVLTree* unchanged_[2] = {nullptr, nullptr};  ///< pages as read, of index and memory file
  std::uint64_t unchangedBytes_ = 0;                  ///< of both
  std::uint64_t heldIndexBytes_ = 0;                  ///< of changed index pages that have bytes
  Page* newest_ = nullptr;                            ///< used last of these
  Page* oldest_ = nullptr;
  std::uint32_t indexPageSize_ = 0;
  std::uint32_t memoryPageSize_ = 0;
  bool holdIndexPages_ = false;
  bool deferReleases_ = false;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_ATOMIC_MANAGER_H

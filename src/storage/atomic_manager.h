// Pages of a table's memory and index files, and atomic sets of changes to them. An AtomicManager
// lives for one call: changed memory pages collect in it and reach the file together, by way of a
// journal; changed index pages wait in shadow copies behind the memory file until the index file
// takes them over.

#ifndef ZELTA_STORAGE_ATOMIC_MANAGER_H
#define ZELTA_STORAGE_ATOMIC_MANAGER_H

#include <cstdint>
#include <memory>

#include "storage/free_space.h"
#include "storage/memory_file.h"
#include "storage/table.h"

namespace zelta {

struct IndexFileHeader_tag;

/// Which of a table's two paged files.
enum class PageFile { index, memory };

class AtomicManager {
 public:
  /// A page that is held, by its position in its own file.
  struct Page final : UInt64AVLTree {
    ~Page() override;
    char* bytes = nullptr;  ///< a memory page's bytes, owned (malloc)
    std::uint32_t size = 0;
    std::uint64_t shadowPosition = 0;  ///< an index page's place in the memory file
  };

  AtomicManager(MetaData& metaData, Table& table);
  ~AtomicManager();
  AtomicManager(const AtomicManager&) = delete;
  AtomicManager& operator=(const AtomicManager&) = delete;

  /// Drops lists and pages and takes chain heads and ends from the headers, which may be null.
  /// Called each time that the table's mutex was gained.
  void attach(platform::File index, const IndexFileHeader_tag* indexHeader, platform::File memory,
              const MemoryFileHeader_tag* memoryHeader);

  /// Gives a page: held bytes, or a copy in `scratch`. A file that is not open gives null.
  Result readPage(PageFile file, std::uint64_t position, char** page, ScratchBuffer& scratch);
  /// Puts a page. A memory page that is held already was changed in place; else its bytes are
  /// copied, and
  /// `*held` (if given) receives the copy. An index page goes to its shadow, or without a memory
  /// file straight into the index file.
  Result writePage(PageFile file, std::uint64_t position, const char* page, char** held = nullptr);
  /// A new page of zeros with its size in the first word. `size` is rounded up to 8.
  Result allocatePage(PageFile file, std::uint32_t size, char** page, std::uint64_t* position,
                      ScratchBuffer& scratch);
  Result freePage(PageFile file, std::uint64_t position, std::uint32_t size);

  /// The memory file's roots: 0 the object map, i + 1 the pending keys of index i.
  [[nodiscard]] std::uint64_t& memoryRoot(std::uint32_t i) { return roots_[i]; }
  /// The index file's roots.
  [[nodiscard]] std::uint64_t& indexRoot(std::uint32_t i) { return roots_[indexCount + 1 + i]; }
  /// The root of index i's tree in either file.
  [[nodiscard]] std::uint64_t& treeRoot(PageFile file, std::uint32_t i) {
    return file == PageFile::memory ? memoryRoot(i + 1) : indexRoot(i);
  }
  [[nodiscard]] std::uint64_t* memoryRoots() { return roots_.get(); }
  [[nodiscard]] std::uint64_t* indexRoots() { return roots_.get() + indexCount + 1; }

  // State, as the owners of the two files need it
  MetaData& metaData;
  Table& table;
  UInt64AVLTree* pages = nullptr;        ///< changed memory pages
  UInt64AVLTree* shadowPages = nullptr;  ///< changed index pages
  std::uint32_t indexCount = 0;
  std::uint32_t shadowPageCount = 0;
  std::uint32_t pageCount = 0;
  std::uint32_t pageSize = 0;  ///< guess for one read: a tree's own comes from its file's header
  std::uint64_t indexFreeHead = 0;
  std::uint64_t memoryFreeHead = 0;
  std::uint64_t indexEndOfFile = 0;
  std::uint64_t memoryEndOfFile = 0;
  std::uint64_t shadowCursor = 0;  ///< where the next shadow goes in the memory file
  FreeBlock* indexFreeList = nullptr;
  FreeBlock* memoryFreeList = nullptr;
  platform::File indexFile = platform::File::none;
  platform::File memoryFile = platform::File::none;

 private:
  std::unique_ptr<std::uint64_t[]> roots_;
};

}  // namespace zelta

#endif  // ZELTA_STORAGE_ATOMIC_MANAGER_H

#include "storage/paged/atomic_manager.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/file_io.h"
#include "storage/paged/atomic_manager_writer.h"

namespace zelta {

namespace {

/// A page states its size in its first word.
std::uint32_t statedSize(const char* page) {
  std::uint32_t size = 0;
  std::memcpy(&size, page, sizeof(size));
  return size;
}

/// Sizes of pages are multiples of 8.
std::uint32_t wholePageSize(std::uint32_t size) { return (size + 7) & ~std::uint32_t{7}; }

/// Sizes up to this belong to no page: they leave no room for a kind.
constexpr std::uint32_t kNoPageSize = 4;
/// What is read at once at most before a page's size is known.
constexpr std::uint32_t kLargestGuess = 64 * 1024;
/// Pages of a sound file lie at multiples of this; only these are looked at where they are.
constexpr std::uint64_t kPageAlignment = 8;
/// What is kept of pages that were only read.
constexpr std::uint64_t kUnchangedLimit = 2 * 1024 * 1024;

}  // namespace

AtomicManager::AtomicManager(Table& theTable)
    : metaData(theTable.metaData),
      table(theTable),
      indexCount(theTable.indexCount),
      indexFreeSpace(theTable.metaData, platform::File::none, 0, kMinimumBlock),
      memoryFreeSpace(theTable.metaData, platform::File::none, 0, kMinimumBlock) {
  const std::size_t count = 3 * std::size_t{indexCount} + 2;
  if (count <= kFewRoots) return;
  manyRoots_ = std::make_unique<std::uint64_t[]>(count);
  roots_ = manyRoots_.get();
}

AtomicManager::~AtomicManager() {
  dropMemoryChanges();
  dropIndexChanges();
  dropUnchanged();
}

void AtomicManager::attach(platform::File index, const IndexFileHeader_tag* indexHeader,
                           platform::File memory, const MemoryFileHeader_tag* memoryHeader) {
  dropMemoryChanges();
  dropIndexChanges();
  dropUnchanged();
  holdIndexPages_ = false;
  indexFile = index;
  memoryFile = memory;
  indexFreeSpace.attach(index, indexHeader != nullptr ? indexHeader->freeHead : 0);
  indexEndOfFile = indexHeader != nullptr ? indexHeader->endOfFile : 0;
  indexPageSize_ = indexHeader != nullptr ? indexHeader->pageSize : 0;
  memoryFreeSpace.attach(memory, memoryHeader != nullptr ? memoryHeader->freeHead : 0);
  memoryEndOfFile = memoryHeader != nullptr ? memoryHeader->endOfFile : 0;
  memoryPageSize_ = memoryHeader != nullptr ? memoryHeader->pageSize : 0;
}

void AtomicManager::dropMemoryChanges() {
  table.pagePool.releaseTree(pages);
  pageCount = 0;
  memoryFreeSpace.drop();
  deferReleases_ = false;
}

void AtomicManager::dropIndexChanges() {
  shadowPages.clear();
  shadowCursor = 0;
  newest_ = nullptr;
  oldest_ = nullptr;
  heldIndexBytes_ = 0;
  indexFreeSpace.drop();
}

void AtomicManager::dropUnchanged() {
  table.pagePool.releaseTree(unchanged_[0]);
  table.pagePool.releaseTree(unchanged_[1]);
  unchangedBytes_ = 0;
}

// -- Small helpers --------------------------------------------------------------------------------

AtomicManager::Page* AtomicManager::changedPage(PageFile file, std::uint64_t position) const {
  if (file == PageFile::index) return shadowPages.find(position);
  return static_cast<Page*>(find(pages, position));
}

AtomicManager::Page* AtomicManager::unchangedPage(PageFile file, std::uint64_t position) const {
  return static_cast<Page*>(find(unchanged_[file == PageFile::memory ? 1 : 0], position));
}

/// Asked for each page, so each form by its name: what it is made of is known then.
bool AtomicManager::inside(PageFile file, std::uint64_t position, std::uint64_t size) const {
  if (file == PageFile::memory)
    return kMemoryForm.holds(position, size, memoryEndOfFile, indexCount);
  return kIndexForm.holds(position, size, indexEndOfFile, indexCount);
}

Result AtomicManager::corrupted(PageFile file) const {
  const PagedForm& form = formOf(file);
  return reportError(&metaData, form.damage, table.cName(), form.extension);
}

Result AtomicManager::failed(PageFile file, SystemCode code) const {
  return reportSystemError(&metaData, code, table.cName(), formOf(file).extension);
}

// -- Reading --------------------------------------------------------------------------------------

Result AtomicManager::readPage(PageFile file, std::uint64_t position, char** page,
                               ScratchBuffer& scratch) {
  *page = nullptr;
  // Only here, where nobody relies on a page that was viewed before.
  if (unchangedBytes_ > kUnchangedLimit) dropUnchanged();
  if (Page* held = changedPage(file, position)) {
    if (file == PageFile::index) return readChangedIndexPage(*held, page, scratch);
    *page = held->bytes;
    return {};
  }
  if (handle(file) == platform::File::none) return {};
  if (const Page* held = unchangedPage(file, position)) {
    *page = scratch.reserve(held->size);
    std::memcpy(*page, held->bytes, held->size);
    return {};
  }
  const char* own = nullptr;
  std::uint32_t size = 0;
  ZELTA_TRY(viewFilePage<platform::viewFile>(file, position, &own, &size));
  if (own != nullptr) {
    *page = scratch.reserve(size);
    std::memcpy(*page, own, size);
    return {};
  }
  ZELTA_TRY(readFromFile(file, position, scratch, &size));
  *page = scratch.data();
  const bool keep = file == PageFile::memory || holdIndexPages_;
  if (keep && size <= kLargestGuess) keepUnchanged(file, position, *page, size);
  return {};
}

/// Bytes that are held may go when others are, except those of a changed memory page: unless the
/// look is brief, they are copied.
Result AtomicManager::viewPage(PageFile file, std::uint64_t position, bool briefly,
                               const char** page, ScratchBuffer& scratch) {
  *page = nullptr;
  Page* held = changedPage(file, position);
  if (held == nullptr) {
    if (handle(file) == platform::File::none) return {};
    held = unchangedPage(file, position);
    if (held == nullptr) {
      std::uint32_t size = 0;
      ZELTA_TRY(viewFilePage<platform::viewFile>(file, position, page, &size));
      if (*page != nullptr) return {};
    } else if (briefly) {
      *page = held->bytes;
      return {};
    }
  } else if (held->bytes != nullptr && (briefly || file == PageFile::memory)) {
    if (file == PageFile::index) use(*held);
    *page = held->bytes;
    return {};
  }
  char* copy = nullptr;
  ZELTA_TRY(readPage(file, position, &copy, scratch));
  *page = copy;
  return {};
}

Result AtomicManager::peekPage(PageFile file, std::uint64_t position, const char** page,
                               std::uint32_t* size, ScratchBuffer& scratch) {
  *page = nullptr;
  const bool held =
      changedPage(file, position) != nullptr || unchangedPage(file, position) != nullptr;
  if (!held && handle(file) != platform::File::none) {
    ZELTA_TRY(viewFilePage<platform::peekFile>(file, position, page, size));
  }
  if (*page != nullptr) return {};
  ZELTA_TRY(viewPage(file, position, true, page, scratch));
  if (*page != nullptr) *size = statedSize(*page);
  return {};
}

/// A page of the file as it is, if it lies in memory whole; else null.
template <AtomicManager::FileView kView>
Result AtomicManager::viewFilePage(PageFile file, std::uint64_t position, const char** page,
                                   std::uint32_t* size) {
  *page = nullptr;
  if (!inside(file, position, kNoPageSize + 1) || position % kPageAlignment != 0) return {};
  const char* bytes = nullptr;
  SystemCode result = kView(handle(file), position, kNoPageSize, &bytes);
  if (result != 0) return failed(file, result);
  if (bytes == nullptr) return {};
  *size = *reinterpret_cast<const volatile std::uint32_t*>(bytes);  // once: others may change it
  if (*size <= kNoPageSize || *size > endOfFile(file) - position) return {};
  result = kView(handle(file), position, *size, page);
  return result == 0 ? Result{} : failed(file, result);
}

/// Reads a page whose size is not known: a guess of one page unit first, which is the whole page in
/// most cases, then the rest.
Result AtomicManager::readFromFile(PageFile file, std::uint64_t position, ScratchBuffer& scratch,
                                   std::uint32_t* size) {
  if (!inside(file, position, kNoPageSize + 1)) return corrupted(file);
  const std::uint32_t unit = pageSize(file);
  const std::uint64_t guess = std::min<std::uint64_t>(
      std::clamp<std::uint32_t>(unit, 64, kLargestGuess), endOfFile(file) - position);
  char* bytes = scratch.reserve(guess);
  std::uint32_t have = 0;
  const SystemCode result =
      readBuffer(handle(file), position, bytes, static_cast<std::uint32_t>(guess), &have);
  if (result != 0) return failed(file, result);
  if (have < sizeof(*size)) return failed(file, code::kEndOfFile);
  *size = statedSize(bytes);
  if (*size <= kNoPageSize) {
    return reportError(&metaData, Own::indexFile, table.cName(), formOf(file).extension);
  }
  if (!inside(file, position, *size)) return corrupted(file);
  return *size <= have ? Result{} : readRest(file, position, have, *size, scratch);
}

/// Reads what a page has behind the first `have` bytes. Memory is taken for a large page only if
/// the file is really that long: a damaged size must not cost gigabytes.
Result AtomicManager::readRest(PageFile file, std::uint64_t position, std::uint32_t have,
                               std::uint32_t size, ScratchBuffer& scratch) {
  SystemCode result = requireBytes(handle(file), position, size);
  if (result == code::kEndOfFile) return corrupted(file);
  if (result != 0) return failed(file, result);
  if (size > scratch.size()) have = 0;
  char* bytes = scratch.reserve(size);
  result = readLargeBuffer(handle(file), position + have, bytes + have, std::int64_t{size} - have);
  if (result != 0) return failed(file, result);
  return statedSize(bytes) == size ? Result{} : corrupted(file);
}

/// Enters a page among the unchanged ones.
AtomicManager::Page* AtomicManager::keepUnchanged(PageFile file, std::uint64_t position,
                                                  const char* bytes, std::uint32_t size) {
  assert(changedPage(file, position) == nullptr && unchangedPage(file, position) == nullptr);
  PooledPage page(table.pagePool, table.pagePool.take());
  page->makeRoom(size);
  if (bytes != nullptr) std::memcpy(page->bytes, bytes, size);
  insert(page.get(), unchangedTree(file), position);
  unchangedBytes_ += size;
  return page.release();
}

void AtomicManager::dropUnchangedPage(PageFile file, std::uint64_t position) {
  Page* page = unchangedPage(file, position);
  if (page == nullptr) return;
  remove(page, unchangedTree(file));
  unchangedBytes_ -= page->size;
  table.pagePool.release(page);
}

Result AtomicManager::holdMemoryPage(std::uint64_t position, std::uint32_t size, Page** page) {
  assert(memoryFile != platform::File::none);
  *page = changedPage(PageFile::memory, position);
  if (*page == nullptr) *page = unchangedPage(PageFile::memory, position);
  if (*page != nullptr) return (*page)->size == size ? Result{} : corrupted(PageFile::memory);
  if (!inside(PageFile::memory, position, size)) return corrupted(PageFile::memory);
  PooledPage fresh(table.pagePool, table.pagePool.take());
  fresh->makeRoom(size);
  const SystemCode result = readBuffer(memoryFile, position, fresh->bytes, size);
  if (result != 0) return failed(PageFile::memory, result);
  if (statedSize(fresh->bytes) != size) return corrupted(PageFile::memory);
  insert(fresh.get(), unchangedTree(PageFile::memory), position);
  unchangedBytes_ += size;
  *page = fresh.release();
  return {};
}

Result AtomicManager::viewMemoryPage(std::uint64_t position, std::uint32_t size,
                                     const char** bytes) {
  if (changedPage(PageFile::memory, position) == nullptr &&
      unchangedPage(PageFile::memory, position) == nullptr &&
      inside(PageFile::memory, position, size) && position % kPageAlignment == 0) {
    const SystemCode result = platform::viewFile(memoryFile, position, size, bytes);
    if (result != 0) return failed(PageFile::memory, result);
    if (*bytes != nullptr) {
      return statedSize(*bytes) == size ? Result{} : corrupted(PageFile::memory);
    }
  }
  Page* page = nullptr;
  ZELTA_TRY(holdMemoryPage(position, size, &page));
  *bytes = page->bytes;
  return {};
}

void AtomicManager::markChanged(Page* page) {
  if (changedPage(PageFile::memory, page->key) == page) return;
  assert(unchangedPage(PageFile::memory, page->key) == page);
  remove(page, unchangedTree(PageFile::memory));
  unchangedBytes_ -= page->size;
  insert(page, pages, page->key);
  ++pageCount;
}

// -- Writing --------------------------------------------------------------------------------------

Result AtomicManager::writePage(PageFile file, std::uint64_t position, const char* page,
                                char** held) {
  const std::uint32_t size = statedSize(page);
  if (size <= kNoPageSize) return corrupted(file);
  if (file == PageFile::memory) return writeMemoryPage(position, page, size, held);
  return writeIndexPage(position, page, size);
}

/// Makes `page` the changed version of a memory page. It may be the held bytes themselves, changed
/// in place, or those of the unchanged page.
Result AtomicManager::writeMemoryPage(std::uint64_t position, const char* page, std::uint32_t size,
                                      char** held) {
  Page* node = changedPage(PageFile::memory, position);
  if (node == nullptr) {
    // `page` may be the bytes of the one that is dropped.
    PooledPage fresh(table.pagePool, table.pagePool.take());
    fresh->makeRoom(size);
    std::memcpy(fresh->bytes, page, size);
    page = fresh->bytes;
    dropUnchangedPage(PageFile::memory, position);
    node = fresh.release();
    insert(node, pages, position);
    ++pageCount;
  } else if (page != node->bytes) {
    node->makeRoom(size);
  }
  if (page != node->bytes) std::memcpy(node->bytes, page, size);
  // A page that shrank in place states its new size.
  node->size = size;
  if (held != nullptr) *held = node->bytes;
  return {};
}

// -- Space ----------------------------------------------------------------------------------------

Result AtomicManager::allocateSpace(PageFile file, std::uint32_t size, std::uint64_t* position,
                                    std::uint32_t* blockSize) {
  PageFreeChain& chain = freeSpace(file);
  const std::uint64_t need = chain.need(size);
  if (need > PageBlocks::kLargest) return failed(file, code::kNoMemory);
  FileSpan block{};
  ZELTA_TRY(chain.allocate(size, &block));
  *position = block.position;
  *blockSize = static_cast<std::uint32_t>(block.size);
  if (*position != 0) {
    return inside(file, *position, *blockSize) ? Result{} : reportError(&metaData, Own::freeList);
  }
  *blockSize = static_cast<std::uint32_t>(need);
  return allocateAtEnd(file, need, position);
}

/// Moves the end of a file on by `need` bytes.
Result AtomicManager::allocateAtEnd(PageFile file, std::uint64_t need, std::uint64_t* position) {
  if (file == PageFile::index) {
    *position = indexEndOfFile;
    indexEndOfFile += need;
    return {};
  }
  // Shadows lie behind the end. What they occupy becomes free space: it is written only once they
  // are gone.
  if (shadowCursor > memoryEndOfFile) {
    const std::uint64_t gap = memoryEndOfFile;
    const auto size = static_cast<std::uint32_t>(shadowCursor - gap);
    if (shadowCursor - gap > PageBlocks::kLargest) return failed(file, code::kNoMemory);
    memoryEndOfFile = shadowCursor;
    ZELTA_TRY(releaseSpace(file, gap, size));
  }
  *position = memoryEndOfFile;
  memoryEndOfFile += need;
  if (shadowCursor != 0) shadowCursor = memoryEndOfFile;
  return {};
}

Result AtomicManager::releaseSpace(PageFile file, std::uint64_t position, std::uint32_t size) {
  // A wrong span would be given out again, over what others have there.
  if (!inside(file, position, size)) return corrupted(file);
  if (file == PageFile::memory && deferReleases_) {
    memoryFreeSpace.deferred().addToRun({position, size}, PageBlocks::kLargest);
    return {};
  }
  return freeSpace(file).release({position, size});
}

/// Space for a page, which stands behind whatever was known of a page there. What a block has too
/// much goes back.
Result AtomicManager::allocatePageSpace(PageFile file, std::uint32_t size,
                                        std::uint64_t* position) {
  std::uint32_t blockSize = 0;
  ZELTA_TRY(allocateSpace(file, size, position, &blockSize));
  const auto need = static_cast<std::uint32_t>(freeSpace(file).need(size));
  if (blockSize > need) ZELTA_TRY(releaseSpace(file, *position + need, blockSize - need));
  dropUnchangedPage(file, *position);
  return {};
}

/// Nothing of a page that lay there before counts any more.
Result AtomicManager::newMemoryPage(std::uint32_t size, Page** page) {
  size = wholePageSize(size);
  std::uint64_t position = 0;
  ZELTA_TRY(allocatePageSpace(PageFile::memory, size, &position));
  PooledPage fresh(table.pagePool, table.pagePool.take());
  fresh->makeRoom(size);
  std::memset(fresh->bytes, 0, size);
  std::memcpy(fresh->bytes, &size, sizeof(size));
  *page = fresh.release();
  insert(*page, pages, position);
  ++pageCount;
  return {};
}

Result AtomicManager::allocatePage(PageFile file, std::uint32_t size, char** page,
                                   std::uint64_t* position, ScratchBuffer& scratch) {
  if (file == PageFile::memory) {
    Page* node = nullptr;
    ZELTA_TRY(newMemoryPage(size, &node));
    *page = node->bytes;
    *position = node->key;
    return {};
  }
  size = wholePageSize(size);
  ZELTA_TRY(allocatePageSpace(file, size, position));
  *page = scratch.reserve(size);
  std::memset(*page, 0, size);
  std::memcpy(*page, &size, sizeof(size));
  return {};
}

Result AtomicManager::freePage(PageFile file, std::uint64_t position, std::uint32_t size) {
  dropUnchangedPage(file, position);
  if (Page* page = changedPage(file, position); page != nullptr) {
    if (file == PageFile::memory) {
      remove(page, pages);
      --pageCount;
      table.pagePool.release(page);
    } else {
      releaseIndexBytes(*page);
      shadowPages.erase(page);
    }
  }
  return releaseSpace(file, position, static_cast<std::uint32_t>(freeSpace(file).need(size)));
}

}  // namespace zelta

// The changed index pages of an AtomicManager: held in memory within bounds, least recently used
// ones moved to shadows behind the memory file, or straight into the index file when no memory file
// is open.
//
// States of a changed index page:
//
//   bytes, unsaved     newer than its shadow, or without one; in the list of use
//   bytes, saved       the same as its shadow; in the list of use; may lose its bytes at any time
//   no bytes           in its shadow alone; without a memory file in its place in the index file,
//                      which nobody else reads then: the file is being built
//
// Shadows lie behind the end of the memory file, where they mean nothing to anybody else.

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>

#include "platform/file_io.h"
#include "storage/paged/atomic_manager.h"
#include "storage/paged/atomic_manager_writer.h"

namespace zelta {

namespace {

/// Share of the held pages that moves out at once, so that it goes in few writes.
constexpr std::uint64_t kShareMovedOut = 8;

}  // namespace

/// Copies a changed page to `scratch`, and takes its bytes back into memory if pages are held.
Result AtomicManager::readChangedIndexPage(Page& page, char** bytes, ScratchBuffer& scratch) {
  *bytes = scratch.reserve(page.size);
  if (page.bytes == nullptr) {
    const bool shadow = page.shadowPosition != 0;
    const SystemCode result =
        readLargeBuffer(shadow ? memoryFile : indexFile, shadow ? page.shadowPosition : page.key,
                        *bytes, page.size);
    if (result != 0) return failed(shadow ? PageFile::memory : PageFile::index, result);
    if (!holdIndexPages_ || page.size > heldIndexLimit) return {};
    ZELTA_TRY(takeIndexBytes(page, *bytes, page.size));
    page.unsaved = false;
    return {};
  }
  std::memcpy(*bytes, page.bytes, page.size);
  use(page);
  return {};
}

Result AtomicManager::writeIndexPage(std::uint64_t position, const char* page, std::uint32_t size) {
  dropUnchangedPage(PageFile::index, position);
  Page* node = changedPage(PageFile::index, position);
  if (node == nullptr) {
    if (memoryFile == platform::File::none && !holdIndexPages_) {
      const SystemCode result = writeBuffer(indexFile, position, page, size);
      return result == 0 ? Result{} : failed(PageFile::index, result);
    }
    node = shadowPages.add(position);
  }
  if (holdIndexPages_ && size <= heldIndexLimit) return takeIndexBytes(*node, page, size);
  releaseIndexBytes(*node);
  node->size = size;
  assignShadow(*node);
  const bool shadow = node->shadowPosition != 0;
  const SystemCode result = writeBuffer(shadow ? memoryFile : indexFile,
                                        shadow ? node->shadowPosition : position, page, size);
  if (result != 0) return failed(shadow ? PageFile::memory : PageFile::index, result);
  return {};
}

/// Holds a page's bytes in memory as the newest state of it; others may have to leave.
Result AtomicManager::takeIndexBytes(Page& page, const char* bytes, std::uint32_t size) {
  if (page.bytes == nullptr || page.size != size) {
    releaseIndexBytes(page);
    page.makeRoom(size);
    heldIndexBytes_ += size;
  }
  std::memcpy(page.bytes, bytes, size);
  page.unsaved = true;
  use(page);
  return heldIndexBytes_ > heldIndexLimit ? shrinkHeldIndex() : Result{};
}

/// Gives a page a place behind the memory file that its present size fits in.
void AtomicManager::assignShadow(Page& page) {
  if (memoryFile == platform::File::none) return;
  if (page.shadowPosition != 0 && page.shadowSize >= page.size) return;
  if (shadowCursor < memoryEndOfFile) shadowCursor = memoryEndOfFile;
  page.shadowPosition = shadowCursor;
  page.shadowSize = page.size;
  // Shadows stay on the granule, since what they lie in may become free space.
  shadowCursor += memoryFreeSpace.need(page.size);
}

/// Lets the bytes of a page go. Unless they are saved, the caller replaces or frees the page.
void AtomicManager::releaseIndexBytes(Page& page) {
  if (page.bytes == nullptr) return;
  assert(heldIndexBytes_ >= page.size);
  unuse(page);
  page.dropBytes();
  page.unsaved = false;
  heldIndexBytes_ -= page.size;
}

/// Makes a page the one that was used last.
void AtomicManager::use(Page& page) {
  assert(page.bytes != nullptr);
  if (newest_ == &page) return;
  unuse(page);
  page.older = newest_;
  if (newest_ != nullptr) newest_->newer = &page;
  newest_ = &page;
  if (oldest_ == nullptr) oldest_ = &page;
}

/// Takes a page out of the list of use, whether or not it is there.
void AtomicManager::unuse(Page& page) {
  if (page.newer != nullptr) page.newer->older = page.older;
  if (page.older != nullptr) page.older->newer = page.newer;
  if (newest_ == &page) newest_ = page.older;
  if (oldest_ == &page) oldest_ = page.newer;
  page.newer = nullptr;
  page.older = nullptr;
}

/// Moves the pages that were not used for longest out of memory.
Result AtomicManager::shrinkHeldIndex() {
  const std::uint64_t target = heldIndexLimit - heldIndexLimit / kShareMovedOut;
  const bool shadow = memoryFile != platform::File::none;
  GatheredWriter writer(shadow ? memoryFile : indexFile, metaData.scratchFor(Scratch::journal),
                        heldIndexBytes_ - target);
  SystemCode result = 0;
  while (heldIndexBytes_ > target && oldest_ != newest_ && result == 0) {
    assert(oldest_ != nullptr && oldest_->bytes != nullptr);
    Page& page = *oldest_;
    if (page.unsaved) {
      assignShadow(page);
      result = writer.write(shadow ? page.shadowPosition : page.key, page.bytes, page.size);
    }
    releaseIndexBytes(page);
  }
  if (result == 0) result = writer.finish();
  return result == 0 ? Result{} : failed(shadow ? PageFile::memory : PageFile::index, result);
}

Result AtomicManager::writeHeldIndexPages() {
  assert(memoryFile == platform::File::none);
  GatheredWriter writer(indexFile, metaData.scratchFor(Scratch::journal), heldIndexBytes_);
  ZELTA_TRY(visitChangedPages(PageFile::index, [&](Page& page) {
    if (!page.unsaved) return Result{};
    const SystemCode result = writer.write(page.key, page.bytes, page.size);
    return result == 0 ? Result{} : failed(PageFile::index, result);
  }));
  const SystemCode result = writer.finish();
  if (result != 0) return failed(PageFile::index, result);
  shadowPages.clear();
  newest_ = nullptr;
  oldest_ = nullptr;
  heldIndexBytes_ = 0;
  return {};
}

Result AtomicManager::readShadow(const Page& page, const char** bytes, ScratchBuffer& scratch) {
  assert(page.shadowPosition != 0 && memoryFile != platform::File::none);
  char* copy = scratch.reserve(page.size);
  const SystemCode result = readLargeBuffer(memoryFile, page.shadowPosition, copy, page.size);
  *bytes = copy;
  return result == 0 ? Result{} : failed(PageFile::memory, result);
}

}  // namespace zelta

#include "storage/memory_file/memory_file_pages.h"

#include <cassert>

#include "platform/file_io.h"

namespace zelta::memory_file {

namespace {

/// Whether a page is a leaf or an inner page of the map and its count can be true. An empty leaf
/// cannot: removing takes it out of the map.
bool mapPageIsSound(const char* bytes) {
  MapLeaf_tag head;
  std::memcpy(&head, bytes, offsetof(MapLeaf_tag, previous));
  if (head.size != kMapPageSize) return false;
  if (head.kind == kMapLeafKind) return head.count != 0 && head.count <= kMapLeafEntries;
  return head.kind == kMapInnerKind && head.count <= kMapInnerKeys;
}

}  // namespace

Result holdMapPage(AtomicManager& manager, std::uint64_t position, Page** page) {
  ZELTA_TRY(manager.holdMemoryPage(position, kMapPageSize, page));
  return mapPageIsSound((*page)->bytes) ? Result{} : corrupted(manager);
}

Result viewMapPage(AtomicManager& manager, std::uint64_t position, const char** bytes) {
  ZELTA_TRY(manager.viewMemoryPage(position, kMapPageSize, bytes));
  return mapPageIsSound(*bytes) ? Result{} : corrupted(manager);
}

Result readBlockSize(AtomicManager& manager, const PendingObject& object, std::uint32_t* size) {
  if (!manager.inside(PageFile::memory, object.position, sizeof(*size))) return corrupted(manager);
  const SystemCode result = readBuffer(manager.memoryFile, object.position, size, sizeof(*size));
  if (result != 0) return manager.failed(PageFile::memory, result);
  if (*size < kMinimumBlock || *size % kBlockGranule != 0 ||
      *size < std::uint64_t{object.length} + sizeof(*size) ||
      !manager.inside(PageFile::memory, object.position, *size)) {
    return corrupted(manager);
  }
  return {};
}

Result findPath(AtomicManager& manager, std::uint64_t objectID, bool holdAll, MapPath& path) {
  path.depth = 0;
  std::uint64_t position = manager.memoryRoot(0);
  while (position != 0) {
    if (path.depth == kMaxDepth) return corrupted(manager);
    MapPath::Step& step = path.steps[path.depth++];
    step = {position, nullptr, 0};
    const char* bytes = nullptr;
    ZELTA_TRY(viewMapPage(manager, position, &bytes));
    const bool leaf = isLeaf(bytes);
    if (leaf || holdAll) {
      ZELTA_TRY(holdMapPage(manager, position, &step.page));
      bytes = step.page->bytes;
    }
    if (leaf) {
      step.slot = entryFor(leafOf(bytes), objectID);
      return {};
    }
    const MapInner_tag& inner = innerOf(bytes);
    step.slot = childFor(inner, objectID);
    position = inner.children[step.slot];
    if (position == 0) return corrupted(manager);
  }
  return {};
}

void dropChild(MapInner_tag& inner, std::uint32_t slot) {
  assert(inner.count != 0 && slot <= inner.count);
  // The key between the child and its left neighbour; of the first child the one behind it.
  closeGap(inner.keys, inner.count, slot == 0 ? 0 : slot - 1);
  closeGap(inner.children, inner.count + 1u, slot);
  --inner.count;
}

Result unlinkLeaf(AtomicManager& manager, const MapLeaf_tag& leaf) {
  const std::uint64_t previous = leaf.previous;
  const std::uint64_t next = leaf.next;
  Page* page = nullptr;
  if (previous != 0) {
    ZELTA_TRY(holdMapPage(manager, previous, &page));
    if (!isLeaf(*page)) return corrupted(manager);
    manager.markChanged(page);
    leafOf(*page).next = next;
  }
  if (next != 0) {
    ZELTA_TRY(holdMapPage(manager, next, &page));
    if (!isLeaf(*page)) return corrupted(manager);
    manager.markChanged(page);
    leafOf(*page).previous = previous;
  }
  return {};
}

Result freeMapPage(AtomicManager& manager, std::uint64_t position) {
  return manager.freePage(PageFile::memory, position, kMapPageSize);
}

Result lowerRoot(AtomicManager& manager) {
  for (std::uint32_t i = 0; manager.memoryRoot(0) != 0; ++i) {
    if (i > kMaxDepth) return corrupted(manager);
    Page* page = nullptr;
    ZELTA_TRY(holdMapPage(manager, manager.memoryRoot(0), &page));
    if (isLeaf(*page) || innerOf(*page).count != 0) return {};
    const std::uint64_t child = innerOf(*page).children[0];
    ZELTA_TRY(freeMapPage(manager, manager.memoryRoot(0)));
    manager.memoryRoot(0) = child;
  }
  return {};
}

}  // namespace zelta::memory_file

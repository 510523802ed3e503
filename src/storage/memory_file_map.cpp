#include "storage/memory_file_map.h"

#include "platform/file_io.h"
#include "storage/memory_file_layout.h"

namespace zelta {

namespace memory_file {

namespace {

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
  if (!plausible(manager, object.position, sizeof(*size))) return corrupted(manager);
  const SystemCode result = readBuffer(manager.memoryFile, object.position, size, sizeof(*size));
  if (result != 0) return failed(manager, result);
  if (*size < kMinimumBlock || *size % kBlockGranule != 0 ||
      *size < std::uint64_t{object.length} + sizeof(*size) ||
      !plausible(manager, object.position, *size)) {
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

}  // namespace memory_file

namespace {

using memory_file::corrupted;
using memory_file::innerOf;
using memory_file::isLeaf;
using memory_file::kMaxDepth;
using memory_file::leafOf;
using memory_file::viewMapPage;

/// Descends to the leaf that `choose` leads to: it gives the number of a page's child. An empty map
/// gives null.
template <class Choose>
Result leafBelow(AtomicManager& manager, const MapLeaf_tag** leaf, const Choose& choose) {
  *leaf = nullptr;
  std::uint64_t position = manager.memoryRoot(0);
  for (std::uint32_t depth = 0; position != 0; ++depth) {
    if (depth == kMaxDepth) return corrupted(manager);
    const char* bytes = nullptr;
    ZELTA_TRY(viewMapPage(manager, position, &bytes));
    if (isLeaf(bytes)) {
      *leaf = &leafOf(bytes);
      return {};
    }
    const MapInner_tag& inner = innerOf(bytes);
    position = inner.children[choose(inner)];
    if (position == 0) return corrupted(manager);
  }
  return {};
}

}  // namespace

Result findPendingObject(AtomicManager& manager, std::uint64_t objectID, PendingObject* out,
                         bool* found) {
  *found = false;
  const MapLeaf_tag* leaf = nullptr;
  ZELTA_TRY(leafBelow(manager, &leaf, [objectID](const MapInner_tag& inner) {
    return memory_file::childFor(inner, objectID);
  }));
  if (leaf == nullptr) return {};
  const std::uint32_t slot = memory_file::entryFor(*leaf, objectID);
  *found = slot != leaf->count && leaf->objectIDs[slot] == objectID;
  if (*found) *out = memory_file::entryOf(*leaf, slot);
  return {};
}

Result lastPendingID(AtomicManager& manager, std::uint64_t* objectID) {
  *objectID = 0;
  const MapLeaf_tag* leaf = nullptr;
  ZELTA_TRY(leafBelow(manager, &leaf,
                      [](const MapInner_tag& inner) { return std::uint32_t{inner.count}; }));
  if (leaf != nullptr) *objectID = leaf->objectIDs[leaf->count - 1];
  return {};
}

// -- The walk -------------------------------------------------------------------------------------

Result PendingObjectWalk::takeLeaf(std::uint64_t position) {
  manager_.dropUnchanged();
  const char* bytes = nullptr;
  ZELTA_TRY(viewMapPage(manager_, position, &bytes));
  if (!isLeaf(bytes)) return corrupted(manager_);
  std::memcpy(&leaf_, bytes, sizeof(leaf_));
  index_ = 0;
  return {};
}

Result PendingObjectWalk::firstLeaf() {
  started_ = true;
  manager_.dropUnchanged();
  const MapLeaf_tag* leaf = nullptr;
  ZELTA_TRY(leafBelow(manager_, &leaf, [](const MapInner_tag&) { return 0U; }));
  if (leaf != nullptr) std::memcpy(&leaf_, leaf, sizeof(leaf_));
  return {};
}

Result PendingObjectWalk::next(PendingObject* out, bool* found) {
  *found = false;
  if (!started_) ZELTA_TRY(firstLeaf());
  if (index_ == leaf_.count) {
    if (leaf_.next == 0) return {};
    ZELTA_TRY(takeLeaf(leaf_.next));
  }
  *out = memory_file::entryOf(leaf_, index_);
  // Ascending IDs also prove that damaged links lead in no circle.
  if (out->objectID <= lastID_) return corrupted(manager_);
  lastID_ = out->objectID;
  ++index_;
  *found = true;
  return {};
}

Result memory_file::scanTransaction(AtomicManager& manager, std::uint32_t number,
                                    UInt64AVLTree** ids, bool* sole) {
  *sole = true;
  PendingObjectWalk walk(manager);
  for (;;) {
    PendingObject object;
    bool found = false;
    ZELTA_TRY(walk.next(&object, &found));
    if (!found) return {};
    if (object.transaction != number) {
      *sole = false;
      if (ids == nullptr) return {};
    } else if (ids != nullptr) {
      new UInt64AVLTree(*ids, object.objectID);
    }
  }
}

Result collectTransaction(AtomicManager& manager, std::uint32_t number, UInt64AVLTree*& ids,
                          bool* sole) {
  bool isSole = false;
  ZELTA_TRY(memory_file::scanTransaction(manager, number, &ids, &isSole));
  if (sole != nullptr) *sole = isSole;
  return {};
}

}  // namespace zelta

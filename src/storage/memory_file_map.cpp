#include "storage/memory_file_map.h"

#include "storage/file_io.h"
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

Result findPath(AtomicManager& manager, std::uint64_t objectID, MapPath& path) {
  path.depth = 0;
  std::uint64_t position = manager.memoryRoot(0);
  while (position != 0) {
    if (path.depth == kMaxDepth) return corrupted(manager);
    MapPath::Step& step = path.steps[path.depth++];
    ZELTA_TRY(holdMapPage(manager, position, &step.page));
    if (isLeaf(*step.page)) {
      step.slot = entryFor(leafOf(*step.page), objectID);
      return {};
    }
    const MapInner_tag& inner = innerOf(*step.page);
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
using memory_file::holdMapPage;
using memory_file::innerOf;
using memory_file::isLeaf;
using memory_file::kMaxDepth;
using memory_file::leafOf;
using memory_file::Page;

/// Descends along the first or the last children.
Result outermostLeaf(AtomicManager& manager, bool last, Page** leaf) {
  *leaf = nullptr;
  std::uint64_t position = manager.memoryRoot(0);
  for (std::uint32_t depth = 0; position != 0; ++depth) {
    if (depth == kMaxDepth) return corrupted(manager);
    ZELTA_TRY(holdMapPage(manager, position, leaf));
    if (isLeaf(**leaf)) return {};
    const MapInner_tag& inner = innerOf(**leaf);
    position = inner.children[last ? inner.count : 0];
    if (position == 0) return corrupted(manager);
  }
  return {};
}

}  // namespace

Result findPendingObject(AtomicManager& manager, std::uint64_t objectID, PendingObject* out,
                         bool* found) {
  *found = false;
  memory_file::MapPath path;
  ZELTA_TRY(memory_file::findPath(manager, objectID, path));
  if (path.depth == 0) return {};
  const MapLeaf_tag& leaf = leafOf(*path.leaf().page);
  const std::uint32_t slot = path.leaf().slot;
  if (slot == leaf.count || leaf.objectIDs[slot] != objectID) return {};
  *out = memory_file::entryOf(leaf, slot);
  *found = true;
  return {};
}

Result lastPendingID(AtomicManager& manager, std::uint64_t* objectID) {
  *objectID = 0;
  Page* leaf = nullptr;
  ZELTA_TRY(outermostLeaf(manager, true, &leaf));
  if (leaf != nullptr) *objectID = leafOf(*leaf).objectIDs[leafOf(*leaf).count - 1];
  return {};
}

// -- The walk -------------------------------------------------------------------------------------

Result PendingObjectWalk::takeLeaf(std::uint64_t position) {
  manager_.dropUnchanged();
  Page* page = nullptr;
  ZELTA_TRY(holdMapPage(manager_, position, &page));
  if (!isLeaf(*page)) return corrupted(manager_);
  std::memcpy(&leaf_, page->bytes, sizeof(leaf_));
  index_ = 0;
  return {};
}

Result PendingObjectWalk::firstLeaf() {
  started_ = true;
  manager_.dropUnchanged();
  Page* page = nullptr;
  ZELTA_TRY(outermostLeaf(manager_, false, &page));
  if (page != nullptr) std::memcpy(&leaf_, page->bytes, sizeof(leaf_));
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

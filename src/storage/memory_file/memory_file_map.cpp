#include "storage/memory_file/memory_file_map.h"

#include <cassert>
#include <cstring>
#include "platform/file_io.h"
#include "storage/memory_file/memory_file_pages.h"

namespace zelta {

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
  if (!*found) return {};
  *out = memory_file::entryOf(*leaf, slot);
  return out->position != 0 ? Result() : corrupted(manager);
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

/// Copies a leaf. Pages that were read on the way are let go, so that memory does not grow with the
/// map.
Result PendingObjectWalk::takeLeaf(std::uint64_t position) {
  manager_.dropUnchanged();
  const char* bytes = nullptr;
  ZELTA_TRY(viewMapPage(manager_, position, &bytes));
  if (!isLeaf(bytes)) return corrupted(manager_);
  std::memcpy(&leaf_, bytes, sizeof(leaf_));
  index_ = 0;
  return {};
}

/// Copies the first leaf; an empty map leaves the copy without entries.
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
  assert(index_ <= leaf_.count);
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

Result collectTransaction(AtomicManager& manager, std::uint32_t number, UInt64AVLTree** ids,
                          bool* sole) {
  if (sole != nullptr) *sole = true;
  PendingObjectWalk walk(manager);
  for (;;) {
    PendingObject object;
    bool found = false;
    ZELTA_TRY(walk.next(&object, &found));
    if (!found) return {};
    if (object.transaction != number) {
      if (sole != nullptr) *sole = false;
      if (ids == nullptr) return {};
    } else if (ids != nullptr) {
      new UInt64AVLTree(*ids, object.objectID);
    }
  }
}

}  // namespace zelta

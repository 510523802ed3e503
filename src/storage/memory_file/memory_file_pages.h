// The pages of the object map: checks, paths and the small changes that storing and removing have
// in common. Only memory_file_*.cpp includes this.
//
// A page is held (AtomicManager::holdMemoryPage) before it is changed, and marked as changed before
// the first byte of it differs. Pages are checked each time that they are looked at: their counts
// may be trusted afterwards, positions in them may not.

#ifndef ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_PAGES_H
#define ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_PAGES_H

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <cstring>

#include "storage/memory_file/memory_file_map.h"
#include "storage/paged/atomic_manager.h"

namespace zelta::memory_file {

/// No map is deeper: each level but the root has at least a dozen children when it is made, and
/// removing never makes a map deeper.
inline constexpr std::uint32_t kMaxDepth = 24;

using Page = AtomicManager::Page;

/// Reports a memory file whose content is wrong.
[[nodiscard]] inline Result corrupted(const AtomicManager& manager) {
  return manager.corrupted(PageFile::memory);
}

[[nodiscard]] inline bool isLeaf(const Page& page) {
  return reinterpret_cast<const MapLeaf_tag*>(page.bytes)->kind == kMapLeafKind;
}
[[nodiscard]] inline MapLeaf_tag& leafOf(Page& page) {
  return *reinterpret_cast<MapLeaf_tag*>(page.bytes);
}
[[nodiscard]] inline MapInner_tag& innerOf(Page& page) {
  return *reinterpret_cast<MapInner_tag*>(page.bytes);
}

/// Number of the first entry with an ID not below `objectID`.
[[nodiscard]] inline std::uint32_t entryFor(const MapLeaf_tag& leaf, std::uint64_t objectID) {
  return static_cast<std::uint32_t>(
      std::lower_bound(leaf.objectIDs, leaf.objectIDs + leaf.count, objectID) - leaf.objectIDs);
}
/// Number of the child that holds an ID: one equal to key i belongs to child i + 1.
[[nodiscard]] inline std::uint32_t childFor(const MapInner_tag& inner, std::uint64_t objectID) {
  return static_cast<std::uint32_t>(
      std::upper_bound(inner.keys, inner.keys + inner.count, objectID) - inner.keys);
}

/// Opens a gap of one element in an array of `count`, or closes it.
template <class T>
void openGap(T* array, std::uint32_t count, std::uint32_t at) {
  assert(at <= count);
  std::memmove(array + at + 1, array + at, (count - at) * sizeof(T));
}
template <class T>
void closeGap(T* array, std::uint32_t count, std::uint32_t at) {
  assert(at < count);
  std::memmove(array + at, array + at + 1, (count - at - 1) * sizeof(T));
}
/// Copies elements between the arrays of two pages.
template <class T>
void copyItems(T* to, const T* from, std::uint32_t count) {
  std::memcpy(to, from, count * sizeof(T));
}

/// A page of the map, held and checked; own error 58 if it is none.
Result holdMapPage(AtomicManager& manager, std::uint64_t position, Page** page);
/// Its bytes, checked, to look at until the manager is used again.
Result viewMapPage(AtomicManager& manager, std::uint64_t position, const char** bytes);

[[nodiscard]] inline bool isLeaf(const char* bytes) {
  return reinterpret_cast<const MapLeaf_tag*>(bytes)->kind == kMapLeafKind;
}
[[nodiscard]] inline const MapLeaf_tag& leafOf(const char* bytes) {
  return *reinterpret_cast<const MapLeaf_tag*>(bytes);
}
[[nodiscard]] inline const MapInner_tag& innerOf(const char* bytes) {
  return *reinterpret_cast<const MapInner_tag*>(bytes);
}
/// A record's block size, read and checked.
Result readBlockSize(AtomicManager& manager, const PendingObject& object, std::uint32_t* size);

[[nodiscard]] inline PendingObject entryOf(const MapLeaf_tag& leaf, std::uint32_t i) {
  return {leaf.objectIDs[i], leaf.positions[i], leaf.lengths[i], leaf.transactions[i]};
}

/// The way from the root to a leaf.
struct MapPath {
  struct Step {
    std::uint64_t position;
    Page* page;          ///< null where it is not held
    std::uint32_t slot;  ///< child taken; in the leaf the entry
  };
  std::array<Step, kMaxDepth> steps;  ///< the first `depth` are filled
  std::uint32_t depth = 0;            ///< 0: the map is empty

  [[nodiscard]] Step& leaf() {
    assert(depth != 0);
    return steps[depth - 1];
  }
};
/// Descends to where an ID stands or would stand. The leaf is held, and with `holdAll` the inner
/// pages are too.
Result findPath(AtomicManager& manager, std::uint64_t objectID, bool holdAll, MapPath& path);

/// Drops child `slot` of an inner page, and the key beside it. The page must have another child.
void dropChild(MapInner_tag& inner, std::uint32_t slot);
/// Takes a leaf out of the chain of leaves: its neighbours lead to each other. The leaf itself,
/// whose page is the caller's to free, stays as it is.
Result unlinkLeaf(AtomicManager& manager, const MapLeaf_tag& leaf);
/// Gives a page of the map up.
Result freeMapPage(AtomicManager& manager, std::uint64_t position);
/// While the root is an inner page with a single child, that child becomes the root: removals end
/// with this.
Result lowerRoot(AtomicManager& manager);

}  // namespace zelta::memory_file

#endif  // ZELTA_STORAGE_MEMORY_FILE_MEMORY_FILE_PAGES_H

#include "storage/memory_file/memory_file_remove.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "storage/memory_file/memory_file_pages.h"

namespace zelta {

namespace {

using memory_file::closeGap;
using memory_file::copyItems;
using memory_file::corrupted;
using memory_file::dropChild;
using memory_file::entryOf;
using memory_file::freeMapPage;
using memory_file::holdMapPage;
using memory_file::innerOf;
using memory_file::isLeaf;
using memory_file::kMaxDepth;
using memory_file::leafOf;
using memory_file::MapPath;
using memory_file::Page;
using memory_file::unlinkLeaf;

/// Fill of pages, in entries: below 40 % a page is underfull and looks for a sibling to coalesce
/// with, if together they have less than 80 %; an inner page below 10 % takes keys from a sibling.
constexpr bool fillIsBelow(std::uint32_t count, std::uint32_t capacity, std::uint32_t percent) {
  return count * 100 < capacity * percent;
}
/// Whether a page was underfull before an entry was taken out of it, or is now.
bool isUnderfull(const Page& page, std::uint32_t count) {
  return fillIsBelow(count + 1, isLeaf(page) ? kMapLeafEntries : kMapInnerKeys, 40);
}

/// Takes an entry out of a leaf; its record is the caller's to free.
void dropEntry(MapLeaf_tag& leaf, std::uint32_t slot) {
  closeGap(leaf.objectIDs, leaf.count, slot);
  closeGap(leaf.transactions, leaf.count, slot);
  closeGap(leaf.lengths, leaf.count, slot);
  closeGap(leaf.positions, leaf.count, slot);
  --leaf.count;
}

/// Releases the block of an entry's record.
Result freeRecord(AtomicManager& manager, const PendingObject& object) {
  std::uint32_t size = 0;
  ZELTA_TRY(memory_file::readBlockSize(manager, object, &size));
  return manager.releaseSpace(PageFile::memory, object.position, size);
}

/// Brings the pages along a path back into shape after an entry was taken out of the leaf.
class Shrink {
 public:
  Shrink(AtomicManager& manager, MapPath& path) : manager_(manager), path_(path) {}
  Result run();

 private:
  Result dropFromParent(std::uint32_t level);
  // Of an underfull page and its sibling under the same parent.
  Result refill(std::uint32_t level, bool* merged);
  Result tryMerge(std::uint32_t level, std::uint32_t leftSlot, bool* merged);
  [[nodiscard]] bool isAbove(const Page* page, std::uint32_t level) const;
  Result mergeLeaves(Page& left, Page& right, Page& survivor);
  void mergeInner(Page& left, Page& right, std::uint64_t key, Page& survivor);
  Result redistribute(MapInner_tag& parent, std::uint32_t leftSlot);

  AtomicManager& manager_;
  MapPath& path_;
};

/// From the leaf up, as long as a page has lost an entry or a child: an empty leaf is freed, an
/// underfull page is refilled. A page that is left as it is ends the way.
Result Shrink::run() {
  for (std::uint32_t level = path_.depth; level-- > 0;) {
    assert(path_.steps[level].page != nullptr);
    Page& page = *path_.steps[level].page;
    if (isLeaf(page) && leafOf(page).count == 0) {
      ZELTA_TRY(unlinkLeaf(manager_, leafOf(page)));
      return dropFromParent(level);
    }
    if (level == 0) break;
    const std::uint32_t count = isLeaf(page) ? leafOf(page).count : innerOf(page).count;
    if (!isUnderfull(page, count)) break;
    bool merged = false;
    ZELTA_TRY(refill(level, &merged));
    if (!merged) break;
  }
  return memory_file::lowerRoot(manager_);
}

/// Frees an empty page; a parent that loses its only child by that goes the same way.
Result Shrink::dropFromParent(std::uint32_t level) {
  ZELTA_TRY(freeMapPage(manager_, path_.steps[level].page->key));
  while (level-- > 0) {
    MapPath::Step& parent = path_.steps[level];
    manager_.markChanged(parent.page);
    if (innerOf(*parent.page).count != 0) {
      dropChild(innerOf(*parent.page), parent.slot);
      path_.depth = level + 1;
      return run();
    }
    ZELTA_TRY(freeMapPage(manager_, parent.page->key));
  }
  manager_.memoryRoot(0) = 0;
  return {};
}

/// Refills an underfull page: coalesces it with a sibling, so that the parent loses a child, or
/// redistributes the keys of the two.
Result Shrink::refill(std::uint32_t level, bool* merged) {
  assert(level != 0);
  MapPath::Step& parent = path_.steps[level - 1];
  MapInner_tag& inner = innerOf(*parent.page);
  if (parent.slot < inner.count) ZELTA_TRY(tryMerge(level, parent.slot, merged));
  if (!*merged && parent.slot > 0) ZELTA_TRY(tryMerge(level, parent.slot - 1, merged));
  if (*merged) return {};
  Page& page = *path_.steps[level].page;
  if (isLeaf(page) || !fillIsBelow(innerOf(page).count, kMapInnerKeys, 10)) return {};
  if (inner.count == 0) return {};
  manager_.markChanged(parent.page);
  return redistribute(inner, parent.slot < inner.count ? parent.slot : parent.slot - 1);
}

/// Whether the path leads through a page above a level.
bool Shrink::isAbove(const Page* page, std::uint32_t level) const {
  return std::any_of(path_.steps.begin(), path_.steps.begin() + level,
                     [page](const MapPath::Step& step) { return step.page == page; });
}

/// Coalesces children `leftSlot` and the next one of the branch above a level if they fit together.
/// The page lower in the file survives.
Result Shrink::tryMerge(std::uint32_t level, std::uint32_t leftSlot, bool* merged) {
  MapPath::Step& parent = path_.steps[level - 1];
  MapInner_tag& inner = innerOf(*parent.page);
  Page* left = nullptr;
  Page* right = nullptr;
  ZELTA_TRY(holdMapPage(manager_, inner.children[leftSlot], &left));
  ZELTA_TRY(holdMapPage(manager_, inner.children[leftSlot + 1], &right));
  if (left == right || isLeaf(*left) != isLeaf(*right)) return corrupted(manager_);
  // A damaged link may lead to a page that the path still needs as it is.
  if (isAbove(left, level) || isAbove(right, level)) return corrupted(manager_);
  const bool leaf = isLeaf(*left);
  const std::uint32_t together = leaf ? leafOf(*left).count + leafOf(*right).count
                                      : innerOf(*left).count + innerOf(*right).count + 1u;
  if (!fillIsBelow(together, leaf ? kMapLeafEntries : kMapInnerKeys, 80)) return {};
  *merged = true;
  Page& survivor = left->key < right->key ? *left : *right;
  const std::uint64_t gone = left->key < right->key ? right->key : left->key;
  manager_.markChanged(&survivor);
  manager_.markChanged(parent.page);
  if (leaf) {
    ZELTA_TRY(mergeLeaves(*left, *right, survivor));
  } else {
    mergeInner(*left, *right, inner.keys[leftSlot], survivor);
  }
  // The key between the two goes with the right one.
  dropChild(inner, leftSlot + 1);
  inner.children[leftSlot] = survivor.key;
  return freeMapPage(manager_, gone);
}

/// Puts the entries of two neighbouring leaves into `survivor`, which is one of them, and links it
/// in place of both.
Result Shrink::mergeLeaves(Page& leftPage, Page& rightPage, Page& survivor) {
  const MapLeaf_tag& left = leafOf(leftPage);
  const MapLeaf_tag& right = leafOf(rightPage);
  if (left.next != rightPage.key || right.previous != leftPage.key) return corrupted(manager_);
  assert(left.count + right.count <= kMapLeafEntries);
  MapLeaf_tag whole = left;
  copyItems(whole.objectIDs + left.count, right.objectIDs, right.count);
  copyItems(whole.transactions + left.count, right.transactions, right.count);
  copyItems(whole.lengths + left.count, right.lengths, right.count);
  copyItems(whole.positions + left.count, right.positions, right.count);
  whole.count = static_cast<std::uint16_t>(left.count + right.count);
  whole.next = right.next;
  // The neighbour on the side of the page that goes must lead to the other one.
  const bool leftSurvives = &survivor == &leftPage;
  const std::uint64_t neighbour = leftSurvives ? whole.next : whole.previous;
  std::memcpy(survivor.bytes, &whole, sizeof(whole));
  if (neighbour == 0) return {};
  Page* page = nullptr;
  ZELTA_TRY(holdMapPage(manager_, neighbour, &page));
  if (!isLeaf(*page)) return corrupted(manager_);
  manager_.markChanged(page);
  (leftSurvives ? leafOf(*page).previous : leafOf(*page).next) = survivor.key;
  return {};
}

/// The same for inner pages; `key` is the one that stood between them in the parent.
void Shrink::mergeInner(Page& leftPage, Page& rightPage, std::uint64_t key, Page& survivor) {
  MapInner_tag whole = innerOf(leftPage);
  const MapInner_tag& right = innerOf(rightPage);
  assert(whole.count + right.count + 1u <= kMapInnerKeys);
  whole.keys[whole.count] = key;
  copyItems(whole.keys + whole.count + 1, right.keys, right.count);
  copyItems(whole.children + whole.count + 1, right.children, right.count + 1u);
  whole.count = static_cast<std::uint16_t>(whole.count + right.count + 1);
  std::memcpy(survivor.bytes, &whole, sizeof(whole));
}

/// Spreads the keys of two siblings that are too full to coalesce evenly over both.
Result Shrink::redistribute(MapInner_tag& parent, std::uint32_t leftSlot) {
  Page* leftPage = nullptr;
  Page* rightPage = nullptr;
  ZELTA_TRY(holdMapPage(manager_, parent.children[leftSlot], &leftPage));
  ZELTA_TRY(holdMapPage(manager_, parent.children[leftSlot + 1], &rightPage));
  assert(!isLeaf(*leftPage) && !isLeaf(*rightPage));  // tryMerge() has compared them
  manager_.markChanged(leftPage);
  manager_.markChanged(rightPage);
  MapInner_tag& left = innerOf(*leftPage);
  MapInner_tag& right = innerOf(*rightPage);
  const std::uint32_t total = left.count + right.count;
  std::array<std::uint64_t, 2 * kMapInnerKeys + 1> keys;
  std::array<std::uint64_t, 2 * kMapInnerKeys + 2> children;
  copyItems(keys.data(), left.keys, left.count);
  keys[left.count] = parent.keys[leftSlot];
  copyItems(keys.data() + left.count + 1, right.keys, right.count);
  copyItems(children.data(), left.children, left.count + 1u);
  copyItems(children.data() + left.count + 1, right.children, right.count + 1u);
  left.count = static_cast<std::uint16_t>(total / 2);
  right.count = static_cast<std::uint16_t>(total - total / 2);
  copyItems(left.keys, keys.data(), left.count);
  copyItems(left.children, children.data(), left.count + 1u);
  parent.keys[leftSlot] = keys[left.count];
  copyItems(right.keys, keys.data() + left.count + 1, right.count);
  copyItems(right.children, children.data() + left.count + 1, right.count + 1u);
  return {};
}

}  // namespace

Result removeObject(AtomicManager& manager, MemoryFileHeader_tag& header, std::uint64_t objectID) {
  MapPath path;
  ZELTA_TRY(memory_file::findPath(manager, objectID, true, path));
  const bool empty = path.depth == 0;
  const std::uint32_t slot = empty ? 0 : path.leaf().slot;
  if (empty || slot == leafOf(*path.leaf().page).count ||
      leafOf(*path.leaf().page).objectIDs[slot] != objectID) {
    return reportError(&manager.metaData, Own::objectNotFound, manager.table.cName(),
                       extension::kMemory, static_cast<std::int64_t>(objectID));
  }
  Page* page = path.leaf().page;
  const PendingObject object = entryOf(leafOf(*page), slot);
  ZELTA_TRY(freeRecord(manager, object));
  manager.markChanged(page);
  dropEntry(leafOf(*page), slot);
  ZELTA_TRY(Shrink(manager, path).run());
  ZELTA_TRY(flushMemoryPages(manager, header, nullptr, false));
  manager.table.pendingBytes -= pendingImageBytes(object.length);
  return {};
}

// -- A whole transaction --------------------------------------------------------------------------

namespace {

/// Owns a set of IDs until it is handed over.
class IdSet {
 public:
  IdSet() = default;
  ~IdSet() { destroyAll(root_); }
  IdSet(const IdSet&) = delete;
  IdSet& operator=(const IdSet&) = delete;
  UInt64AVLTree*& root() { return root_; }

 private:
  UInt64AVLTree* root_ = nullptr;
};

/// Taking out a transaction's entries one by one would walk the map for each of them.
///
/// Walks the map depth first and takes a transaction's entries out, page by page.
class Sweep {
 public:
  Sweep(AtomicManager& manager, std::uint32_t number, UInt64AVLTree** removed)
      : manager_(manager), number_(number), removed_(removed) {}

  Result run();

 private:
  /// Goes down from `position` along the path's slots to the next leaf.
  Result descend(std::uint64_t position);
  Result compactLeaf(Page* page);
  /// After a child was done: on to the next one, or up.
  Result leave(bool childIsGone, bool* more);

  AtomicManager& manager_;
  std::uint32_t number_;
  UInt64AVLTree** removed_;
  struct Level {
    std::uint64_t position = 0;
    std::uint32_t slot = 0;
  };
  std::array<Level, kMaxDepth> levels_{};
  std::uint32_t depth_ = 0;
  std::uint64_t lastID_ = 0;
};

Result Sweep::run() {
  if (manager_.memoryRoot(0) == 0) return {};
  std::uint64_t next = manager_.memoryRoot(0);
  for (bool more = true; more;) {
    // What was only read is let go, so that memory does not grow with the map.
    manager_.dropUnchanged();
    ZELTA_TRY(descend(next));
    Page* page = nullptr;
    ZELTA_TRY(holdMapPage(manager_, levels_[depth_ - 1].position, &page));
    assert(isLeaf(*page));
    ZELTA_TRY(compactLeaf(page));
    const bool gone = leafOf(*page).count == 0;
    if (gone) {
      ZELTA_TRY(unlinkLeaf(manager_, leafOf(*page)));
      ZELTA_TRY(freeMapPage(manager_, page->key));
    }
    --depth_;
    ZELTA_TRY(leave(gone, &more));
    if (!more) break;
    const Level& parent = levels_[depth_ - 1];
    ZELTA_TRY(holdMapPage(manager_, parent.position, &page));
    next = innerOf(*page).children[parent.slot];
  }
  return memory_file::lowerRoot(manager_);
}

Result Sweep::descend(std::uint64_t position) {
  for (;;) {
    if (depth_ == kMaxDepth) return corrupted(manager_);
    levels_[depth_++] = {position, 0};
    Page* page = nullptr;
    ZELTA_TRY(holdMapPage(manager_, position, &page));
    if (isLeaf(*page)) return {};
    position = innerOf(*page).children[0];
  }
}

/// Takes the entries out of a leaf and closes the gaps. IDs must ascend from leaf to leaf, which
/// also proves that damaged links lead in no circle.
Result Sweep::compactLeaf(Page* page) {
  MapLeaf_tag& leaf = leafOf(*page);
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < leaf.count; ++i) {
    const PendingObject object = entryOf(leaf, i);
    if (object.objectID <= lastID_) return corrupted(manager_);
    lastID_ = object.objectID;
    if (object.transaction == number_) {
      ZELTA_TRY(freeRecord(manager_, object));
      if (removed_ != nullptr) new UInt64AVLTree(*removed_, object.objectID);
      continue;
    }
    if (kept != i) {
      manager_.markChanged(page);
      leaf.objectIDs[kept] = object.objectID;
      leaf.transactions[kept] = object.transaction;
      leaf.lengths[kept] = object.length;
      leaf.positions[kept] = object.position;
    }
    ++kept;
  }
  if (kept != leaf.count) {
    manager_.markChanged(page);
    leaf.count = static_cast<std::uint16_t>(kept);
  }
  return {};
}

Result Sweep::leave(bool childIsGone, bool* more) {
  for (*more = false; depth_ != 0; --depth_) {
    Level& level = levels_[depth_ - 1];
    Page* page = nullptr;
    ZELTA_TRY(holdMapPage(manager_, level.position, &page));
    MapInner_tag& inner = innerOf(*page);
    if (level.slot > inner.count) return corrupted(manager_);  // a page of its own subtree
    if (!childIsGone) {
      ++level.slot;
    } else if (inner.count != 0) {
      manager_.markChanged(page);
      dropChild(inner, level.slot);
    } else {
      ZELTA_TRY(freeMapPage(manager_, level.position));
      continue;
    }
    childIsGone = false;
    if (level.slot <= inner.count) {
      *more = true;
      return {};
    }
  }
  if (childIsGone) manager_.memoryRoot(0) = 0;
  return {};
}

bool pendingKeysLeft(AtomicManager& manager) {
  for (std::uint32_t i = 0; i < manager.indexCount; ++i) {
    if (manager.memoryRoot(i + 1) != 0) return true;
  }
  return false;
}

}  // namespace

Result removeTransaction(AtomicManager& manager, MemoryFileHeader_tag& header, std::uint32_t number,
                         UInt64AVLTree** removedIDs) {
  IdSet removed;
  bool sole = false;
  // Without anybody else's entries nothing remains of the file but its header.
  if (!pendingKeysLeft(manager)) {
    ZELTA_TRY(collectTransaction(manager, number, removedIDs != nullptr ? &removed.root() : nullptr,
                                 &sole));
  }
  if (sole) {
    // Nothing of the pages is worth a look: root, chain and end are what they are in an empty file.
    manager.dropMemoryChanges();
    manager.dropUnchanged();
    manager.memoryRoot(0) = 0;
    manager.memoryFreeSpace.startAt(0);
    manager.memoryEndOfFile = kMemoryForm.headerSize(manager.indexCount);
  } else {
    destroyAll(removed.root());
    manager.deferMemoryReleases();
    ZELTA_TRY(Sweep(manager, number, removedIDs != nullptr ? &removed.root() : nullptr).run());
  }
  ZELTA_TRY(flushMemoryPages(manager, header, nullptr, true));
  if (removedIDs != nullptr) std::swap(*removedIDs, removed.root());
  return {};
}

}  // namespace zelta

#include "storage/memory_file/memory_file_store.h"

#include <cassert>
#include <cstring>

#include "storage/memory_file/memory_file_pages.h"
#include "storage/paged/paged_flush.h"

namespace zelta {

namespace {

using memory_file::copyItems;
using memory_file::corrupted;
using memory_file::holdMapPage;
using memory_file::innerOf;
using memory_file::isLeaf;
using memory_file::leafOf;
using memory_file::MapPath;
using memory_file::openGap;
using memory_file::Page;

/// Ascending IDs are the usual case: an uneven split leaves pages well filled behind them.
constexpr std::uint32_t kLeafKeeps = 63;
constexpr std::uint32_t kInnerKeeps = 84;

/// What an object's record asks for: room for its size word and bytes.
std::uint64_t recordRequest(std::uint32_t length) {
  return length < 12 ? 16 : pendingImageBytes(length);
}

/// One entry on its way into the map.
class Store {
 public:
  Store(AtomicManager& manager, const PendingObject& entry) : manager_(manager), entry_(entry) {}

  /// Enters or replaces the entry and finds a block for its record.
  Result enter();
  [[nodiscard]] const PendingObject& entry() const { return entry_; }
  [[nodiscard]] std::uint32_t blockSize() const { return blockSize_; }
  [[nodiscard]] std::uint64_t oldImageBytes() const { return oldImageBytes_; }

 private:
  /// Allocates a block for the record.
  Result allocateBlock();
  /// Gives the entry in `slot`, this transaction's own, its new record. A block is kept while it is
  /// at most twice too large.
  Result replace(Page* page, std::uint32_t slot);
  /// Makes the first leaf of an empty map.
  Result startMap();
  /// Enters the entry in the path's leaf, which may be split; then the parents get another child.
  Result insertEntry(MapPath& path);
  Result splitLeaf(Page* old, Page** right);
  Result insertChild(MapPath& path, std::uint64_t key, std::uint64_t child);
  Result splitInner(Page* old, Page** right, std::uint64_t* key);
  /// A new root over the old one and the page that was split off it.
  Result growRoot(std::uint64_t left, std::uint64_t key, std::uint64_t right);
  void put(MapLeaf_tag& leaf, std::uint32_t slot) const;

  AtomicManager& manager_;
  PendingObject entry_;
  std::uint32_t blockSize_ = 0;
  std::uint64_t oldImageBytes_ = 0;
};

Result Store::enter() {
  MapPath path;
  ZELTA_TRY(memory_file::findPath(manager_, entry_.objectID, false, path));
  if (path.depth == 0) {
    ZELTA_TRY(startMap());
    return {};
  }
  Page* page = path.leaf().page;
  const std::uint32_t slot = path.leaf().slot;
  const MapLeaf_tag& leaf = leafOf(*page);
  if (slot < leaf.count && leaf.objectIDs[slot] == entry_.objectID) return replace(page, slot);
  return insertEntry(path);
}

Result Store::allocateBlock() {
  const std::uint64_t request = recordRequest(entry_.length);
  if (request > 0xFFFFFFE0) {
    return manager_.failed(PageFile::memory, code::kNoMemory);
  }
  return manager_.allocateSpace(PageFile::memory, static_cast<std::uint32_t>(request),
                                &entry_.position, &blockSize_);
}

Result Store::replace(Page* page, std::uint32_t slot) {
  const PendingObject old = memory_file::entryOf(leafOf(*page), slot);
  if (old.transaction != entry_.transaction) {
    return reportError(&manager_.metaData, Own::unclassified, manager_.table.cName(),
                       extension::kMemory, static_cast<std::int64_t>(old.objectID),
                       old.transaction);
  }
  oldImageBytes_ = pendingImageBytes(old.length);
  ZELTA_TRY(memory_file::readBlockSize(manager_, old, &blockSize_));
  manager_.markChanged(page);
  entry_.position = old.position;
  const std::uint64_t request = recordRequest(entry_.length);
  if (blockSize_ < request || blockSize_ > 2 * request) {
    ZELTA_TRY(manager_.releaseSpace(PageFile::memory, old.position, blockSize_));
    ZELTA_TRY(allocateBlock());
  }
  leafOf(*page).lengths[slot] = entry_.length;
  leafOf(*page).positions[slot] = entry_.position;
  return {};
}

void Store::put(MapLeaf_tag& leaf, std::uint32_t slot) const {
  leaf.objectIDs[slot] = entry_.objectID;
  leaf.transactions[slot] = entry_.transaction;
  leaf.lengths[slot] = entry_.length;
  leaf.positions[slot] = entry_.position;
}

Result Store::startMap() {
  Page* page = nullptr;
  ZELTA_TRY(manager_.newMemoryPage(kMapPageSize, &page));
  ZELTA_TRY(allocateBlock());
  MapLeaf_tag& leaf = leafOf(*page);
  leaf.kind = kMapLeafKind;
  leaf.count = 1;
  put(leaf, 0);
  manager_.memoryRoot(0) = page->key;
  return {};
}

Result Store::insertEntry(MapPath& path) {
  Page* page = path.leaf().page;
  Page* right = nullptr;
  manager_.markChanged(page);
  if (leafOf(*page).count == kMapLeafEntries) ZELTA_TRY(splitLeaf(page, &right));
  ZELTA_TRY(allocateBlock());
  const bool goesRight = right != nullptr && entry_.objectID >= leafOf(*right).objectIDs[0];
  // The separator is what the new leaf began with when it was split off.
  const std::uint64_t separator = right != nullptr ? leafOf(*right).objectIDs[0] : 0;
  MapLeaf_tag& leaf = leafOf(goesRight ? *right : *page);
  const std::uint32_t slot = memory_file::entryFor(leaf, entry_.objectID);
  assert(leaf.count < kMapLeafEntries);
  openGap(leaf.objectIDs, leaf.count, slot);
  openGap(leaf.transactions, leaf.count, slot);
  openGap(leaf.lengths, leaf.count, slot);
  openGap(leaf.positions, leaf.count, slot);
  put(leaf, slot);
  ++leaf.count;
  if (right == nullptr) return {};
  --path.depth;
  return insertChild(path, separator, right->key);
}

/// Moves the upper entries of a full leaf to a new one, which follows it in the chain of leaves.
Result Store::splitLeaf(Page* old, Page** right) {
  ZELTA_TRY(manager_.newMemoryPage(kMapPageSize, right));
  MapLeaf_tag& left = leafOf(*old);
  MapLeaf_tag& fresh = leafOf(**right);
  assert(left.count == kMapLeafEntries);
  fresh.kind = kMapLeafKind;
  fresh.count = kMapLeafEntries - kLeafKeeps;
  copyItems(fresh.objectIDs, left.objectIDs + kLeafKeeps, fresh.count);
  copyItems(fresh.transactions, left.transactions + kLeafKeeps, fresh.count);
  copyItems(fresh.lengths, left.lengths + kLeafKeeps, fresh.count);
  copyItems(fresh.positions, left.positions + kLeafKeeps, fresh.count);
  fresh.previous = old->key;
  fresh.next = left.next;
  left.count = kLeafKeeps;
  left.next = (*right)->key;
  if (fresh.next == 0) return {};
  Page* behind = nullptr;
  ZELTA_TRY(holdMapPage(manager_, fresh.next, &behind));
  if (!isLeaf(*behind)) return corrupted(manager_);
  manager_.markChanged(behind);
  leafOf(*behind).previous = (*right)->key;
  return {};
}

/// Enters a child that was split off, and the key before it, in the parents that are left of the
/// path.
Result Store::insertChild(MapPath& path, std::uint64_t key, std::uint64_t child) {
  while (path.depth != 0) {
    Page* page = nullptr;
    ZELTA_TRY(holdMapPage(manager_, path.leaf().position, &page));
    std::uint32_t slot = path.leaf().slot;
    --path.depth;
    if (isLeaf(*page) || slot > innerOf(*page).count) return corrupted(manager_);
    manager_.markChanged(page);
    Page* right = nullptr;
    std::uint64_t carried = 0;
    if (innerOf(*page).count == kMapInnerKeys) ZELTA_TRY(splitInner(page, &right, &carried));
    Page* target = page;
    if (right != nullptr && slot > kInnerKeeps) {
      target = right;
      slot -= kInnerKeeps + 1;
    }
    MapInner_tag& inner = innerOf(*target);
    assert(inner.count < kMapInnerKeys);
    openGap(inner.keys, inner.count, slot);
    openGap(inner.children, inner.count + 1u, slot + 1);
    inner.keys[slot] = key;
    inner.children[slot + 1] = child;
    ++inner.count;
    if (right == nullptr) return {};
    key = carried;
    child = right->key;
  }
  return growRoot(manager_.memoryRoot(0), key, child);
}

/// Moves the upper children of a full inner page to a new one. The key between the two goes up.
Result Store::splitInner(Page* old, Page** right, std::uint64_t* key) {
  ZELTA_TRY(manager_.newMemoryPage(kMapPageSize, right));
  MapInner_tag& left = innerOf(*old);
  MapInner_tag& fresh = innerOf(**right);
  assert(left.count == kMapInnerKeys);
  fresh.kind = kMapInnerKind;
  fresh.count = kMapInnerKeys - kInnerKeeps - 1;
  *key = left.keys[kInnerKeeps];
  copyItems(fresh.keys, left.keys + kInnerKeeps + 1, fresh.count);
  copyItems(fresh.children, left.children + kInnerKeeps + 1, fresh.count + 1u);
  left.count = kInnerKeeps;
  return {};
}

Result Store::growRoot(std::uint64_t left, std::uint64_t key, std::uint64_t right) {
  Page* root = nullptr;
  ZELTA_TRY(manager_.newMemoryPage(kMapPageSize, &root));
  MapInner_tag& inner = innerOf(*root);
  inner.kind = kMapInnerKind;
  inner.count = 1;
  inner.keys[0] = key;
  inner.children[0] = left;
  inner.children[1] = right;
  manager_.memoryRoot(0) = root->key;
  return {};
}

}  // namespace

Result storeObject(AtomicManager& manager, MemoryFileHeader_tag& header, char* objectBytes,
                   std::uint32_t length, std::uint64_t objectID) {
  Store store(manager, {objectID, 0, length, manager.metaData.transactionWord});
  ZELTA_TRY(store.enter());
  const std::uint32_t blockSize = store.blockSize();
  assert(blockSize >= std::uint64_t{length} + sizeof(blockSize));
  char* bytes = objectBytes - sizeof(blockSize);
  std::memcpy(bytes, &blockSize, sizeof(blockSize));
  const PagedRecord record{bytes, std::uint64_t{length} + sizeof(blockSize),
                           store.entry().position};
  ZELTA_TRY(flushMemoryPages(manager, header, &record, false));
  manager.table.pendingBytes += pendingImageBytes(length) - store.oldImageBytes();
  return {};
}

}  // namespace zelta

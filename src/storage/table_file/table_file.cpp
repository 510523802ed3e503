// The table file: header, slots, object locks.

#include "storage/table_file/table_file.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/clock.h"
#include "platform/file_io.h"
#include "storage/table_file/table_recovery.h"

namespace zelta {

Result reportTable(MetaData& metaData, const char16_t* tableName, SystemCode failure) {
  return reportSystemError(&metaData, failure, tableName, extension::kTable);
}

Result reportDamagedTable(MetaData& metaData, const char16_t* tableName, std::int64_t i1,
                          std::int64_t i2) {
  return reportError(&metaData, Own::tableFile, tableName, extension::kTable, i1, i2);
}

namespace {

/// Reads the header; magic and version must be right.
Result readChecked(MetaData& metaData, const char16_t* tableName, platform::File file,
                   TableHeader_tag& header) {
  if (const SystemCode failure = readBuffer(file, 0, &header, sizeof header); failure != 0) {
    return reportTable(metaData, tableName, failure);
  }
  if (std::memcmp(header.magic, "ZELT", 4) != 0) {
    return reportDamagedTable(metaData, tableName, 0, 0);
  }
  if (header.majorVersion != 1 || header.minorVersion != 4) {
    return reportError(&metaData, Own::tableVersion, nullptr, nullptr, header.majorVersion,
                       header.minorVersion);
  }
  return {};
}

}  // namespace

/// Bounds keep sums of two positions within 64 bits; the rest are relations that every header has.
bool isPlausible(const TableHeader_tag& header) {
  constexpr std::uint64_t kFarthest = std::uint64_t{1} << 62;
  constexpr std::uint64_t kMostObjects = kFarthest / 16;
  if (header.highestID > kMostObjects || header.objectAreaStart > kFarthest) return false;
  if (header.endOfFile > kFarthest || header.endOfFile < header.objectAreaStart) return false;
  const std::uint64_t slotBase =
      ((std::uint64_t{header.schemaSize} + 171) & ~std::uint64_t{3}) - 12;
  if (slotBase != header.slotBase) return false;
  if (header.headerSize != 6 && header.headerSize != 10) return false;
  if (header.fixedAreaSize < header.headerSize || header.minimumObjectSize < header.fixedAreaSize ||
      header.defaultObjectSize == 0) {
    return false;
  }
  return header.objectAreaStart >=
         std::uint64_t{header.schemaSize} + kObjectSlotSize * (header.highestID + 14);
}

Result readTableHeader(MetaData& metaData, const char16_t* tableName, platform::File file,
                       TableHeader_tag& header, bool mayRecover) {
  constexpr int kAttempts = 250;
  constexpr int kQuick = 150;
  ZELTA_TRY(readChecked(metaData, tableName, file, header));
  // Without the right to repair there is no mutex either: a living commit may be under way, or just
  // writing the header.
  for (int attempt = 0; !mayRecover; ++attempt) {
    if (header.commitEnd == 0 && (isPlausible(header) || attempt >= kQuick)) break;
    if (attempt == kAttempts) return reportError(&metaData, Own::notWritable);
    platform::sleepMilliseconds(attempt < kQuick ? 0 : 10);
    ZELTA_TRY(readChecked(metaData, tableName, file, header));
  }
  if (header.commitEnd != 0) ZELTA_TRY(recoverTableCommit(metaData, tableName, file, header));
  return isPlausible(header) ? Result{} : reportDamagedTable(metaData, tableName, 0, 0);
}

Result requireWhole(MetaData& metaData, const char16_t* tableName, platform::File file,
                    const TableHeader_tag& header) {
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(file, &size); failure != 0) {
    return reportTable(metaData, tableName, failure);
  }
  return header.endOfFile <= size ? Result{} : reportDamagedTable(metaData, tableName, 0, 0);
}

// -- Slots ----------------------------------------------------------------------------------------

namespace {

ObjectSlot slotOf(const char* bytes, bool whole) {
  ObjectSlot slot{};
  std::memcpy(&slot.position, bytes, 8);
  if (whole) std::memcpy(&slot.transaction, bytes + 8, 4);
  return slot;
}

}  // namespace

SystemCode readSlot(platform::File file, std::uint32_t slotBase, std::uint64_t objectID,
                    ObjectSlot* slot) {
  char bytes[kObjectSlotSize];
  std::uint32_t count = 0;
  const SystemCode failure =
      platform::readLockable(file, objectLock(slotBase, objectID), slotPosition(slotBase, objectID),
                             bytes, sizeof bytes, &count);
  if (failure != 0) return failure;
  if (count != sizeof bytes) return code::kEndOfFile;
  *slot = slotOf(bytes, true);
  return 0;
}

SystemCode readSlotPosition(platform::File file, std::uint32_t slotBase, std::uint64_t objectID,
                            ObjectSlot* slot) {
  char bytes[8];
  if (const SystemCode failure =
          readBuffer(file, slotPosition(slotBase, objectID), bytes, sizeof bytes);
      failure != 0) {
    return failure;
  }
  *slot = slotOf(bytes, false);
  return 0;
}

SystemCode lockObject(platform::File file, std::uint32_t slotBase, std::uint64_t objectID) {
  return platform::lockWord(file, objectLock(slotBase, objectID));
}

SystemCode unlockObject(platform::File file, std::uint32_t slotBase, std::uint64_t objectID) {
  return platform::unlockWord(file, objectLock(slotBase, objectID));
}

namespace {

/// Locks a set in ascending order; `reached` is the first ID that was not locked.
SystemCode lockTree(platform::File file, std::uint32_t slotBase, const UInt64AVLTree* node,
                    std::uint64_t* reached) {
  if (node == nullptr) return 0;
  if (const SystemCode failure = lockTree(file, slotBase, node->left, reached); failure != 0)
    return failure;
  if (const SystemCode failure = lockObject(file, slotBase, node->key); failure != 0) {
    *reached = node->key;
    return failure;
  }
  return lockTree(file, slotBase, node->right, reached);
}

/// Unlocks those of a set whose IDs lie below `end`.
void unlockTree(platform::File file, std::uint32_t slotBase, const UInt64AVLTree* node,
                std::uint64_t end) {
  if (node == nullptr) return;
  unlockTree(file, slotBase, node->left, end);
  if (node->key >= end) return;
  unlockObject(file, slotBase, node->key);
  unlockTree(file, slotBase, node->right, end);
}

constexpr std::uint64_t kAll = ~std::uint64_t{0};

}  // namespace

SystemCode lockObjects(platform::File file, std::uint32_t slotBase, UInt64AVLTree* objects) {
  std::uint64_t reached = kAll;
  const SystemCode failure = lockTree(file, slotBase, objects, &reached);
  if (failure != 0) unlockTree(file, slotBase, objects, reached);
  return failure;
}

void unlockObjects(platform::File file, std::uint32_t slotBase, UInt64AVLTree*& objects) {
  unlockTree(file, slotBase, objects, kAll);
  destroyAll(objects);
}

Result stampTransactions(MetaData& metaData, const char16_t* tableName, platform::File file,
                         std::uint32_t slotBase, UInt64AVLTree* objects,
                         std::uint32_t transaction) {
  if (objects == nullptr) return {};
  ZELTA_TRY(stampTransactions(metaData, tableName, file, slotBase, objects->left, transaction));
  ZELTA_TRY(reportTable(metaData, tableName,
                        writeBuffer(file, slotPosition(slotBase, objects->key) + 8, &transaction,
                                    sizeof transaction)));
  return stampTransactions(metaData, tableName, file, slotBase, objects->right, transaction);
}

// -- Steps of a commit ----------------------------------------------------------------------------

Result writeSlotWhole(MetaData& metaData, const char16_t* tableName, platform::File file,
                      std::uint32_t slotBase, std::uint64_t objectID, const ObjectSlot& slot) {
  char bytes[kObjectSlotSize];
  std::memcpy(bytes, &slot.position, 8);
  std::memcpy(bytes + 8, &slot.transaction, 4);
  return reportTable(metaData, tableName,
                     writeBuffer(file, slotPosition(slotBase, objectID), bytes, sizeof bytes));
}

namespace {

/// In a fixed table the record is the object.
Result moveFixed(MetaData& metaData, const char16_t* tableName, platform::File file,
                 const TableHeader_tag& header, const EditEntry_tag& entry) {
  char* bytes = metaData.scratchFor(Scratch::transfer).reserve(header.fixedAreaSize);
  SystemCode failure = readLargeBuffer(file, entry.oldPosition, bytes, header.fixedAreaSize);
  if (failure == 0) failure = writeBuffer(file, entry.newPosition, bytes, header.fixedAreaSize);
  return reportTable(metaData, tableName, failure);
}

/// A placeholder counts no bytes, but its version and ID have to come along.
Result moveVariable(MetaData& metaData, const char16_t* tableName, platform::File file,
                    const TableHeader_tag& header, const EditEntry_tag& entry) {
  std::uint32_t length = 0;
  if (const SystemCode failure = readBuffer(file, entry.oldPosition + 4, &length, sizeof length);
      failure != 0) {
    return reportTable(metaData, tableName, failure);
  }
  const std::uint32_t content = std::max(length, header.headerSize);
  if (std::uint64_t{content} + kRecordFraming > entry.newBlockSize) {
    return reportDamagedTable(metaData, tableName, static_cast<std::int64_t>(entry.oldPosition),
                              length);
  }
  char* bytes =
      metaData.scratchFor(Scratch::transfer).reserve(std::uint64_t{content} + kRecordHead);
  std::memcpy(bytes, &entry.newBlockSize, 4);
  std::memcpy(bytes + 4, &length, 4);
  SystemCode failure =
      readLargeBuffer(file, entry.oldPosition + kRecordHead, bytes + kRecordHead, content);
  if (failure == 0)
    failure = writeBuffer(file, entry.newPosition, bytes, std::int64_t{content} + kRecordHead);
  if (failure == 0) {
    failure = writeBuffer(file, entry.newPosition + entry.newBlockSize - 4, &entry.newBlockSize, 4);
  }
  return reportTable(metaData, tableName, failure);
}

/// Chains the free IDs from `first` up to, not including, `end`; the last has no link.
Result chainGap(MetaData& metaData, const char16_t* tableName, platform::File file,
                std::uint32_t slotBase, std::uint64_t first, std::uint64_t end) {
  constexpr std::uint64_t kBatch = 4096;
  char* bytes = metaData.scratchFor(Scratch::transfer).reserve(kBatch * kObjectSlotSize);
  for (std::uint64_t id = first; id < end;) {
    std::uint64_t count = 0;
    const std::uint64_t start = id;
    for (; count < kBatch && id < end; ++count, ++id) {
      const std::uint64_t position = kFreeSlot | (id + 1 < end ? id + 1 : 0);
      std::memcpy(bytes + count * kObjectSlotSize, &position, 8);
      std::memset(bytes + count * kObjectSlotSize + 8, 0, 4);
    }
    ZELTA_TRY(reportTable(metaData, tableName,
                          writeBuffer(file, slotPosition(slotBase, start), bytes,
                                      static_cast<std::int64_t>(count * kObjectSlotSize))));
  }
  return {};
}

}  // namespace

Result applyMove(MetaData& metaData, const char16_t* tableName, platform::File file,
                 const TableHeader_tag& header, const EditEntry_tag& entry) {
  assert(entry.kind == EditKind::moveObject);
  const bool fixed = header.fixedAreaSize == header.minimumObjectSize;
  ZELTA_TRY(fixed ? moveFixed(metaData, tableName, file, header, entry)
                  : moveVariable(metaData, tableName, file, header, entry));
  // The position alone: stamp and lock of the object are not this commit's business.
  return reportTable(metaData, tableName,
                     writeBuffer(file, slotPosition(header.slotBase, entry.objectID),
                                 &entry.newPosition, sizeof entry.newPosition));
}

Result applySlotLinks(MetaData& metaData, const char16_t* tableName, platform::File file,
                      const TableHeader_tag& header, const EditEntry_tag& entry) {
  if (entry.kind == EditKind::freeSlot) {
    return writeSlotWhole(metaData, tableName, file, header.slotBase, entry.objectID,
                          {entry.nextFreeID | kFreeSlot, 0});
  }
  if (entry.kind != EditKind::newObject || entry.nextFreeID == 0) return {};
  ZELTA_TRY(chainGap(metaData, tableName, file, header.slotBase, entry.nextFreeID, entry.objectID));
  if (entry.oldPosition == 0) return {};
  return writeSlotWhole(metaData, tableName, file, header.slotBase, entry.oldPosition,
                        {entry.nextFreeID | kFreeSlot, 0});
}

}  // namespace zelta

#include "index/index_build.h"

#include <algorithm>
#include <cstring>

#include "czelta.h"
#include "index/bplus_tree.h"
#include "index/index_file.h"
#include "index/keys.h"
#include "index/kinds.h"
#include "platform/file_io.h"
#include "schema/object_view.h"
#include "storage/atomic_manager.h"
#include "storage/table.h"

namespace zelta {

IndexBuild::IndexBuild(AtomicManager& manager, IndexFileHeader_tag& header)
    : metaData_(manager.metaData), table_(manager.table), manager_(manager), header_(header) {}

IndexBuild::~IndexBuild() {
  if (!finished_) abandonIndexFile(table_);
}

Result IndexBuild::start() {
  ZELTA_TRY(checkIndexKinds(metaData_, table_));
  const std::uint32_t pageSize = indexPageSize(table_, &firstPage_);
  static_cast<PagedFileHeader&>(header_) = newPagedHeader(kIndexForm, table_, pageSize);
  if (pageSize == 0) return manager_.failed(PageFile::index, code::kNoMemory);
  // A journal without an end is how a repair knows that a build died.
  header_.newEndOfFile = firstPage_;
  PagedHeaderImage image(kIndexForm, table_.indexCount);
  std::memset(image.bytes(), 0, image.size());
  image.putHeader(header_);
  SystemCode result = writeBuffer(table_.indexFile, 0, image.bytes(), image.size());
  // What is left up to the first page stays a hole.
  if (result == 0) result = truncateFile(table_.indexFile, firstPage_);
  if (result != 0) return manager_.failed(PageFile::index, result);
  IndexFileHeader_tag working = header_;
  working.endOfFile = firstPage_;
  std::fill_n(manager_.indexRoots(), table_.indexCount, std::uint64_t{0});
  manager_.attach(table_.indexFile, &working, platform::File::none, nullptr);
  manager_.holdIndexPages();
  return {};
}

Result IndexBuild::add(const char* object, std::uint32_t objectSize, std::uint64_t objectID) {
  const TreeFile file{PageFile::index, header_.pageSize};
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    RowPlaces rows;
    for (std::uint32_t entry = 0;; ++entry) {
      std::uint32_t* made = nullptr;
      ZELTA_TRY(extractKey(metaData_, table_, i, entry, &made, object, objectSize, &rows));
      if (made == nullptr) {
        if (entry != 0 || table_.multiEntry(i)) break;
        return reportError(&metaData_, Own::noObject, table_.cName());
      }
      PooledKey key;
      key.take(table_.keyPool(i), table_.keyShape(i), made);
      ZELTA_TRY(insertEntry(metaData_, table_, file, manager_, i, key.get(), objectID));
      if (!table_.multiEntry(i)) break;
    }
  }
  return {};
}

Result IndexBuild::finish() {
  ZELTA_TRY(manager_.writeHeldIndexPages());
  std::uint64_t end = 0;
  ZELTA_TRY(mergeFreeExtents(metaData_, table_.indexFile, manager_.indexFreeHead,
                             manager_.indexEndOfFile, nullptr, manager_.indexFreeList, &end,
                             nullptr, nullptr));
  if (end < firstPage_ || end > manager_.indexEndOfFile) {
    return reportError(&metaData_, Own::freeList);
  }
  ZELTA_TRY(applyFreeBlocks(metaData_, table_.indexFile, manager_.indexFreeList, false));
  PagedHeaderImage image(kIndexForm, table_.indexCount);
  header_.freeHead = manager_.indexFreeHead;
  header_.endOfFile = end;
  clearIntent(header_);
  image.putHeader(header_);
  SystemCode result = writeBuffer(table_.indexFile, image.rootsStart(), manager_.indexRoots(),
                                  static_cast<std::int64_t>(image.rootBytes()));
  if (result == 0) result = truncateFile(table_.indexFile, end);
  if (result == 0) result = platform::flushFile(table_.indexFile);
  constexpr std::uint64_t kStart = PagedHeaderImage::kChainStart;
  if (result == 0) {
    result = writeBuffer(table_.indexFile, kStart, image.bytes() + kStart,
                         static_cast<std::int64_t>(sizeof(header_) - kStart));
  }
  if (result == 0) result = platform::flushFile(table_.indexFile);
  if (result != 0) return manager_.failed(PageFile::index, result);
  finished_ = true;
  manager_.dropIndexChanges();
  manager_.indexEndOfFile = end;
  return {};
}

void abandonIndexFile(Table& table) {
  if (table.indexFile == platform::File::none) return;
  // Should the cut fail, the header still says that no commit was under way, but a build.
  static_cast<void>(truncateFile(table.indexFile, 0));
  platform::closeFile(table.indexFile);
  table.indexFile = platform::File::none;
}

namespace {

/// What is read of a record before its length is known.
constexpr std::uint32_t kFirstRead = 1024;

/// Reads the committed objects of a table one by one.
class TableScan {
 public:
  TableScan(MetaData& metaData, Table& table, const TableHeader_tag& header)
      : metaData_(metaData),
        table_(table),
        header_(header),
        buffer_(metaData.scratchFor(Scratch::object)) {}

  /// Reads the object of an ID; `*object` null if the ID is free.
  Result read(std::uint64_t objectID, const char** object, std::uint32_t* size);

 private:
  [[nodiscard]] Result systemFailure(SystemCode result) const {
    return reportSystemError(&metaData_, result, table_.cName(), extension::kTable);
  }
  [[nodiscard]] Result damaged() const {
    return reportError(&metaData_, Own::tableFile, table_.cName(), extension::kTable);
  }
  Result readFixed(std::uint64_t position, const char** object, std::uint32_t* size);
  Result readVariable(std::uint64_t position, const char** object, std::uint32_t* size);
  Result readRest(std::uint64_t position, std::uint32_t have, std::uint64_t length);
  [[nodiscard]] bool hasID(const char* object, std::uint64_t objectID) const;

  MetaData& metaData_;
  Table& table_;
  const TableHeader_tag& header_;
  ScratchBuffer& buffer_;
};

Result TableScan::read(std::uint64_t objectID, const char** object, std::uint32_t* size) {
  *object = nullptr;
  ObjectSlot slot{};
  const SystemCode result = readSlotPosition(table_.tableFile, header_.slotBase, objectID, &slot);
  if (result != 0) return systemFailure(result);
  if (slot.isFree()) return {};
  if (slot.position < header_.objectAreaStart || slot.position >= header_.endOfFile) {
    return damaged();
  }
  ZELTA_TRY(table_.isFixed() ? readFixed(slot.position, object, size)
                             : readVariable(slot.position, object, size));
  if (*size < table_.headerSize() || !hasID(*object, objectID)) return damaged();
  return {};
}

Result TableScan::readFixed(std::uint64_t position, const char** object, std::uint32_t* size) {
  *size = table_.fixedAreaSize;
  if (*size > header_.endOfFile - position) return damaged();
  // The end in the header proves nothing, and the size is as large as the schema wants it.
  SystemCode result = *size <= buffer_.size() ? 0 : requireBytes(table_.tableFile, position, *size);
  if (result != 0) return systemFailure(result);
  char* bytes = buffer_.reserve(*size);
  result = readBuffer(table_.tableFile, position, bytes, *size);
  if (result != 0) return systemFailure(result);
  std::uint16_t version = 0;
  std::memcpy(&version, bytes, sizeof(version));
  // The content is still to come from the log: whoever lets the replay finish asks again.
  if (version == kPlaceholderVersion) return Result::locked();
  *object = bytes;
  return {};
}

Result TableScan::readVariable(std::uint64_t position, const char** object, std::uint32_t* size) {
  const auto guess =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(kFirstRead, header_.endOfFile - position));
  buffer_.reserve(kFirstRead);
  std::uint32_t have = 0;
  const SystemCode result = readBuffer(table_.tableFile, position, buffer_.data(), guess, &have);
  if (result != 0) return systemFailure(result);
  std::uint32_t head[2] = {0, 0};
  static_assert(sizeof(head) == kRecordHead);
  if (have < sizeof(head)) return damaged();
  std::memcpy(head, buffer_.data(), sizeof(head));
  *size = head[1];
  if (*size == 0) return Result::locked();
  const std::uint64_t length = std::uint64_t{*size} + kRecordHead;
  if (*size == kFreeMarker || head[0] < std::uint64_t{*size} + kRecordFraming ||
      head[0] > header_.endOfFile - position) {
    return damaged();
  }
  if (length > have) ZELTA_TRY(readRest(position, have, length));
  *object = buffer_.data() + kRecordHead;
  return {};
}

Result TableScan::readRest(std::uint64_t position, std::uint32_t have, std::uint64_t length) {
  SystemCode result = requireBytes(table_.tableFile, position, length);
  if (result == code::kEndOfFile) return damaged();
  if (result != 0) return systemFailure(result);
  if (length > buffer_.size()) have = 0;
  char* bytes = buffer_.reserve(length);
  result = readLargeBuffer(table_.tableFile, position + have, bytes + have,
                           static_cast<std::int64_t>(length - have));
  return result == 0 ? Result{} : systemFailure(result);
}

bool TableScan::hasID(const char* object, std::uint64_t objectID) const {
  std::uint64_t stored = 0;
  std::memcpy(&stored, object + sizeof(std::uint16_t), table_.idSize());
  return stored == objectID;
}

/// Reads the next object for a build, and remembers one that waits for its content.
Result readForBuild(Table& table, TableScan& scan, std::uint64_t objectID, const char** object,
                    std::uint32_t* size) {
  const Result result = scan.read(objectID, object, size);
  table.buildWaitsFor = result.isLocked() ? objectID : 0;
  return result;
}

}  // namespace

Result buildIndexFile(AtomicManager& manager, const TableHeader_tag* tableHeader,
                      IndexFileHeader_tag& header) {
  MetaData& metaData = manager.metaData;
  Table& table = manager.table;
  TableHeader_tag read{};
  if (tableHeader == nullptr) {
    ZELTA_TRY(readTableHeader(metaData, table.cName(), table.tableFile, read, true));
    tableHeader = &read;
  }
  TableScan scan(metaData, table, *tableHeader);
  if (table.buildWaitsFor != 0 && table.buildWaitsFor <= tableHeader->highestID) {
    // Who waits for the object comes here again and again; all before it was read for nothing once.
    const char* object = nullptr;
    std::uint32_t size = 0;
    ZELTA_TRY(readForBuild(table, scan, table.buildWaitsFor, &object, &size));
  }
  AtomicManager own(metaData, table);
  IndexFileHeader_tag fresh{};
  IndexBuild build(own, fresh);
  ZELTA_TRY(build.start());
  for (std::uint64_t objectID = 1; objectID <= tableHeader->highestID; ++objectID) {
    const char* object = nullptr;
    std::uint32_t size = 0;
    ZELTA_TRY(readForBuild(table, scan, objectID, &object, &size));
    if (object != nullptr) ZELTA_TRY(build.add(object, size, objectID));
  }
  ZELTA_TRY(build.finish());
  header = fresh;
  std::copy_n(own.indexRoots(), table.indexCount, manager.indexRoots());
  return {};
}

}  // namespace zelta

#include "index/file/index_build.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "czelta.h"
#include "index/file/index_file.h"
#include "index/keys/keys.h"
#include "index/kinds.h"
#include "platform/file_io.h"
#include "schema/object_view.h"
#include "schema/record_reader.h"
#include "storage/paged/atomic_manager.h"
#include "storage/table.h"

namespace zelta {

IndexBuild::IndexBuild(AtomicManager& manager, IndexFileHeader_tag& header)
    : metaData_(manager.metaData), table_(manager.table), manager_(manager), header_(header) {}

IndexBuild::~IndexBuild() {
  if (!finished_) abandonIndexFile(table_);
}

Result IndexBuild::start() {
  assert(firstPage_ == 0 && table_.indexFile != platform::File::none);
  ZELTA_TRY(checkIndexKinds(table_));
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
  contents_.begin(manager_, ContentMode::once);
  return {};
}

Result IndexBuild::add(const char* object, std::uint32_t objectSize, std::uint64_t objectID) {
  assert(firstPage_ != 0 && !finished_);
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    if (contentKind(table_, i) != nullptr) continue;
    const IndexTree tree(manager_, PageFile::index, i);
    RowPlaces rows;
    for (std::uint32_t entry = 0;; ++entry) {
      std::uint32_t* made = nullptr;
      ZELTA_TRY(extractKey(table_, i, {{object, objectSize}, entry, &rows}, &made));
      if (made == nullptr) {
        if (entry != 0 || table_.multiEntry(i)) break;
        return reportError(&metaData_, Own::noObject, table_.cName());
      }
      PooledKey key;
      key.take(table_.keyPool(i), table_.keyShape(i), made);
      ZELTA_TRY(insertEntry(tree, key.get(), objectID));
      if (!table_.multiEntry(i)) break;
    }
  }
  return contents_.change({objectID, {}, {object, objectSize}});
}

Result IndexBuild::finish() {
  assert(firstPage_ != 0 && !finished_);
  ZELTA_TRY(contents_.finish());
  ZELTA_TRY(manager_.writeHeldIndexPages());
  std::uint64_t end = 0;
  ZELTA_TRY(manager_.indexFreeSpace.merge(manager_.indexEndOfFile, &end));
  if (end < firstPage_ || end > manager_.indexEndOfFile) {
    return reportError(&metaData_, Own::freeList);
  }
  ZELTA_TRY(manager_.indexFreeSpace.apply());
  PagedHeaderImage image(kIndexForm, table_.indexCount);
  header_.freeHead = manager_.indexFreeSpace.head();
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

/// An empty file is one that has to be built.
void abandonIndexFile(Table& table) {
  if (table.indexFile == platform::File::none) return;
  // Should the cut fail, the header still says that no commit was under way, but a build.
  static_cast<void>(truncateFile(table.indexFile, 0));
  platform::closeFile(table.indexFile);
  table.indexFile = platform::File::none;
}

namespace {

/// What is taken to be an object's size before its length is known.
constexpr std::uint32_t kExpected = 1024 - kRecordHead;

/// Reads the committed objects of a table one by one.
class TableScan {
 public:
  TableScan(Table& table, const TableHeader_tag& header)
      : metaData_(table.metaData),
        table_(table),
        header_(header),
        reader_(RecordReader::aside(table)) {}

  /// Reads the object of an ID; none if the ID is free. Code 33: its content is still to come from
  /// the log, and whoever lets the replay finish asks again.
  Result read(std::uint64_t objectID, ObjectBytes* object);

 private:
  [[nodiscard]] Result damaged() const {
    return reportError(&metaData_, Own::tableFile, table_.cName(), extension::kTable);
  }

  MetaData& metaData_;
  Table& table_;
  const TableHeader_tag& header_;
  RecordReader reader_;
};

Result TableScan::read(std::uint64_t objectID, ObjectBytes* object) {
  *object = {};
  ObjectSlot slot{};
  const SystemCode result = readSlotPosition(table_.tableFile, header_.slotBase, objectID, &slot);
  if (result != 0) {
    return reportSystemError(&metaData_, result, table_.cName(), extension::kTable);
  }
  if (slot.isFree()) return {};
  if (slot.position < header_.objectAreaStart || slot.position >= header_.endOfFile) {
    return damaged();
  }
  const RecordRules rules{header_.endOfFile, table_.headerSize(), true};
  const RecordFault fault = reader_.fetch(objectID, slot.position, rules, kExpected, object);
  switch (fault.kind) {
    case RecordFault::Kind::none:
      return {};
    case RecordFault::Kind::placeholder:
      return Result::locked();
    case RecordFault::Kind::system:
      return reader_.report(fault);
    default:
      return damaged();
  }
}

/// Reads the next object for a build, and remembers one that waits for its content.
Result readForBuild(Table& table, TableScan& scan, std::uint64_t objectID, ObjectBytes* object) {
  const Result result = scan.read(objectID, object);
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
  TableScan scan(table, *tableHeader);
  if (table.buildWaitsFor != 0 && table.buildWaitsFor <= tableHeader->highestID) {
    // Who waits for the object comes here again and again; all before it was read for nothing once.
    ObjectBytes object;
    ZELTA_TRY(readForBuild(table, scan, table.buildWaitsFor, &object));
  }
  AtomicManager own(table);
  IndexFileHeader_tag fresh{};
  IndexBuild build(own, fresh);
  ZELTA_TRY(build.start());
  for (std::uint64_t objectID = 1; objectID <= tableHeader->highestID; ++objectID) {
    ObjectBytes object;
    ZELTA_TRY(readForBuild(table, scan, objectID, &object));
    if (object.data != nullptr) ZELTA_TRY(build.add(object.data, object.length, objectID));
  }
  ZELTA_TRY(build.finish());
  header = fresh;
  std::copy_n(own.indexRoots(), table.indexCount, manager.indexRoots());
  return {};
}

}  // namespace zelta

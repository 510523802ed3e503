#include "index/file/index_file.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "frame/control_file.h"
#include "index/file/index_build.h"
#include "platform/file_io.h"
#include "storage/paged/atomic_manager.h"
#include "storage/paged/paged_repair.h"
#include "storage/table.h"

namespace zelta {

namespace {

void closeHandle(Table& table) {
  platform::closeFile(table.indexFile);
  table.indexFile = platform::File::none;
}

/// Whether the table's files may have made room for those of another table of its name: a reader
/// does not keep anybody from that. The file of the objects goes first and comes first.
bool isReplaced(const Table& table) {
  if (table.tableFile == platform::File::none) return false;
  const std::u16string path = databasePath(table.metaData, table.name, extension::kTable);
  return !platform::isNamed(table.tableFile, path.c_str());
}

/// Opens the file, or makes it if that is allowed. Without `mustExist` the handle may stay closed.
Result openHandle(Table& table, bool exclusive, bool mustExist) {
  if (table.indexFile != platform::File::none) return {};
  const std::u16string path = indexFilePath(table);
  SystemCode result = openDatabaseFile(table.metaData, path.c_str(),
                                       platform::Disposition::openExisting, &table.indexFile);
  if (result == code::kFileNotFound && mustExist && exclusive) {
    result = openDatabaseFile(table.metaData, path.c_str(), platform::Disposition::openAlways,
                              &table.indexFile);
  }
  if (result == 0 && !exclusive && isReplaced(table)) {
    closeHandle(table);
    result = code::kFileNotFound;
  }
  if (result == 0) {
    if (!exclusive) platform::serveReads(table.indexFile, kReadWindow);
    return {};
  }
  table.indexFile = platform::File::none;
  return mustExist ? reportSystemError(&table.metaData, result, path.c_str()) : Result{};
}

/// Whether the first bytes are those of a build that died before its header was complete: they are
/// the beginning of one, or never reached the disk.
bool isUnfinishedStart(const char* bytes, std::uint32_t have) {
  if (have >= sizeof(IndexFileHeader_tag)) {
    return std::all_of(bytes, bytes + sizeof(IndexFileHeader_tag),
                       [](char byte) { return byte == 0; });
  }
  return std::memcmp(bytes, kIndexForm.magic,
                     std::min<std::size_t>(have, sizeof(kIndexForm.magic))) == 0;
}

/// What must be right before even a repair may trust the header.
Result checkHeader(const AtomicManager& manager, const IndexFileHeader_tag& header) {
  const Table& table = manager.table;
  if (!hasMagic(kIndexForm, header) || header.indexCount != table.indexCount) {
    return manager.corrupted(PageFile::index);
  }
  if (!hasVersion(kIndexForm, header)) {
    return reportError(&manager.metaData, Own::indexVersion, table.cName(), extension::kIndex,
                       header.majorVersion, header.minorVersion);
  }
  if (!pageSizeIsSound(header) || header.endOfFile > kPagedFileLimit ||
      header.newEndOfFile > kPagedFileLimit) {
    return manager.corrupted(PageFile::index);
  }
  return {};
}

/// Gives the roots of a header at rest to the manager.
Result takeRoots(const IndexFileHeader_tag& header, PagedHeaderImage& image,
                 AtomicManager& manager) {
  if (header.endOfFile < kIndexForm.headerSize(manager.indexCount)) {
    return manager.corrupted(PageFile::index);
  }
  std::memcpy(manager.indexRoots(), image.roots(), image.rootBytes());
  return rootsAreSound(kIndexForm, header, manager.indexRoots())
             ? Result{}
             : manager.corrupted(PageFile::index);
}

/// One attempt to bring the file into a state in which its header can be taken.
class Opening {
 public:
  enum class Outcome { done, again };

  Opening(AtomicManager& manager, IndexFileHeader_tag& header, bool exclusive, bool mustExist)
      : metaData_(manager.metaData),
        table_(manager.table),
        header_(header),
        manager_(manager),
        image_(kIndexForm, manager.indexCount),
        exclusive_(exclusive),
        mustExist_(mustExist) {}

  Result attempt(const TableHeader_tag* tableHeader, Outcome* outcome);

 private:
  /// What is done with a file that has no bytes: it is built, if the caller may write.
  Result empty(const TableHeader_tag* tableHeader);
  /// The header has a journal that stands: it is dealt with, and the header read again.
  Result repair(Outcome* outcome);

  MetaData& metaData_;
  Table& table_;
  IndexFileHeader_tag& header_;
  AtomicManager& manager_;
  PagedHeaderImage image_;
  bool exclusive_;
  bool mustExist_;
};

Result Opening::attempt(const TableHeader_tag* tableHeader, Outcome* outcome) {
  *outcome = Outcome::done;
  header_ = {};
  ZELTA_TRY(openHandle(table_, exclusive_, mustExist_));
  if (table_.indexFile == platform::File::none) return {};
  std::uint32_t have = 0;
  const SystemCode result = readBuffer(table_.indexFile, 0, image_.bytes(), image_.size(), &have);
  if (result != 0 && result != code::kEndOfFile) return manager_.failed(PageFile::index, result);
  if (have == 0) return empty(tableHeader);
  if (exclusive_ && isUnfinishedStart(image_.bytes(), have)) {
    abandonIndexFile(table_);
    *outcome = Outcome::again;
    return {};
  }
  if (have < sizeof(header_)) return manager_.failed(PageFile::index, code::kEndOfFile);
  std::memcpy(&header_, image_.bytes(), sizeof(header_));
  ZELTA_TRY(checkHeader(manager_, header_));
  if (header_.newEndOfFile != 0) return repair(outcome);
  if (have < image_.size()) return manager_.failed(PageFile::index, code::kEndOfFile);
  return takeRoots(header_, image_, manager_);
}

Result Opening::empty(const TableHeader_tag* tableHeader) {
  if (!mustExist_) {
    closeHandle(table_);
    return {};
  }
  if (!exclusive_) {
    return reportError(&metaData_, Own::notExclusive, table_.cName(), extension::kIndex);
  }
  return buildIndexFile(manager_, tableHeader, header_);
}

/// Behind a repair everything is read anew.
Result Opening::repair(Outcome* outcome) {
  assert(header_.newEndOfFile != 0);
  if (!exclusive_) {
    return reportError(&metaData_, Own::notWritable, table_.cName(), extension::kIndex);
  }
  *outcome = Outcome::again;
  auto repaired = PagedRepair::dropped;
  ZELTA_TRY(repairPagedFile(kIndexForm, manager_, header_, image_, &repaired));
  if (repaired == PagedRepair::unfinishedBuild) abandonIndexFile(table_);
  return {};
}

}  // namespace

std::u16string indexFilePath(const Table& table) {
  if (table.directory.empty()) return databasePath(table.metaData, table.name, extension::kIndex);
  return table.directory + table.name + extension::kIndex;
}

std::uint32_t indexPageSize(const Table& table, std::uint64_t* firstPage) {
  const std::uint64_t count = table.indexCount;
  if (count == 0) return 0;
  const std::uint32_t size = newPageSize(kIndexForm, table, table.wideIds() ? 400 : 200);
  if (size == 0) return 0;
  if (firstPage != nullptr) *firstPage = (((count + 1) * 16 + 79) / size + 1) * size;
  return size;
}

Result openIndexFile(AtomicManager& manager, IndexFileHeader_tag& header,
                     const TableHeader_tag* tableHeader, bool exclusive, bool mustExist) {
  header = {};
  std::fill_n(manager.indexRoots(), manager.indexCount, std::uint64_t{0});
  if (manager.indexCount == 0) return {};
  Opening opening(manager, header, exclusive, mustExist);
  // A repair leaves a sound header or an empty file; what is still broken after that stays so.
  for (int attempts = 0; attempts < 4; ++attempts) {
    auto outcome = Opening::Outcome::done;
    ZELTA_TRY(opening.attempt(tableHeader, &outcome));
    if (outcome == Opening::Outcome::done) return {};
  }
  return manager.corrupted(PageFile::index);
}

Result readSizedPage(MetaData& metaData, platform::File file, std::uint64_t position,
                     std::uint32_t atLeast, ScratchBuffer& page) {
  constexpr std::uint32_t kSizeWord = sizeof(std::uint32_t);
  if (page.size() < kSizeWord) page.reserve(std::max(atLeast, kSizeWord));
  const auto piece = static_cast<std::uint32_t>(
      std::max<std::uint64_t>(kSizeWord, std::min<std::uint64_t>(atLeast, page.size())));
  std::uint32_t have = 0;
  SystemCode result = readBuffer(file, position, page.data(), piece, &have);
  if (result == 0 && have < kSizeWord) result = code::kEndOfFile;
  if (result != 0) return reportSystemError(&metaData, result);
  std::uint32_t size = 0;
  std::memcpy(&size, page.data(), kSizeWord);
  if (size <= kSizeWord) return reportError(&metaData, Own::indexFile);
  if (size <= have) return {};
  // A size beyond the file's end is damage, found before memory is taken for it.
  std::uint64_t length = 0;
  result = platform::fileSize(file, &length);
  if (result != 0) return reportSystemError(&metaData, result);
  if (length < size || position > length - size) return reportError(&metaData, Own::indexFile);
  if (size > page.size()) have = 0;
  char* bytes = page.reserve(size);
  result = readLargeBuffer(file, position + have, bytes + have, std::int64_t{size} - have);
  return result == 0 ? Result{} : reportSystemError(&metaData, result);
}

}  // namespace zelta

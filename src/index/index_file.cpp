#include "index/index_file.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "frame/control_file.h"
#include "index/index_file_layout.h"
#include "platform/file_io.h"
#include "storage/atomic_manager.h"
#include "storage/table.h"

namespace zelta {

namespace index_file {

Result failed(MetaData& metaData, const Table& table, SystemCode code) {
  return reportSystemError(&metaData, code, table.cName(), extension::kIndex);
}

Result corrupted(MetaData& metaData, const Table& table) {
  return reportError(&metaData, Own::indexFile, table.cName(), extension::kIndex);
}

void clearIntent(IndexFileHeader_tag& header) {
  header.rollbackEnd = 0;
  header.journalEnd = 0;
  header.newFileEnd = 0;
  header.journalSum = 0;
  header.newFreeListHead = 0;
  header.journalPages = 0;
  header.journalFreeRecords = 0;
}

void abandonFile(Table& table) {
  if (table.indexFile == platform::File::none) return;
  // Should the cut fail, the header still says that no commit was under way, but a build.
  static_cast<void>(truncateFile(table.indexFile, 0));
  platform::closeFile(table.indexFile);
  table.indexFile = platform::File::none;
}

}  // namespace index_file

namespace {

using index_file::corrupted;
using index_file::failed;
using index_file::HeaderImage;

constexpr std::uint32_t kSmallestPageSize = 64;
constexpr std::uint64_t kLargestPageSize = std::uint64_t{1} << 31;
constexpr std::uint64_t kPositionLimit = std::uint64_t{1} << 62;

void closeHandle(Table& table) {
  platform::closeFile(table.indexFile);
  table.indexFile = platform::File::none;
}

/// Whether the table's files may have made room for those of another table of its name: a reader
/// does not keep anybody from that. The file of the objects goes first and comes first.
bool isReplaced(const MetaData& metaData, const Table& table) {
  if (table.tableFile == platform::File::none) return false;
  const std::u16string path = databasePath(metaData, table.name, extension::kTable);
  return !platform::isNamed(table.tableFile, path.c_str());
}

/// Opens the file, or makes it if that is allowed. Without `mustExist` the handle may stay closed.
Result openHandle(MetaData& metaData, Table& table, bool exclusive, bool mustExist) {
  if (table.indexFile != platform::File::none) return {};
  const std::u16string path = indexFilePath(metaData, table);
  SystemCode result = openDatabaseFile(metaData, path.c_str(), platform::Disposition::openExisting,
                                       &table.indexFile);
  if (result == code::kFileNotFound && mustExist && exclusive) {
    result = openDatabaseFile(metaData, path.c_str(), platform::Disposition::openAlways,
                              &table.indexFile);
  }
  if (result == 0 && !exclusive && isReplaced(metaData, table)) {
    closeHandle(table);
    result = code::kFileNotFound;
  }
  if (result == 0) {
    if (!exclusive) platform::serveReads(table.indexFile, kReadWindow);
    return {};
  }
  table.indexFile = platform::File::none;
  return mustExist ? reportSystemError(&metaData, result, path.c_str()) : Result{};
}

/// Whether the first bytes are those of a build that died before its header was complete: they are
/// the beginning of one, or never reached the disk.
bool isUnfinishedStart(const char* bytes, std::uint32_t have) {
  if (have >= sizeof(IndexFileHeader_tag)) {
    return std::all_of(bytes, bytes + sizeof(IndexFileHeader_tag),
                       [](char byte) { return byte == 0; });
  }
  return std::memcmp(bytes, index_file::kMagic,
                     std::min<std::size_t>(have, sizeof(index_file::kMagic))) == 0;
}

Result checkHeader(MetaData& metaData, const Table& table, const IndexFileHeader_tag& header) {
  if (std::memcmp(header.magic, index_file::kMagic, sizeof(header.magic)) != 0 ||
      header.indexCount != table.indexCount) {
    return corrupted(metaData, table);
  }
  if (header.majorVersion != index_file::kMajorVersion ||
      header.minorVersion != index_file::kMinorVersion) {
    return reportError(&metaData, Own::indexVersion, table.cName(), extension::kIndex,
                       header.majorVersion, header.minorVersion);
  }
  if (!std::has_single_bit(header.pageSize) || header.pageSize < kSmallestPageSize ||
      header.fileEnd > kPositionLimit || header.newFileEnd > kPositionLimit) {
    return corrupted(metaData, table);
  }
  return {};
}

Result takeRoots(MetaData& metaData, const Table& table, const IndexFileHeader_tag& header,
                 HeaderImage& image, AtomicManager& manager) {
  const std::uint64_t first = indexHeaderSize(table.indexCount);
  if (header.fileEnd < first) return corrupted(metaData, table);
  std::memcpy(manager.indexRoots(), image.bytes() + image.liveStart(), image.rootBytes());
  for (std::uint32_t i = 0; i < table.indexCount; ++i) {
    const std::uint64_t root = manager.indexRoot(i);
    if (root != 0 && (root < first || root >= header.fileEnd)) return corrupted(metaData, table);
  }
  return {};
}

/// One attempt to bring the file into a state in which its header can be taken.
class Opening {
 public:
  enum class Outcome { done, again };

  Opening(MetaData& metaData, Table& table, IndexFileHeader_tag& header, AtomicManager& manager,
          bool exclusive, bool mustExist)
      : metaData_(metaData),
        table_(table),
        header_(header),
        manager_(manager),
        image_(table.indexCount),
        exclusive_(exclusive),
        mustExist_(mustExist) {}

  Result attempt(const TableHeader_tag* tableHeader, Outcome* outcome);

 private:
  Result empty(const TableHeader_tag* tableHeader);
  Result repair(Outcome* outcome);

  MetaData& metaData_;
  Table& table_;
  IndexFileHeader_tag& header_;
  AtomicManager& manager_;
  HeaderImage image_;
  bool exclusive_;
  bool mustExist_;
};

Result Opening::attempt(const TableHeader_tag* tableHeader, Outcome* outcome) {
  *outcome = Outcome::done;
  header_ = {};
  ZELTA_TRY(openHandle(metaData_, table_, exclusive_, mustExist_));
  if (table_.indexFile == platform::File::none) return {};
  std::uint32_t have = 0;
  const SystemCode result = readBuffer(table_.indexFile, 0, image_.bytes(), image_.size(), &have);
  if (result != 0 && result != code::kEndOfFile) return failed(metaData_, table_, result);
  if (have == 0) return empty(tableHeader);
  if (exclusive_ && isUnfinishedStart(image_.bytes(), have)) {
    index_file::abandonFile(table_);
    *outcome = Outcome::again;
    return {};
  }
  if (have < sizeof(header_)) return failed(metaData_, table_, code::kEndOfFile);
  std::memcpy(&header_, image_.bytes(), sizeof(header_));
  ZELTA_TRY(checkHeader(metaData_, table_, header_));
  if (header_.newFileEnd != 0) return repair(outcome);
  if (have < image_.size()) return failed(metaData_, table_, code::kEndOfFile);
  return takeRoots(metaData_, table_, header_, image_, manager_);
}

Result Opening::empty(const TableHeader_tag* tableHeader) {
  if (!mustExist_) {
    closeHandle(table_);
    return {};
  }
  if (!exclusive_) {
    return reportError(&metaData_, Own::notExclusive, table_.cName(), extension::kIndex);
  }
  return index_file::buildIndexFile(metaData_, table_, tableHeader, header_, manager_);
}

Result Opening::repair(Outcome* outcome) {
  if (!exclusive_) {
    return reportError(&metaData_, Own::notWritable, table_.cName(), extension::kIndex);
  }
  bool abandoned = false;
  *outcome = Outcome::again;
  return index_file::repairIndexFile(metaData_, table_, header_, image_, &abandoned);
}

}  // namespace

std::u16string indexFilePath(const MetaData& metaData, const Table& table) {
  if (table.directory.empty()) return databasePath(metaData, table.name, extension::kIndex);
  return table.directory + table.name + extension::kIndex;
}

std::uint32_t indexPageSize(const Table& table, std::uint64_t* firstPage) {
  const std::uint64_t count = table.indexCount;
  if (count == 0) return 0;
  std::uint64_t words = 0;
  for (std::uint32_t i = 0; i < table.indexCount; ++i) words += table.index(i).keyWords;
  const std::uint64_t share = table.wideIds() ? 400 : 200;
  const std::uint64_t least = std::max(16 * count + 80, ((words + 2) * share + 20) / count);
  const std::uint64_t size = std::max<std::uint64_t>(std::bit_ceil(least), kSmallestPageSize);
  if (size > kLargestPageSize) return 0;
  if (firstPage != nullptr) *firstPage = (((count + 1) * 16 + 79) / size + 1) * size;
  return static_cast<std::uint32_t>(size);
}

Result openIndexFile(MetaData& metaData, Table& table, const TableHeader_tag* tableHeader,
                     IndexFileHeader_tag& header, AtomicManager& manager, bool exclusive,
                     bool mustExist) {
  header = {};
  std::fill_n(manager.indexRoots(), table.indexCount, std::uint64_t{0});
  if (table.indexCount == 0) return {};
  Opening opening(metaData, table, header, manager, exclusive, mustExist);
  // A repair leaves a sound header or an empty file; what is still broken after that stays so.
  for (int attempts = 0; attempts < 4; ++attempts) {
    auto outcome = Opening::Outcome::done;
    ZELTA_TRY(opening.attempt(tableHeader, &outcome));
    if (outcome == Opening::Outcome::done) return {};
  }
  return corrupted(metaData, table);
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

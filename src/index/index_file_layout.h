// How the header of an index file with its two tables of roots is read and written.

#ifndef ZELTA_INDEX_INDEX_FILE_LAYOUT_H
#define ZELTA_INDEX_INDEX_FILE_LAYOUT_H

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "index/index_file.h"
#include "storage/table.h"

namespace zelta::index_file {

inline constexpr char kMagic[4] = {'Z', 'E', 'L', 'I'};
inline constexpr std::uint16_t kMajorVersion = 1;
inline constexpr std::uint16_t kMinorVersion = 0;

/// Where the part of the header begins that commits change.
inline constexpr std::uint64_t kChainStart = offsetof(IndexFileHeader_tag, freeListHead);
/// Where the fields of a commit under way begin.
inline constexpr std::uint64_t kIntentStart = offsetof(IndexFileHeader_tag, rollbackEnd);
/// Where the part of the header begins that the journal's sum covers.
inline constexpr std::uint64_t kSummedStart = offsetof(IndexFileHeader_tag, newFreeListHead);

/// The bytes of a header with its 2 n roots, on the stack for tables of usual kind.
class HeaderImage {
 public:
  explicit HeaderImage(std::uint32_t indexCount)
      : rootBytes_(8 * std::uint64_t{indexCount}), size_(indexHeaderSize(indexCount)) {
    if (size_ > fixed_.size()) large_.resize(size_);
  }
  [[nodiscard]] char* bytes() { return large_.empty() ? fixed_.data() : large_.data(); }
  [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(size_); }
  [[nodiscard]] std::uint64_t rootBytes() const { return rootBytes_; }
  [[nodiscard]] std::uint64_t pendingStart() const { return sizeof(IndexFileHeader_tag); }
  [[nodiscard]] std::uint64_t liveStart() const { return pendingStart() + rootBytes_; }

  void putHeader(const IndexFileHeader_tag& header) {
    std::memcpy(bytes(), &header, sizeof(header));
  }
  void putPending(const std::uint64_t* roots) {
    std::memcpy(bytes() + pendingStart(), roots, rootBytes_);
  }
  void clearPending() { std::memset(bytes() + pendingStart(), 0, rootBytes_); }

 private:
  std::uint64_t rootBytes_;
  std::uint64_t size_;
  std::array<char, 512> fixed_;
  std::vector<char> large_;
};

/// A failure of the platform, or a file whose content is wrong, by the name of the table.
Result failed(MetaData& metaData, const Table& table, SystemCode code);
Result corrupted(MetaData& metaData, const Table& table);

/// Forgets the commit: `header` at rest, with `freeListHead` and `fileEnd` as they stand.
void clearIntent(IndexFileHeader_tag& header);

/// The place of the journal: nothing that it is copied to lies over it.
[[nodiscard]] inline std::uint64_t journalStart(const IndexFileHeader_tag& header) {
  return header.newFileEnd > header.rollbackEnd ? header.newFileEnd : header.rollbackEnd;
}

/// Empties the file and closes it.
void abandonFile(Table& table);

/// Completes or undoes what a dead process left. `*abandoned`: it was a build, the file is empty
/// and closed now. Else the header has to be read again.
Result repairIndexFile(MetaData& metaData, Table& table, IndexFileHeader_tag& header,
                       HeaderImage& image, bool* abandoned);

/// Builds the file, open and empty, from the table.
Result buildIndexFile(MetaData& metaData, Table& table, const TableHeader_tag* tableHeader,
                      IndexFileHeader_tag& header, AtomicManager& manager);

}  // namespace zelta::index_file

#endif  // ZELTA_INDEX_INDEX_FILE_LAYOUT_H

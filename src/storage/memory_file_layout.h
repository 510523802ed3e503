// How the header of a memory file with its roots is read and written.

#ifndef ZELTA_STORAGE_MEMORY_FILE_LAYOUT_H
#define ZELTA_STORAGE_MEMORY_FILE_LAYOUT_H

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "storage/atomic_manager.h"
#include "storage/memory_file.h"

namespace zelta::memory_file {

/// Where the fields of a standing journal begin.
inline constexpr std::uint64_t kIntentStart = offsetof(MemoryFileHeader_tag, journalBase);
/// Where the part of the header begins that a flush changes.
inline constexpr std::uint64_t kChainStart = offsetof(MemoryFileHeader_tag, freeHead);
/// Where the part of the header begins that the journal's checksum covers.
inline constexpr std::uint64_t kSummedStart = offsetof(MemoryFileHeader_tag, newFreeHead);

/// The bytes of a header with its 2 (n + 1) roots, on the stack for tables of usual kind.
class HeaderImage {
 public:
  explicit HeaderImage(std::uint32_t indexCount)
      : rootCount_(indexCount + 1), size_(memoryHeaderSize(indexCount)) {
    if (size_ > fixed_.size()) large_.resize(size_);
  }
  [[nodiscard]] char* bytes() { return large_.empty() ? fixed_.data() : large_.data(); }
  [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(size_); }
  [[nodiscard]] std::uint64_t rootBytes() const { return 8 * std::uint64_t{rootCount_}; }
  [[nodiscard]] std::uint64_t journalRootsStart() const { return sizeof(MemoryFileHeader_tag); }
  [[nodiscard]] std::uint64_t rootsStart() const { return journalRootsStart() + rootBytes(); }

  void putHeader(const MemoryFileHeader_tag& header) {
    std::memcpy(bytes(), &header, sizeof(header));
  }
  void putJournalRoots(const std::uint64_t* roots) {
    std::memcpy(bytes() + journalRootsStart(), roots, rootBytes());
  }

 private:
  std::uint32_t rootCount_;
  std::uint64_t size_;
  std::array<char, 512> fixed_;
  std::vector<char> large_;
};

/// A failure of the platform, or a file whose content is wrong, by the name of the table.
Result failed(const AtomicManager& manager, SystemCode code);
Result corrupted(const AtomicManager& manager);

/// Forgets the journal: `header` at rest, with `freeHead` and `endOfFile` as they stand.
void clearIntent(MemoryFileHeader_tag& header);

/// The place of the journal.
[[nodiscard]] inline std::uint64_t journalStart(const MemoryFileHeader_tag& header) {
  return header.newEndOfFile > header.journalBase ? header.newEndOfFile : header.journalBase;
}

/// Finishes or drops the journal of a process that died. `image` holds the header and roots as
/// read; both follow what was done. `*applied`: the file holds the journal's change from now on.
Result recoverJournal(const AtomicManager& manager, platform::File file,
                      MemoryFileHeader_tag& header, HeaderImage& image, bool* applied);

/// Whether a position can be that of a page or record.
[[nodiscard]] inline bool plausible(const AtomicManager& manager, std::uint64_t position,
                                    std::uint64_t size) {
  return position >= memoryHeaderSize(manager.indexCount) && position < manager.memoryEndOfFile &&
         size <= manager.memoryEndOfFile - position;
}

}  // namespace zelta::memory_file

#endif  // ZELTA_STORAGE_MEMORY_FILE_LAYOUT_H

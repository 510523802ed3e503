// The table directory, which lies behind the header of the control file: which tables there are, and
// where. databaseMutex guards it; who reads without it sees a whole directory or tries again.

#ifndef ZELTA_FRAME_TABLE_DIRECTORY_H
#define ZELTA_FRAME_TABLE_DIRECTORY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "frame/control_file.h"
#include "frame/metadata.h"

namespace zelta {

/// A table in the directory.
struct DirectoryEntry {
  std::uint32_t tableId;
  std::uint32_t lockOrder;
  std::u16string name;
  std::u16string indexPath;  ///< folder of the index file; empty: the database's
};

/// Whether a table may have this name: it leads into no other folder, and serves on every platform.
[[nodiscard]] bool isTableName(const std::u16string& name);

/// The folder of the table's index file, as it is to be opened.
[[nodiscard]] std::u16string indexFolder(const MetaData& metaData, const DirectoryEntry& entry);

/// The directory in memory: its bytes as they stand in the file, and their parts.
class TableDirectory {
 public:
  /// Reads and checks the directory that `header` describes (own code 54 for a damaged one).
  Result read(MetaData& metaData, const ControlHeader_tag& header);
  /// Takes the bytes of a directory: an entry area of `directorySize` 16-bit units, then
  /// `tableCount` index records. False if they are malformed, name what no table may be named, or
  /// hold a name or an ID twice.
  [[nodiscard]] bool parse(const char* bytes, std::size_t length, std::uint32_t tableCount,
                           std::uint32_t directorySize);

  /// Whether the file still has this directory, which is not empty.
  [[nodiscard]] bool stillStands(MetaData& metaData) const;

  /// Entries in the order of their names.
  [[nodiscard]] const std::vector<DirectoryEntry>& entries() const { return entries_; }
  [[nodiscard]] const DirectoryEntry* find(std::uint32_t tableId) const;

  /// Puts an entry at its place by name.
  void insert(DirectoryEntry entry);
  bool remove(std::uint32_t tableId);
  /// The bytes: entry area, then index records in the order of IDs.
  [[nodiscard]] std::string bytes() const;
  /// Length of the entry area in 16-bit units.
  [[nodiscard]] std::uint32_t entryUnits() const;

 private:
  [[nodiscard]] bool hasTwins() const;
  std::vector<DirectoryEntry> entries_;
};

/// Compares table names without regard to case: below 0, 0 or above 0.
[[nodiscard]] int compareNames(const std::u16string& a, const std::u16string& b);

}  // namespace zelta

#endif  // ZELTA_FRAME_TABLE_DIRECTORY_H

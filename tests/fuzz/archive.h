// A database's files as one input: each file's name and bytes, then the bytes that steer the work.

#ifndef ZELTA_TESTS_FUZZ_ARCHIVE_H
#define ZELTA_TESTS_FUZZ_ARCHIVE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::fuzz {

/// The names that the files of an archive can have; the archive holds their numbers. The database
/// is "db", its tables "a", "b" and "c"; an index file may lie in the folder "i".
inline constexpr const char* kFileNames[] = {
    "db.zlc", "db.zll",  "db.0000.zll", "db.0001.zll", "db.0002.zll", "db.0003.zll",
    "a.zlt",  "a.zlm",   "a.zli",       "i/a.zli",     "b.zlt",       "b.zlm",
    "b.zli",  "i/b.zli", "c.zlt",       "c.zlm",       "c.zli",       "i/c.zli"};
inline constexpr std::size_t kFileNameCount = sizeof(kFileNames) / sizeof(*kFileNames);

struct ArchivedFile {
  std::size_t name;  ///< in kFileNames
  std::string bytes;
};

struct Archive {
  std::vector<ArchivedFile> files;
  std::string steering;

  /// The number in `files` of a name, if it is there.
  [[nodiscard]] std::optional<std::size_t> find(std::size_t name) const;
};

/// Takes any bytes: what is cut off or makes no sense is left out.
[[nodiscard]] Archive unpack(const std::uint8_t* data, std::size_t size);
[[nodiscard]] std::string pack(const Archive& archive);

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_ARCHIVE_H

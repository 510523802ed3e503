// The table directory of a control file, taken apart and put together again.

#ifndef ZELTA_TESTS_FUZZ_DIRECTORY_H
#define ZELTA_TESTS_FUZZ_DIRECTORY_H

#include <cstdint>
#include <string>
#include <vector>

namespace zelta::fuzz {

struct DirectoryLine {
  std::uint32_t id;
  std::uint32_t order;
  std::u16string name;
  std::u16string folder;
};

/// Empty if the file's makes no sense.
[[nodiscard]] std::vector<DirectoryLine> directoryOf(const std::string& control);

/// Puts a directory in the place of the file's; what lies behind it moves.
void setDirectory(std::string& control, const std::vector<DirectoryLine>& lines);

/// Lets the intent of a directory change stand, whose image is the present directory, with or
/// without the table; its checksum is still to be made.
void raiseDirectoryIntent(std::string& control, std::uint16_t operation, std::uint32_t table,
                          bool without);

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_DIRECTORY_H

// Where in a file the numbers stand that lead to other bytes, or say how many there are.

#ifndef ZELTA_TESTS_FUZZ_PLACES_H
#define ZELTA_TESTS_FUZZ_PLACES_H

#include <cstdint>
#include <string>
#include <vector>

namespace zelta::fuzz {

struct Place {
  std::uint64_t offset;
  unsigned width;  ///< bytes
};

enum class FileKind { control, table, memory, index, log };
[[nodiscard]] FileKind kindOf(std::size_t name);

/// All of them lie within the file.
[[nodiscard]] std::vector<Place> placesOf(const std::string& file, FileKind kind);

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_PLACES_H

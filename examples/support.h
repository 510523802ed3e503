// What the examples share.

#ifndef EXAMPLES_SUPPORT_H
#define EXAMPLES_SUPPORT_H

#include <czelta.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

constexpr unsigned kTimeout = 10000;                 // ms
constexpr unsigned long long kNoMore = 0x100000020;  ///< own code 32: there is no such object

inline std::string utf8(const char16_t* text) { return std::filesystem::path(text).string(); }

inline std::u16string utf16(const std::string& text) {
  return std::filesystem::path(text).u16string();
}

/// The library takes absolute paths, or relative ones with a folder in them.
inline std::u16string databasePath(const char* path) {
  return std::filesystem::absolute(path).u16string();
}

/// Throws with the library's own words if an operation failed.
inline void check(CZELTA& database, unsigned long long result) {
  if (result == 0) return;
  const char16_t* message = nullptr;
  database.GetErrorMessage(&message);
  throw std::runtime_error(utf8(message));
}

inline void openTable(CZELTA& database, CZELTA::Mode mode, unsigned table) {
  check(database, database.BeginTransaction(mode, kTimeout));
  check(database, database.OpenTable(table));
}

/// The unit of coordinates in the databases. Throws where 32 bits do not reach.
inline std::int32_t microdegrees(double degrees) {
  constexpr double kMost = 2147;
  if (!(std::fabs(degrees) <= kMost)) {
    throw std::runtime_error(std::to_string(degrees) + " degrees are off the map");
  }
  return static_cast<std::int32_t>(degrees * 1e6 + (degrees < 0 ? -0.5 : 0.5));
}

// -- Searches -------------------------------------------------------------------------------------

/// Searches an index of boxes or spans; the table then has the results.
inline void searchIndex(CZELTA& database, unsigned table, unsigned index, const void* key) {
  check(database, database.SearchIndex(table, index, key, 0u, CZELTA::Mode{}, nullptr));
}

/// Searches a list of words by an expression, whose characters are as wide as those of the list.
template <typename Character>
void searchWords(CZELTA& database, unsigned table, unsigned index, const Character* expression) {
  check(database, database.SearchIndex(table, index, nullptr, expression, CZELTA::Mode{}, nullptr));
}

/// The IDs of all objects that the last search, which was of this index, has found.
inline std::vector<std::uint32_t> foundObjects(CZELTA& database, unsigned table, unsigned index) {
  std::vector<std::uint32_t> ids;
  CZELTA::Object object;
  for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext) {
    const auto result = database.ReadObject(table, mode, &object, index, nullptr, nullptr);
    if (result == kNoMore) return ids;
    check(database, result);
    ids.push_back(static_cast<std::uint32_t>(object.objectID));
  }
}

/// Keeps those objects that the last search, which was of this index, has found as well: ReadEqual
/// asks whether an ID is among the results.
inline void keepFound(CZELTA& database, unsigned table, unsigned index,
                      std::vector<std::uint32_t>* ids) {
  const auto missing = [&](std::uint32_t id) {
    const auto result = database.ReadObject(table, CZELTA::ReadEqual, nullptr, index, &id, nullptr);
    if (result != kNoMore) check(database, result);
    return result == kNoMore;
  };
  ids->erase(std::remove_if(ids->begin(), ids->end(), missing), ids->end());
}

#endif  // EXAMPLES_SUPPORT_H

// What the checks of all kinds of tree have in common.

#ifndef ZELTA_CHECK_CHECK_ENTRIES_H
#define ZELTA_CHECK_CHECK_ENTRIES_H

#include <cstdint>
#include <functional>
#include <vector>

#include "check/check_file.h"

namespace zelta::check {

/// Where a tree lies and what its nodes are like.
struct TreePlace {
  std::uint64_t root = 0;
  std::uint64_t rootOffset = 0;  ///< where the root's position stands
  std::uint64_t from = 0;        ///< the nodes lie in [from, to)
  std::uint64_t to = 0;
  std::uint32_t pageSize = 0;
  std::uint32_t idBytes = 4;
  bool manyEntries = false;  ///< of an object: one or more for each of its rows
  // Of kinds whose keys are words of 32 bits
  bool variable = false;
  std::uint32_t keyWords = 0;
  // Of lists
  std::uint32_t prefixBytes = 0;
  std::uint32_t mostObjectsPower = 0;  ///< 0: any number of objects may have a word
};

/// An entry of a leaf: a key and an object that has it.
struct TreeEntry {
  std::uint64_t hash;  ///< of the key
  std::uint64_t objectID;
  std::uint64_t offset;      ///< of the key in the file
  bool ofAnyObject = false;  ///< objects that have this key are not listed
};
using EntryVisitor = std::function<void(const TreeEntry&)>;

/// A walk through one tree, with all that it reads and fills.
struct WalkContext {
  Findings& findings;
  CheckFile& file;
  const TreePlace& place;
  std::vector<Extent>& extents;  ///< receives the pages of the tree
  const EntryVisitor& visit;
};

/// Two keys are held to be the same if their hashes are.
[[nodiscard]] std::uint64_t hashKey(const std::uint32_t* key, std::uint32_t words);
[[nodiscard]] std::uint64_t hashKey(const char* key, std::size_t bytes);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_ENTRIES_H

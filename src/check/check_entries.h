// What the checks of all kinds of tree have in common.

#ifndef ZELTA_CHECK_CHECK_ENTRIES_H
#define ZELTA_CHECK_CHECK_ENTRIES_H

#include <cstdint>
#include <functional>

namespace zelta::check {

/// Where a tree lies and what its nodes are like.
struct TreePlace {
  std::uint64_t root = 0;
  std::uint64_t rootOffset = 0;  ///< where the root's position stands
  std::uint64_t from = 0;        ///< the nodes lie in [from, to)
  std::uint64_t to = 0;
  std::uint32_t pageSize = 0;
  bool variable = false;
  std::uint32_t keyWords = 0;
  std::uint32_t idBytes = 4;
};

/// An entry of a leaf. The key is `words` long.
struct TreeEntry {
  const std::uint32_t* key;
  std::uint32_t words;
  std::uint64_t objectID;
  std::uint64_t offset;  ///< of the key in the file
};
using EntryVisitor = std::function<void(const TreeEntry&)>;

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_ENTRIES_H

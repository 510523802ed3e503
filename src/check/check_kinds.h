// What the checker knows of the kinds of index: how to walk a tree of each and which keys an object
// must have there. A new kind adds a row to the table in check_kinds.cpp; an index of a kind
// without one is counted as not checked.

#ifndef ZELTA_CHECK_CHECK_KINDS_H
#define ZELTA_CHECK_CHECK_KINDS_H

#include <cstdint>
#include <vector>

#include "check/check_entries.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta::check {

/// A key that an object has, or an entry that an index has. Keys are compared by their hashes.
struct CheckedKey {
  std::uint64_t hash;
  std::uint64_t objectID;
  std::uint64_t offset;  ///< of the record in the table file, or of the key in the index file
  /// Of an object that a commit is still to change, the place of that among them, from 1 on: the
  /// index may have the key or not.
  std::uint32_t commit = 0;
  bool comes = false;  ///< with that commit; otherwise it goes
};
using CheckedKeys = std::vector<CheckedKey>;
/// An order in which equal keys of one object stand together.
[[nodiscard]] inline bool isBefore(const CheckedKey& a, const CheckedKey& b) {
  return a.hash != b.hash ? a.hash < b.hash : a.objectID < b.objectID;
}

/// An object whose keys are wanted. Its encoding is sound.
struct CheckedObject {
  std::uint64_t id;
  std::uint64_t position;  ///< of the record in the table file
  const char* bytes;
  std::uint32_t length;
};

/// A row of that table.
struct KindCheck {
  CZELTA::IndexKind number;
  /// Open transactions have trees of their keys in the memory file.
  bool hasPendingTree;
  /// Walks a tree: form of the nodes, order, links. False if parts of it could not be walked.
  bool (*walk)(const WalkContext& context);
  /// Adds all keys that an index (from 0) must have of an object, each as often as the index must
  /// have it. False if one is wanting.
  bool (*keysOf)(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys);
};

/// Null for a kind that is not there.
[[nodiscard]] const KindCheck* findKindCheck(const Table& table, std::uint32_t index);

/// KindCheck::keysOf() of the kinds with keys.
bool makeKeys(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys);

// The same of the kinds of contents, in check_contents.cpp

/// Each point is a key, with the number of its row if it has one.
bool makePoints(Table& table, std::uint32_t index, const CheckedObject& object, CheckedKeys& keys);
/// Each word is a key, with the prefix in front.
bool makeAsciiWords(Table& table, std::uint32_t index, const CheckedObject& object,
                    CheckedKeys& keys);
bool makeWideWords(Table& table, std::uint32_t index, const CheckedObject& object,
                   CheckedKeys& keys);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_KINDS_H

// What the checker knows of the kinds of index.

#ifndef ZELTA_CHECK_CHECK_KINDS_H
#define ZELTA_CHECK_CHECK_KINDS_H

#include <cstdint>
#include <vector>

#include "check/check_internal.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta::check {

/// A key that an object has, or an entry that an index has. Keys are compared by their hashes.
struct KeyTrace {
  std::uint64_t hash;
  std::uint64_t objectID;
  std::uint64_t offset;  ///< of the record in the table file, or of the key in the index file
  /// Of an object that a commit is still to change, the place of that among them, from 1 on: the
  /// index may have the key or not.
  std::uint32_t commit = 0;
  bool comes = false;  ///< with that commit; otherwise it goes
};
using KeyTraces = std::vector<KeyTrace>;

[[nodiscard]] std::uint64_t hashKey(const std::uint32_t* key, std::uint32_t words);

/// An object whose keys are wanted. Its encoding is sound.
struct TracedObject {
  std::uint64_t id;
  std::uint64_t position;  ///< of the record in the table file
  const char* bytes;
  std::uint32_t length;
};

struct KindCheck {
  CZELTA::IndexKind number;
  /// Walks a tree: form of the nodes, order, links. The nodes go to `extents`. False if parts of it
  /// could not be walked.
  bool (*walk)(Findings& findings, CheckFile& file, const TreePlace& place,
               std::vector<Extent>& extents, const EntryVisitor& visit);
  /// Adds all keys that an index (from 0) must have of an object. False if one is wanting.
  bool (*trace)(Table& table, std::uint32_t index, const TracedObject& object, KeyTraces& keys);
};

/// Null for a kind that is not there.
[[nodiscard]] const KindCheck* findKindCheck(const Table& table, std::uint32_t index);

/// KindCheck::trace() of the kinds with keys.
bool traceKeys(Table& table, std::uint32_t index, const TracedObject& object, KeyTraces& keys);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_KINDS_H

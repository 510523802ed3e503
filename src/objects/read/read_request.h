// What a read asks for: which object, by which way, and with which locks. It is checked as far as
// that goes without a file, and stays the same from pass to pass.

#ifndef ZELTA_OBJECTS_READ_READ_REQUEST_H
#define ZELTA_OBJECTS_READ_READ_REQUEST_H

#include <cassert>
#include <cstdint>

#include "czelta.h"
#include "schema/index_traits.h"
#include "storage/table.h"

namespace zelta {

/// How wide an ID is that a caller points at. Only one that is given as a whole can be wider than
/// the table's IDs are: no object has it.
enum class IdWidth { asTable, whole };

/// An object as the caller of an operation names it.
struct ObjectQuery {
  CZELTA::Mode mode{};      ///< with flags
  std::uint32_t index = 0;  ///< counted from 1; 0: by object ID
  const void* key = nullptr;
  IdWidth width = IdWidth::asTable;  ///< of the ID at `key`, if it is one
};

/// The ID that a caller points at, in as many bytes as `width` says.
[[nodiscard]] std::uint64_t idAt(const Table& table, const void* key, IdWidth width);
/// The bits of a mode that are no flags.
inline constexpr std::uint32_t kModeBits = 63;
/// The parts of a mode: which object, and how to wait for it.
[[nodiscard]] constexpr CZELTA::Mode withoutFlags(CZELTA::Mode mode) {
  return static_cast<CZELTA::Mode>(static_cast<std::uint32_t>(mode) & kModeBits);
}
[[nodiscard]] constexpr CZELTA::Mode flagsOf(CZELTA::Mode mode) {
  return static_cast<CZELTA::Mode>(static_cast<std::uint32_t>(mode) & ~kModeBits);
}

/// A query on its way through the passes of an access. It owns the key that it begins at: where the
/// caller has it may be the table's buffer, which a pass fills, and whose memory it may give back,
/// before another one begins.
class ReadRequest {
 public:
  /// With `noLock` the request sees committed versions of others' objects and never waits.
  ReadRequest(Table& tableIn, const ObjectQuery& query, bool noLockIn)
      : metaData(tableIn.metaData),
        table(tableIn),
        mode(withoutFlags(query.mode)),
        flags(flagsOf(query.mode)),
        noLock(noLockIn),
        writer(tableIn.metaData.mayWrite()),
        index(query.index),
        key(query.key),
        width_(query.width) {
    assert(noLock || writer);
  }
  ReadRequest(const ReadRequest&) = delete;
  ReadRequest& operator=(const ReadRequest&) = delete;

  /// What can be refused of a request before any file is looked at: own codes 7, 18, 39 and 40.
  Result check() const;
  /// Makes a copy of the caller's key, or the search key of an ordered index from it. After
  /// check().
  Result takeKey();

  [[nodiscard]] bool byTree() const { return index != 0 && isOrdered(table.index(index - 1)); }
  [[nodiscard]] bool byResults() const { return index != 0 && !byTree(); }
  /// Modes that go on upward from where they begin.
  [[nodiscard]] bool upward() const {
    return mode == CZELTA::ReadFirst || mode == CZELTA::ReadNext || mode == CZELTA::ReadGreater ||
           mode == CZELTA::ReadGreaterEqual;
  }
  /// "Not found", with the ID if one was asked for.
  Result notFound(std::uint64_t objectID = 0) const {
    return reportError(&metaData, Own::keyNotFound, table.cName(), nullptr,
                       static_cast<std::int64_t>(objectID), std::int64_t{index} - 1);
  }

  MetaData& metaData;
  Table& table;
  const CZELTA::Mode mode;  ///< without flags
  const CZELTA::Mode flags;
  const bool noLock;
  const bool writer;          ///< the transaction may write, and has the table's mutex in a pass
  const std::uint32_t index;  ///< counted from 1; 0: by object ID
  /// As the caller gave it. By ID or results, after takeKey(): the 64-bit ID.
  const void* key;
  const std::uint32_t* searchKey = nullptr;  ///< made from `key` for an ordered index

 private:
  Result checkPivot() const;

  const IdWidth width_;
  std::uint64_t id_ = 0;
  PooledKey ownedKey_;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_READ_REQUEST_H

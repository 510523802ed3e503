// Reading an object's encoding: where its fields, its variable values and the rows of its
// sub-records stand.
//
// Variable values lie one behind the other, and each states its end in its own way. All walkers
// count the bytes that are left, so that no length can lead them out of the object.

#ifndef ZELTA_SCHEMA_OBJECT_VIEW_H
#define ZELTA_SCHEMA_OBJECT_VIEW_H

#include <array>
#include <cstdint>
#include <cstring>

#include "czelta.h"
#include "storage/table.h"

namespace zelta {

/// No size: the value passes the end of its bounds.
inline constexpr std::uint64_t kPastEnd = ~std::uint64_t{0};

/// Bytes of a text with its terminator.
[[nodiscard]] inline std::uint64_t textSize(const char* at, std::uint64_t left) {
  const void* end = left == 0 ? nullptr : std::memchr(at, 0, left);
  return end == nullptr ? kPastEnd
                        : static_cast<std::uint64_t>(static_cast<const char*>(end) - at) + 1;
}
[[nodiscard]] inline std::uint64_t wideTextSize(const char* at, std::uint64_t left) {
  for (std::uint64_t p = 0; p + 2 <= left; p += 2) {
    if (at[p] == 0 && at[p + 1] == 0) return p + 2;
  }
  return kPastEnd;
}
/// Bytes that a value claims whose length word counts itself; below that it counts as empty. A word
/// that is not whole claims itself.
template <typename Length>
[[nodiscard]] std::uint64_t claimedSize(const char* at, std::uint64_t left) {
  if (left < sizeof(Length)) return sizeof(Length);
  Length length;
  std::memcpy(&length, at, sizeof length);
  return length < sizeof length ? sizeof length : length;
}
template <typename Length>
[[nodiscard]] std::uint64_t prefixedSize(const char* at, std::uint64_t left) {
  const std::uint64_t size = claimedSize<Length>(at, left);
  return size > left ? kPastEnd : size;
}

[[nodiscard]] constexpr bool isPoints(std::uint32_t type) {
  return type == CZELTA::TypePoints2 || type == CZELTA::TypePoints3;
}

/// Bytes of a variable value, kPastEnd if it is not whole. An unknown type has 0 bytes.
[[nodiscard]] inline std::uint64_t valueSize(std::uint32_t type, const char* at,
                                             std::uint64_t left) {
  switch (type) {
    case CZELTA::TypeText:
      return textSize(at, left);
    case CZELTA::TypeWideText:
      return wideTextSize(at, left);
    case CZELTA::TypeShortBinary:
      return prefixedSize<std::uint16_t>(at, left);
    case CZELTA::TypeBinary:
    case CZELTA::TypePoints2:
    case CZELTA::TypePoints3:
    case CZELTA::TypeSubRecords:
      return prefixedSize<std::uint32_t>(at, left);
    default:
      return 0;
  }
}

/// Bytes of the empty value of a variable type.
[[nodiscard]] constexpr std::uint32_t emptySize(std::uint32_t type) {
  switch (type) {
    case CZELTA::TypeText:
      return 1;
    case CZELTA::TypeWideText:
    case CZELTA::TypeShortBinary:
      return 2;
    default:
      return 4;
  }
}

/// Walks one row of a sub-record: `left` bounds it. Returns its size; `*seen` sub-fields were
/// whole.
[[nodiscard]] std::uint64_t rowSize(const CZELTA::Schema::Field& field, const char* row,
                                    std::uint64_t left, std::uint32_t* seen);

/// A version of an object: its bytes, which begin with the version word. Null: there is none.
struct ObjectBytes {
  const char* data = nullptr;
  std::uint32_t length = 0;
};

/// A sub-field of one row of a variable field, each counted from 0.
struct SubFieldPlace {
  std::uint32_t field;
  std::uint32_t subField;
  std::uint32_t subRecord;
};

/// An ID of 64 bits, or one of 32.
[[nodiscard]] inline std::uint64_t loadId(const void* at, bool wide) {
  std::uint64_t all = 0;
  std::uint32_t low = 0;
  if (wide) {
    std::memcpy(&all, at, sizeof all);
    return all;
  }
  std::memcpy(&low, at, sizeof low);
  return low;
}

/// Where an object's ID stands, behind the version word.
inline constexpr std::uint32_t kIdOffset = 2;

/// The ID in an object's bytes.
[[nodiscard]] inline std::uint64_t objectIdOf(const Table& table, const char* object) {
  return loadId(object + kIdOffset, table.wideIds());
}

/// Address of a field in an object; without one, in the table's buffer. Null if the object does not
/// hold the field. A position right at the end of the object counts as held.
[[nodiscard]] const char* fieldAddress(const Table& table, std::uint32_t field,
                                       ObjectBytes object = {});

/// Where the rows of sub-records stand that were looked for last, so that the row behind one is a
/// single step away. It belongs to one object, whose bytes do not change meanwhile.
class RowPlaces {
 public:
  struct Place {
    std::uint32_t field = 0;
    std::uint32_t row = 0;
    const char* at = nullptr;  ///< start of the row; null: nothing is known
    std::uint64_t left = 0;    ///< bytes from there to the end of all rows
  };
  /// The place of a field, which may be an empty one that was used for another field before.
  Place& of(std::uint32_t field);

 private:
  std::array<Place, 4> places_;  ///< an index that uses more fields is rare, and only slower
};

/// The same for a sub-field of a row. `places` may be null.
[[nodiscard]] const char* subFieldAddress(const Table& table, const SubFieldPlace& wanted,
                                          ObjectBytes object = {}, RowPlaces* places = nullptr);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_OBJECT_VIEW_H

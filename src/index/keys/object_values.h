// The values that an index's segments name in an object.

#ifndef ZELTA_INDEX_KEYS_OBJECT_VALUES_H
#define ZELTA_INDEX_KEYS_OBJECT_VALUES_H

#include <cstdint>

#include "index/keys/keys.h"
#include "schema/data_types.h"
#include "schema/object_view.h"
#include "storage/table.h"

namespace zelta {

/// The value of a segment: where it stands and how far it may be read.
struct SegmentValue {
  const char* at = nullptr;  ///< null: there is none
  std::uint64_t left = 0;    ///< bytes
};

/// The values of one entry of an object, in any order.
class ObjectValues {
 public:
  /// `from` has an object; it outlives this.
  ObjectValues(const Table& table, const KeySource& from) : table_(table), from_(from) {}

  [[nodiscard]] SegmentValue field(const FieldRef& ref) const {
    const ObjectBytes& object = from_.object;
    const char* end = object.data + object.length;
    const char* at =
        ref.subField == nullptr
            ? fieldAddress(table_, ref.fieldNumber, object)
            : subFieldAddress(table_, {ref.fieldNumber, ref.subFieldNumber, from_.entry}, object,
                              from_.rows);
    if (at == nullptr || at >= end) return {};
    return {at, static_cast<std::uint64_t>(end - at)};
  }
  [[nodiscard]] std::uint64_t objectID() const { return objectIdOf(table_, from_.object.data); }
  [[nodiscard]] std::uint32_t entryNumber() const { return from_.entry; }
  /// Starts over with the first segment.
  void rewind() {}

 private:
  const Table& table_;
  const KeySource& from_;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_OBJECT_VALUES_H

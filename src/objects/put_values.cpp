// Replacing variable fields in the object buffer. First everything is measured, which changes
// nothing and may fail for a malformed value; then bytes are moved, which fails only for want of
// memory. The new values may lie in the buffer that is changed, even in the fields that they
// replace.

#include "objects/put_values.h"

#include <cassert>
#include <cstring>

#include "objects/object_buffer.h"
#include "platform/memory.h"
#include "schema/data_types.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

constexpr std::uint64_t kLargest = 0xFFFFFFFF;
constexpr std::uint64_t kTooLong = 4294967286;

/// One replacement of fields by values.
class Replacement {
 public:
  Replacement(Table& table, const char* values, std::uint64_t valuesSize, std::uint32_t first,
              std::uint32_t count)
      : metaData_(table.metaData),
        table_(table),
        values_(values),
        valuesLimit_(valuesSize),
        first_(first),
        count_(count) {}

  Result run() {
    ZELTA_TRY(measure());
    const std::uint64_t length = table_.objectLength - oldSize_ + newSize_;
    return newSize_ > oldSize_ ? grow(length) : shrink(length);
  }

 private:
  const CZELTA::Schema::Field& field(std::uint32_t f) const { return table_.schema->fields[f]; }
  Result malformed(std::uint32_t f) {
    return reportError(&metaData_, Own::variableField, table_.cName(), field(f).fieldName,
                       static_cast<std::int64_t>(table_.currentObjectID), 0);
  }
  Result step(std::uint32_t f, std::uint64_t* position);
  Result measureValue(std::uint32_t f);
  Result measure();
  Result grow(std::uint64_t length);
  Result shrink(std::uint64_t length);
  Result rebuild(std::uint64_t length);
  void putValues(char* at) const {
    if (values_ != nullptr) {
      std::memmove(at, values_, newSize_);
    } else {
      std::memset(at, 0, newSize_);
    }
  }

  MetaData& metaData_;
  Table& table_;
  const char* values_;
  std::uint64_t valuesLimit_;  ///< 0: the values are trusted
  std::uint32_t first_;
  std::uint32_t count_;
  std::uint64_t start_ = 0;    ///< of the first field replaced
  std::uint64_t oldSize_ = 0;  ///< of the fields replaced
  std::uint64_t newSize_ = 0;
};

/// Passes a field of the object by.
Result Replacement::step(std::uint32_t f, std::uint64_t* position) {
  const std::uint32_t type = field(f).fieldType;
  if (findDataType(type) == nullptr || !isVariableType(type)) {
    return reportError(&metaData_, Own::fieldType, table_.cName(), field(f).fieldName, type);
  }
  const std::uint64_t size =
      valueSize(type, table_.objectData + *position, table_.objectLength - *position);
  if (size == kPastEnd) return malformed(f);
  *position += size;
  return {};
}

/// Adds the size of the value that a field is to get.
Result Replacement::measureValue(std::uint32_t f) {
  const std::uint32_t type = field(f).fieldType;
  if (values_ == nullptr) {
    newSize_ += emptySize(type);
    return {};
  }
  constexpr std::uint64_t kUnbounded = kLargest;
  const std::uint64_t left = valuesLimit_ == 0 ? kUnbounded : valuesLimit_ - newSize_;
  // An unbounded text is looked through only up to its end.
  const std::uint64_t size = type == CZELTA::TypeText && valuesLimit_ == 0
                                 ? std::strlen(values_ + newSize_) + 1
                                 : valueSize(type, values_ + newSize_, left);
  if (size == kPastEnd || newSize_ + size > kLargest) return malformed(f);
  newSize_ += size;
  return {};
}

/// Finds the fields, measures the values, and proves that the rest of the object is well formed.
Result Replacement::measure() {
  std::uint64_t position = table_.fixedAreaSize;
  for (std::uint32_t f = table_.firstVariableField; f < first_; ++f) ZELTA_TRY(step(f, &position));
  start_ = position;
  for (std::uint32_t f = first_; f < first_ + count_; ++f) {
    ZELTA_TRY(step(f, &position));
    ZELTA_TRY(measureValue(f));
  }
  oldSize_ = position - start_;
  for (std::uint32_t f = first_ + count_; f < table_.schema->fieldCount; ++f) {
    ZELTA_TRY(step(f, &position));
  }
  return {};
}

Result Replacement::grow(std::uint64_t length) {
  assert(newSize_ > oldSize_ && start_ + oldSize_ <= table_.objectLength);
  if (length >= kTooLong) return reportSystemError(&metaData_, code::kNoMemory);
  if (table_.objectBuffer.size() < length + kVariableLead) return rebuild(length);
  // The values may lie in the buffer: the tail waits elsewhere until they have moved to their
  // place.
  const std::uint64_t tail = table_.objectLength - start_ - oldSize_;
  char* saved = metaData_.scratchFor(Scratch::object).reserve(tail);
  char* at = table_.objectData + start_;
  std::memcpy(saved, at + oldSize_, tail);
  putValues(at);
  std::memcpy(at + newSize_, saved, tail);
  placeObject(table_, static_cast<std::uint32_t>(length));
  return {};
}

/// Puts the object together in the scratch buffer, which becomes the table's.
Result Replacement::rebuild(std::uint64_t length) {
  ScratchBuffer& scratch = metaData_.scratchFor(Scratch::object);
  char* object = scratch.reserve(length + kVariableLead) + kVariableLead;
  const std::uint64_t tail = table_.objectLength - start_ - oldSize_;
  std::memcpy(object, table_.objectData, start_);
  putValues(object + start_);
  std::memcpy(object + start_ + newSize_, table_.objectData + start_ + oldSize_, tail);
  scratch.swap(table_.objectBuffer);
  placeObject(table_, static_cast<std::uint32_t>(length));
  return {};
}

/// Values that do not grow can be put in their place before the tail follows.
Result Replacement::shrink(std::uint64_t length) {
  assert(newSize_ <= oldSize_ && start_ + oldSize_ <= table_.objectLength);
  if (length < table_.minimumObjectSize) {
    return reportError(&metaData_, Own::parameter, table_.cName());
  }
  char* at = table_.objectData + start_;
  const std::uint64_t tail = table_.objectLength - start_ - oldSize_;
  putValues(at);
  if (newSize_ != oldSize_) std::memmove(at + newSize_, at + oldSize_, tail);
  placeObject(table_, static_cast<std::uint32_t>(length));
  return {};
}

}  // namespace

Result putVariableValues(Table& table, CZELTA::Object* object, std::uint32_t size) {
  if (table.objectData == nullptr) return reportError(&table.metaData, Own::noObject);
  if (table.isFixed()) return reportError(&table.metaData, Own::context);
  const std::uint64_t need = std::uint64_t{size} + kVariableLead + table.minimumObjectSize;
  constexpr std::uint64_t kLargestNew = 4294967280;
  if (need - kVariableLead > kLargestNew)
    return reportSystemError(&table.metaData, code::kNoMemory);
  const std::uint64_t capacity = table.objectBuffer.size();
  if (capacity < need || static_cast<std::uint32_t>(need * 2) < capacity) {
    ScratchBuffer fresh(kZeroTail);
    fresh.replaceZeroed(need);
    std::memcpy(fresh.data(), table.objectBuffer.data(), table.fixedAreaSize + kVariableLead);
    table.objectBuffer.swap(fresh);
  }
  placeObject(table, table.minimumObjectSize + size);
  std::memset(table.objectData + table.fixedAreaSize, 0, table.objectLength - table.fixedAreaSize);
  fillObject(table, object);
  return {};
}

Result putVariableValues(Table& table, const PackedValues& values, CZELTA::Object* object) {
  const char* bytes = static_cast<const char*>(values.bytes);
  if (bytes != nullptr && (!platform::isReadable(bytes) ||
                           (values.size != 0 && !platform::isReadable(bytes + values.size)))) {
    return reportError(&table.metaData, Own::parameter);
  }
  if (table.objectData == nullptr) return reportError(&table.metaData, Own::noObject);
  if (table.isFixed()) return reportError(&table.metaData, Own::context);
  const std::uint64_t first = std::uint64_t{table.firstVariableField} + values.field;
  if (first + values.count > table.schema->fieldCount) {
    return reportError(&table.metaData, Own::parameter, table.cName(), nullptr,
                       table.firstVariableField, static_cast<std::int64_t>(first + values.count));
  }
  Replacement replacement(table, bytes, values.size, static_cast<std::uint32_t>(first),
                          values.count);
  ZELTA_TRY(replacement.run());
  fillObject(table, object);
  return {};
}

}  // namespace zelta

#include "objects/object_buffer.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "schema/data_types.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

constexpr std::uint64_t kLargestNew = 4294967280;

Result noObject(MetaData& metaData) { return reportError(&metaData, Own::noObject); }

/// Whether a buffer of this capacity serves a need; the doubling wraps in 32 bits.
bool isSuitable(std::uint64_t capacity, std::uint64_t need) {
  return capacity >= need && static_cast<std::uint32_t>(need * 2) >= capacity;
}

void forgetObject(Table& table) {
  table.objectData = nullptr;
  table.objectLength = 0;
  table.currentObjectID = 0;
}

/// A fresh buffer of zeros; without memory the table is left without an object.
void replaceBuffer(Table& table, std::uint64_t need) {
  forgetObject(table);
  table.objectBuffer.replaceZeroed(need);
}

}  // namespace

void fillObject(const Table& table, CZELTA::Object* object) {
  if (object == nullptr) return;
  assert(table.objectData != nullptr);
  std::memcpy(&object->version, table.objectData, 2);
  object->objectID = static_cast<std::int64_t>(objectIdOf(table, table.objectData));
  object->length = table.objectLength - table.headerSize();
  object->data = table.objectData + table.headerSize();
  object->variableData = table.isFixed() ? nullptr : table.objectData + table.fixedAreaSize;
}

void reserveObject(Table& table, std::uint32_t length) {
  const std::uint64_t need = std::uint64_t{length} + leadOf(table);
  if (!isSuitable(table.objectBuffer.size(), need) || table.objectBuffer.data() == nullptr) {
    forgetObject(table);
    table.objectBuffer.release();
    table.objectBuffer.reserveExactly(need);
  }
  placeObject(table, length);
}

void placeObject(Table& table, std::uint32_t length) {
  assert(std::uint64_t{length} + leadOf(table) <= table.objectBuffer.size());
  table.objectData = table.objectBuffer.data() + leadOf(table);
  table.objectLength = length;
  std::memset(table.objectData + length, 0, kZeroTail);
}

Result newObject(Table& table, CZELTA::Object* object, std::uint32_t size) {
  if (table.isFixed()) size = 0;
  if (std::uint64_t{size} + table.minimumObjectSize > kLargestNew) {
    return reportSystemError(&table.metaData, code::kNoMemory);
  }
  const std::uint64_t need = std::uint64_t{size} + table.minimumObjectSize + leadOf(table);
  const bool kept = table.isFixed() ? table.objectBuffer.size() >= need
                                    : isSuitable(table.objectBuffer.size(), need);
  if (kept && table.objectBuffer.data() != nullptr) {
    std::memset(table.objectBuffer.data(), 0, table.objectBuffer.size());
  } else {
    replaceBuffer(table, need);
  }
  placeObject(table, table.minimumObjectSize + size);
  table.currentObjectID = 0;
  table.releaseCurrentKeys();
  fillObject(table, object);
  return {};
}

Result getVariableField(Table& table, std::uint32_t field, void** value, CZELTA::Object* object) {
  const std::uint64_t number = std::uint64_t{table.firstVariableField} + field;
  const bool exists = !table.isFixed() && number < table.schema->fieldCount;
  if (!exists && (value != nullptr || object == nullptr)) {
    return reportError(&table.metaData, Own::parameter, table.cName());
  }
  if (table.objectData == nullptr) return noObject(table.metaData);
  if (exists && value != nullptr) {
    *value = const_cast<char*>(fieldAddress(table, static_cast<std::uint32_t>(number)));
  }
  fillObject(table, object);
  return {};
}

Result getVariableField(Table& table, const SubFieldPlace& place, void** value,
                        CZELTA::Object* object) {
  const std::uint64_t number = std::uint64_t{table.firstVariableField} + place.field;
  if (table.isFixed() || number >= table.schema->fieldCount ||
      table.schema->fields[number].fieldType != CZELTA::TypeSubRecords ||
      place.subField >= table.schema->fields[number].subFieldCount) {
    return reportError(&table.metaData, Own::parameter, table.cName(), nullptr, place.field,
                       place.subField);
  }
  if (table.objectData == nullptr) return noObject(table.metaData);
  if (value != nullptr) {
    *value = const_cast<char*>(subFieldAddress(
        table, {static_cast<std::uint32_t>(number), place.subField, place.subRecord}));
  }
  fillObject(table, object);
  return {};
}

}  // namespace zelta

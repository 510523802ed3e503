#include "schema/schema_copy.h"

#include <cassert>
#include <cstring>
#include <new>
#include <string>

namespace zelta {

namespace {

using Field = CZELTA::Schema::Field;
using Index = CZELTA::Schema::Index;
using Segment = CZELTA::Schema::Segment;

std::uint64_t lengthOf(const char16_t* text) { return std::char_traits<char16_t>::length(text); }

bool hasSubFields(const Field& field) {
  return field.fieldType == CZELTA::TypeSubRecords && field.subFields != nullptr;
}

/// Adds what the names of some fields take, terminators included.
void countNames(const Field* fields, std::uint64_t count, SchemaCounts& counts) {
  for (std::uint64_t i = 0; i < count; ++i) {
    if (fields[i].fieldName != nullptr) counts.nameUnits += lengthOf(fields[i].fieldName) + 1;
  }
}

/// Names of a copy's fields, taken over from the source.
void copyNames(SchemaArena& arena, Field* fields, std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) {
    if (fields[i].fieldName == nullptr) continue;
    fields[i].fieldName = arena.takeName(fields[i].fieldName, lengthOf(fields[i].fieldName));
  }
}

}  // namespace

SchemaArena::SchemaArena(const SchemaCounts& counts) {
  const std::uint64_t bytes = sizeof(CZELTA::Schema) +
                              (counts.fields + counts.subFields) * sizeof(Field) +
                              counts.indexes * sizeof(Index) + counts.segments * sizeof(Segment) +
                              counts.nameUnits * sizeof(char16_t);
  if (bytes > 0xFFFFFFFF) throw std::bad_alloc();
  auto* schema = static_cast<CZELTA::Schema*>(std::calloc(1, bytes));
  if (schema == nullptr) throw std::bad_alloc();
  copy_.schema.reset(schema);
  copy_.bytes = static_cast<std::uint32_t>(bytes);
  fields_ = reinterpret_cast<Field*>(schema + 1);
  subFields_ = fields_ + counts.fields;
  indexes_ = reinterpret_cast<Index*>(subFields_ + counts.subFields);
  segments_ = reinterpret_cast<Segment*>(indexes_ + counts.indexes);
  names_ = reinterpret_cast<char16_t*>(segments_ + counts.segments);
}

Field* SchemaArena::takeFields(std::uint64_t count) {
  Field* taken = fields_;
  fields_ += count;
  return count == 0 ? nullptr : taken;
}
Field* SchemaArena::takeSubFields(std::uint64_t count) {
  Field* taken = subFields_;
  subFields_ += count;
  return taken;
}
Index* SchemaArena::takeIndexes(std::uint64_t count) {
  Index* taken = indexes_;
  indexes_ += count;
  return count == 0 ? nullptr : taken;
}
Segment* SchemaArena::takeSegments(std::uint64_t count) {
  Segment* taken = segments_;
  segments_ += count;
  return count == 0 ? nullptr : taken;
}
const char16_t* SchemaArena::takeName(const void* text, std::uint64_t units) {
  char16_t* taken = names_;
  std::memcpy(taken, text, units * sizeof(char16_t));
  assert(reinterpret_cast<const char*>(names_ + units + 1) <=
         reinterpret_cast<const char*>(copy_.schema.get()) + copy_.bytes);
  names_ += units + 1;  // the terminator is there: all was zeroed
  return taken;
}

Result copySchema(MetaData& metaData, const CZELTA::Schema& source, SchemaCopy& out) {
  const CZELTA::Schema given = source;  // read once: the caller's memory may be shared
  const auto invalid = [&] { return reportError(&metaData, Own::parameter, given.tableName); };
  if (given.fieldCount != 0 && given.fields == nullptr) return invalid();
  if (given.indexCount != 0 && given.indexes == nullptr) return invalid();
  SchemaCounts counts;
  counts.fields = given.fieldCount;
  counts.indexes = given.indexCount;
  countNames(given.fields, given.fieldCount, counts);
  for (std::uint32_t f = 0; f < given.fieldCount; ++f) {
    if (!hasSubFields(given.fields[f])) continue;
    counts.subFields += given.fields[f].subFieldCount;
    countNames(given.fields[f].subFields, given.fields[f].subFieldCount, counts);
  }
  for (std::uint32_t i = 0; i < given.indexCount; ++i) {
    if (given.indexes[i].segmentCount != 0 && given.indexes[i].segments == nullptr)
      return invalid();
    counts.segments += given.indexes[i].segmentCount;
  }

  // What was counted is what is taken: the arena has room for nothing else.
  SchemaArena arena(counts);
  CZELTA::Schema& copy = arena.schema();
  copy = given;
  copy.fields = arena.takeFields(given.fieldCount);
  if (given.fieldCount != 0)
    std::memcpy(copy.fields, given.fields, given.fieldCount * sizeof(Field));
  for (std::uint32_t f = 0; f < copy.fieldCount; ++f) {
    Field& field = copy.fields[f];
    if (!hasSubFields(field)) {
      field.subFields = nullptr;
      continue;
    }
    Field* subFields = arena.takeSubFields(field.subFieldCount);
    if (field.subFieldCount != 0) {
      std::memcpy(subFields, field.subFields, field.subFieldCount * sizeof(Field));
    }
    field.subFields = subFields;
  }
  copy.indexes = arena.takeIndexes(given.indexCount);
  for (std::uint32_t i = 0; i < copy.indexCount; ++i) {
    copy.indexes[i] = given.indexes[i];
    Segment* segments = arena.takeSegments(copy.indexes[i].segmentCount);
    if (segments != nullptr) {
      std::memcpy(segments, given.indexes[i].segments,
                  copy.indexes[i].segmentCount * sizeof(Segment));
    }
    copy.indexes[i].segments = segments;
  }
  copyNames(arena, copy.fields, copy.fieldCount);
  for (std::uint32_t f = 0; f < copy.fieldCount; ++f) {
    if (hasSubFields(copy.fields[f])) {
      copyNames(arena, copy.fields[f].subFields, copy.fields[f].subFieldCount);
    }
  }
  out = arena.finish();
  return {};
}

namespace {

/// Records that are right already may lie in memory that cannot be written.
template <typename Number>
void writeIfDifferent(Number& target, Number value) {
  if (target != value) target = value;
}

void writeBackFields(const Field* copy, Field* caller, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) {
    writeIfDifferent(caller[i].fieldOffset, copy[i].fieldOffset);
    writeIfDifferent(caller[i].fieldSize, copy[i].fieldSize);
    writeIfDifferent(caller[i].subFieldCount, copy[i].subFieldCount);
    if (copy[i].subFields == nullptr) {
      if (caller[i].subFields != nullptr) caller[i].subFields = nullptr;
    } else {
      writeBackFields(copy[i].subFields, caller[i].subFields, copy[i].subFieldCount);
    }
  }
}

}  // namespace

void writeBackDerived(const CZELTA::Schema& copy, const CZELTA::Schema& caller) {
  writeBackFields(copy.fields, caller.fields, copy.fieldCount);
  for (std::uint32_t i = 0; i < copy.indexCount; ++i) {
    writeIfDifferent(caller.indexes[i].indexFlags, copy.indexes[i].indexFlags);
    writeIfDifferent(caller.indexes[i].keyWords, copy.indexes[i].keyWords);
    for (std::uint32_t k = 0; k < copy.indexes[i].segmentCount; ++k) {
      writeIfDifferent(caller.indexes[i].segments[k].segmentMode,
                       copy.indexes[i].segments[k].segmentMode);
    }
  }
}

namespace {

/// The place in the new copy of what a pointer leads to in the old one.
template <typename T>
void move(T*& pointer, const CZELTA::Schema* from, const CZELTA::Schema* to) {
  if (pointer == nullptr) return;
  const auto offset =
      reinterpret_cast<std::uintptr_t>(pointer) - reinterpret_cast<std::uintptr_t>(from);
  pointer = reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(to) + offset);
}

}  // namespace

void relocateSchema(CZELTA::Schema& schema, const CZELTA::Schema* from) {
  move(schema.fields, from, &schema);
  move(schema.indexes, from, &schema);
  for (std::uint32_t f = 0; f < schema.fieldCount; ++f) {
    Field& field = schema.fields[f];
    move(field.fieldName, from, &schema);
    if (field.fieldType != CZELTA::TypeSubRecords) continue;
    move(field.subFields, from, &schema);
    for (std::uint32_t s = 0; s < field.subFieldCount; ++s)
      move(field.subFields[s].fieldName, from, &schema);
  }
  for (std::uint32_t i = 0; i < schema.indexCount; ++i)
    move(schema.indexes[i].segments, from, &schema);
}

}  // namespace zelta

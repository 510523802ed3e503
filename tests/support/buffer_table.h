// A table that lives in memory alone: its schema, its object buffer, its key pools. And a packer of
// object bytes that knows the encoding and nothing of the engine.

#ifndef ZELTA_TESTS_SUPPORT_BUFFER_TABLE_H
#define ZELTA_TESTS_SUPPORT_BUFFER_TABLE_H

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "objects/object_buffer.h"
#include "schema/schema_copy.h"
#include "schema/validate.h"
#include "storage/table.h"

namespace zelta::testing {

/// Bytes in the order of the file.
class Packed {
 public:
  template <class Number>
  Packed& number(Number value) {
    static_assert(std::is_arithmetic_v<Number>);
    bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    return *this;
  }
  Packed& raw(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
  }
  Packed& zeros(std::size_t count) { return raw(std::string(count, '\0')); }
  Packed& text(const std::string& value) { return raw(value).zeros(1); }
  Packed& wide(const std::u16string& value) {
    for (const char16_t unit : value) number(static_cast<std::uint16_t>(unit));
    return number(std::uint16_t{0});
  }
  Packed& shortBinary(const std::string& value) {
    return number(static_cast<std::uint16_t>(value.size() + 2)).raw(value);
  }
  Packed& binary(const std::string& value) {
    return number(static_cast<std::uint32_t>(value.size() + 4)).raw(value);
  }
  operator const std::string&() const { return bytes_; }
  [[nodiscard]] const std::string& str() const { return bytes_; }

 private:
  std::string bytes_;
};

struct FieldSpec {
  std::uint32_t type;
  std::uint32_t size = 0;
  std::vector<FieldSpec> rows = {};  ///< sub-fields
};

using Fields = std::vector<FieldSpec>;

using Segments = std::vector<CZELTA::Schema::Segment>;
struct IndexSpec {
  Segments segments;
  std::uint8_t kind = CZELTA::BPlusTree;
};
using Indexes = std::vector<IndexSpec>;

/// A schema of fields "f0", "f1", ... with sub-fields "s0", "s1", ..., in records of the caller.
class SchemaRecords {
 public:
  SchemaRecords(const Fields& fields, const Indexes& indexes, std::uint32_t flags,
                const char16_t* name = u"T") {
    schema.fields = add(fields, u"f");
    schema.fieldCount = static_cast<std::uint32_t>(fields.size());
    for (const IndexSpec& index : indexes) {
      segments_.push_back(index.segments);
      CZELTA::Schema::Index record{};
      record.indexKind = index.kind;
      record.segmentCount = static_cast<std::uint16_t>(index.segments.size());
      record.segments = segments_.back().data();
      indexes_.push_back(record);
    }
    schema.indexes = indexes_.data();
    schema.indexCount = static_cast<std::uint16_t>(indexes_.size());
    schema.schemaFlags = flags;
    schema.tableName = name;
  }
  SchemaRecords(const SchemaRecords&) = delete;
  SchemaRecords& operator=(const SchemaRecords&) = delete;

  CZELTA::Schema schema{};

 private:
  CZELTA::Schema::Field* add(const Fields& specs, const char16_t* prefix) {
    fields_.emplace_back();
    auto& records = fields_.back();
    for (std::size_t i = 0; i < specs.size(); ++i) {
      names_.push_back(prefix + std::u16string(1, static_cast<char16_t>(u'0' + i)));
      CZELTA::Schema::Field field{};
      field.fieldType = specs[i].type;
      field.fieldSize = specs[i].size;
      field.fieldName = names_.back().c_str();
      field.subFieldCount = static_cast<std::uint32_t>(specs[i].rows.size());
      if (!specs[i].rows.empty()) field.subFields = add(specs[i].rows, u"s");
      records.push_back(field);
    }
    return records.empty() ? nullptr : records.data();
  }

  std::deque<std::vector<CZELTA::Schema::Field>> fields_;
  std::deque<std::u16string> names_;
  std::deque<Segments> segments_;
  std::vector<CZELTA::Schema::Index> indexes_;
};

class BufferTable {
 private:
  MetaData own_;

 public:
  /// `database`: that of several tables; null: the table has one of its own.
  explicit BufferTable(const Fields& fields, const Indexes& indexes = {}, std::uint32_t flags = 0,
                       MetaData* database = nullptr)
      : metaData(database != nullptr ? *database : own_), table(metaData) {
    const SchemaRecords records(fields, indexes, flags);
    SchemaCopy copy;
    ObjectSizes sizes;
    EXPECT_EQ(copySchema(metaData, records.schema, copy).word(), 0u);
    EXPECT_EQ(validateSchema(metaData, *copy.schema, sizes).word(), 0u) << error();
    table.name = u"T";
    table.schemaCopyBytes = copy.bytes;
    table.schema = copy.schema.release();
    table.schema->tableName = table.name.c_str();
    table.fixedAreaSize = sizes.fixedAreaSize;
    table.minimumObjectSize = sizes.minimumObjectSize;
    table.firstVariableField = sizes.firstVariableField;
    table.setIndexCount(table.schema->indexCount);
    clearError(metaData);
  }
  ~BufferTable() { clearError(metaData); }
  BufferTable(const BufferTable&) = delete;
  BufferTable& operator=(const BufferTable&) = delete;

  /// The failure text, as 8-bit characters.
  [[nodiscard]] std::string error() const {
    std::string text;
    for (const char16_t* p = metaData.errorMessage; p != nullptr && *p != 0; ++p) {
      text += static_cast<char>(*p);
    }
    return text;
  }
  /// Puts bytes into the buffer as the object.
  void put(const std::string& object) {
    reserveObject(table, static_cast<std::uint32_t>(object.size()));
    std::memcpy(table.objectData, object.data(), object.size());
  }
  [[nodiscard]] std::string object() const { return {table.objectData, table.objectLength}; }
  /// The start of an object: version word and ID.
  [[nodiscard]] Packed header(std::uint64_t id, std::uint16_t version = 1) const {
    Packed bytes;
    bytes.number(version);
    if (table.wideIds()) {
      bytes.number(id);
    } else {
      bytes.number(static_cast<std::uint32_t>(id));
    }
    return bytes;
  }

  MetaData& metaData;
  Table table;
};

inline std::uint64_t ownWord(Own code) { return Result::own(code).word(); }

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_BUFFER_TABLE_H

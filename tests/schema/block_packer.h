// Packs the blocks of a schema as they must stand in a file, out of the caller's records after a
// successful CreateTable(). It knows the layout and shares nothing with the engine.

#ifndef ZELTA_TESTS_SCHEMA_BLOCK_PACKER_H
#define ZELTA_TESTS_SCHEMA_BLOCK_PACKER_H

#include <string>
#include <vector>

#include "support/buffer_table.h"

namespace zelta::testing {

/// Both forms: of the table file (positions in units of 2 bytes), and of the log (in bytes, with
/// the table's name and folder inside).
class BlockPacker {
 public:
  explicit BlockPacker(const CZELTA::Schema& schema) : schema_(schema) {}

  [[nodiscard]] std::string tableBlock() {
    unit_ = 2;
    begin();
    std::vector<const char16_t*> names;
    for (const auto* field : fields_) names.push_back(field->fieldName);
    for (const auto* field : subFields_) names.push_back(field->fieldName);
    head(schema_.lockOrder, 0, 0);
    records(fields_, names, 0);
    records(subFields_, names, fields_.size());
    indexes();
    for (const char16_t* name : names) out_.wide(name);
    return out_;
  }

  [[nodiscard]] std::string logBlock(const std::u16string& table, const std::u16string& folder) {
    unit_ = 1;
    begin();
    const std::size_t first = nameStart_;
    nameStart_ += 2 * (table.size() + 1);
    const std::size_t second = folder.empty() ? 0 : nameStart_;
    if (!folder.empty()) nameStart_ += 2 * (folder.size() + 1);
    // Each field's name is followed by those of its sub-fields.
    std::vector<const char16_t*> names;
    std::vector<std::size_t> fieldPlaces;
    std::vector<std::size_t> subPlaces;
    for (const auto* field : fields_) {
      fieldPlaces.push_back(names.size());
      names.push_back(field->fieldName);
      if (field->fieldType != 10) continue;
      for (std::uint32_t s = 0; s < field->subFieldCount; ++s) {
        subPlaces.push_back(names.size());
        names.push_back(field->subFields[s].fieldName);
      }
    }
    head(0, first, second);
    records(fields_, names, fieldPlaces);
    records(subFields_, names, subPlaces);
    indexes();
    out_.wide(table);
    if (!folder.empty()) out_.wide(folder);
    for (const char16_t* name : names) out_.wide(name);
    std::string bytes = out_;
    while (bytes.size() % 4 != 0) bytes += '\0';
    return bytes;
  }

 private:
  using Field = CZELTA::Schema::Field;

  void begin() {
    for (std::uint32_t f = 0; f < schema_.fieldCount; ++f) {
      fields_.push_back(&schema_.fields[f]);
      if (schema_.fields[f].fieldType != 10) continue;
      for (std::uint32_t s = 0; s < schema_.fields[f].subFieldCount; ++s) {
        subFields_.push_back(&schema_.fields[f].subFields[s]);
      }
    }
    subStart_ = 36 + 24 * fields_.size();
    indexStart_ = subStart_ + 24 * subFields_.size();
    segmentStart_ = indexStart_ + std::size_t{12} * schema_.indexCount;
    nameStart_ = segmentStart_;
    for (std::uint32_t i = 0; i < schema_.indexCount; ++i) {
      nameStart_ += std::size_t{8} * schema_.indexes[i].segmentCount;
    }
  }
  void position(std::size_t bytes) { out_.number(static_cast<std::uint32_t>(bytes / unit_)); }
  void head(std::uint32_t lockOrder, std::size_t name, std::size_t folder) {
    out_.number(schema_.lockIndex).number(schema_.indexCount).number(std::uint32_t{0});
    out_.number(lockOrder).number(schema_.fieldCount).number(schema_.schemaFlags);
    position(name);
    position(folder);
    position(36);
    position(schema_.indexCount == 0 ? 0 : indexStart_);
  }
  std::size_t placeOf(const std::vector<const char16_t*>& names, std::size_t which) const {
    std::size_t at = nameStart_;
    for (std::size_t i = 0; i < which; ++i) {
      at += 2 * (std::char_traits<char16_t>::length(names[i]) + 1);
    }
    return at;
  }
  void record(const Field& field, std::size_t name) {
    out_.number(field.fieldType).number(field.fieldOffset).number(field.fieldSize);
    out_.number(field.subFieldCount);
    position(name);
    if (field.fieldType != 10) return position(0);
    position(subStart_);
    subStart_ += std::size_t{24} * field.subFieldCount;
  }
  void records(const std::vector<const Field*>& fields, const std::vector<const char16_t*>& names,
               std::size_t first) {
    for (std::size_t i = 0; i < fields.size(); ++i) record(*fields[i], placeOf(names, first + i));
  }
  void records(const std::vector<const Field*>& fields, const std::vector<const char16_t*>& names,
               const std::vector<std::size_t>& places) {
    for (std::size_t i = 0; i < fields.size(); ++i) record(*fields[i], placeOf(names, places[i]));
  }
  void indexes() {
    std::size_t at = segmentStart_;
    for (std::uint32_t i = 0; i < schema_.indexCount; ++i) {
      const CZELTA::Schema::Index& index = schema_.indexes[i];
      out_.number(index.indexFlags).number(index.indexKind).number(index.segmentCount);
      out_.number(index.keyWords);
      position(at);
      at += std::size_t{8} * index.segmentCount;
    }
    for (std::uint32_t i = 0; i < schema_.indexCount; ++i) {
      for (std::uint32_t k = 0; k < schema_.indexes[i].segmentCount; ++k) {
        const CZELTA::Schema::Segment& segment = schema_.indexes[i].segments[k];
        out_.number(segment.segmentField).number(segment.segmentMode);
      }
    }
  }

  const CZELTA::Schema& schema_;
  std::size_t unit_ = 2;
  std::vector<const Field*> fields_;
  std::vector<const Field*> subFields_;
  std::size_t subStart_ = 0;
  std::size_t indexStart_ = 0;
  std::size_t segmentStart_ = 0;
  std::size_t nameStart_ = 0;
  Packed out_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SCHEMA_BLOCK_PACKER_H

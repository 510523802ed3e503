// What the tables of the model tests look like, and what their objects hold: the bytes of an
// object, its keys in the order in which an index must keep them, and the images by which they are
// sought. Nothing of this comes from the engine.

#ifndef ZELTA_TESTS_MODEL_TABLE_SHAPE_H
#define ZELTA_TESTS_MODEL_TABLE_SHAPE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/buffer_table.h"
#include "support/shapes.h"

namespace zelta::testing {

/// A row of the sub-record field.
struct ThingRow {
  std::uint16_t code = 0;
  std::string text;
  friend bool operator==(const ThingRow&, const ThingRow&) = default;
};

/// An object of any of the tables; what a table has no field for stays empty.
struct Thing {
  std::uint32_t number = 0;
  std::int32_t weight = 0;
  std::uint64_t stamp = 0;
  std::string text;
  std::vector<ThingRow> rows;
  friend bool operator==(const Thing&, const Thing&) = default;
};

/// What a segment of a key is made of.
enum class Part { number, weight, stamp, text, rowCode, rowText, objectID, entryNumber };

struct SegmentShape {
  Part part;
  bool descending = false;
};
using IndexShape = std::vector<SegmentShape>;

struct TableShape {
  const char* name;
  bool texts;  ///< a text behind the fixed fields
  bool rows;   ///< and rows behind that
  bool wide;
  std::uint16_t lockIndex;
  bool keepLogs;
  std::vector<IndexShape> indexes;
  /// A box and a span in each object, words and points behind the other variable fields; box and
  /// points in each row. They follow from the stamp, or from the row's code.
  bool shaped = false;

  [[nodiscard]] bool isMulti(std::size_t index) const {
    for (const SegmentShape& segment : indexes[index]) {
      if (segment.part == Part::rowCode || segment.part == Part::rowText) return true;
    }
    return false;
  }
  /// Number of entries that an index has for an object.
  [[nodiscard]] std::uint32_t entries(std::size_t index, const Thing& thing) const {
    return isMulti(index) ? static_cast<std::uint32_t>(thing.rows.size()) : 1;
  }
  /// Bytes that order as the index's keys do.
  [[nodiscard]] std::string key(std::size_t index, const Thing& thing, std::uint64_t id,
                                std::uint32_t entry) const;
  /// What a caller hands over to seek that key.
  [[nodiscard]] std::string image(std::size_t index, const Thing& thing, std::uint64_t id,
                                  std::uint32_t entry) const;
  /// The bytes of an object behind version and ID.
  [[nodiscard]] std::string bytes(const Thing& thing) const {
    return fixedBytes(thing) + variableBytes(thing);
  }
  [[nodiscard]] std::string fixedBytes(const Thing& thing) const {
    Packed out;
    out.number(thing.number).number(thing.weight).number(thing.stamp);
    return shaped ? out.raw(Shapes(thing.stamp).fixedBytes()) : out;
  }
  /// What the bytes say; bytes that are no object's give one that has others.
  [[nodiscard]] Thing thing(const std::string& bytes) const;
  [[nodiscard]] std::string variableBytes(const Thing& thing) const {
    Packed out;
    if (texts) out.text(thing.text);
    if (rows) {
      Packed all;
      for (const ThingRow& row : thing.rows) {
        if (shaped) all.raw(Shapes(row.code).boxBytes());
        all.number(row.code).text(row.text);
        if (shaped) all.raw(Shapes(row.code).pointBytes());
      }
      out.binary(all);
    }
    return variablyShaped() ? out.raw(Shapes(thing.stamp).variableBytes()) : out;
  }
  [[nodiscard]] bool variablyShaped() const { return shaped && texts; }
  [[nodiscard]] unsigned variableFields() const {
    const std::size_t shapes = variablyShaped() ? Shapes::variableFields().size() : 0;
    return (texts ? 1u : 0u) + (rows ? 1u : 0u) + static_cast<unsigned>(shapes);
  }

  [[nodiscard]] Fields fields() const {
    Fields out = {{CZELTA::TypeUInt32}, {CZELTA::TypeInt32}, {CZELTA::TypeUInt64}};
    if (shaped) {
      for (const FieldSpec& field : Shapes::fixedFields()) out.push_back(field);
    }
    if (texts) out.push_back({CZELTA::TypeText, 20});
    if (rows) {
      Fields row = {{CZELTA::TypeUInt16}, {CZELTA::TypeText, 10}};
      if (shaped) {
        row.insert(row.begin(), {CZELTA::TypeRect2});
        row.push_back(Shapes::pointField());
      }
      out.push_back({CZELTA::TypeSubRecords, 40, row});
    }
    if (variablyShaped()) {
      for (const FieldSpec& field : Shapes::variableFields()) out.push_back(field);
    }
    return out;
  }
  [[nodiscard]] Indexes indexSpecs() const {
    // Sub-fields are numbered behind the fields.
    const auto count = static_cast<std::int32_t>(fields().size());
    const std::int32_t text = shaped ? 8 : 3;
    const std::int32_t row = count + (shaped ? 1 : 0);
    const std::int32_t numbers[] = {
        0, 1, 2, text, row, row + 1, CZELTA::ObjectIdSegment, CZELTA::EntryNumberSegment};
    Indexes out;
    for (const IndexShape& index : indexes) {
      Segments segments;
      for (const SegmentShape& segment : index) {
        const std::uint32_t mode = segment.descending ? CZELTA::SegmentDescending : 0u;
        segments.push_back({numbers[static_cast<int>(segment.part)], mode});
      }
      out.push_back({segments});
    }
    if (!shaped) return out;
    const auto variable = count - static_cast<std::int32_t>(Shapes::variableFields().size());
    for (const IndexSpec& index : shapeIndexes(3, variable, variablyShaped())) {
      out.push_back(index);
    }
    if (!rows) return out;
    out.push_back({{{count, 0}}, CZELTA::SpatialTree});
    out.push_back({{{count + 3, 0}}, CZELTA::SpatialPattern});
    return out;
  }
  /// The indexes over shapes, which come behind the others: those of objects, then those of rows.
  [[nodiscard]] std::vector<ShapeKind> searches() const {
    if (!shaped) return {};
    std::vector<ShapeKind> out = shapeKinds(variablyShaped());
    if (rows) out.insert(out.end(), {kBoxIndex, kPointIndex});
    return out;
  }
  /// What one of these has of an object.
  [[nodiscard]] std::vector<Shapes> shapesOf(std::size_t search, const Thing& thing) const {
    if (search < shapeKinds(variablyShaped()).size()) return {Shapes(thing.stamp)};
    std::vector<Shapes> out;
    for (const ThingRow& row : thing.rows) out.emplace_back(row.code);
    return out;
  }
  [[nodiscard]] std::uint32_t flags() const { return wide ? CZELTA::SchemaWideObjectIds : 0u; }
};

/// The highest byte first.
template <class Number>
std::string bigEndian(Number value) {
  std::string out(sizeof value, '\0');
  for (char& byte : out) {
    byte = static_cast<char>(value >> (8 * (sizeof value - 1)));
    value = static_cast<Number>(static_cast<std::uint64_t>(value) << 8);
  }
  return out;
}

inline std::string keyPart(const TableShape& shape, Part part, const Thing& thing, std::uint64_t id,
                           std::uint32_t entry) {
  constexpr std::uint32_t kSign = 0x80000000;
  switch (part) {
    case Part::number:
      return bigEndian(thing.number);
    case Part::weight:
      return bigEndian(static_cast<std::uint32_t>(thing.weight) ^ kSign);
    case Part::stamp:
      return bigEndian(thing.stamp);
    case Part::text:
      return thing.text + '\0';
    case Part::rowCode:
      return bigEndian(thing.rows[entry].code);
    case Part::rowText:
      return thing.rows[entry].text + '\0';
    case Part::objectID:
      return shape.wide ? bigEndian(id) : bigEndian(static_cast<std::uint32_t>(id));
    default:
      return bigEndian(entry);
  }
}

inline std::string TableShape::key(std::size_t index, const Thing& thing, std::uint64_t id,
                                   std::uint32_t entry) const {
  std::string out;
  for (const SegmentShape& segment : indexes[index]) {
    std::string part = keyPart(*this, segment.part, thing, id, entry);
    for (char& byte : part) byte = segment.descending ? static_cast<char>(~byte) : byte;
    out += part;
  }
  out.resize((out.size() + 3) / 4 * 4, '\0');
  return out;
}

inline std::string TableShape::image(std::size_t index, const Thing& thing, std::uint64_t id,
                                     std::uint32_t entry) const {
  Packed out;
  for (const SegmentShape& segment : indexes[index]) {
    switch (segment.part) {
      case Part::number:
        out.number(thing.number);
        break;
      case Part::weight:
        out.number(thing.weight);
        break;
      case Part::stamp:
        out.number(thing.stamp);
        break;
      case Part::text:
        out.text(thing.text);
        break;
      case Part::rowCode:
        out.number(thing.rows[entry].code);
        break;
      case Part::rowText:
        out.text(thing.rows[entry].text);
        break;
      case Part::objectID:
        wide ? out.number(id) : out.number(static_cast<std::uint32_t>(id));
        break;
      case Part::entryNumber:
        out.number(entry);
        break;
    }
  }
  return out;
}

inline Thing TableShape::thing(const std::string& bytes) const {
  const std::size_t fixed = fixedBytes({}).size();
  Thing out;
  if (bytes.size() < fixed) return out;
  std::memcpy(&out.number, bytes.data(), 4);
  std::memcpy(&out.weight, bytes.data() + 4, 4);
  std::memcpy(&out.stamp, bytes.data() + 8, 8);
  std::size_t at = fixed;
  if (texts) {
    out.text = bytes.c_str() + at;
    at += out.text.size() + 1;
  }
  if (!rows) return out;
  std::uint32_t length = 0;
  if (at + sizeof length <= bytes.size()) std::memcpy(&length, bytes.data() + at, sizeof length);
  const std::size_t end = std::min<std::size_t>(at + length, bytes.size());
  const std::size_t codeAt = shaped ? Shapes(0).boxBytes().size() : 0;
  for (at += sizeof length; at + codeAt + 2 < end;) {
    ThingRow row;
    std::memcpy(&row.code, bytes.data() + at + codeAt, 2);
    row.text = bytes.c_str() + at + codeAt + 2;
    at += codeAt + 2 + row.text.size() + 1;
    if (shaped) at += Shapes(row.code).pointBytes().size();
    out.rows.push_back(row);
  }
  return out;
}

/// All keys of an object in an index.
inline std::vector<std::string> keysOf(const TableShape& shape, std::size_t index,
                                       const Thing& thing, std::uint64_t id) {
  std::vector<std::string> out;
  for (std::uint32_t entry = 0; entry < shape.entries(index, thing); ++entry) {
    out.push_back(shape.key(index, thing, id, entry));
  }
  return out;
}

/// The tables under test.
inline const std::vector<TableShape>& tableShapes() {
  using enum Part;
  constexpr bool kDown = true;
  static const std::vector<TableShape> all = {
      {"fixed", false, false, false, 0, false, {{{number}}}},
      {"fixed_wide",
       false,
       false,
       true,
       2,
       true,
       {{{number}},
        {{weight, kDown}, {objectID}},
        {{stamp}, {weight}},
        {{weight}, {number, kDown}},
        {{objectID, kDown}}}},
      {"fixed_shapes", false, false, false, 0, false, {{{number}}}, true},
      {"variable", true, false, false, 1, false, {{{number}}, {{text}, {objectID}}}},
      {"variable_wide",
       true,
       false,
       true,
       0,
       false,
       {{{text, kDown}}, {{weight, kDown}, {text}, {objectID}}, {{number}}}},
      {"variable_bare", true, false, false, 0, false, {}},
      {"rows", true, true, false, 0, true, {{{number}}, {{rowCode}, {objectID}, {entryNumber}}}},
      {"rows_wide",
       true,
       true,
       true,
       3,
       false,
       {{{rowCode}},
        {{rowText, kDown}, {objectID}, {entryNumber}},
        {{weight}, {objectID}},
        {{number}},
        {{rowCode, kDown}, {rowText}, {objectID, kDown}, {entryNumber, kDown}}}},
      {"rows_shapes",
       true,
       true,
       true,
       1,
       true,
       {{{number}}, {{rowCode}, {objectID}, {entryNumber}}},
       true},
  };
  return all;
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_MODEL_TABLE_SHAPE_H

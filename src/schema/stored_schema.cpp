#include "schema/stored_schema.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

namespace zelta {

namespace {

using Field = CZELTA::Schema::Field;
using Index = CZELTA::Schema::Index;
using Segment = CZELTA::Schema::Segment;

// The records of a block, in this order: head, fields, sub-fields, indexes, segments, names. The
// public record of a segment is stored as it is. docs/file-formats.md has the two forms.
struct StoredHead {
  std::uint16_t lockIndex;
  std::uint16_t indexCount;
  std::uint32_t tableId;  ///< 0: the directory has it
  std::uint32_t lockOrder;
  std::uint32_t fieldCount;
  std::uint32_t schemaFlags;
  std::uint32_t namePosition;    ///< log form; else 0
  std::uint32_t folderPosition;  ///< log form; else 0
  std::uint32_t fieldPosition;
  std::uint32_t indexPosition;  ///< 0 without indexes
};
static_assert(sizeof(StoredHead) == 36);

struct StoredField {
  std::uint32_t fieldType;
  std::uint32_t fieldOffset;
  std::uint32_t fieldSize;
  std::uint32_t subFieldCount;
  std::uint32_t namePosition;
  std::uint32_t subFieldPosition;  ///< 0 for none
};
static_assert(sizeof(StoredField) == 24);

struct StoredIndex {
  std::uint8_t indexFlags;
  std::uint8_t indexKind;
  std::uint16_t segmentCount;
  std::uint32_t keyWords;
  std::uint32_t segmentPosition;
};
static_assert(sizeof(StoredIndex) == 12);

static_assert(sizeof(Segment) == 8);

std::size_t textBytes(const char16_t* text) {
  return (std::char_traits<char16_t>::length(text) + 1) * sizeof(char16_t);
}

template <typename Record>
void append(std::string& out, const Record& record) {
  out.append(reinterpret_cast<const char*>(&record), sizeof record);
}

/// Lays a block out: first all positions are reckoned, then the parts are appended in their order.
class BlockWriter {
 public:
  BlockWriter(const CZELTA::Schema& schema, std::uint32_t unit) : schema_(schema), unit_(unit) {
    for (std::uint32_t f = 0; f < schema.fieldCount; ++f) {
      if (schema.fields[f].fieldType == CZELTA::TypeSubRecords)
        subFields_ += schema.fields[f].subFieldCount;
    }
    for (std::uint32_t i = 0; i < schema.indexCount; ++i)
      segments_ += schema.indexes[i].segmentCount;
    subFieldStart_ = sizeof(StoredHead) + schema.fieldCount * sizeof(StoredField);
    indexStart_ = subFieldStart_ + subFields_ * sizeof(StoredField);
    segmentStart_ = indexStart_ + schema.indexCount * sizeof(StoredIndex);
    names_ = segmentStart_ + segments_ * sizeof(Segment);
  }

  StoredHead head() const {
    StoredHead head{};
    head.lockIndex = schema_.lockIndex;
    head.indexCount = schema_.indexCount;
    head.fieldCount = schema_.fieldCount;
    head.schemaFlags = schema_.schemaFlags;
    head.fieldPosition = position(sizeof(StoredHead));
    head.indexPosition = schema_.indexCount == 0 ? 0 : position(indexStart_);
    return head;
  }
  /// Position of the next name, which takes its place.
  std::uint32_t placeName(const char16_t* text) {
    const std::size_t at = names_;
    names_ += textBytes(text);
    return position(at);
  }
  std::uint32_t placeSubFields(std::uint32_t count) {
    const std::size_t at = subFieldStart_;
    subFieldStart_ += count * sizeof(StoredField);
    return position(at);
  }
  std::uint32_t placeSegments(std::uint32_t count) {
    const std::size_t at = segmentStart_;
    segmentStart_ += count * sizeof(Segment);
    return position(at);
  }

 private:
  [[nodiscard]] std::uint32_t position(std::size_t bytes) const {
    return static_cast<std::uint32_t>(bytes / unit_);
  }

  const CZELTA::Schema& schema_;
  std::uint32_t unit_;
  std::size_t subFields_ = 0;
  std::size_t segments_ = 0;
  std::size_t subFieldStart_ = 0;
  std::size_t indexStart_ = 0;
  std::size_t segmentStart_ = 0;
  std::size_t names_ = 0;
};

StoredField storedField(const Field& field) {
  return {field.fieldType, field.fieldOffset, field.fieldSize, field.subFieldCount, 0, 0};
}

bool hasRows(const Field& field) { return field.fieldType == CZELTA::TypeSubRecords; }

/// The records of fields and sub-fields without the positions of names.
struct FieldRecords {
  std::vector<StoredField> fields;
  std::vector<StoredField> subFields;
};

/// Fills in all but the names' positions, whose order differs between the two forms.
FieldRecords fieldRecords(const CZELTA::Schema& schema, BlockWriter& writer) {
  FieldRecords out;
  for (std::uint32_t f = 0; f < schema.fieldCount; ++f) {
    const Field& field = schema.fields[f];
    out.fields.push_back(storedField(field));
    if (!hasRows(field)) continue;
    out.fields.back().subFieldPosition = writer.placeSubFields(field.subFieldCount);
    for (std::uint32_t s = 0; s < field.subFieldCount; ++s) {
      out.subFields.push_back(storedField(field.subFields[s]));
    }
  }
  return out;
}

/// Everything but head and names, in the order of the block.
void appendRecords(std::string& out, const FieldRecords& records, const CZELTA::Schema& schema,
                   BlockWriter& writer) {
  for (const StoredField& field : records.fields) append(out, field);
  for (const StoredField& field : records.subFields) append(out, field);
  for (std::uint32_t i = 0; i < schema.indexCount; ++i) {
    const Index& index = schema.indexes[i];
    append(out, StoredIndex{index.indexFlags, index.indexKind, index.segmentCount, index.keyWords,
                            writer.placeSegments(index.segmentCount)});
  }
  for (std::uint32_t i = 0; i < schema.indexCount; ++i) {
    for (std::uint32_t k = 0; k < schema.indexes[i].segmentCount; ++k) {
      append(out, schema.indexes[i].segments[k]);
    }
  }
}

void appendText(std::string& out, const char16_t* text) {
  out.append(reinterpret_cast<const char*>(text), textBytes(text));
}

/// Visits all names: the fields', then the sub-fields'; or each field's followed by its
/// sub-fields'.
template <typename Visit>
void forNames(const CZELTA::Schema& schema, bool nested, Visit visit) {
  std::size_t sub = 0;
  const auto visitSubFields = [&](const Field& field) {
    if (!hasRows(field)) return;
    for (std::uint32_t s = 0; s < field.subFieldCount; ++s)
      visit(field.subFields[s].fieldName, true, sub++);
  };
  for (std::uint32_t f = 0; f < schema.fieldCount; ++f) {
    visit(schema.fields[f].fieldName, false, f);
    if (nested) visitSubFields(schema.fields[f]);
  }
  for (std::uint32_t f = 0; !nested && f < schema.fieldCount; ++f) visitSubFields(schema.fields[f]);
}

/// Gives each name its position.
void placeNames(const CZELTA::Schema& schema, bool nested, BlockWriter& writer,
                FieldRecords& records) {
  forNames(schema, nested, [&](const char16_t* name, bool sub, std::size_t i) {
    (sub ? records.subFields[i] : records.fields[i]).namePosition = writer.placeName(name);
  });
}

}  // namespace

std::string storedSchema(const CZELTA::Schema& schema) {
  BlockWriter writer(schema, 2);
  StoredHead head = writer.head();
  head.lockOrder = schema.lockOrder;
  FieldRecords records = fieldRecords(schema, writer);
  placeNames(schema, false, writer, records);
  std::string out;
  append(out, head);
  appendRecords(out, records, schema, writer);
  forNames(schema, false, [&](const char16_t* name, bool, std::size_t) { appendText(out, name); });
  return out;
}

std::string storedSchemaLike(const CZELTA::Schema& schema, const std::string& other) {
  std::string out = storedSchema(schema);
  if (out.size() != other.size() || schema.indexCount == 0) return out;
  StoredHead head;
  std::memcpy(&head, out.data(), sizeof head);
  std::size_t at = std::size_t{head.indexPosition} * 2 + offsetof(StoredIndex, segmentPosition);
  for (std::uint32_t i = 0; i < schema.indexCount; ++i, at += sizeof(StoredIndex)) {
    constexpr std::size_t kWidth = sizeof(StoredIndex::segmentPosition);
    if (schema.indexes[i].segmentCount == 0) out.replace(at, kWidth, other, at, kWidth);
  }
  return out;
}

std::string schemaRecord(const CZELTA::Schema& schema, const std::u16string& name,
                         const std::u16string& folder) {
  BlockWriter writer(schema, 1);
  StoredHead head = writer.head();
  FieldRecords records = fieldRecords(schema, writer);
  head.namePosition = writer.placeName(name.c_str());
  if (!folder.empty()) head.folderPosition = writer.placeName(folder.c_str());
  placeNames(schema, true, writer, records);
  std::string out;
  append(out, head);
  appendRecords(out, records, schema, writer);
  appendText(out, name.c_str());
  if (!folder.empty()) appendText(out, folder.c_str());
  forNames(schema, true, [&](const char16_t* text, bool, std::size_t) { appendText(out, text); });
  out.resize((out.size() + 3) / 4 * 4);
  return out;
}

// -- Reading --------------------------------------------------------------------------------------

namespace {

/// Reads a block of either form. measure() has to succeed before anything else is asked: it proves
/// that all parts lie where a writer would have put them, so that no position need be checked
/// twice.
class BlockReader {
 public:
  /// `unit`: how many bytes a position counts.
  BlockReader(const char* block, std::uint64_t size, std::uint32_t unit)
      : block_(block), size_(size), unit_(unit) {}

  /// Checks the head and counts what a copy needs. False if the parts do not lie as they are
  /// written.
  bool measure();
  SchemaCopy expand() const;
  /// Where the last text ends; behind measure(). False if the texts of table and folder are none.
  bool findEnd(std::uint64_t* end) const;

 private:
  template <typename Record>
  Record at(std::uint64_t offset) const {
    Record record;
    std::memcpy(&record, block_ + offset, sizeof record);
    return record;
  }
  StoredField field(std::uint64_t i) const {
    return at<StoredField>(sizeof(StoredHead) + i * sizeof(StoredField));
  }
  StoredIndex index(std::uint64_t i) const {
    return at<StoredIndex>(indexStart_ + i * sizeof(StoredIndex));
  }
  bool measureFields();
  bool measureIndexes();
  bool measureNames();
  /// Units of a name without its terminator; false if it has none.
  bool nameLength(std::uint32_t position, std::uint64_t* units) const;
  void expandField(SchemaArena& arena, const StoredField& stored, Field& out) const;

  const char* block_;
  std::uint64_t size_;
  std::uint64_t unit_;
  StoredHead head_{};
  SchemaCounts counts_;
  std::uint64_t indexStart_ = 0;
  std::uint64_t segmentStart_ = 0;
  std::uint64_t nameStart_ = 0;
};

bool BlockReader::measure() {
  if (size_ < sizeof(StoredHead)) return false;
  head_ = at<StoredHead>(0);
  if (head_.fieldPosition != sizeof(StoredHead) / unit_ || head_.tableId != 0) return false;
  counts_.fields = head_.fieldCount;
  counts_.indexes = head_.indexCount;
  return measureFields() && measureIndexes() && measureNames();
}

/// Sub-fields follow the fields, in the order of the fields that have them.
bool BlockReader::measureFields() {
  const std::uint64_t end = sizeof(StoredHead) + counts_.fields * sizeof(StoredField);
  if (end > size_) return false;
  for (std::uint64_t f = 0; f < counts_.fields; ++f) {
    const StoredField stored = field(f);
    const bool rows = stored.fieldType == CZELTA::TypeSubRecords;
    const std::uint64_t expected =
        rows ? (end + counts_.subFields * sizeof(StoredField)) / unit_ : 0;
    if (stored.subFieldPosition != expected) return false;
    if (rows) counts_.subFields += stored.subFieldCount;
    if (end + counts_.subFields * sizeof(StoredField) > size_) return false;
  }
  indexStart_ = end + counts_.subFields * sizeof(StoredField);
  return true;
}

/// Segments follow the indexes, in their order. An index without any may state any place.
bool BlockReader::measureIndexes() {
  segmentStart_ = indexStart_ + counts_.indexes * sizeof(StoredIndex);
  if (segmentStart_ > size_) return false;
  if (head_.indexPosition != (counts_.indexes == 0 ? 0 : indexStart_ / unit_)) return false;
  for (std::uint64_t i = 0; i < counts_.indexes; ++i) {
    const StoredIndex stored = index(i);
    const std::uint64_t expected = (segmentStart_ + counts_.segments * sizeof(Segment)) / unit_;
    if (stored.segmentCount != 0 && stored.segmentPosition != expected) return false;
    counts_.segments += stored.segmentCount;
    if (segmentStart_ + counts_.segments * sizeof(Segment) > size_) return false;
  }
  nameStart_ = segmentStart_ + counts_.segments * sizeof(Segment);
  return true;
}

bool BlockReader::nameLength(std::uint32_t position, std::uint64_t* units) const {
  const std::uint64_t start = position * unit_;
  if (start < nameStart_) return false;
  for (std::uint64_t p = start; p + 2 <= size_; p += 2) {
    if (at<char16_t>(p) == 0) {
      *units = (p - start) / 2;
      return *units != 0;
    }
  }
  return false;
}

/// Names may lie in any order, and must not be empty; together they fit in the block.
bool BlockReader::measureNames() {
  for (std::uint64_t i = 0; i < counts_.fields + counts_.subFields; ++i) {
    std::uint64_t units = 0;
    if (!nameLength(field(i).namePosition, &units)) return false;
    counts_.nameUnits += units + 1;
    if (nameStart_ + counts_.nameUnits * 2 > size_) return false;
  }
  return true;
}

bool BlockReader::findEnd(std::uint64_t* end) const {
  *end = nameStart_;
  const auto include = [&](std::uint32_t position) {
    std::uint64_t units = 0;
    if (!nameLength(position, &units)) return false;
    *end = std::max(*end, position * unit_ + (units + 1) * sizeof(char16_t));
    return true;
  };
  for (std::uint64_t i = 0; i < counts_.fields + counts_.subFields; ++i) {
    if (!include(field(i).namePosition)) return false;
  }
  return include(head_.namePosition) &&
         (head_.folderPosition == 0 || include(head_.folderPosition));
}

void BlockReader::expandField(SchemaArena& arena, const StoredField& stored, Field& out) const {
  std::uint64_t units = 0;
  static_cast<void>(nameLength(stored.namePosition, &units));
  out = {stored.fieldType,
         stored.fieldOffset,
         stored.fieldSize,
         stored.subFieldCount,
         arena.takeName(block_ + stored.namePosition * unit_, units),
         nullptr};
}

SchemaCopy BlockReader::expand() const {
  SchemaArena arena(counts_);
  CZELTA::Schema& schema = arena.schema();
  schema.lockIndex = head_.lockIndex;
  schema.indexCount = head_.indexCount;
  schema.lockOrder = head_.lockOrder;
  schema.fieldCount = head_.fieldCount;
  schema.schemaFlags = head_.schemaFlags;
  schema.fields = arena.takeFields(counts_.fields);
  for (std::uint64_t f = 0; f < counts_.fields; ++f) expandField(arena, field(f), schema.fields[f]);
  std::uint64_t next = counts_.fields;
  for (std::uint64_t f = 0; f < counts_.fields; ++f) {
    Field& owner = schema.fields[f];
    if (!hasRows(owner)) continue;
    owner.subFields = arena.takeSubFields(owner.subFieldCount);
    for (std::uint32_t s = 0; s < owner.subFieldCount; ++s) {
      expandField(arena, field(next++), owner.subFields[s]);
    }
  }
  schema.indexes = arena.takeIndexes(counts_.indexes);
  std::uint64_t segment = 0;
  for (std::uint64_t i = 0; i < counts_.indexes; ++i) {
    const StoredIndex stored = index(i);
    Index& out = schema.indexes[i];
    out.indexFlags = stored.indexFlags;
    out.indexKind = stored.indexKind;
    out.segmentCount = stored.segmentCount;
    out.keyWords = stored.keyWords;
    out.segments = arena.takeSegments(stored.segmentCount);
    for (std::uint32_t k = 0; k < stored.segmentCount; ++k) {
      out.segments[k] = at<Segment>(segmentStart_ + segment++ * sizeof(Segment));
    }
  }
  return arena.finish();
}

}  // namespace

bool expandStoredSchema(const char* block, std::uint32_t size, SchemaCopy& out) {
  BlockReader reader(block, size, 2);
  if (!reader.measure()) return false;
  out = reader.expand();
  return true;
}

bool schemaFromRecord(const char* record, const char* end, std::uint32_t tableId,
                      std::uint32_t lockOrder, SchemaCopy& out, const char** extra) {
  const auto size = static_cast<std::uint64_t>(end - record);
  BlockReader reader(record, size, 1);
  std::uint64_t used = 0;
  if (!reader.measure() || !reader.findEnd(&used)) return false;
  used = (used + 3) / 4 * 4;
  if (used > size) return false;
  out = reader.expand();
  out.schema->tableId = tableId;
  out.schema->lockOrder = lockOrder;
  *extra = record + used;
  return true;
}

}  // namespace zelta

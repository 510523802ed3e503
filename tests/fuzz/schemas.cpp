#include "fuzz/schemas.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace zelta::fuzz {

namespace {

using Type = CZELTA::DataType;

constexpr const char16_t* kFieldNames[] = {
    u"f0",  u"f1",  u"f2",  u"f3",  u"f4",  u"f5",  u"f6",  u"f7",  u"f8",  u"f9",  u"f10", u"f11",
    u"f12", u"f13", u"f14", u"f15", u"f16", u"f17", u"f18", u"f19", u"f20", u"f21", u"f22", u"f23"};

/// The fixed fields of the form with all types, behind its first.
constexpr std::uint32_t kFixedTypes[] = {
    Type::TypeBoolean, Type::TypeChar,   Type::TypeWideChar, Type::TypeInt8,    Type::TypeUInt8,
    Type::TypeInt16,   Type::TypeUInt16, Type::TypeInt32,    Type::TypeInt64,   Type::TypeUInt64,
    Type::TypeFloat,   Type::TypeDouble, Type::TypeDate,     Type::TypeDateTime};
constexpr std::uint32_t kFixedBytes = 1 + 1 + 2 + 1 + 1 + 2 + 2 + 4 + 8 + 8 + 4 + 8 + 4 + 8;
/// And its variable ones.
constexpr std::uint32_t kVariableTypes[] = {Type::TypeText,        Type::TypeWideText,
                                            Type::TypeShortBinary, Type::TypeBinary,
                                            Type::TypePoints2,     Type::TypePoints3};

template <class Number>
void append(std::string& out, Number value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

std::string pointsContent(std::uint32_t number, std::size_t coordinates) {
  std::string out;
  append(out, static_cast<std::uint32_t>(4 + 4 * coordinates));
  for (std::uint32_t i = 0; i < coordinates; ++i) {
    append(out, static_cast<std::int32_t>((number / 2 + i) * 2654435761u) >> 20);
  }
  return out;
}

/// The bounds of a rectangle, of which some are the other way round.
void appendRectangle(std::string& out, std::uint32_t number) {
  const auto x = static_cast<std::int32_t>(number * 7919 % 400);
  const auto y = static_cast<std::int32_t>(number * 104729 % 300);
  for (const std::int32_t c : {x, y, x + 9, y - 5}) append(out, c);
}

std::string fixedContent(Form form, std::uint32_t number) {
  std::string out;
  append(out, number);
  if (form == Form::words) append(out, static_cast<std::uint16_t>(number % 3));
  if (form == Form::shapes) {
    appendRectangle(out, number);
    append(out, std::uint32_t{1000} - number % 50 * 20);
    append(out, number % 7 * 100);
  }
  if (form == Form::wide) append(out, std::uint64_t{1000} - number % 7);
  if (form == Form::types) out.append(kFixedBytes, static_cast<char>(number));
  return out;
}

std::string rowsContent(std::uint32_t number) {
  std::string rows;
  for (std::uint32_t i = 0; i < number % 4; ++i) {
    append(rows, static_cast<std::uint16_t>(number + i));
    rows += "row" + std::string(1, '\0');
  }
  std::string out;
  append(out, static_cast<std::uint32_t>(rows.size() + 4));
  return out + rows;
}

std::string shapesContent(std::uint32_t number, std::size_t points) {
  constexpr std::size_t kFlat = 2;
  constexpr std::size_t kSolid = 3;
  std::string rows;
  for (std::uint32_t i = 0; i < number % 4; ++i) {
    appendRectangle(rows, number + i / 2);
    rows += pointsContent(number + i / 2, kFlat * (points / 8));
  }
  std::string out;
  append(out, static_cast<std::uint32_t>(rows.size() + 4));
  return out + rows + pointsContent(number, kSolid * (points / 4));
}

/// Words that many have, some have and one alone has; then long ones.
std::string wordsContent(std::uint32_t number, std::size_t length) {
  std::string text = "All word" + std::to_string(number % 7) + " n" + std::to_string(number);
  for (std::size_t i = 0; i < length / 16; ++i) {
    text += ", " + std::string(1 + i % 9 * 4, static_cast<char>('a' + (number + i) % 26));
  }
  std::string out = text + '\0';
  for (const char c : text + '\0') append(out, static_cast<std::uint16_t>(c));
  return out;
}

std::string variableContent(Form form, std::uint32_t number, std::size_t length) {
  const std::string text = std::string(length, static_cast<char>('a' + number % 26)) + '\0';
  std::string out;
  if (form == Form::rows) return rowsContent(number);
  if (form == Form::shapes) return shapesContent(number, length);
  if (form == Form::words) return wordsContent(number, length);
  if (form != Form::variable && form != Form::bare && form != Form::types) return out;
  out = text;
  if (form != Form::types) {
    append(out, static_cast<std::uint32_t>(length + 4));
    return out + std::string(length, '\1');
  }
  out += std::string("w\0\0\0", 4);
  out += std::string("\4\0bb", 4);
  out += std::string("\5\0\0\0x", 5);
  out += std::string("\14\0\0\0\1\0\0\0\2\0\0\0", 12);
  return out + std::string(4, '\0');
}

}  // namespace

void FormSchema::field(std::uint32_t type, std::uint32_t size) {
  CZELTA::Schema::Field& next = fields[schema.fieldCount];
  next.fieldType = type;
  next.fieldSize = size;
  next.fieldName = kFieldNames[schema.fieldCount++];
}

void FormSchema::index(std::initializer_list<CZELTA::Schema::Segment> parts,
                       CZELTA::IndexKind kind) {
  std::copy(parts.begin(), parts.end(), segments[schema.indexCount]);
  CZELTA::Schema::Index& next = indexes[schema.indexCount];
  next.indexKind = static_cast<std::uint8_t>(kind);
  next.segmentCount = static_cast<std::uint16_t>(parts.size());
  next.segments = segments[schema.indexCount++];
}

FormSchema::FormSchema(Form form, const char16_t* name, const char16_t* indexFolder) {
  schema.tableName = name;
  schema.tablePath = indexFolder;
  schema.fields = fields;
  schema.indexes = indexes;
  field(Type::TypeUInt32);
  if (form != Form::bare) index({{0, 0}});
  switch (form) {
    case Form::fixed:
      break;
    case Form::wide:
      field(Type::TypeUInt64);
      index({{1, CZELTA::SegmentDescending}, {CZELTA::ObjectIdSegment, 0}});
      index({{CZELTA::ObjectIdSegment, CZELTA::SegmentDescending}});
      schema.schemaFlags = CZELTA::SchemaWideObjectIds;
      schema.lockIndex = 1;
      break;
    case Form::variable:
      field(Type::TypeText, 20);
      field(Type::TypeBinary, 20);
      index({{1, CZELTA::SegmentUpperCase}, {CZELTA::ObjectIdSegment, 0}});
      break;
    case Form::rows:
      field(Type::TypeSubRecords, 40);
      subFields[0] = {Type::TypeUInt16, 0, 0, 0, u"s0", nullptr};
      subFields[1] = {Type::TypeText, 0, 10, 0, u"s1", nullptr};
      fields[1].subFields = subFields;
      fields[1].subFieldCount = 2;
      index({{2, 0}, {CZELTA::ObjectIdSegment, 0}, {CZELTA::EntryNumberSegment, 0}});
      break;
    case Form::bare:
      field(Type::TypeText, 20);
      field(Type::TypeBinary, 20);
      break;
    case Form::types:
      for (const std::uint32_t type : kFixedTypes) field(type);
      for (const std::uint32_t type : kVariableTypes) field(type, 8);
      index({{13, CZELTA::SegmentDescending}, {8, 0}, {CZELTA::ObjectIdSegment, 0}});
      index({{16, CZELTA::SegmentReversed}, {CZELTA::ObjectIdSegment, 0}});
      break;
    case Form::shapes:
      field(Type::TypeRect2);
      field(Type::TypeDate);
      field(Type::TypeDate);
      field(Type::TypeSubRecords, 60);
      field(Type::TypePoints3, 60);
      subFields[0] = {Type::TypeRect2, 0, 0, 0, u"s0", nullptr};
      subFields[1] = {Type::TypePoints2, 0, 20, 0, u"s1", nullptr};
      fields[4].subFields = subFields;
      fields[4].subFieldCount = 2;
      index({{1, 0}}, CZELTA::SpatialTree);
      index({{2, 0}, {3, 0}}, CZELTA::TemporalTree);
      index({{5, 0}}, CZELTA::SpatialPattern);
      index({{6, 0}}, CZELTA::SpatialTree);
      index({{7, 0}}, CZELTA::SpatialPattern);
      break;
    case Form::words:
      field(Type::TypeUInt16);
      field(Type::TypeText, 40);
      field(Type::TypeWideText, 80);
      index({{2, CZELTA::SegmentWords | CZELTA::SegmentLowerCase}}, CZELTA::AsciiList);
      index({{1, 0}, {3, CZELTA::SegmentWords | CZELTA::SegmentAlphanumeric}}, CZELTA::WideList);
      index({{3, CZELTA::SegmentWords}}, CZELTA::WideList);
      break;
  }
}

std::string contentOf(Form form, std::uint32_t number, std::size_t length) {
  return fixedContent(form, number) + variableContent(form, number, length);
}

unsigned long long putContent(CZELTA& handle, unsigned int table, Form form,
                              const std::string& content, CZELTA::Object& object) {
  const std::size_t fixed = fixedContent(form, 0).size();
  if (object.length < fixed) return 0;
  std::memcpy(object.data, content.data(), fixed);
  const auto variable = static_cast<unsigned>(content.size() - fixed);
  if (variable == 0) return 0;
  const unsigned count = form == Form::rows ? 1 : form == Form::types ? 6 : 2;
  return handle.PutVariableValues(table, content.data() + fixed, variable, 0, count, &object);
}

unsigned long long addContent(CZELTA& handle, unsigned int table, Form form,
                              const std::string& content, long long id) {
  CZELTA::Object object{};
  if (const auto word = handle.NewObject(table, &object, 0); word != 0) return word;
  if (const auto word = putContent(handle, table, form, content, object); word != 0) return word;
  return handle.AddObject(table, &object, id);
}

}  // namespace zelta::fuzz

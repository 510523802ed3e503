// The rules of fields: every one with its code and its text, in the order in which they are tested,
// and the numbers that follow from good fields.

#include "schema_fixture.h"

namespace zelta::testing {

namespace {

using Type = CZELTA::DataType;

std::string fieldText(const std::string& field, std::uint32_t type) {
  const std::string text =
      "Unable to use table schema as it contains an invalid field.\nTable \"T\", Field \"" + field +
      "\" has type " + std::to_string(type) + ".";
  return text.substr(0, 96 + 1 + field.size() - 1);  // all that the text's buffer takes
}
std::string orderText(int field) {
  return "Unable to use table schema as it contains an invalid field order.\nField " +
         std::to_string(field) + " is of fixed type.";
}
std::string nameText(int field) {
  return "Unable to use table schema as field " + std::to_string(field) +
         " contains an invalid field name.";
}
std::string subNameText(int sub, int field) {
  return "Unable to use table schema as sub-field " + std::to_string(sub) + " of field " +
         std::to_string(field) + " contains an invalid field .name";
}
std::string parameterText() {
  return "One or more parameters is within an invaild range for table \"T\".";
}
FieldSpec rows(std::vector<FieldSpec> subFields) { return {Type::TypeSubRecords, 0, subFields}; }

/// What the table of types says: code, least size, alignment.
struct TypeRow {
  std::uint32_t code, size, alignment;
};
constexpr TypeRow kFixed[] = {{3, 1, 1},  {5, 1, 1},  {7, 2, 2},   {9, 1, 1},  {11, 1, 1},
                              {13, 2, 2}, {15, 2, 2}, {17, 4, 4},  {19, 4, 4}, {21, 8, 8},
                              {23, 8, 8}, {25, 4, 4}, {27, 8, 8},  {31, 4, 4}, {33, 8, 4},
                              {35, 4, 4}, {43, 8, 8}, {39, 16, 4}, {41, 24, 4}};
constexpr TypeRow kVariable[] = {{2, 1, 1}, {4, 2, 1},  {6, 2, 1},
                                 {8, 4, 1}, {12, 4, 1}, {14, 4, 1}};

constexpr std::uint32_t kLargest = 0xFFFFFFE0;  ///< what an object and its framing may take

}  // namespace

class FieldRules : public SchemaTest {};

// -- Refused --------------------------------------------------------------------------------------

TEST_F(FieldRules, EveryCodeThatIsNoTypeIsRefused) {
  std::vector<std::uint32_t> unknown = {0,  1,  16, 18,         20,         22,        24,
                                        26, 28, 29, 30,         32,         34,        36,
                                        38, 40, 42, 0x7FFFFFFF, 0x80000003, 0xFFFFFFFF};
  for (std::uint32_t code = 44; code < 300; ++code) unknown.push_back(code);
  for (const std::uint32_t code : unknown) {
    expectCase({"as a field", {{code}}, {}, 12, fieldText("f0", code)});
    expectCase({"as a sub-field", {rows({{code}})}, {}, 12, fieldText("s0", code)});
  }
}

TEST_F(FieldRules, FieldsAreTestedInTheirOrder) {
  expectCases({
      {"fixed behind variable", {{2}, {17}}, {}, 13, orderText(1)},
      {"fixed behind rows", {rows({{3}}), {3}}, {}, 13, orderText(1)},
      {"array behind variable", {{9}, {4}, {8}, {37, 3}}, {}, 13, orderText(3)},
      {"unknown odd code behind variable", {{2}, {45}}, {}, 13, orderText(1)},
      {"unknown even code behind variable", {{2}, {16}}, {}, 12, fieldText("f1", 16)},
      {"the first of two broken fields", {{1}, {0}}, {}, 12, fieldText("f0", 1)},
      {"null name",
       {{17}, {17}},
       {},
       42,
       nameText(1),
       [](auto& s) { s.fields[1].fieldName = nullptr; }},
      {"empty name", {{17}}, {}, 42, nameText(0), [](auto& s) { s.fields[0].fieldName = u""; }},
      {"null name of an array",
       {{37, 4}},
       {},
       42,
       nameText(0),
       [](auto& s) { s.fields[0].fieldName = nullptr; }},
      {"name before type",
       {{1}},
       {},
       42,
       nameText(0),
       [](auto& s) { s.fields[0].fieldName = u""; }},
      {"order before name",
       {{2}, {17}},
       {},
       13,
       orderText(1),
       [](auto& s) { s.fields[1].fieldName = nullptr; }},
      {"an unknown even code has its name tested",
       {{16}},
       {},
       42,
       nameText(0),
       [](auto& s) { s.fields[0].fieldName = nullptr; }},
  });
}

TEST_F(FieldRules, SubFieldsAreTestedInTheirOrder) {
  const auto noName = [](std::size_t sub) {
    return [sub](CZELTA::Schema& s) { s.fields[0].subFields[sub].fieldName = nullptr; };
  };
  expectCases({
      {"rows of nothing", {{10}}, {}, 12, fieldText("f0", 10)},
      {"no sub-fields but a count",
       {{10}},
       {},
       12,
       fieldText("f0", 10),
       [](auto& s) { s.fields[0].subFieldCount = 2; }},
      {"sub-fields but no count",
       {rows({{17}})},
       {},
       12,
       fieldText("f0", 10),
       [](auto& s) { s.fields[0].subFieldCount = 0; }},
      {"rows in rows", {rows({{17}, rows({{17}})})}, {}, 12, fieldText("s1", 10)},
      {"rows in rows are refused before their name",
       {rows({rows({{17}})})},
       {},
       12,
       fieldText("(null)", 10),
       noName(0)},
      {"null name",
       {{3}, rows({{17}, {17}})},
       {},
       42,
       subNameText(1, 1),
       [](auto& s) { s.fields[1].subFields[1].fieldName = nullptr; }},
      {"empty name",
       {rows({{17}})},
       {},
       42,
       subNameText(0, 0),
       [](auto& s) { s.fields[0].subFields[0].fieldName = u""; }},
      {"name before type", {rows({{1}})}, {}, 42, subNameText(0, 0), noName(0)},
      {"type before order", {rows({{2}, {1}})}, {}, 12, fieldText("s1", 1)},
      {"fixed behind variable", {{3}, rows({{2}, {17}})}, {}, 13, orderText(1)},
      {"array behind variable", {rows({{2}, {37, 4}})}, {}, 13, orderText(0)},
      {"rows of a later field", {rows({{17}, {2}}), rows({{17}, {1}})}, {}, 12, fieldText("s1", 1)},
      {"each field's rows begin anew", {rows({{2}}), rows({{17}})}, {}, 0, ""},
  });
}

TEST_F(FieldRules, MissingArraysAreRefusedBeforeAnyRule) {
  expectCases({
      {"fields", {}, {}, 7, parameterText(), [](auto& s) { s.fieldCount = 1; }},
      {"indexes", {{1}}, {}, 7, parameterText(), [](auto& s) { s.indexCount = 1; }},
      {"segments",
       {{1}},
       {{{{0, 0}}}},
       7,
       parameterText(),
       [](auto& s) { s.indexes[0].segments = nullptr; }},
      {"segments of a later index",
       {{17}},
       {{{{0, 0}}}, {{{0, 0}}}},
       7,
       parameterText(),
       [](auto& s) { s.indexes[1].segments = nullptr; }},
      {"none of either",
       {},
       {},
       0,
       "",
       [](auto& s) {
         s.fields = nullptr;
         s.indexes = nullptr;
       }},
      {"no segments for an index of none",
       {{17}},
       {{{}}},
       0,
       "",
       [](auto& s) { s.indexes[0].segments = nullptr; }},
  });
}

TEST_F(FieldRules, ObjectsBeyondFourGigabytesAreRefused) {
  const std::uint32_t most = kLargest - 6;
  expectCases({
      {"the largest array", {{37, most}}, {}, 0, ""},
      {"one more", {{37, most + 1}}, {}, 12, fieldText("f0", 37)},
      {"with wide IDs", {{37, most - 4}}, {}, 0, "", {}, 1},
      {"with wide IDs, one more", {{37, most - 3}}, {}, 12, fieldText("f0", 37), {}, 1},
      {"two arrays whose sum wraps",
       {{37, 0xFFFFFFF0}, {37, 0xFFFFFFF0}},
       {},
       12,
       fieldText("f0", 37)},
      {"two halves", {{37, 0x80000000}, {37, 0x80000000}}, {}, 12, fieldText("f1", 37)},
      {"a number at the limit", {{37, most - 2}, {17}}, {}, 12, fieldText("f1", 17)},
      {"a variable field behind the largest array", {{37, most}, {2}}, {}, 12, fieldText("f1", 2)},
      {"the largest declared size", {{2, kLargest - 18}}, {}, 0, ""},
      {"one more declared", {{2, kLargest - 17}}, {}, 12, fieldText("f0", 2)},
      {"a declared size that wraps", {{2, 0xFFFFFFFF}, {2, 0xFFFFFFFF}}, {}, 0, ""},
      {"the last variable field is named",
       {{2, 0x7FFFFFCF}, {2, 0x80000000}},
       {},
       12,
       fieldText("f1", 2)},
      {"largest row", {rows({{37, most}})}, {}, 0, ""},
      {"one more in a row", {rows({{37, most + 1}})}, {}, 12, fieldText("s0", 37)},
      {"two halves in a row",
       {rows({{37, 0x80000000}, {37, 0x80000000}})},
       {},
       12,
       fieldText("s1", 37)},
  });
}

// -- Derived --------------------------------------------------------------------------------------

TEST_F(FieldRules, EveryFixedTypeHasItsSizeAndAlignment) {
  for (const TypeRow& type : kFixed) {
    SCOPED_TRACE(type.code);
    // Behind one byte, then behind a number of 4 bytes and the field itself.
    SchemaRecords records({{9}, {type.code, 77}, {9}, {type.code, 78}}, {}, 0);
    for (std::uint32_t f = 0; f < 4; ++f) records.schema.fields[f].subFieldCount = 5;
    const RawTableHeader header = made(records.schema);
    const std::uint32_t first = type.alignment;
    const std::uint32_t third = first + type.size;
    const std::uint32_t fourth = (third + 1 + type.alignment - 1) / type.alignment * type.alignment;
    const CZELTA::Schema::Field* fields = records.schema.fields;
    EXPECT_EQ(fields[1].fieldOffset, first);
    EXPECT_EQ(fields[1].fieldSize, type.size);
    EXPECT_EQ(fields[1].subFieldCount, 0u);
    EXPECT_EQ(fields[2].fieldOffset, third);
    EXPECT_EQ(fields[3].fieldOffset, fourth);
    EXPECT_EQ(header.fixedArea, 6 + fourth + type.size);
    EXPECT_EQ(header.minimumSize, header.fixedArea);
    EXPECT_EQ(header.defaultSize, header.fixedArea) << "records of fixed objects have no framing";
  }
}

TEST_F(FieldRules, EveryFixedTypeHasItsSizeAndAlignmentInRows) {
  for (const TypeRow& type : kFixed) {
    SCOPED_TRACE(type.code);
    SchemaRecords records({{3}, rows({{9}, {type.code, 77}, {2, 9}, {8, 5}})}, {}, 0);
    for (std::uint32_t s = 0; s < 4; ++s) records.schema.fields[1].subFields[s].subFieldCount = 5;
    made(records.schema);
    const CZELTA::Schema::Field* subs = records.schema.fields[1].subFields;
    EXPECT_EQ(subs[0].fieldOffset, 0u);
    EXPECT_EQ(subs[1].fieldOffset, type.alignment);
    EXPECT_EQ(subs[1].fieldSize, type.size);
    EXPECT_EQ(subs[1].subFieldCount, 0u);
    EXPECT_EQ(subs[2].fieldOffset, type.alignment + type.size) << "no padding behind the last";
    EXPECT_EQ(subs[2].fieldSize, 9u);
    EXPECT_EQ(subs[3].fieldOffset, type.alignment + type.size);
    EXPECT_EQ(subs[3].fieldSize, 5u);
    EXPECT_EQ(subs[3].subFieldCount, 0u);
  }
}

TEST_F(FieldRules, EveryVariableTypeAddsItsLeastSize) {
  for (const TypeRow& type : kVariable) {
    SCOPED_TRACE(type.code);
    SchemaRecords records({{17}, {9}, {type.code, 100}, {2, 7}}, {}, 0);
    CZELTA::Schema::Field stray{17, 0, 0, 0, u"stray", nullptr};
    records.schema.fields[2].subFieldCount = 1;
    records.schema.fields[2].subFields = &stray;
    const RawTableHeader header = made(records.schema);
    EXPECT_EQ(records.schema.fields[2].fieldOffset, 5u) << "the end of the fixed fields, unpadded";
    EXPECT_EQ(records.schema.fields[3].fieldOffset, 5u);
    EXPECT_EQ(records.schema.fields[2].fieldSize, 100u);
    EXPECT_EQ(records.schema.fields[2].subFieldCount, 0u);
    EXPECT_EQ(records.schema.fields[2].subFields, nullptr);
    EXPECT_EQ(header.fixedArea, 6 + 5u);
    EXPECT_EQ(header.minimumSize, 6 + 5 + type.size + 1);
    EXPECT_EQ(header.defaultSize, 6 + 5 + 100 + 7 + 12u);
  }
}

TEST_F(FieldRules, SizesOfPointsBecomeWholePoints) {
  const struct {
    std::uint32_t type, given, stored;
  } cases[] = {{12, 100, 100}, {12, 101, 100}, {12, 107, 100},      {12, 108, 108},
               {12, 4, 4},     {12, 11, 4},    {12, 0, 0xFFFFFFFC}, {12, 3, 0xFFFFFFFC},
               {14, 100, 100}, {14, 99, 88},   {14, 111, 100},      {14, 112, 112},
               {14, 4, 4},     {14, 15, 4},    {14, 0, 0},          {14, 3, 0}};
  for (const auto& one : cases) {
    SCOPED_TRACE(std::to_string(one.type) + " of " + std::to_string(one.given));
    SchemaRecords records({{17}, {one.type, one.given}, rows({{one.type, one.given}})}, {}, 0);
    const RawTableHeader header = made(records.schema);
    EXPECT_EQ(records.schema.fields[1].fieldSize, one.stored);
    EXPECT_EQ(records.schema.fields[2].subFields[0].fieldSize, one.given) << "rows keep theirs";
    EXPECT_EQ(header.defaultSize, std::max(6 + 4 + one.stored + 12, 20u));
    const std::uint32_t once = records.schema.fields[1].fieldSize;
    made(records.schema);
    EXPECT_EQ(records.schema.fields[1].fieldSize, once) << "a second validation changes nothing";
  }
}

TEST_F(FieldRules, ArraysKeepTheirSizeAndAreNotPadded) {
  SchemaRecords records({{9}, {37, 0}, {37, 5}, {17}, {37, 3}}, {}, 0);
  records.schema.fields[1].subFieldCount = 9;
  CZELTA::Schema::Field stray{17, 0, 0, 0, u"stray", nullptr};
  records.schema.fields[1].subFields = &stray;
  const RawTableHeader header = made(records.schema);
  const CZELTA::Schema::Field* fields = records.schema.fields;
  EXPECT_EQ(fields[1].fieldSize, 1u) << "no size is one byte";
  EXPECT_EQ(fields[1].fieldOffset, 1u);
  EXPECT_EQ(fields[1].subFieldCount, 9u) << "an array keeps the caller's count";
  EXPECT_EQ(fields[1].subFields, nullptr);
  EXPECT_EQ(fields[2].fieldOffset, 2u);
  EXPECT_EQ(fields[2].fieldSize, 5u);
  EXPECT_EQ(fields[3].fieldOffset, 8u);
  EXPECT_EQ(fields[4].fieldOffset, 12u);
  EXPECT_EQ(header.fixedArea, 6 + 15u);
  EXPECT_EQ(header.minimumSize, header.fixedArea);

  SchemaRecords sub({{8}, rows({{9}, {37, 0}, {37, 5}})}, {}, 0);
  made(sub.schema);
  EXPECT_EQ(sub.schema.fields[1].subFields[1].fieldSize, 1u);
  EXPECT_EQ(sub.schema.fields[1].subFields[2].fieldOffset, 2u);
}

TEST_F(FieldRules, TheSizesOfObjectsFollowFromTheFields) {
  const struct {
    const char* title;
    Fields fields;
    std::uint32_t flags, fixed, minimum, standard;
  } cases[] = {
      {"no field", {}, 0, 6, 6, 6},
      {"no field, wide IDs", {}, 1, 10, 10, 10},
      {"one number", {{17}}, 0, 10, 10, 10},
      {"one number, wide IDs", {{17}}, 1, 14, 14, 14},
      {"one short text", {{2, 0}}, 0, 6, 7, 20},
      {"the framing passes the least size", {{2, 3}}, 0, 6, 7, 21},
      {"one short text, wide IDs", {{2, 0}}, 1, 10, 11, 22},
      {"rows", {{17}, {10, 60, {{3}}}}, 0, 10, 14, 82},
      {"a byte and a time", {{9}, {33}}, 0, 18, 18, 18},
      {"a byte and a long number", {{9}, {21}}, 0, 22, 22, 22},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.title);
    SchemaRecords records(one.fields, {}, one.flags);
    const RawTableHeader header = made(records.schema);
    EXPECT_EQ(header.headerSize, one.flags == 0 ? 6u : 10u);
    EXPECT_EQ(header.fixedArea, one.fixed);
    EXPECT_EQ(header.minimumSize, one.minimum);
    EXPECT_EQ(header.defaultSize, one.standard);
  }
}

TEST_F(FieldRules, RecordsThatAreRightAlreadyAreNotWritten) {
  // Derived members stand: the records may lie in memory that cannot be written.
  static CZELTA::Schema::Field field{17, 0, 4, 0, u"number", nullptr};
  static CZELTA::Schema::Segment segment{0, 1};
  static CZELTA::Schema::Index index{0, CZELTA::BPlusTree, 1, {1}, &segment};
  CZELTA::Schema schema{};
  schema.tableName = u"T";
  schema.fieldCount = 1;
  schema.fields = &field;
  schema.indexCount = 1;
  schema.indexes = &index;
  const CZELTA::Schema before = schema;
  made(schema);
  EXPECT_EQ(std::memcmp(&schema, &before, sizeof schema), 0) << "ID and order are not written back";
}

TEST_F(FieldRules, AFailedSchemaLeavesTheRecordsUsable) {
  SchemaRecords records({{9}, {17}, {2}}, {{{{7, 0}}}}, 0);
  EXPECT_EQ(handle.CreateTable(&records.schema, nullptr), ownCode(14));
  records.schema.indexes[0].segments[0].segmentField = 1;
  EXPECT_EQ(made(records.schema).fixedArea, 6 + 8u);
}

TEST_F(FieldRules, OneArrayOfSubFieldsMayServeTwoFields) {
  SchemaRecords records({rows({{9}, {17}}), {8}, rows({{3}})}, {{{{4, 0}}}, {{{6, 0}}}}, 0);
  records.schema.fields[2].subFields = records.schema.fields[0].subFields;
  records.schema.fields[2].subFieldCount = 2;
  made(records.schema);
  EXPECT_EQ(records.schema.fields[0].subFields[1].fieldOffset, 4u);
}

TEST_F(FieldRules, NamesMayBeOfAnyLengthAndAppearTwice) {
  const std::u16string longName(20000, u'n');
  SchemaRecords records({{9}, {17}, {2}}, {}, 0);
  records.schema.fields[0].fieldName = longName.c_str();
  records.schema.fields[1].fieldName = longName.c_str();
  records.schema.fields[2].fieldName = u"\xD800\x4E00";  // any units will do
  const RawTableHeader header = made(records.schema);
  EXPECT_EQ(header.schemaSize, 36 + 3 * 24 + 2 * 40002 + 6u);
}

TEST_F(FieldRules, ThousandsOfFieldsAndIndexesAreTaken) {
  Fields fields(3000, FieldSpec{9});
  fields.push_back(rows(std::vector<FieldSpec>(3000, FieldSpec{17})));
  const Indexes indexes(1000, IndexSpec{{{2999, 0}, {3001 + 2999, 1}}});
  SchemaRecords records(fields, indexes, 0);
  std::vector<std::u16string> kept;
  const RawTableHeader header = made(records.schema);
  EXPECT_EQ(records.schema.fields[2999].fieldOffset, 2999u);
  EXPECT_EQ(records.schema.fields[3000].subFields[2999].fieldOffset, 2999 * 4u);
  EXPECT_EQ(header.schemaSize, 36 + 24 * 6001 + 1000 * (12 + 16) + 6001 * 6u);
}

TEST_F(FieldRules, TheGreatestCountsAreTaken) {
  std::vector<CZELTA::Schema::Segment> segments(65535, {-1, 1});
  std::vector<CZELTA::Schema::Index> indexes(65535, {0, CZELTA::BPlusTree, 0, {0}, nullptr});
  indexes.back().segmentCount = 65535;
  indexes.back().segments = segments.data();
  SchemaRecords records({{17}}, {}, 0);
  records.schema.indexes = indexes.data();
  records.schema.indexCount = 65535;
  const RawTableHeader header = made(records.schema);
  EXPECT_EQ(indexes.back().keyWords, 65535u);
  EXPECT_EQ(header.schemaSize, 36 + 24 + 65535 * 12 + 65535 * 8 + 6u);
}

}  // namespace zelta::testing

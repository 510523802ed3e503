// The rules of indexes, kind by kind: every one with its code and its text, in the order in which
// they are tested, and the numbers that follow from good ones.

#include "schema_fixture.h"

namespace zelta::testing {

namespace {

constexpr std::uint8_t kSpatial = CZELTA::SpatialTree;
constexpr std::uint8_t kAscii = CZELTA::AsciiList;
constexpr std::uint8_t kWide = CZELTA::WideList;
constexpr std::uint8_t kTemporal = CZELTA::TemporalTree;
constexpr std::uint8_t kPattern = CZELTA::SpatialPattern;

std::string place(int segment, int index) {
  return "Segment " + std::to_string(segment) + " in index " + std::to_string(index) + ".";
}
std::string namedField(int segment, int index) {
  return "Unable to use table schema for T, as it contains an invalid field ID.\n" +
         place(segment, index);
}
std::string unnamedField(int segment, int index) {
  return "Unable to use table schema as it contains an invalid field ID.\n" + place(segment, index);
}
std::string typeText(int segment, int index) {
  return "Unable to use table schema as it contains an invalid field type.\n" +
         place(segment, index);
}
std::string modeText(int segment, int index) {
  return "Unable to use table schema as it contains an invalid segment mode.\n" +
         place(segment, index);
}
std::string countText(int index) {
  return "Unable to use table schema as it contains an invalid segment count in index " +
         std::to_string(index) + ".";
}
std::string lockText(int index) {
  return "Unknown Zeltastore error code 26 (0x1A).\nString1 = T.\nString2 = (null).\nInteger1 = " +
         std::to_string(index) + ", Integer2 = 0";
}
FieldSpec rows(std::vector<FieldSpec> subFields) { return {CZELTA::TypeSubRecords, 0, subFields}; }
Change power(std::uint16_t n) {
  return [n](CZELTA::Schema& s) { s.indexes[0].maximumObjectPower = n; };
}

/// One field of every type: numbers, boxes, an array; texts, bytes, points; rows of every type.
const Fields kAllTypes = {
    {3},  {5},  {7},
    {9},  {11}, {13},
    {15}, {17}, {19},
    {21}, {23}, {25},
    {27}, {31}, {33},
    {35}, {43}, {37, 5},
    {39}, {41}, {2, 10},
    {4},  {6},  {8},
    {12}, {14}, rows({{3}, {31}, {33}, {37, 5}, {39}, {41}, {2, 10}, {4}, {6}, {8}, {12}, {14}})};
constexpr int kFixedCount = 20;  ///< of kAllTypes, and of the fixed ones among them
constexpr int kRows = 26;
constexpr int kSub = 27;  ///< field ID of the first sub-field

std::uint32_t typeOf(int field) {
  const auto f = static_cast<std::size_t>(field);
  return field < kSub ? kAllTypes[f].type : kAllTypes[kRows].rows[f - kSub].type;
}

}  // namespace

class IndexRules : public SchemaTest {
 protected:
  /// Makes a table of kAllTypes with one index and hands the index's derived members out.
  CZELTA::Schema::Index index(const IndexSpec& spec, std::uint32_t flags = 0,
                              const Change& change = {}) {
    SchemaRecords records(kAllTypes, {spec}, flags);
    records.schema.indexes[0].indexFlags = 0xFF;
    if (change) change(records.schema);
    made(records.schema);
    modes.clear();
    for (std::uint16_t k = 0; k < records.schema.indexes[0].segmentCount; ++k) {
      modes.push_back(records.schema.indexes[0].segments[k].segmentMode);
    }
    return records.schema.indexes[0];
  }
  void expectKey(const IndexSpec& spec, std::uint32_t words, std::uint8_t flags,
                 std::uint32_t schemaFlags = 0) {
    const CZELTA::Schema::Index derived = index(spec, schemaFlags);
    EXPECT_EQ(derived.keyWords, words);
    EXPECT_EQ(derived.indexFlags, flags);
  }
  std::vector<std::uint32_t> modes;  ///< of the last index
};

TEST_F(IndexRules, UnknownKindsAreRefused) {
  const std::string text =
      " in table \"T\",\nas it is an invalid unknown type of index for this operation.";
  for (const std::uint8_t kind : std::initializer_list<std::uint8_t>{6, 7, 128, 255}) {
    expectCase({"first", {{17}}, {{{{0, 0}}, kind}}, 19, "Unable to use index 1" + text});
    expectCase(
        {"second", {{17}}, {{{{0, 0}}}, {{{0, 0}}, kind}}, 19, "Unable to use index 2" + text});
  }
  expectCase({"before its segments", {{17}}, {{{{-9, 9}}, 6}}, 19, "Unable to use index 1" + text});
}

// -- B+Tree ---------------------------------------------------------------------------------------

TEST_F(IndexRules, TreesRefuseWhatTheyCannotSort) {
  expectCases({
      {"field below -2", {{17}}, {{{{-3, 0}}}}, 14, namedField(0, 1)},
      {"lowest field", {{17}}, {{{{0, 0}, {INT32_MIN, 0}}}}, 14, namedField(1, 1)},
      {"field before mode", {{17}}, {{{{-3, 2}}}}, 14, namedField(0, 1)},
      {"a mode on the ID", {{17}}, {{{{-1, 2}}}}, 16, modeText(0, 1)},
      {"a mode on the ID with descending", {{17}}, {{{{-1, 3}}}}, 16, modeText(0, 1)},
      {"a mode on the entry number", {{17}}, {{{{0, 0}, {-2, 4}}}}, 16, modeText(1, 1)},
      {"no sub-fields", {{17}}, {{{{1, 0}}}}, 14, place(0, 1)},
      {"behind the sub-fields", {rows({{17}}), rows({{17}, {3}})}, {{{{5, 0}}}}, 14, place(0, 1)},
      {"highest field", {{17}}, {{{{INT32_MAX, 0}}}}, 14, place(0, 1)},
      {"second index", {{17}}, {{{{0, 0}}}, {{{0, 0}, {1, 0}}}}, 14, place(1, 2)},
      {"type before mode", {{39}}, {{{{0, 0x10}}}}, 15, typeText(0, 1)},
      {"upper and lower case", {{2}}, {{{{0, 12}}}}, 16, modeText(0, 1)},
      {"words", {{2}}, {{{{0, 0x10}}}}, 16, modeText(0, 1)},
      {"unknown mode", {{4}}, {{{{0, 0x200}}}}, 16, modeText(0, 1)},
      {"highest mode", {{4}}, {{{{0, 0x80000000}}}}, 16, modeText(0, 1)},
      {"all upper modes", {{2}}, {{{{0, 0x1EF & ~8u}}}}, 0, ""},
      {"all lower modes", {{4}}, {{{{0, 0x1EF & ~4u}}}}, 0, ""},
      {"the first broken segment", {{39}}, {{{{0, 0}, {-5, 0}}}}, 15, typeText(0, 1)},
      {"the first broken index", {{39}}, {{{{-5, 0}}}, {{{0, 0}}}}, 14, namedField(0, 1)},
      {"fields before indexes", {{1}}, {{{{-5, 0}}}}, 12, ""},
  });
  for (int field = 0; field < kSub + 12; ++field) {
    SCOPED_TRACE("type " + std::to_string(typeOf(field)) + " as field " + std::to_string(field));
    const std::uint32_t type = typeOf(field);
    const bool refused = type == 6 || type == 8 || type == 10 || type == 39 || type == 41;
    if (refused) {
      expectCase({"type", kAllTypes, {{{{field, 0}}}}, 15, typeText(0, 1)});
      expectCase({"later", kAllTypes, {{{}}, {{{0, 0}, {field, 0}}}}, 15, typeText(1, 2)});
      continue;
    }
    expectCase({"plain", kAllTypes, {{{{field, 0}}}}, 0, ""});
    expectCase({"descending", kAllTypes, {{{{field, 1}}}}, 0, ""});
    for (std::uint32_t bit = 2; bit != 0; bit <<= 1) {
      const bool text = type % 2 == 0 && (bit & 0x1EF) != 0;
      expectCase(
          {"mode", kAllTypes, {{{{field, bit}}}}, text ? 0u : 16u, text ? "" : modeText(0, 1)});
    }
  }
}

TEST_F(IndexRules, EntryNumbersBelongToRows) {
  const Fields plain = {{17}, {2}};
  const Fields withRows = {{17}, rows({{17}})};
  expectCases({
      {"at the first place it passes", plain, {{{{-2, 0}}}}, 0, ""},
      {"at the first place before a field", plain, {{{{-2, 0}, {0, 0}}}}, 0, ""},
      {"at the second place", plain, {{{{0, 0}, {-2, 0}}}}, 14, namedField(1, 1)},
      {"the last of several counts", plain, {{{{-2, 0}, {0, 0}, {-2, 0}}}}, 14, namedField(2, 1)},
      {"the last of two behind", plain, {{{{0, 0}, {-2, 0}, {-2, 1}}}}, 14, namedField(2, 1)},
      {"tested behind all segments", plain, {{{{0, 0}, {-2, 0}, {-5, 0}}}}, 14, namedField(2, 1)},
      {"mode first", plain, {{{{0, 0}, {-2, 2}}}}, 16, modeText(1, 1)},
      {"with a row before", withRows, {{{{2, 0}, {-2, 0}}}}, 0, ""},
      {"with a row behind", withRows, {{{{0, 0}, {-2, 0}, {2, 0}}}}, 0, ""},
  });
}

TEST_F(IndexRules, KeysOfTreesHaveTheirLength) {
  const std::uint8_t variable = CZELTA::IndexVariableKey;
  const std::uint8_t entries = CZELTA::IndexMultiEntry;
  expectKey({{}}, 0, 0);
  expectKey({{{0, 0}}}, 1, 0);                  // one byte is a word
  expectKey({{{9, 0}}}, 2, 0);                  // 8 bytes
  expectKey({{{0, 0}, {7, 1}, {2, 0}}}, 2, 0);  // 1 + 4 + 2
  expectKey({{{17, 0}}}, 2, 0);                 // an array of 5
  expectKey({{{-1, 0}}}, 1, 0);                 // a narrow ID
  expectKey({{{-1, 1}}}, 2, 0, 1);              // a wide one
  expectKey({{{-2, 0}}}, 1, 0);                 // entry numbers are narrow always
  expectKey({{{-2, 0}}}, 1, 0, 1);
  expectKey({{{20, 0}}}, 4, variable);          // 10 and the length
  expectKey({{{20, 0}, {0, 0}}}, 4, variable);  // 11 and the length
  expectKey({{{20, 0}, {7, 0}}}, 5, variable);  // 14 and the length
  expectKey({{{kSub, 0}}}, 1, entries);
  expectKey({{{kSub + 6, 4}}}, 4, variable | entries);
  expectKey({{{7, 0}, {kSub, 0}, {-2, 0}}}, 3, entries);
  expectKey({{{24, 0}}}, (0xFFFFFFFCu + 4 + 3) / 4, variable);  // points without a size wrap
  for (int field = 0; field < kFixedCount - 2; ++field) {
    SCOPED_TRACE(field);
    SchemaRecords records(kAllTypes, {{{{field, 0}}}}, 0);
    made(records.schema);
    EXPECT_EQ(records.schema.indexes[0].keyWords, (records.schema.fields[field].fieldSize + 3) / 4);
  }
}

TEST_F(IndexRules, KeysBeyondFourGigabytesAreRefused) {
  const std::uint32_t half = 0x80000000;
  const Fields large = {{37, half}, {9}};
  const Fields declared = {{2, 0xFFFFFFFF}, {2, 100}};
  expectCases({
      {"one half", large, {{{{0, 0}}}}, 0, ""},
      {"two halves", large, {{{{0, 0}, {0, 1}}}}, 15, typeText(1, 1)},
      {"a mode before the length", large, {{{{0, 0}, {0, 2}}}}, 16, modeText(1, 1)},
      {"a declared size limits nothing", declared, {{{{0, 0}, {1, 0}, {0, 0}}}}, 0, ""},
  });
  SchemaRecords records(declared, {{{{0, 0}, {1, 0}}}}, 0);
  made(records.schema);
  EXPECT_EQ(records.schema.indexes[0].keyWords, (99u + 4 + 3) / 4) << "an upper limit that wraps";
}

TEST_F(IndexRules, SubFieldsCountOnBehindTheFields) {
  const Fields fields = {{37, 8}, rows({{3}, {15}}), {2}, rows({{21}, {17}, {37, 40}})};
  const struct {
    std::int32_t field;
    std::uint32_t bytes;
  } cases[] = {{4, 1}, {5, 2}, {6, 8}, {7, 4}, {8, 40}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.field);
    SchemaRecords records(fields, {{{{one.field, 0}}}}, 0);
    records.schema.fields[0].subFieldCount = 100;  // an array's count is nobody's number
    made(records.schema);
    EXPECT_EQ(records.schema.indexes[0].keyWords, (one.bytes + 3) / 4);
    EXPECT_EQ(records.schema.indexes[0].indexFlags, CZELTA::IndexMultiEntry);
  }
  expectCase({"behind them", fields, {{{{9, 0}}}}, 14, place(0, 1)});
}

// -- Spatial trees and patterns -------------------------------------------------------------------

TEST_F(IndexRules, SpatialTreesTakeOneBox) {
  expectCases({
      {"no segment", {{39}}, {{{}, kSpatial}}, 17, countText(1)},
      {"two segments", {{39}}, {{{}}, {{{0, 0}, {0, 0}}, kSpatial}}, 17, countText(2)},
      {"count before field", {{39}}, {{{{-1, 0}, {-1, 0}}, kSpatial}}, 17, countText(1)},
      {"the ID", {{39}}, {{{{-1, 0}}, kSpatial}}, 14, unnamedField(0, 1)},
      {"the entry number", {{39}}, {{{}}, {{{-2, 0}}, kSpatial}}, 14, unnamedField(0, 2)},
      {"lowest", {{39}}, {{{{INT32_MIN, 0}}, kSpatial}}, 14, unnamedField(0, 1)},
      {"unresolved", {{39}}, {{{{1, 0}}, kSpatial}}, 14, place(0, 1)},
      {"a sub-field is named by its place",
       {{3}, {2}, rows({{39}, {17}})},
       {{{{4, 0}}, kSpatial}},
       15,
       typeText(2, 2)},
  });
  for (int field = 0; field < kSub + 12; ++field) {
    const bool good = typeOf(field) == 39 || typeOf(field) == 41;
    SCOPED_TRACE(field);
    const std::string text = field < kSub ? typeText(0, 1) : typeText(kRows, field - kSub + 1);
    expectCase({"type", kAllTypes, {{{{field, 0}}, kSpatial}}, good ? 0u : 15u, good ? "" : text});
  }
  expectKey({{{18, 0x1234}}, kSpatial}, 4, 0);
  EXPECT_EQ(modes, std::vector<std::uint32_t>{0}) << "the mode is cleared";
  expectKey({{{19, 0}}, kSpatial}, 6, 0);
  expectKey({{{kSub + 4, 0}}, kSpatial}, 4, CZELTA::IndexMultiEntry);
  expectKey({{{kSub + 5, 0xFFFFFFFF}}, kSpatial}, 6, CZELTA::IndexMultiEntry);
  EXPECT_EQ(modes, std::vector<std::uint32_t>{0});
}

TEST_F(IndexRules, PatternsTakeOneSetOfPoints) {
  expectCases({
      {"no segment", {{12}}, {{{}, kPattern}}, 17, countText(1)},
      {"two segments", {{12}}, {{{{-1, 0}, {0, 0}}, kPattern}}, 17, countText(1)},
      {"the ID", {{12}}, {{{{-1, 0}}, kPattern}}, 14, place(0, 1)},
      {"unresolved", {{12}}, {{{{1, 0}}, kPattern}}, 14, place(0, 1)},
  });
  for (int field = 0; field < kSub + 12; ++field) {
    const bool good = typeOf(field) == 12 || typeOf(field) == 14;
    SCOPED_TRACE(field);
    expectCase({"type", kAllTypes, {{{{field, 0}}, kPattern}}, good ? 0u : 15u, ""});
  }
  const std::uint8_t list = CZELTA::IndexListKind;
  expectKey({{{24, 7}}, kPattern}, 2, list);
  EXPECT_EQ(modes, std::vector<std::uint32_t>{0});
  expectKey({{{25, 0}}, kPattern}, 3, list);
  expectKey({{{kSub + 10, 0}}, kPattern}, 3, list | CZELTA::IndexMultiEntry);
  expectKey({{{kSub + 11, 0}}, kPattern}, 4, list | CZELTA::IndexMultiEntry);
}

// -- Temporal trees -------------------------------------------------------------------------------

TEST_F(IndexRules, TemporalTreesTakeTwoTimesOfOneType) {
  const Fields fields = {{31}, {33}, {17}, rows({{31}, {33}, {17}})};
  const std::string mixed =
      "Unable to use table schema as it contains an invalid multi-entry segment.\n" + place(0, 1);
  expectCases({
      {"no segment", fields, {{{}, kTemporal}}, 17, countText(1)},
      {"one segment", fields, {{{{0, 0}}, kTemporal}}, 17, countText(1)},
      {"three segments", fields, {{{{0, 0}, {0, 0}, {0, 0}}, kTemporal}}, 17, countText(1)},
      {"count before field", fields, {{{{-1, 0}}, kTemporal}}, 17, countText(1)},
      {"first negative", fields, {{{{-1, 0}, {0, 0}}, kTemporal}}, 14, ""},
      {"second negative", fields, {{{{0, 0}, {-2, 0}}, kTemporal}}, 14, ""},
      {"negative before plain and sub", fields, {{{{-1, 0}, {4, 0}}, kTemporal}}, 14, ""},
      {"plain and sub", fields, {{{{0, 0}, {4, 0}}, kTemporal}}, 61, mixed},
      {"sub and plain", fields, {{{{4, 0}, {0, 0}}, kTemporal}}, 61, mixed},
      {"plain and sub before types", fields, {{{{2, 0}, {4, 0}}, kTemporal}}, 61, mixed},
      {"plain and sub before resolving", fields, {{{{0, 0}, {7, 0}}, kTemporal}}, 61, mixed},
      {"first unresolved", fields, {{{{7, 0}, {4, 0}}, kTemporal}}, 14, ""},
      {"second unresolved", fields, {{{{4, 0}, {7, 0}}, kTemporal}}, 14, ""},
      {"two types", fields, {{{{0, 0}, {1, 0}}, kTemporal}}, 15, ""},
      {"two types the other way", fields, {{{{1, 0}, {0, 0}}, kTemporal}}, 15, ""},
      {"no times", fields, {{{{2, 0}, {2, 0}}, kTemporal}}, 15, ""},
      {"two types in rows", fields, {{{{4, 0}, {5, 0}}, kTemporal}}, 15, ""},
      {"no times in rows", fields, {{{{6, 0}, {6, 0}}, kTemporal}}, 15, ""},
  });
  expectKey({{{13, 9}, {13, 9}}, kTemporal}, 2, 0);
  EXPECT_EQ(modes, (std::vector<std::uint32_t>{0, 9})) << "the second mode is left alone";
  expectKey({{{14, 0}, {14, 0}}, kTemporal}, 4, 0);
  expectKey({{{kSub + 1, 0}, {kSub + 1, 0}}, kTemporal}, 2, CZELTA::IndexMultiEntry);
  expectKey({{{kSub + 2, 0}, {kSub + 2, 0}}, kTemporal}, 4, CZELTA::IndexMultiEntry);
}

// -- Lists ----------------------------------------------------------------------------------------

TEST_F(IndexRules, ListsRefuseWhatIsNotPrefixOrWords) {
  const Fields fields = {{17}, {37, 9}, {2}, rows({{17}, {2}})};
  for (const std::uint8_t kind : {kAscii, kWide}) {
    SCOPED_TRACE(kind);
    expectCases({
        {"power 50", fields, {{{{2, 0x10}}, kind}}, 0, "", power(50)},
        {"power 51",
         fields,
         {{{{2, 0x10}}, kind}},
         20,
         "Unable to use table schema as it contains an\ninvalid maximum object count pow(2,51) in "
         "index 1.",
         power(51)},
        {"power before segments",
         fields,
         {{{{-9, 0x10}}, kind}},
         20,
         "pow(2,65535) in index 1.",
         power(65535)},
        {"mode before field", fields, {{{{-1, 1}}, kind}}, 16, modeText(0, 1)},
        {"the ID", fields, {{{{-1, 0}}, kind}}, 14, unnamedField(0, 1)},
        {"a later one is said to be the first",
         fields,
         {{{}}, {{{0, 0}, {-2, 0}}, kind}},
         14,
         unnamedField(0, 2)},
        {"a row without words", fields, {{{{5, 0}}, kind}}, 16, modeText(0, 1)},
        {"words before resolving", fields, {{{{9, 0}}, kind}}, 16, modeText(0, 1)},
        {"unresolved", fields, {{{{2, 0x10}, {6, 0x10}}, kind}}, 14, place(1, 1)},
        {"a number in a row", fields, {{{{4, 0x10}}, kind}}, 15, typeText(0, 1)},
        {"words of a number", fields, {{{{0, 0x10}}, kind}}, 15, typeText(0, 1)},
        {"prefix behind words", fields, {{{{2, 0x10}, {0, 0}}, kind}}, 16, modeText(1, 1)},
        {"prefix behind words of rows", fields, {{{{5, 0x10}, {0, 0}}, kind}}, 16, modeText(1, 1)},
        {"place before type", fields, {{{{2, 0x10}, {2, 0}}, kind}}, 16, modeText(1, 1)},
        {"a text as prefix", fields, {{{{2, 0}}, kind}}, 15, typeText(0, 1)},
        {"both cases pass", fields, {{{{2, 0x1C}}, kind}}, 0, ""},
        {"no segments", fields, {{{}, kind}}, 0, ""},
        {"prefix alone", fields, {{{{0, 0}}, kind}}, 0, ""},
        {"modes on a prefix", fields, {{{{0, 0x4C}, {1, 0x5C}}, kind}}, 0, ""},
    });
    for (std::uint32_t bit = 1; bit != 0; bit <<= 1) {
      const bool good = (bit & 0x5C) != 0;
      expectCase({"mode",
                  fields,
                  {{{{2, bit | 0x10}}, kind}},
                  good ? 0u : 16u,
                  good ? "" : modeText(0, 1)});
    }
    for (int field = 0; field < kSub + 12; ++field) {
      SCOPED_TRACE(field);
      const std::uint32_t type = typeOf(field);
      const bool text = type == 2 || type == 4 || type == 6 || type == 8 || type == 37;
      const bool words = field < kSub ? type % 2 == 0 || type == 37 : text;
      expectCase({"words",
                  kAllTypes,
                  {{{{field, 0x10}}, kind}},
                  words ? 0u : 15u,
                  words ? "" : typeText(0, 1)});
      if (field >= kSub) continue;
      expectCase({"prefix",
                  kAllTypes,
                  {{{{field, 0}}, kind}},
                  type % 2 == 1 ? 0u : 15u,
                  type % 2 == 1 ? "" : typeText(0, 1)});
    }
  }
}

TEST_F(IndexRules, PrefixesOfListsHaveTheirLength) {
  for (const std::uint8_t kind : {kAscii, kWide}) {
    const CZELTA::Schema::Index derived =
        index({{{7, 0}, {9, 0}, {0, 0}, {17, 0x10}, {20, 0x10}}, kind}, 0, power(17));
    EXPECT_EQ(derived.listPrefixBytes, 13u);
    EXPECT_EQ(derived.maximumObjectPower, 17u) << "the caller's number stays";
    EXPECT_EQ(derived.indexFlags, CZELTA::IndexListKind);
    EXPECT_EQ(index({{{kSub + 6, 0x10}}, kind}).indexFlags,
              CZELTA::IndexListKind | CZELTA::IndexMultiEntry);
  }
  SchemaRecords records({{37, 65530}, {37, 5}, {9}, {2}}, {{{{0, 0}, {1, 0}, {3, 0x10}}, kAscii}},
                        0);
  made(records.schema);
  EXPECT_EQ(records.schema.indexes[0].listPrefixBytes, 65535u);
  expectCases({
      {"one byte more",
       {{37, 65530}, {37, 5}, {9}},
       {{{{0, 0}, {1, 0}, {2, 0}}, kAscii}},
       15,
       typeText(2, 1)},
      {"at once", {{37, 65536}}, {{{{0, 0}}, kWide}}, 15, typeText(0, 1)},
      {"at once, far", {{37, 0x80000000}}, {{{{0, 0}, {0, 0}}, kWide}}, 15, typeText(0, 1)},
  });
}

// -- The index that orders locks ------------------------------------------------------------------

TEST_F(IndexRules, LocksAreOrderedByATreeOfOneEntry) {
  const Fields fields = {{17}, {39}, {31}, {2}, rows({{17}})};
  const Indexes indexes = {{{{0, 0}}},
                           {{{1, 0}}, kSpatial},
                           {{{5, 0}}},
                           {{{3, 0x10}}, kAscii},
                           {{{2, 0}, {2, 0}}, kTemporal},
                           {{{3, 0}}}};
  const auto order = [](std::uint16_t number) {
    return [number](CZELTA::Schema& s) { s.lockIndex = number; };
  };
  using Numbers = std::initializer_list<std::uint16_t>;
  for (const std::uint16_t good : Numbers{0, 1, 6, 7, 8, 65535}) {
    expectCase({"good", fields, indexes, 0, "", order(good)});
  }
  for (const std::uint16_t bad : Numbers{2, 3, 4, 5}) {
    expectCase({"bad", fields, indexes, 26, lockText(bad), order(bad)});
  }
  expectCases({
      {"without indexes", fields, {}, 0, "", order(1)},
      {"indexes first",
       fields,
       {{{{1, 0}}, kSpatial}, {{{-9, 0}}}},
       14,
       namedField(0, 2),
       order(1)},
  });
}

}  // namespace zelta::testing

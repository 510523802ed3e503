// The proof that an object is well formed: each way of being malformed, and a second parser.

#include <gtest/gtest.h>

#include <optional>
#include <random>

#include "objects/put_values.h"
#include "objects/validate_object.h"
#include "support/buffer_table.h"

namespace zelta {
namespace {

using testing::BufferTable;
using testing::Fields;
using testing::ownWord;
using testing::Packed;

Result check(BufferTable& t, const std::string& object) {
  // An allocation of just this size, so that a sanitizer sees a read behind it.
  const std::vector<char> exact(object.begin(), object.end());
  return validateObject(t.table, exact.data(), static_cast<std::uint32_t>(exact.size()));
}

TEST(ValidateObject, PassesAFixedTableAtOnce) {
  BufferTable t(Fields{{CZELTA::TypeUInt32}});
  EXPECT_TRUE(check(t, t.header(1).number(1u)).ok());
  EXPECT_TRUE(check(t, t.header(1).number(1u).raw("more")).ok());
}

TEST(ValidateObject, CountsTrailingBytes) {
  BufferTable t(Fields{{CZELTA::TypeText}});
  EXPECT_TRUE(check(t, t.header(9).text("a")).ok());
  EXPECT_EQ(check(t, t.header(9).text("a").raw("xyz")).word(), ownWord(Own::objectTooLong));
  EXPECT_EQ(t.error(),
            "Within table \"T\",\nObject buffer is longer then processed length.\nObjectID 9 is 3 "
            "bytes too long.");
}

TEST(ValidateObject, WantsTheEndOfATextInTheObject) {
  BufferTable t(Fields{{CZELTA::TypeText}});
  EXPECT_EQ(check(t, t.header(9).raw("abc")).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0\" is invalid.\nObjectID 9 is "
            "incorrect");
  BufferTable wide(Fields{{CZELTA::TypeWideText}});
  EXPECT_TRUE(check(wide, wide.header(9).wide(u"a")).ok());
  EXPECT_EQ(check(wide, wide.header(9).raw("abc")).word(), ownWord(Own::variableField));
  EXPECT_EQ(check(wide, wide.header(9).raw("a").zeros(2)).word(), ownWord(Own::variableField));
  EXPECT_EQ(check(wide, wide.header(9).zeros(3)).word(), ownWord(Own::objectTooLong));
}

TEST(ValidateObject, NamesTheFirstFieldThatIsMissing) {
  BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeBinary}});
  EXPECT_EQ(check(t, t.header(9).text("a")).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f1\" is invalid.\nObjectID 9 is "
            "incorrect");
}

TEST(ValidateObject, NamesTheFieldThatALengthBeyondTheEndLeavesNoRoomFor) {
  BufferTable t(Fields{{CZELTA::TypeInt32}, {CZELTA::TypeBinary}, {CZELTA::TypeText}});
  EXPECT_EQ(check(t, t.header(9).number(1).number(100u).zeros(1)).word(),
            ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f2\" is invalid.\nObjectID 9 is "
            "4294967201 bytes too long");
  BufferTable small(Fields{{CZELTA::TypeShortBinary}, {CZELTA::TypeText}, {CZELTA::TypeText}});
  EXPECT_EQ(check(small, small.header(9).number(std::uint16_t{100}).zeros(2)).word(),
            ownWord(Own::variableField));
  EXPECT_EQ(small.error(),
            "Within table \"T\", the format of variable field \"f1\" is invalid.\nObjectID 9 is "
            "4294967200 bytes too long");
  for (const std::uint32_t type : {CZELTA::TypePoints2, CZELTA::TypePoints3}) {
    BufferTable points(Fields{{type}, {CZELTA::TypeText}});
    EXPECT_EQ(check(points, points.header(9).number(100u).zeros(1)).word(),
              ownWord(Own::variableField));
    EXPECT_EQ(points.error(),
              "Within table \"T\", the format of variable field \"f1\" is invalid.\nObjectID 9 is "
              "4294967201 bytes too long");
  }
  // Not even the length is whole: it takes as much as the least value.
  EXPECT_EQ(check(t, t.header(9).number(1).zeros(3)).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f2\" is invalid.\nObjectID 9 is "
            "4294967295 bytes too long");
}

TEST(ValidateObject, SaysWhatTheLastFieldLacks) {
  BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeBinary}});
  EXPECT_EQ(check(t, t.header(9).text("a").number(100u).zeros(1)).word(),
            ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f1\" is invalid.\nObjectID 9 is "
            "95 bytes too short");
}

TEST(ValidateObject, NamesTheSubFieldThatALengthBeyondTheEndLeavesOut) {
  BufferTable t(Fields{{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt16}, {CZELTA::TypeText}}},
                       {CZELTA::TypeText}});
  const std::string row = Packed().number(std::uint16_t{1}).text("ab");
  // The rows end with the object, the field does not: another row is missing.
  EXPECT_EQ(check(t, t.header(9).number(100u).raw(row)).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0.s0\" is invalid.\nObjectID 9 is "
            "incorrect");
  EXPECT_EQ(check(t, t.header(9).number(100u).raw(row + "xyz")).word(),
            ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0.s1\" is invalid.\nObjectID 9 is "
            "1 bytes too long");
  EXPECT_EQ(check(t, t.header(9).raw("abc")).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f1\" is invalid.\nObjectID 9 is "
            "4294967295 bytes too long");
}

TEST(ValidateObject, RefusesALengthBeyondTheEnd) {
  for (const std::uint32_t type :
       {CZELTA::TypeBinary, CZELTA::TypePoints2, CZELTA::TypePoints3, CZELTA::TypeSubRecords}) {
    BufferTable t(type == CZELTA::TypeSubRecords ? Fields{{type, 0, {{CZELTA::TypeText}}}}
                                                 : Fields{{type}});
    for (const std::uint32_t length : {28u, 0x7FFFFFFCu, 2147483668u, 0xFFFFFFF4u}) {
      EXPECT_EQ(check(t, t.header(9).number(length).raw("ab")).word(), ownWord(Own::variableField))
          << type << " " << length;
    }
    EXPECT_EQ(check(t, t.header(9).raw("abc")).word(), ownWord(Own::variableField)) << type;
    EXPECT_TRUE(check(t, t.header(9).number(0u)).ok());
    EXPECT_TRUE(check(t, t.header(9).number(4u)).ok());
  }
  BufferTable t(Fields{{CZELTA::TypeShortBinary}});
  EXPECT_EQ(check(t, t.header(9).number(std::uint16_t{5}).raw("ab")).word(),
            ownWord(Own::variableField));
  EXPECT_EQ(check(t, t.header(9).raw("a")).word(), ownWord(Own::variableField));
}

TEST(ValidateObject, TakesSmallLengthsOfBinariesAsEmpty) {
  BufferTable t(Fields{{CZELTA::TypeBinary}, {CZELTA::TypeShortBinary}});
  for (std::uint32_t length = 0; length <= 4; ++length) {
    for (std::uint16_t shortLength = 0; shortLength <= 2; ++shortLength) {
      EXPECT_TRUE(check(t, t.header(9).number(length).number(shortLength)).ok());
    }
  }
}

TEST(ValidateObject, WantsWholePoints) {
  for (const bool three : {false, true}) {
    BufferTable t(Fields{{three ? CZELTA::TypePoints3 : CZELTA::TypePoints2}});
    const std::uint32_t point = three ? 12 : 8;
    for (std::uint32_t length = 0; length <= 52; ++length) {
      const std::string object = t.header(9).number(length).zeros(length < 4 ? 0 : length - 4);
      const bool good = length == 0 || (length >= 4 && (length - 4) % point == 0);
      EXPECT_EQ(check(t, object).word(), good ? 0 : ownWord(Own::fieldOffset)) << length;
    }
    EXPECT_EQ(check(t, t.header(9).number(5u).zeros(1)).word(), ownWord(Own::fieldOffset));
    EXPECT_EQ(t.error(),
              "Within table \"T\", the format of variable field \"f0\" of ObjectID 9 is "
              "invalid.\nField has an invalid offset");
    EXPECT_EQ(check(t, t.header(9).number(0xFFFFFFFFu)).word(), ownWord(Own::fieldOffset));
  }
}

TEST(ValidateObject, NamesAnUnknownType) {
  BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeText}});
  t.table.schema->fields[1].fieldType = 100;
  EXPECT_EQ(check(t, t.header(9).text("").text("")).word(), ownWord(Own::fieldType));
  EXPECT_EQ(t.error(),
            "Unable to use table schema as it contains an invalid field.\nTable \"T\", Field "
            "\"f1.f0\" has type 100.");
  t.table.schema->fields[0].fieldType = 102;
  EXPECT_EQ(check(t, t.header(9).text("").text("")).word(), ownWord(Own::fieldType));
  EXPECT_EQ(t.error(),
            "Unable to use table schema as it contains an invalid field.\nTable \"T\", Field "
            "\"f0\" has type 102.");
}

TEST(ValidateObject, RefusesWhatCouldNotBeFramed) {
  BufferTable t(Fields{{CZELTA::TypeText}});
  const std::string object = t.header(9).text("");
  EXPECT_EQ(validateObject(t.table, object.data(), 0xFFFFFFE1u).word(),
            Result::system(code::kNoMemory).word());
}

// -- Rows -----------------------------------------------------------------------------------------

const Fields kRows = {
    {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt16}, {CZELTA::TypeText}, {CZELTA::TypePoints2}}}};

std::string goodRow() { return Packed().number(std::uint16_t{1}).text("ab").number(0u); }

TEST(ValidateObject, PassesRowsThatEndWithTheirField) {
  BufferTable t(kRows);
  EXPECT_TRUE(check(t, t.header(9).binary(goodRow())).ok());
  EXPECT_TRUE(check(t, t.header(9).binary(goodRow() + goodRow() + goodRow())).ok());
  const std::string points = Packed().number(std::uint16_t{1}).text("").number(12u).zeros(8);
  EXPECT_TRUE(check(t, t.header(9).binary(points + goodRow())).ok()) << t.error();
}

TEST(ValidateObject, WantsAllSubFieldsOfARow) {
  BufferTable t(kRows);
  const std::string row = goodRow();
  for (std::size_t cut = 1; cut < row.size(); ++cut) {
    EXPECT_EQ(check(t, t.header(9).binary(row + row.substr(0, cut))).word(),
              ownWord(Own::variableField))
        << cut;
  }
  EXPECT_EQ(check(t, t.header(9).binary(row.substr(0, 5))).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0.s2\" is invalid.\nObjectID 9 is "
            "incorrect");
  EXPECT_EQ(check(t, t.header(9).binary(row.substr(0, 8))).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0.s2\" is invalid.\nObjectID 9 is "
            "3 bytes too long");
  EXPECT_EQ(check(t, t.header(9).binary(row + "x")).word(), ownWord(Own::variableField));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0.s0\" is invalid.\nObjectID 9 is "
            "1 bytes too long");
}

TEST(ValidateObject, WantsWholePointsInRows) {
  BufferTable t(kRows);
  const std::string row = Packed().number(std::uint16_t{1}).text("").number(6u).zeros(2);
  EXPECT_EQ(check(t, t.header(9).binary(row)).word(), ownWord(Own::fieldOffset));
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f0.s2\" of ObjectID 9 is "
            "invalid.\nField has an invalid offset");
}

// -- A second parser ------------------------------------------------------------------------------

const Fields kEverything = {
    {CZELTA::TypeUInt8},
    {CZELTA::TypeText},
    {CZELTA::TypeShortBinary},
    {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt8}, {CZELTA::TypeText}, {CZELTA::TypeBinary}}},
    {CZELTA::TypeWideText},
    {CZELTA::TypePoints3},
    {CZELTA::TypeBinary}};

/// What is behind a value, or nothing if it is malformed.
std::optional<std::string> behind(std::uint32_t type, const std::string& bytes) {
  const auto prefixed = [&](std::size_t width) -> std::optional<std::string> {
    if (bytes.size() < width) return {};
    std::uint64_t length = 0;
    std::memcpy(&length, bytes.data(), width);
    if (type == CZELTA::TypePoints3 && length != 0 && (length < 4 || (length - 4) % 12 != 0)) {
      return {};
    }
    length = std::max<std::uint64_t>(length, width);
    if (length > bytes.size()) return {};
    return bytes.substr(length);
  };
  if (type == CZELTA::TypeUInt8) {
    return bytes.empty() ? std::optional<std::string>() : bytes.substr(1);
  }
  if (type == CZELTA::TypeShortBinary) return prefixed(2);
  if (type != CZELTA::TypeText && type != CZELTA::TypeWideText) return prefixed(4);
  const std::size_t unit = type == CZELTA::TypeText ? 1 : 2;
  for (std::size_t i = 0; i + unit <= bytes.size(); i += unit) {
    if (bytes.substr(i, unit) == std::string(unit, '\0')) return bytes.substr(i + unit);
  }
  return {};
}

bool isSound(const std::string& object) {
  std::optional<std::string> rest = object.substr(7);
  for (std::size_t f = 1; f < kEverything.size(); ++f) {
    const std::string before = *rest;
    rest = behind(kEverything[f].type, *rest);
    if (!rest) return false;
    if (kEverything[f].type != CZELTA::TypeSubRecords) continue;
    std::optional<std::string> rows = before.substr(4, before.size() - rest->size() - 4);
    while (!rows->empty()) {
      for (const auto& sub : kEverything[f].rows) {
        rows = behind(sub.type, *rows);
        if (!rows) return false;
      }
    }
  }
  return rest->empty();
}

TEST(ValidateObject, AgreesWithASecondParserOnDamagedObjects) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](std::size_t bound) { return random() % bound; };
  const auto letters = [&] { return std::string(below(6), 'x'); };
  BufferTable t(kEverything);
  int good = 0;
  int bad = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string rows;
    for (std::size_t r = below(4); r > 0; --r) {
      rows += Packed().number(std::uint8_t{7}).text(letters()).binary(letters()).str();
    }
    std::string object = t.header(1).number(std::uint8_t{1}).text(letters()).shortBinary(letters());
    object += Packed().binary(rows).wide(std::u16string(below(4), u'w'));
    object += Packed().binary(std::string(12 * below(3), 'p')).binary(letters()).str();
    for (std::size_t n = below(3); n > 0; --n) {
      const std::size_t at = 7 + below(object.size() - 7);
      switch (below(4)) {
        case 0:
          object.resize(at);
          break;
        case 1:
          object.insert(at, 1, static_cast<char>(below(3)));
          break;
        default:
          object[at] = static_cast<char>(below(3) == 0 ? random() : below(8));
      }
      if (object.size() <= 7) break;
    }
    const bool sound = isSound(object);
    ASSERT_EQ(check(t, object).ok(), sound) << ::testing::PrintToString(object) << t.error();
    ++(sound ? good : bad);
  }
  EXPECT_GT(good, 1000);
  EXPECT_GT(bad, 1000);
}

}  // namespace
}  // namespace zelta

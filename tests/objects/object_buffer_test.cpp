// The object buffer: preparing it, finding fields and rows, replacing variable fields.

#include "objects/object_buffer.h"
#include "objects/put_values.h"
#include "objects/validate_object.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "schema/object_view.h"
#include "support/buffer_table.h"

namespace zelta {
namespace {

using testing::BufferTable;
using testing::Fields;
using testing::Indexes;
using testing::ownWord;
using testing::Packed;
using testing::Segments;

constexpr std::uint32_t kAllBits = 0xFFFFFFFF;
const std::uint64_t kNoMemory = Result::system(code::kNoMemory).word();

const Fields kMixed = {{CZELTA::TypeUInt32},   {CZELTA::TypeText},   {CZELTA::TypeShortBinary},
                       {CZELTA::TypeWideText}, {CZELTA::TypeBinary}, {CZELTA::TypeText}};

std::uint32_t offsetOf(const BufferTable& t, const void* address) {
  return static_cast<std::uint32_t>(static_cast<const char*>(address) - t.table.objectData);
}

// -- NewObject ------------------------------------------------------------------------------------

TEST(NewObject, OfSizeZeroIsTheSmallestObjectWithAnEmptyText) {
  BufferTable t(Fields{{CZELTA::TypeUInt32}, {CZELTA::TypeText}});
  CZELTA::Object object{};
  ASSERT_TRUE(newObject(t.table, &object, 0).ok());
  EXPECT_EQ(t.table.objectLength, t.table.minimumObjectSize);
  EXPECT_EQ(t.object(), std::string(6 + 4 + 1, '\0'));
  EXPECT_EQ(object.version, 0);
  EXPECT_EQ(object.objectID, 0);
  EXPECT_EQ(object.length, 5u);
  EXPECT_EQ(offsetOf(t, object.data), 6u);
  EXPECT_EQ(offsetOf(t, object.variableData), 10u);
  EXPECT_STREQ(static_cast<char*>(object.variableData), "");
  EXPECT_EQ(t.table.objectData, t.table.objectBuffer.data() + 10);
  EXPECT_TRUE(validateObject(t.table, t.table.objectData, t.table.objectLength).ok());
}

TEST(NewObject, InAFixedTableIgnoresTheSize) {
  BufferTable t(Fields{{CZELTA::TypeUInt32}});
  CZELTA::Object object{};
  object.variableData = &object;
  ASSERT_TRUE(newObject(t.table, &object, kAllBits).ok());
  EXPECT_EQ(t.table.objectLength, 10u);
  EXPECT_EQ(t.table.objectBuffer.size(), 16u);
  EXPECT_EQ(t.table.objectData, t.table.objectBuffer.data() + 6);
  EXPECT_EQ(object.length, 4u);
  EXPECT_EQ(object.variableData, nullptr);
  const char* buffer = t.table.objectBuffer.data();
  std::memset(t.table.objectBuffer.data(), 'x', 16);
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  EXPECT_EQ(t.table.objectBuffer.data(), buffer);
  EXPECT_EQ(std::string(buffer, 16), std::string(16, '\0'));
}

TEST(NewObject, WithWideIDsHasAHeaderOfTenBytes) {
  BufferTable t(Fields{{CZELTA::TypeUInt8}, {CZELTA::TypeText}}, {}, CZELTA::SchemaWideObjectIds);
  CZELTA::Object object{};
  ASSERT_TRUE(newObject(t.table, &object, 3).ok());
  EXPECT_EQ(t.table.objectLength, 10u + 1 + 1 + 3);
  EXPECT_EQ(offsetOf(t, object.data), 10u);
}

TEST(NewObject, KeepsABufferAtMostTwiceTooLarge) {
  BufferTable t(Fields{{CZELTA::TypeText}});
  ASSERT_EQ(t.table.minimumObjectSize, 7u);
  ASSERT_TRUE(newObject(t.table, nullptr, 1000 - 17).ok());
  EXPECT_EQ(t.table.objectBuffer.size(), 1000u);
  std::memset(t.table.objectBuffer.data(), 'x', 1000);
  ASSERT_TRUE(newObject(t.table, nullptr, 500 - 17).ok());
  EXPECT_EQ(t.table.objectBuffer.size(), 1000u);
  EXPECT_EQ(std::string(t.table.objectBuffer.data(), 1000), std::string(1000, '\0'));
  ASSERT_TRUE(newObject(t.table, nullptr, 499 - 17).ok());
  EXPECT_EQ(t.table.objectBuffer.size(), 499u);
  ASSERT_TRUE(newObject(t.table, nullptr, 500 - 17).ok());
  EXPECT_EQ(t.table.objectBuffer.size(), 500u);
}

TEST(NewObject, BeyondTheLargestSizeLeavesTheBuffer) {
  BufferTable t(Fields{{CZELTA::TypeText}});
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  const char* data = t.table.objectData;
  EXPECT_EQ(newObject(t.table, nullptr, 4294967280u - 6).word(), kNoMemory);
  EXPECT_EQ(newObject(t.table, nullptr, kAllBits).word(), kNoMemory);
  EXPECT_EQ(t.table.objectData, data);
}

TEST(NewObject, DropsTheCurrentKeysButNotThoseOfCommit) {
  BufferTable t(Fields{{CZELTA::TypeUInt32}}, Indexes{{Segments{{0, 0}}}});
  IndexCursor& cursor = t.table.indexStates[0];
  cursor.currentKey = cursor.keyPool.takeFixed(1);
  ObjectKeyNode* node = t.table.nodePool.take();
  node->key = cursor.keyPool.takeFixed(1);
  insert(node, cursor.removedKeys, t.table.keyShape(0));
  t.table.currentObjectID = 9;
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  EXPECT_EQ(cursor.currentKey, nullptr);
  EXPECT_EQ(cursor.removedKeys, node);
  EXPECT_EQ(t.table.currentObjectID, 0u);
  t.table.releaseAllKeys();
}

// -- GetVariableField -----------------------------------------------------------------------------

TEST(GetVariableField, FindsEachField) {
  BufferTable t(kMixed);
  t.put(t.header(7, 3).number(1u).text("ab").shortBinary("xyz").wide(u"w").binary("").text("end"));
  const std::uint32_t expected[] = {10, 13, 18, 22, 26};
  for (std::uint32_t f = 0; f < 5; ++f) {
    void* value = nullptr;
    CZELTA::Object object{};
    ASSERT_TRUE(getVariableField(t.table, f, &value, &object).ok());
    EXPECT_EQ(offsetOf(t, value), expected[f]);
    EXPECT_EQ(object.version, 3);
    EXPECT_EQ(object.objectID, 7);
    EXPECT_EQ(object.length, 24u);
  }
}

TEST(GetVariableField, PastTheEndFillsTheRecordAlone) {
  BufferTable t(kMixed);
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  CZELTA::Object object{};
  EXPECT_TRUE(getVariableField(t.table, 5, nullptr, &object).ok());
  EXPECT_EQ(object.data, t.table.objectData + 6);
  EXPECT_TRUE(getVariableField(t.table, kAllBits, nullptr, &object).ok());
  void* value = nullptr;
  EXPECT_EQ(getVariableField(t.table, 5, &value, &object).word(), ownWord(Own::parameter));
  EXPECT_EQ(getVariableField(t.table, kAllBits, &value, nullptr).word(), ownWord(Own::parameter));
  EXPECT_EQ(getVariableField(t.table, 5, nullptr, nullptr).word(), ownWord(Own::parameter));
  EXPECT_TRUE(getVariableField(t.table, 4, nullptr, nullptr).ok());
}

TEST(GetVariableField, WithoutAnObjectIsError39) {
  BufferTable t(kMixed);
  void* value = nullptr;
  CZELTA::Object object{};
  EXPECT_EQ(getVariableField(t.table, 0, &value, nullptr).word(), ownWord(Own::noObject));
  EXPECT_EQ(t.error(), "The table handle does not currently contain a valid object.");
  EXPECT_EQ(getVariableField(t.table, 9, nullptr, &object).word(), ownWord(Own::noObject));
}

TEST(GetVariableField, InAFixedTableHasNoField) {
  BufferTable t(Fields{{CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}});
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  for (const std::uint32_t field : {0u, 1u, 2u, kAllBits}) {
    void* value = nullptr;
    EXPECT_EQ(getVariableField(t.table, field, &value, nullptr).word(), ownWord(Own::parameter));
  }
  CZELTA::Object object{};
  EXPECT_TRUE(getVariableField(t.table, 1, nullptr, &object).ok());
  EXPECT_EQ(object.variableData, nullptr);
}

TEST(FieldAddress, ABinaryOfLengthZeroAndOneOfLengthFourTakeFourBytes) {
  BufferTable t(Fields{{CZELTA::TypeBinary}, {CZELTA::TypeText}});
  for (const std::uint32_t length : {0u, 1u, 3u, 4u}) {
    t.put(t.header(1).number(length).text("x"));
    EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 10u) << length;
  }
  t.put(t.header(1).number(5u).raw("a").text("x"));
  EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 11u);
}

TEST(FieldAddress, AShortBinaryBelowTwoTakesTwoBytes) {
  BufferTable t(Fields{{CZELTA::TypeShortBinary}, {CZELTA::TypeText}});
  for (const std::uint16_t length : std::vector<std::uint16_t>{0, 1, 2}) {
    t.put(t.header(1).number(length).text("x"));
    EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 8u) << length;
  }
}

TEST(FieldAddress, BehindPointsIsNullWhateverTheObjectHolds) {
  for (const std::uint32_t points : {CZELTA::TypePoints2, CZELTA::TypePoints3}) {
    BufferTable t(Fields{{points}, {CZELTA::TypeText}});
    t.put(t.header(1).number(0u).text("x"));
    EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 0)), 6u);
    EXPECT_EQ(fieldAddress(t.table, 1), nullptr);
  }
}

TEST(FieldAddress, RightAtTheEndIsReturnedAndBehindItIsNull) {
  BufferTable t(
      Fields{{CZELTA::TypeText}, {CZELTA::TypeText}, {CZELTA::TypeBinary}, {CZELTA::TypeText}});
  t.put(t.header(1).text("ab"));
  EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 9u);
  EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 2)), 9u);  // no text: the end again
  EXPECT_EQ(fieldAddress(t.table, 3), nullptr);          // no length word
  t.put(t.header(1).raw("never ends"));
  EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 16u);
}

TEST(FieldAddress, AWideTextWithoutItsEndStopsAtTheEndUnlessAByteIsOdd) {
  BufferTable t(Fields{{CZELTA::TypeWideText}, {CZELTA::TypeText}});
  t.put(t.header(1).raw("abcd"));
  EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 10u);
  t.put(t.header(1).raw("abcde"));
  EXPECT_EQ(fieldAddress(t.table, 1), nullptr);
}

TEST(FieldAddress, LengthsThatLieLeadNowhere) {
  BufferTable t(Fields{{CZELTA::TypeBinary}, {CZELTA::TypeText}});
  for (const std::uint32_t length : {9u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF0u, kAllBits}) {
    t.put(t.header(1).number(length).raw("abcd"));
    EXPECT_EQ(fieldAddress(t.table, 1), nullptr) << length;
  }
  t.put(t.header(1).number(8u).raw("abcd"));
  EXPECT_EQ(offsetOf(t, fieldAddress(t.table, 1)), 14u);
}

// -- Rows -----------------------------------------------------------------------------------------

/// Rows of: one byte, padding, a 64-bit tag, a text, points.
const Fields kRows = {{CZELTA::TypeText},
                      {CZELTA::TypeSubRecords,
                       0,
                       {{CZELTA::TypeUInt8},
                        {CZELTA::TypeTag64},
                        {CZELTA::TypeText},
                        {CZELTA::TypePoints2},
                        {CZELTA::TypeText}}}};

std::uint32_t tagOffset(const BufferTable& t) {
  return t.table.schema->fields[1].subFields[1].fieldOffset;
}
std::string row(const BufferTable& t, std::uint8_t number, std::uint64_t tag,
                const std::string& first, const std::string& second) {
  Packed bytes;
  bytes.number(number).zeros(tagOffset(t) - 1).number(tag).text(first);
  return bytes.number(12u).number(1).number(2).text(second);
}

TEST(SubFieldAddress, FindsEverySubFieldOfEveryRow) {
  BufferTable t(kRows);
  EXPECT_GT(tagOffset(t), 1u);  // or the padding isn't tested
  const std::string first = row(t, 1, 100, "one", "x");
  const std::string second = row(t, 2, 200, "", "yy");
  t.put(t.header(1).text("t").binary(first + second));
  const std::uint32_t starts[] = {12, 12 + static_cast<std::uint32_t>(first.size())};
  const std::uint32_t textLength[] = {4, 1};
  for (std::uint32_t r = 0; r < 2; ++r) {
    const std::uint32_t expected[] = {0, tagOffset(t), tagOffset(t) + 8,
                                      tagOffset(t) + 8 + textLength[r],
                                      tagOffset(t) + 20 + textLength[r]};
    for (std::uint32_t s = 0; s < 5; ++s) {
      void* value = nullptr;
      ASSERT_TRUE(getVariableField(t.table, {1, s, r}, &value, nullptr).ok());
      ASSERT_NE(value, nullptr);
      EXPECT_EQ(offsetOf(t, value), starts[r] + expected[s]) << r << " " << s;
    }
  }
  for (const std::uint32_t r : {2u, 3u, kAllBits}) {
    EXPECT_EQ(subFieldAddress(t.table, {1, 0, r}), nullptr) << r;
  }
}

TEST(SubFieldAddress, OfAnEmptyFieldIsNull) {
  BufferTable t(kRows);
  for (std::uint32_t length = 0; length < 5; ++length) {
    t.put(t.header(1).text("").number(length));
    EXPECT_EQ(subFieldAddress(t.table, {1, 0, 0}), nullptr) << length;
  }
  t.put(t.header(1).text("").raw("abc"));
  EXPECT_EQ(subFieldAddress(t.table, {1, 0, 0}), nullptr);
}

TEST(SubFieldAddress, StaysInTheObjectWhateverTheFieldSays) {
  BufferTable t(kRows);
  const std::string first = row(t, 1, 100, "one", "x");
  for (const std::uint32_t length : {5u, 6u, 20u, 0x7FFFFFFFu, kAllBits}) {
    const std::string whole = t.header(1).text("").number(length).raw(first);
    for (std::size_t cut = 7; cut <= whole.size(); ++cut) {
      const std::vector<char> exact(whole.begin(), whole.begin() + static_cast<long>(cut));
      for (std::uint32_t s = 0; s < 5; ++s) {
        for (const std::uint32_t r : {0u, 1u, kAllBits}) {
          const char* at = subFieldAddress(
              t.table, {1, s, r}, {exact.data(), static_cast<std::uint32_t>(exact.size())});
          if (at != nullptr) {
            EXPECT_LT(at, exact.data() + exact.size());
          }
        }
      }
    }
  }
}

TEST(GetVariableField, OfARowRefusesWhatIsNoRow) {
  BufferTable t(kRows);
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  void* value = nullptr;
  EXPECT_EQ(getVariableField(t.table, {0, 0, 0}, &value, nullptr).word(), ownWord(Own::parameter));
  EXPECT_EQ(getVariableField(t.table, {2, 0, 0}, &value, nullptr).word(), ownWord(Own::parameter));
  EXPECT_EQ(getVariableField(t.table, {kAllBits, 0, 0}, &value, nullptr).word(),
            ownWord(Own::parameter));
  EXPECT_EQ(getVariableField(t.table, {1, 5, 0}, &value, nullptr).word(), ownWord(Own::parameter));
  EXPECT_EQ(t.error(),
            "One or more parameters is within an invaild range for table \"T\".\nParameter 1 = 1, "
            "Parameter 2 = 5.");
  value = &value;
  EXPECT_TRUE(getVariableField(t.table, {1, 0, 0}, &value, nullptr).ok());
  EXPECT_EQ(value, nullptr);
}

// -- PutVariableValues by size --------------------------------------------------------------------

TEST(PutVariableSize, ClearsTheVariableFieldsAndKeepsTheFixedOnes) {
  BufferTable t(kMixed);
  for (const std::uint32_t size : {0u, 7u, 500u, 0u}) {
    t.put(t.header(5, 2).number(77u).text("ab").shortBinary("").wide(u"").binary("").text("x"));
    CZELTA::Object object{};
    ASSERT_TRUE(putVariableValues(t.table, &object, size).ok());
    const std::size_t variable = t.table.minimumObjectSize - t.table.fixedAreaSize + size;
    EXPECT_EQ(t.object(), t.header(5, 2).number(77u).zeros(variable).str());
    EXPECT_EQ(object.objectID, 5);
    EXPECT_EQ(object.length, t.table.objectLength - 6);
  }
}

TEST(PutVariableSize, FailsWithoutBufferInFixedTablesAndBeyondTheLargestSize) {
  BufferTable t(kMixed);
  EXPECT_EQ(putVariableValues(t.table, nullptr, 1).word(), ownWord(Own::noObject));
  ASSERT_TRUE(newObject(t.table, nullptr, 3).ok());
  const std::string before = t.object();
  EXPECT_EQ(putVariableValues(t.table, nullptr, kAllBits).word(), kNoMemory);
  EXPECT_EQ(t.object(), before);
  BufferTable fixed(Fields{{CZELTA::TypeUInt32}});
  EXPECT_EQ(putVariableValues(fixed.table, nullptr, 1).word(), ownWord(Own::noObject));
  ASSERT_TRUE(newObject(fixed.table, nullptr, 3).ok());
  EXPECT_EQ(putVariableValues(fixed.table, nullptr, 1).word(), ownWord(Own::context));
  EXPECT_EQ(fixed.error(), "This method has been called in an incorrect context.");
}

// -- PutVariableValues by values ------------------------------------------------------------------

TEST(PutVariableValues, WithNullEmptiesTheFieldAndShortensTheObject) {
  BufferTable t(kMixed);
  t.put(t.header(5).number(77u).text("abc").shortBinary("x").wide(u"w").binary("y").text("z"));
  CZELTA::Object object{};
  ASSERT_TRUE(putVariableValues(t.table, {nullptr, 0, 0, 1}, &object).ok());
  EXPECT_EQ(
      t.object(),
      t.header(5).number(77u).text("").shortBinary("x").wide(u"w").binary("y").text("z").str());
  EXPECT_EQ(object.length, t.table.objectLength - 6);
  ASSERT_TRUE(putVariableValues(t.table, {nullptr, 0, 1, 4}, nullptr).ok());
  EXPECT_EQ(t.object(), t.header(5).number(77u).zeros(1 + 2 + 2 + 4 + 1).str());
}

TEST(PutVariableValues, OfCountZeroChangesNothingButProvesTheTail) {
  BufferTable t(kMixed);
  t.put(t.header(5).number(77u).text("a").shortBinary("x").wide(u"w").binary("y").text("z"));
  const std::string before = t.object();
  EXPECT_TRUE(putVariableValues(t.table, {"q", 1, 2, 0}, nullptr).ok());
  EXPECT_TRUE(putVariableValues(t.table, {"q", 1, 5, 0}, nullptr).ok());
  EXPECT_EQ(t.object(), before);
  t.put(before.substr(0, before.size() - 1));
  EXPECT_EQ(putVariableValues(t.table, {"q", 1, 2, 0}, nullptr).word(),
            ownWord(Own::variableField));
}

TEST(PutVariableValues, RefusesFieldsThatAreNot) {
  BufferTable t(kMixed);
  EXPECT_EQ(putVariableValues(t.table, {"", 1, 0, 1}, nullptr).word(), ownWord(Own::noObject));
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  const std::uint32_t wrong[][2] = {{5, 1}, {0, 6}, {kAllBits, 1}, {1, kAllBits}, {6, 0}};
  for (const auto& [field, count] : wrong) {
    EXPECT_EQ(putVariableValues(t.table, {"", 1, field, count}, nullptr).word(),
              ownWord(Own::parameter));
  }
  EXPECT_EQ(t.error(),
            "One or more parameters is within an invaild range for table \"T\".\nParameter 1 = 1, "
            "Parameter 2 = 7.");
  BufferTable fixed(Fields{{CZELTA::TypeUInt32}});
  ASSERT_TRUE(newObject(fixed.table, nullptr, 0).ok());
  EXPECT_EQ(putVariableValues(fixed.table, {"", 1, 0, 1}, nullptr).word(), ownWord(Own::context));
}

TEST(PutVariableValues, WithMalformedValuesLeavesTheBuffer) {
  BufferTable t(kMixed);
  t.put(t.header(5).number(77u).text("a").shortBinary("x").wide(u"w").binary("y").text("z"));
  t.table.currentObjectID = 5;
  const std::string before = t.object();
  const struct {
    std::uint32_t field;
    std::string bytes;
  } wrong[] = {{0, "no end"},
               {1, std::string("\x05\0ab", 4)},
               {1, "\x01"},
               {2, std::string("a\0b\0", 4)},
               {2, std::string("\0\0\0", 1)},
               {3, std::string("\x06\0\0\0a", 5)},
               {3, std::string("\xFF\xFF\xFF\xFF", 4)},
               {3, "abc"}};
  for (const auto& [field, bytes] : wrong) {
    const std::vector<char> exact(bytes.begin(), bytes.end());
    EXPECT_EQ(
        putVariableValues(
            t.table, {exact.data(), static_cast<std::uint32_t>(exact.size()), field, 1}, nullptr)
            .word(),
        ownWord(Own::variableField))
        << bytes;
    EXPECT_EQ(t.object(), before);
  }
  EXPECT_EQ(t.error(),
            "Within table \"T\", the format of variable field \"f4\" is invalid.\nObjectID 5 is "
            "incorrect");
}

TEST(PutVariableValues, IntoAMalformedObjectLeavesTheBuffer) {
  BufferTable t(kMixed);
  t.put(t.header(5).number(77u).text("a").shortBinary("x").wide(u"w").binary("y").text("z"));
  const std::string good = t.object();
  for (std::size_t length = t.table.fixedAreaSize; length < good.size(); ++length) {
    for (std::uint32_t field = 0; field < 5; ++field) {
      t.put(good.substr(0, length));
      EXPECT_EQ(putVariableValues(t.table, {nullptr, 0, field, 1}, nullptr).word(),
                ownWord(Own::variableField));
      EXPECT_EQ(t.object(), good.substr(0, length));
    }
  }
}

TEST(PutVariableValues, MovesBytesBehindTheLastFieldAlong) {
  BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeText}});
  t.put(t.header(5).text("a").text("b").raw("xyz"));
  ASSERT_TRUE(putVariableValues(t.table, {"long", 5, 0, 1}, nullptr).ok());
  EXPECT_EQ(t.object(), t.header(5).text("long").text("b").raw("xyz").str());
  ASSERT_TRUE(putVariableValues(t.table, {"", 1, 1, 1}, nullptr).ok());
  EXPECT_EQ(t.object(), t.header(5).text("long").text("").raw("xyz").str());
  EXPECT_EQ(validateObject(t.table, t.table.objectData, t.table.objectLength).word(),
            ownWord(Own::objectTooLong));
}

TEST(PutVariableValues, StepsOverPoints) {
  BufferTable t(Fields{{CZELTA::TypePoints2}, {CZELTA::TypeText}});
  t.put(t.header(5).binary("12345678").text("b"));
  ASSERT_TRUE(putVariableValues(t.table, {"long", 0, 1, 1}, nullptr).ok());
  EXPECT_EQ(t.object(), t.header(5).binary("12345678").text("long").str());
}

TEST(PutVariableValues, TakesValuesFromTheBufferItself) {
  // Each field in turn becomes a copy of another one, in all directions, with and without room.
  const std::string values[] = {"a", "bbb", std::string(50, 'c')};
  for (const bool room : {false, true}) {
    for (std::uint32_t from = 0; from < 3; ++from) {
      for (std::uint32_t to = 0; to < 3; ++to) {
        BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeText}, {CZELTA::TypeText}});
        const std::string object = t.header(1).text(values[0]).text(values[1]).text(values[2]);
        ASSERT_TRUE(newObject(t.table, nullptr, room ? 100 : 54).ok());
        t.put(object);
        void* value = nullptr;
        ASSERT_TRUE(getVariableField(t.table, from, &value, nullptr).ok());
        ASSERT_TRUE(putVariableValues(t.table, {value, 0, to, 1}, nullptr).ok());
        std::string expected[] = {values[0], values[1], values[2]};
        expected[to] = values[from];
        EXPECT_EQ(t.object(),
                  t.header(1).text(expected[0]).text(expected[1]).text(expected[2]).str())
            << room << from << to;
      }
    }
  }
}

TEST(PutVariableValues, AgreesWithAModel) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](std::size_t bound) { return random() % bound; };
  BufferTable t(kMixed);
  const auto make = [&](std::uint32_t field) -> std::string {
    const std::size_t length = below(10) == 0 ? below(3000) : below(20);
    const std::string bytes(length, static_cast<char>('a' + below(26)));
    switch (field) {
      case 1:
        return Packed().shortBinary(bytes);
      case 2:
        return Packed().wide(std::u16string(length, u'w'));
      case 3:
        return Packed().binary(bytes);
      default:
        return Packed().text(bytes);
    }
  };
  std::string model[5];
  for (std::uint32_t f = 0; f < 5; ++f) model[f] = make(f);
  std::string start = t.header(3).number(1u);
  for (const std::string& field : model) start += field;
  t.put(start);
  for (int round = 0; round < 3000; ++round) {
    const auto first = static_cast<std::uint32_t>(below(6));
    const auto count = static_cast<std::uint32_t>(below(6 - first));
    const bool clear = below(8) == 0;
    std::string values;
    for (std::uint32_t f = first; f < first + count; ++f) {
      constexpr std::size_t kEmpty[] = {1, 2, 2, 4, 1};
      model[f] = clear ? std::string(kEmpty[f], '\0') : make(f);
      values += model[f];
    }
    const bool trusted = below(3) == 0;
    const std::vector<char> exact(values.begin(), values.end());
    ASSERT_TRUE(
        putVariableValues(t.table,
                          {clear || exact.empty() ? nullptr : exact.data(),
                           trusted ? 0 : static_cast<std::uint32_t>(exact.size()), first, count},
                          nullptr)
            .ok())
        << t.error();
    std::string expected = t.header(3).number(1u);
    for (const std::string& field : model) expected += field;
    ASSERT_EQ(t.object(), expected);
    ASSERT_LE(t.table.objectLength + 10, t.table.objectBuffer.size());
  }
}

TEST(PutVariableValues, OnAnUnknownTypeNamesIt) {
  BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeText}});
  ASSERT_TRUE(newObject(t.table, nullptr, 0).ok());
  t.table.schema->fields[0].fieldType = 100;
  EXPECT_EQ(putVariableValues(t.table, {"", 1, 1, 1}, nullptr).word(), ownWord(Own::fieldType));
  EXPECT_EQ(t.error(),
            "Unable to use table schema as it contains an invalid field.\nTable \"T\", Field "
            "\"f0\" has type 100.");
}

}  // namespace
}  // namespace zelta

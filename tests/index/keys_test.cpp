// Keys of objects and of search images, against byte strings worked out by hand.

#include "index/keys/keys.h"

#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <limits>
#include <random>

#include "index/key_bench.h"

namespace zelta {
namespace {

using testing::Fields;
using testing::Indexes;
using testing::KeyBench;
using testing::ownWord;
using testing::Packed;
using testing::Segments;

constexpr std::uint32_t kAscending = 0;
constexpr std::uint32_t kDescending = CZELTA::SegmentDescending;

// -- Fixed types ----------------------------------------------------------------------------------

struct FixedCase {
  std::uint32_t type;
  std::string value;
  const char* ascending;
  const char* descending;
};

template <class Number>
std::string bytesOf(Number value) {
  return Packed().number(value);
}

const std::vector<FixedCase>& fixedCases() {
  static const std::vector<FixedCase> cases = {
      {CZELTA::TypeBoolean, bytesOf<std::uint8_t>(1), "01000000", "FE000000"},
      {CZELTA::TypeChar, "\x80", "80000000", "7F000000"},
      {CZELTA::TypeInt8, bytesOf<std::int8_t>(-1), "7F000000", "80000000"},
      {CZELTA::TypeInt8, bytesOf<std::int8_t>(1), "81000000", "7E000000"},
      {CZELTA::TypeUInt8, bytesOf<std::uint8_t>(200), "C8000000", "37000000"},
      {CZELTA::TypeWideChar, bytesOf<std::uint16_t>(0x1234), "12340000", "EDCB0000"},
      {CZELTA::TypeInt16, bytesOf<std::int16_t>(-2), "7FFE0000", "80010000"},
      {CZELTA::TypeUInt16, bytesOf<std::uint16_t>(0xABCD), "ABCD0000", "54320000"},
      {CZELTA::TypeInt32, bytesOf<std::int32_t>(-1), "7FFFFFFF", "80000000"},
      {CZELTA::TypeInt32, bytesOf<std::int32_t>(1), "80000001", "7FFFFFFE"},
      {CZELTA::TypeUInt32, bytesOf<std::uint32_t>(0x01020304), "01020304", "FEFDFCFB"},
      {CZELTA::TypeDate, bytesOf<std::uint32_t>(0x80000000), "80000000", "7FFFFFFF"},
      {CZELTA::TypeTag32, bytesOf<std::uint32_t>(5), "00000005", "FFFFFFFA"},
      {CZELTA::TypeInt64, bytesOf<std::int64_t>(-2), "7FFFFFFFFFFFFFFE", "8000000000000001"},
      {CZELTA::TypeTag64, bytesOf<std::int64_t>(2), "8000000000000002", "7FFFFFFFFFFFFFFD"},
      {CZELTA::TypeUInt64, bytesOf<std::uint64_t>(0x0102030405060708), "0102030405060708",
       "FEFDFCFBFAF9F8F7"},
      {CZELTA::TypeDateTime, bytesOf<std::uint64_t>(7), "0000000000000007", "FFFFFFFFFFFFFFF8"},
      {CZELTA::TypeFloat, bytesOf(1.0f), "BF800000", "407FFFFF"},
      {CZELTA::TypeFloat, bytesOf(-1.0f), "407FFFFF", "BF800000"},
      {CZELTA::TypeDouble, bytesOf(1.0), "BFF0000000000000", "400FFFFFFFFFFFFF"},
      {CZELTA::TypeDouble, bytesOf(-1.0), "0FFFFFFFFFFFFF00", "BFF0000000000000"},
      {CZELTA::TypeCharArray, "zA\x01", "7A410100", "85BEFE00"}};
  return cases;
}

TEST(Keys, OfEveryFixedType) {
  for (const FixedCase& c : fixedCases()) {
    KeyBench t(Fields{{c.type, static_cast<std::uint32_t>(c.value.size())}},
               Indexes{{Segments{{0, kAscending}}}, {Segments{{0, kDescending}}}});
    const std::string object = t.header(1).raw(c.value);
    EXPECT_EQ(t.hex(object, 0), c.ascending) << c.type;
    EXPECT_EQ(t.hex(object, 1), c.descending) << c.type;
    EXPECT_EQ(t.searchHex(c.value, 0), c.ascending) << c.type;
    EXPECT_EQ(t.searchHex(c.value, 1), c.descending) << c.type;
  }
}

TEST(Keys, ANegativeDoubleMovesWhatFollowsUp) {
  KeyBench t(Fields{{CZELTA::TypeDouble}, {CZELTA::TypeUInt8}},
             Indexes{{Segments{{0, kAscending}, {1, kAscending}}},
                     {Segments{{0, kDescending}, {1, kAscending}}}});
  const std::string negative = t.header(1).number(-1.0).number(std::uint8_t{5});
  EXPECT_EQ(t.hex(negative, 0), "0FFFFFFFFFFFFF0500000000");
  EXPECT_EQ(t.hex(negative, 1), "BFF000000000000005000000");
  const std::string positive = t.header(1).number(1.0).number(std::uint8_t{5});
  EXPECT_EQ(t.hex(positive, 0), "BFF000000000000005000000");
}

TEST(Keys, OfObjectIDsAndEntryNumbers) {
  const Fields rows = {{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt8}}}};
  const Indexes indexes = {{Segments{{CZELTA::ObjectIdSegment, kAscending},
                                     {CZELTA::EntryNumberSegment, kDescending},
                                     {1, kAscending}}},
                           {Segments{{CZELTA::ObjectIdSegment, kDescending},
                                     {1, kAscending},
                                     {CZELTA::EntryNumberSegment, kAscending}}}};
  KeyBench narrow(rows, indexes);
  const std::string object = narrow.header(0x01020304).binary("ABC");
  EXPECT_EQ(narrow.hex(object, 0, 2), "01020304FFFFFFFD43000000");
  EXPECT_EQ(narrow.hex(object, 1, 2), "FEFDFCFB4300000002000000");
  EXPECT_EQ(narrow.searchHex(Packed().number(0x01020304u).number(2u).raw("C"), 0),
            "01020304FFFFFFFD43000000");
  KeyBench wide(rows, indexes, CZELTA::SchemaWideObjectIds);
  const std::string wideObject = wide.header(0x0102030405060708).binary("ABC");
  EXPECT_EQ(wide.hex(wideObject, 0, 1), "0102030405060708FFFFFFFE42000000");
  EXPECT_EQ(wide.hex(wideObject, 1, 1), "FEFDFCFBFAF9F8F74200000001000000");
  EXPECT_EQ(
      wide.searchHex(Packed().number(std::uint64_t{0x0102030405060708}).raw("B").number(1u), 1),
      "FEFDFCFBFAF9F8F74200000001000000");
}

// -- Entries --------------------------------------------------------------------------------------

TEST(Keys, RowsGiveAKeyEachAndTheNextEntryNone) {
  const Fields fields = {{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt8}, {CZELTA::TypeText}}}};
  KeyBench t(fields, Indexes{{Segments{{1, 0}}}, {Segments{{2, 0}}}});
  ASSERT_TRUE(t.table.multiEntry(0) && t.table.multiEntry(1));
  Packed rows;
  rows.number(std::uint8_t{1}).text("a").number(std::uint8_t{2}).text("").number(std::uint8_t{3});
  const std::string object = t.header(1).binary(rows.text("ccc"));
  const char* const numbers[] = {"01000000", "02000000", "03000000", "none", "none"};
  const char* const texts[] = {"61000000", "00000000", "63636300", "none", "none"};
  for (std::uint32_t entry = 0; entry < 5; ++entry) {
    EXPECT_EQ(t.hex(object, 0, entry), numbers[entry]);
    EXPECT_EQ(t.hex(object, 1, entry), texts[entry]);
  }
  for (std::uint32_t length = 0; length < 5; ++length) {
    EXPECT_EQ(t.hex(t.header(1).number(length), 0), "none");
    EXPECT_EQ(t.hex(t.header(1).number(length), 1), "none");
  }
}

TEST(Keys, AMissingRowGivesNoKeyEvenBehindOtherSegments) {
  KeyBench t(Fields{{CZELTA::TypeUInt32},
                    {CZELTA::TypeText},
                    {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeText}}}},
             Indexes{{Segments{{0, 0}, {1, 0}, {3, 0}}}});
  EXPECT_EQ(t.hex(t.header(1).number(1u).text("a").number(0u)), "none");
}

TEST(Keys, PaddedSubFieldsAreTakenFromTheirOffset) {
  KeyBench t(Fields{{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt8}, {CZELTA::TypeUInt32}}}},
             Indexes{{Segments{{2, 0}}}});
  const std::uint32_t offset = t.table.schema->fields[0].subFields[1].fieldOffset;
  ASSERT_EQ(offset, 4u);
  Packed rows;
  for (std::uint32_t r = 1; r < 3; ++r) rows.number(std::uint8_t{9}).raw("pad").number(r);
  EXPECT_EQ(t.hex(t.header(1).binary(rows), 0, 0), "00000001");
  EXPECT_EQ(t.hex(t.header(1).binary(rows), 0, 1), "00000002");
}

// -- Refusals -------------------------------------------------------------------------------------

TEST(Keys, WithoutAnObjectAreError39) {
  KeyBench t(Fields{{CZELTA::TypeUInt32}}, Indexes{{Segments{{0, 0}}}});
  std::uint32_t* key = reinterpret_cast<std::uint32_t*>(&t);
  EXPECT_EQ(extractKey(t.table, 0, {}, &key).word(), ownWord(Own::noObject));
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(t.hex(t.header(1).raw("abc")), "39");  // shorter than the fixed area
}

TEST(Keys, OfTheObjectInTheBuffer) {
  KeyBench t(Fields{{CZELTA::TypeUInt32}}, Indexes{{Segments{{0, 0}}}});
  t.put(t.header(1).number(0x0A0B0C0Du));
  std::uint32_t* key = nullptr;
  ASSERT_TRUE(extractKey(t.table, 0, {}, &key).ok());
  PooledKey owner;
  owner.take(t.table.keyPool(0), t.table.keyShape(0), key);
  EXPECT_EQ(*key, 0x0A0B0C0Du);
}

TEST(Keys, OfATreeWithoutSegmentsAreError19) {
  KeyBench t(Fields{{CZELTA::TypeUInt32}}, Indexes{{Segments{}}});
  EXPECT_EQ(t.hex(t.header(1).number(1u)), "19");
}

TEST(Keys, OfPointsAndBehindPointsAreError39) {
  KeyBench t(Fields{{CZELTA::TypePoints2}, {CZELTA::TypeText}},
             Indexes{{Segments{{0, 0}}}, {Segments{{1, 0}}}});
  const std::string object = t.header(1).number(0u).text("a");
  EXPECT_EQ(t.hex(object, 0), "39");
  EXPECT_EQ(t.hex(object, 1), "39");
  EXPECT_EQ(t.searchHex(Packed().number(0u), 0), "39");
}

TEST(Keys, OfListsAreError39) {
  KeyBench t(Fields{{CZELTA::TypeText}, {CZELTA::TypePoints2}},
             Indexes{{Segments{{0, CZELTA::SegmentWords}}, CZELTA::AsciiList},
                     {Segments{{0, CZELTA::SegmentWords}}, CZELTA::WideList},
                     {Segments{{1, 0}}, CZELTA::SpatialPattern}});
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(t.hex(t.header(1).text("a").number(0u), i), "39");
    EXPECT_EQ(t.searchHex("abcd", i), "39");
  }
}

TEST(Keys, OfANullImageAreError7) {
  KeyBench t(Fields{{CZELTA::TypeUInt32}}, Indexes{{Segments{{0, 0}}}});
  std::uint32_t* key = nullptr;
  EXPECT_EQ(buildSearchKey(t.table, 0, nullptr, &key).word(), ownWord(Own::parameter));
}

// -- Boxes and spans ------------------------------------------------------------------------------

std::string numbers(const std::vector<std::int32_t>& values) {
  Packed bytes;
  for (const std::int32_t value : values) bytes.number(value);
  return bytes;
}

/// The words of a box or span, which stand in the key as numbers.
std::vector<std::int32_t> words(KeyBench& t, const std::uint32_t* key) {
  std::vector<std::int32_t> list;
  for (std::uint32_t i = 0; key != nullptr && i < t.table.index(0).keyWords; ++i) {
    list.push_back(static_cast<std::int32_t>(key[i]));
  }
  return list;
}

void expectBoth(KeyBench& t, const std::string& value, const std::vector<std::int32_t>& expected) {
  PooledKey key;
  ASSERT_TRUE(t.make(t.header(1).raw(value), key).ok());
  EXPECT_EQ(words(t, key.get()), expected);
  const std::vector<char> exact(value.begin(), value.end());
  std::uint32_t* made = nullptr;
  ASSERT_TRUE(buildSearchKey(t.table, 0, exact.data(), &made).ok());
  key.take(t.table.keyPool(0), t.table.keyShape(0), made);
  EXPECT_EQ(words(t, key.get()), expected);
}

TEST(Keys, OfBoxesHaveTheLowerCornersFirst) {
  KeyBench rect(Fields{{CZELTA::TypeRect2}}, Indexes{{Segments{{0, 0}}, CZELTA::SpatialTree}});
  expectBoth(rect, numbers({1, 2, 3, 4}), {1, 2, 3, 4});
  expectBoth(rect, numbers({3, -2, -1, 4}), {-1, -2, 3, 4});
  expectBoth(rect, numbers({5, 9, 5, -9}), {5, -9, 5, 9});
  KeyBench box(Fields{{CZELTA::TypeBox3}}, Indexes{{Segments{{0, 0}}, CZELTA::SpatialTree}});
  expectBoth(box, numbers({6, 2, 3, 1, 5, -4}), {1, 2, -4, 6, 5, 3});
}

TEST(Keys, OfSpansHaveTheEarlierTimeFirst) {
  KeyBench date(Fields{{CZELTA::TypeDate}, {CZELTA::TypeDate}},
                Indexes{{Segments{{0, 0}, {1, 0}}, CZELTA::TemporalTree}});
  expectBoth(date, numbers({5, 9}), {5, 9});
  expectBoth(date, numbers({-1, 9}), {9, -1});  // unsigned
  KeyBench time(Fields{{CZELTA::TypeDateTime}, {CZELTA::TypeDateTime}},
                Indexes{{Segments{{0, 0}, {1, 0}}, CZELTA::TemporalTree}});
  expectBoth(time, numbers({5, 1, 9, 0}), {9, 0, 5, 1});
  expectBoth(time, numbers({5, -1, 9, 0}), {9, 0, 5, -1});
}

TEST(Keys, OfRowsThatLackABoxAreNone) {
  KeyBench t(Fields{{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeRect2}}}},
             Indexes{{Segments{{1, 0}}, CZELTA::SpatialTree}});
  EXPECT_EQ(t.hex(t.header(1).number(0u)), "none");
  const std::string object = t.header(1).binary(numbers({4, 3, 2, 1, 8, 7, 6, 5}));
  EXPECT_EQ(t.hex(object, 0, 1), "00000006000000050000000800000007");
  EXPECT_EQ(t.hex(object, 0, 2), "none");
}

// -- Order ----------------------------------------------------------------------------------------

/// Whether keys order as values do, over random values and the edges of the type.
template <class Number>
void expectOrder(std::uint32_t type, std::mt19937_64& random, bool positiveAscending = false) {
  KeyBench t(Fields{{CZELTA::TypeUInt8}, {type}},
             Indexes{{Segments{{1, kAscending}}}, {Segments{{1, kDescending}}}});
  const std::uint32_t offset = t.table.schema->fields[1].fieldOffset;
  using Limits = std::numeric_limits<Number>;
  std::vector<Number> values = {Number(0), Number(1), Limits::max(), Limits::lowest(),
                                static_cast<Number>(Limits::max() / 2)};
  if (Limits::is_signed) values.push_back(static_cast<Number>(-1));
  while (values.size() < 60) {
    if constexpr (std::is_floating_point_v<Number>) {
      values.push_back(std::ldexp(static_cast<Number>(static_cast<std::int64_t>(random())),
                                  static_cast<int>(random() % 100) - 100));
    } else {
      values.push_back(static_cast<Number>(random() >> (random() % (8 * sizeof(Number)))));
    }
  }
  const auto made = [&](Number value, std::uint32_t index, PooledKey& key) {
    ASSERT_TRUE(t.make(t.header(1).zeros(offset).number(value), key, index).ok());
  };
  for (const Number a : values) {
    for (const Number b : values) {
      const int expected = a < b ? -1 : a > b ? 1 : 0;
      for (std::uint32_t index = 0; index < 2; ++index) {
        if (index == 0 && positiveAscending && (a < Number(0) || b < Number(0))) continue;
        PooledKey first;
        PooledKey second;
        made(a, index, first);
        made(b, index, second);
        const int got = compareKeys(t.table.keyShape(index), first.get(), second.get());
        EXPECT_EQ(got, index == 0 ? expected : -expected) << type << ": " << +a << ", " << +b;
      }
    }
  }
}

TEST(Keys, OrderAsTheValuesDo) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  expectOrder<std::uint8_t>(CZELTA::TypeBoolean, random);
  expectOrder<std::uint8_t>(CZELTA::TypeChar, random);
  expectOrder<std::int8_t>(CZELTA::TypeInt8, random);
  expectOrder<std::uint8_t>(CZELTA::TypeUInt8, random);
  expectOrder<std::uint16_t>(CZELTA::TypeWideChar, random);
  expectOrder<std::int16_t>(CZELTA::TypeInt16, random);
  expectOrder<std::uint16_t>(CZELTA::TypeUInt16, random);
  expectOrder<std::int32_t>(CZELTA::TypeInt32, random);
  expectOrder<std::uint32_t>(CZELTA::TypeUInt32, random);
  expectOrder<std::uint32_t>(CZELTA::TypeDate, random);
  expectOrder<std::uint32_t>(CZELTA::TypeTag32, random);
  expectOrder<std::int64_t>(CZELTA::TypeInt64, random);
  expectOrder<std::int64_t>(CZELTA::TypeTag64, random);
  expectOrder<std::uint64_t>(CZELTA::TypeUInt64, random);
  expectOrder<std::uint64_t>(CZELTA::TypeDateTime, random);
  expectOrder<float>(CZELTA::TypeFloat, random);
  expectOrder<double>(CZELTA::TypeDouble, random, true);  // negative ones ascend cut short
}

TEST(Keys, OfTextsOrderAsTheirBytesDo) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  KeyBench t(Fields{{CZELTA::TypeText}},
             Indexes{{Segments{{0, kAscending}}}, {Segments{{0, kDescending}}}});
  std::vector<std::string> texts = {"", "a", "ab", "b"};
  while (texts.size() < 80) {
    std::string text;
    for (std::size_t n = random() % 9; n > 0; --n) text += static_cast<char>(random() % 255 + 1);
    texts.push_back(text);
  }
  for (const std::string& a : texts) {
    for (const std::string& b : texts) {
      const int order = a.compare(b) < 0 ? -1 : a == b ? 0 : 1;
      for (std::uint32_t index = 0; index < 2; ++index) {
        PooledKey first;
        PooledKey second;
        ASSERT_TRUE(t.make(t.header(1).text(a), first, index).ok());
        ASSERT_TRUE(t.make(t.header(1).text(b), second, index).ok());
        EXPECT_EQ(compareKeys(t.table.keyShape(index), first.get(), second.get()),
                  index == 0 ? order : -order);
      }
    }
  }
}

// -- Objects and images ---------------------------------------------------------------------------

TEST(Keys, OfObjectsAndOfImagesAgree) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  constexpr std::uint32_t kTypes[] = {CZELTA::TypeUInt8,   CZELTA::TypeInt16, CZELTA::TypeDouble,
                                      CZELTA::TypeFloat,   CZELTA::TypeInt64, CZELTA::TypeCharArray,
                                      CZELTA::TypeText,    CZELTA::TypeText,  CZELTA::TypeWideText,
                                      CZELTA::TypeWideText};
  constexpr std::uint32_t kCount = 10;
  Fields fields;
  for (const std::uint32_t type : kTypes) fields.push_back({type, 5});
  for (int round = 0; round < 400; ++round) {
    Segments segments;
    for (std::size_t n = random() % 4 + 1; n > 0; --n) {
      const auto field = static_cast<std::int32_t>(random() % (kCount + 1)) - 1;
      const bool text = field >= 6;
      auto mode = static_cast<std::uint32_t>(random() & (text ? 0x1EF : kDescending));
      if ((mode & 0xC) == 0xC) mode &= ~4u;
      segments.push_back({field, mode});
    }
    KeyBench t(fields, Indexes{{segments}});
    std::string values[kCount];
    std::string object(t.table.fixedAreaSize, '\0');
    object.replace(0, 6, t.header(static_cast<std::uint64_t>(round)).str());
    for (std::uint32_t f = 0; f < kCount; ++f) {
      const CZELTA::Schema::Field& field = t.table.schema->fields[f];
      if (kTypes[f] == CZELTA::TypeWideText) {
        std::u16string text;
        for (std::size_t n = random() % 6; n > 0; --n) {
          text += random() % 3 == 0 ? static_cast<char16_t>(random() % 0xFFFF + 1) : u"a1 -"[n % 4];
        }
        values[f] = Packed().wide(text);
      } else if (kTypes[f] == CZELTA::TypeText) {
        std::string text;
        for (std::size_t n = random() % 6; n > 0; --n) {
          text += random() % 3 == 0 ? static_cast<char>(random() % 255 + 1) : "a1 -"[n % 4];
        }
        values[f] = Packed().text(text);
      } else {
        for (std::uint32_t b = 0; b < field.fieldSize; ++b) {
          values[f] += static_cast<char>(random());
        }
        object.replace(6 + field.fieldOffset, field.fieldSize, values[f]);
      }
      if (f >= 6) object += values[f];
    }
    std::string image;
    for (const auto& segment : segments) {
      image += segment.segmentField < 0 ? bytesOf(static_cast<std::uint32_t>(round))
                                        : values[static_cast<std::uint32_t>(segment.segmentField)];
    }
    EXPECT_EQ(t.hex(object), t.searchHex(image));
  }
}

TEST(Keys, OfDamagedObjectsStayInTheirBounds) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  KeyBench t(Fields{{CZELTA::TypeUInt8},
                    {CZELTA::TypeText},
                    {CZELTA::TypeBinary},
                    {CZELTA::TypeWideText},
                    {CZELTA::TypeSubRecords,
                     0,
                     {{CZELTA::TypeUInt32}, {CZELTA::TypeText}, {CZELTA::TypeWideText}}}},
             Indexes{{Segments{{1, 0}, {3, 0}}}, {Segments{{5, 0}, {6, 0}, {7, 0}}}});
  for (int round = 0; round < 20000; ++round) {
    std::string object;
    for (std::size_t n = random() % 60 + 7; n > 0; --n) {
      object += static_cast<char>(random() % 2 == 0 ? random() % 12 : random());
    }
    for (std::uint32_t entry = 0; entry < 4; ++entry) {
      EXPECT_NE(t.hex(object, 0, entry), "");
      EXPECT_NE(t.hex(object, 1, entry), "");
    }
  }
}

}  // namespace
}  // namespace zelta

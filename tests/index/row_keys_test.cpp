// Keys of the rows of an object, one after the other.

#include <gtest/gtest.h>

#include "index/key_bench.h"
#include "schema/object_view.h"

namespace zelta {
namespace {

using testing::KeyBench;
using testing::Packed;
using testing::Segments;

/// The payloads of all entries; with `together` the places of rows are passed on from key to key.
std::vector<std::string> allKeys(KeyBench& bench, const std::string& object, bool together) {
  std::vector<std::string> keys;
  RowPlaces rows;
  for (std::uint32_t entry = 0;; ++entry) {
    std::uint32_t* made = nullptr;
    EXPECT_TRUE(extractKey(bench.table, 0,
                           {{object.data(), static_cast<std::uint32_t>(object.size())},
                            entry,
                            together ? &rows : nullptr},
                           &made)
                    .ok())
        << bench.error();
    PooledKey key;
    key.take(bench.table.keyPool(0), bench.table.keyShape(0), made);
    if (made == nullptr) return keys;
    keys.push_back(bench.payload(made));
  }
}

const testing::FieldSpec kPlainRows{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}};

TEST(RowKeys, ManyRowsTakeAStepEach) {
  KeyBench bench({kPlainRows}, {{Segments{{1, 0}}}});
  constexpr std::uint32_t kRows = 400000;
  Packed rows;
  for (std::uint32_t i = 0; i < kRows; ++i) rows.number(i);
  const std::vector<std::string> keys = allKeys(bench, bench.header(1).binary(rows), true);
  ASSERT_EQ(keys.size(), kRows);
  EXPECT_EQ(testing::KeyBench::digits(keys[kRows - 1]), "00061A7F");
}

TEST(RowKeys, AreTheSameAsOnesMadeAlone) {
  // Texts of different lengths, a field ahead of the rows, a segment of another field.
  KeyBench bench({{CZELTA::TypeUInt16},
                  {CZELTA::TypeText},
                  {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt8}, {CZELTA::TypeText}}}},
                 {{Segments{{3, 0}, {4, 0}, {0, 0}, {-2, 0}}}});
  Packed rows;
  for (std::uint32_t i = 0; i < 40; ++i) {
    rows.number(static_cast<std::uint8_t>(i)).text(std::string(i * 7 % 11, 'x'));
  }
  const std::string object =
      bench.header(1).number(std::uint16_t{9}).text("ahead of the rows").binary(rows);
  const std::vector<std::string> keys = allKeys(bench, object, true);
  EXPECT_EQ(keys.size(), 40u);
  EXPECT_EQ(keys, allKeys(bench, object, false));
}

TEST(RowKeys, OfSeveralFieldsEndWithTheShortest) {
  for (const std::uint32_t fields : {2u, 6u}) {
    testing::Fields specs(fields, kPlainRows);
    Segments segments;
    for (std::uint32_t f = 0; f < fields; ++f) {
      segments.push_back({static_cast<std::int32_t>(fields + f), 0});
    }
    KeyBench bench(specs, {{segments}});
    Packed object = bench.header(1);
    for (std::uint32_t f = 0; f < fields; ++f) {
      Packed rows;
      for (std::uint32_t i = 0; i < 20 + f; ++i) rows.number(1000 * f + i);
      object.binary(rows);
    }
    const std::vector<std::string> keys = allKeys(bench, object, true);
    EXPECT_EQ(keys.size(), 20u) << fields;
    EXPECT_EQ(keys, allKeys(bench, object, false)) << fields;
  }
}

TEST(RowKeys, ARowCutShortEndsThem) {
  KeyBench bench({{CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}, {CZELTA::TypeText}}}},
                 {{Segments{{1, 0}}}});
  const std::string whole = Packed().number(1u).text("a").number(2u).text("b");
  for (std::size_t cut = 1; cut <= 6; ++cut) {
    const std::string object =
        bench.header(1).binary(whole + std::string("\7\0\0\0no end", 10).substr(0, cut));
    EXPECT_EQ(allKeys(bench, object, true), allKeys(bench, object, false)) << cut;
  }
}

}  // namespace
}  // namespace zelta

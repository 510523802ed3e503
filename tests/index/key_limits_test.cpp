// How long keys may become.

#include <gtest/gtest.h>

#include "index/key_bench.h"

namespace zelta {
namespace {

using testing::Fields;
using testing::KeyBench;
using testing::Segments;

TEST(KeyLimits, TheDeclaredSizeOfATextRulesNothing) {
  const Fields fields = {{CZELTA::TypeUInt16}, {CZELTA::TypeText, 0xFFFFFFFF}};
  for (const Segments& segments : {Segments{{1, 0}, {0, 0}}, Segments{{0, 0}, {1, 0}, {0, 0}}}) {
    KeyBench bench(fields, {{segments}});
    EXPECT_EQ(bench.error(), "");
    const std::string key = bench.hex(bench.header(1).number(std::uint16_t{0x1234}).text("abc"));
    EXPECT_NE(key.find("61626300"), std::string::npos) << key;
  }
}

TEST(KeyLimits, FixedKeysEndBelowFourGigabytes) {
  MetaData metaData;
  for (const std::uint16_t count : {std::uint16_t{1}, std::uint16_t{2}}) {
    testing::SchemaRecords records({{CZELTA::TypeCharArray, 0x80000000}},
                                   {{Segments(count, {0, 0})}}, 0);
    SchemaCopy copy;
    ObjectSizes sizes;
    ASSERT_TRUE(copySchema(metaData, records.schema, copy).ok());
    const Result result = validateSchema(metaData, *copy.schema, sizes);
    EXPECT_EQ(result.word(), count == 1 ? 0 : testing::ownWord(Own::segmentType));
  }
}

}  // namespace
}  // namespace zelta

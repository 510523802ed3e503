#include "objects/search/search_index.h"

#include <gtest/gtest.h>

#include <string>

#include "support/tree_bench.h"

namespace zelta::testing {
namespace {

/// A table with one index of each kind, 1-based numbers 1 to 6, and one of no kind.
class Search : public ::testing::Test {
 protected:
  Search() : bench_(TreeForm{}, 7) {
    for (std::uint8_t i = 0; i < 7; ++i) {
      CZELTA::Schema::Index& index = bench_.table.schema->indexes[i];
      index.indexKind = i == 6 ? 9 : i;
      index.keyWords = i == CZELTA::SpatialTree ? 4 : 2;
      const bool list =
          i == CZELTA::AsciiList || i == CZELTA::WideList || i == CZELTA::SpatialPattern;
      index.indexFlags = list ? CZELTA::IndexListKind : 0u;
    }
  }
  Result first(std::uint32_t index, const void* key, const void* search,
               CZELTA::Mode mode = CZELTA::Mode{}) {
    clearError(bench_.metaData);
    return searchIndex({bench_.metaData, tables_}, bench_.table,
                       {SearchQuery::Form::expression, index, key, search, 0, mode}, &count_);
  }
  Result second(std::uint32_t index, const void* key) {
    clearError(bench_.metaData);
    return searchIndex({bench_.metaData, tables_}, bench_.table,
                       {SearchQuery::Form::shape, index, key, nullptr, 5, CZELTA::Mode{}}, &count_);
  }
  [[nodiscard]] std::u16string message() const { return bench_.metaData.errorMessage; }

  TreeBench bench_;
  UInt32AVLTree* tables_ = nullptr;
  long long count_ = 77;
  const std::int32_t box_[4] = {5, 6, 1, 9};
};

TEST_F(Search, IndexNumberOutOfRangeIsRefused) {
  EXPECT_TRUE(first(0, box_, "a").is(Own::parameter));
  EXPECT_EQ(message(), u"One or more parameters is within an invaild range for table \"T\".");
  EXPECT_TRUE(second(8, box_).is(Own::parameter));
  EXPECT_EQ(
      message(),
      u"One or more parameters is within an invaild range for table \"T\".\nParameter 1 = 8.");
  EXPECT_EQ(count_, 77) << "a failure leaves the count alone";
}

TEST_F(Search, KindThatTheFormDoesNotServeIsNamed) {
  const char16_t* const words[] = {
      u"B+Tree", u"", u"ASCII List", u"Wide List", u"", u"Spatial Pattern", u"unknown type of"};
  for (const std::uint32_t index : {1u, 6u, 7u}) {
    EXPECT_TRUE(first(index, box_, "a").is(Own::indexKind)) << index;
    EXPECT_NE(message().find(words[index - 1]), std::u16string::npos);
  }
  for (const std::uint32_t index : {1u, 3u, 4u, 7u}) {
    EXPECT_TRUE(second(index, box_).is(Own::indexKind)) << index;
    EXPECT_NE(message().find(words[index - 1]), std::u16string::npos);
  }
  EXPECT_TRUE(first(1, box_, "a").is(Own::indexKind));
  EXPECT_EQ(message(),
            u"Unable to use index 1 in table \"T\",\nas it is an invalid B+Tree index for this "
            u"operation.");
}

TEST_F(Search, BPlusTreeCountsOnlyBehindAListSearchWhoseResultsStay) {
  bench_.table.searchIndex = 2;
  EXPECT_TRUE(first(1, box_, "a", CZELTA::SearchKeepResults).is(Own::indexKind));
  bench_.table.searchIndex = 4;
  EXPECT_TRUE(first(1, box_, u"a").is(Own::indexKind));
  EXPECT_FALSE(first(1, box_, u"a", CZELTA::SearchKeepResults).is(Own::indexKind));
}

TEST_F(Search, MissingKeyOrExpressionIsRefused) {
  EXPECT_TRUE(first(2, nullptr, nullptr).is(Own::parameter));
  EXPECT_TRUE(first(5, nullptr, nullptr).is(Own::parameter));
  EXPECT_TRUE(second(2, nullptr).is(Own::parameter));
  EXPECT_TRUE(second(6, nullptr).is(Own::parameter));
  EXPECT_TRUE(first(3, box_, nullptr).is(Own::parameter));
  EXPECT_EQ(
      message(),
      u"One or more parameters is within an invaild range for table \"T\".\nParameter 1 = 3.");
}

TEST_F(Search, WhatIsRefusedLeavesTheEarlierResults) {
  bench_.table.searchIndex = 2;
  bench_.table.searchResults = SortedIds({1, 2});
  EXPECT_TRUE(first(0, box_, "a").is(Own::parameter));
  EXPECT_TRUE(first(1, box_, "a").is(Own::indexKind));
  EXPECT_TRUE(first(2, nullptr, nullptr).is(Own::parameter));
  EXPECT_TRUE(first(3, box_, "(").is(Own::search));
  EXPECT_EQ(bench_.table.searchIndex, 2u);
  EXPECT_EQ(bench_.table.searchResults.size(), 2u);
}

}  // namespace
}  // namespace zelta::testing

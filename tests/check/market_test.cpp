// Tables of all shapes side by side.

#include "check/market.h"

namespace zelta::testing {
namespace {

using MarketWithoutFault = Market;

TEST_F(MarketWithoutFault, OfEmptyTablesIsClean) {
  makeTables();
  EXPECT_EQ(findingsOf(path(), true), "");
}

TEST_F(MarketWithoutFault, OfManyObjectsIsCleanAndSeenInFull) {
  makeTables();
  constexpr std::uint32_t kObjects = 1000;
  fill(kObjects);
  EXPECT_EQ(findingsOf(path(), true), "");
  CheckCounts counts;
  EXPECT_TRUE(checkDatabase(path(), {}, &counts).empty());
  EXPECT_EQ(counts.tables, 4u);
  EXPECT_EQ(counts.objects, 4u * kObjects);
  EXPECT_EQ(counts.indexes, 8u);
  std::uint64_t rows = 0;
  for (std::uint32_t i = 0; i < kObjects; ++i) rows += i * 7919 % 10007 % 4;
  EXPECT_EQ(counts.keys, 6u * kObjects + 2 * rows);
}

TEST_F(MarketWithoutFault, ShowsAnOpenTransactionAsPendingWork) {
  makeTables();
  fill(10);
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
  for (unsigned table = kBare; table <= kWide; ++table) {
    ASSERT_DONE(handle, handle.OpenTable(table));
    for (std::uint32_t i = 0; i < 200; ++i) add(handle, table, 20000 + i);
  }
  const std::vector<CheckFinding> open = findings();
  EXPECT_FALSE(open.empty());
  for (const CheckFinding& finding : open) {
    EXPECT_NE(finding.kind, CheckKind::damage) << describe(finding);
  }
  for (const char* file : {"bare.zlm", "fixed.zlm", "texts.zlm", "wide.zlm"}) {
    EXPECT_TRUE(std::any_of(open.begin(), open.end(), [&](const CheckFinding& finding) {
      return finding.kind == CheckKind::pendingWork && finding.file.find(file) != std::string::npos;
    })) << file;
  }
  ASSERT_DONE(handle, handle.AbortTransaction(true));
  ASSERT_DONE(handle, handle.EndTransaction());
  EXPECT_EQ(findingsOf(path()), "");
}

}  // namespace
}  // namespace zelta::testing

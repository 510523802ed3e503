// Databases without fault, in which the checker must find nothing and see everything.

#include <gtest/gtest.h>

#include "support/check_database.h"
#include "support/database_fixture.h"
#include "support/edit_session.h"
#include "transaction/log/log_parameters.h"

namespace zelta::testing {
namespace {

TEST(CleanDatabase, NewHasNothingToFind) {
  const FreshFolder folder;
  {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(folder.file("db.zlc").c_str()));
  }
  EXPECT_EQ(findingsOf(folder.file("db.zlc"), true), "");
}

TEST(CleanDatabase, MissingIsAFinding) {
  const FreshFolder folder;
  const auto findings = checkDatabase(folder.file("db.zlc"));
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].kind, CheckKind::damage);
}

class CleanTable : public ::testing::TestWithParam<TableForm> {
 protected:
  void make() {
    EditSession session(folder, GetParam());
    session.makeTable();
    if (::testing::Test::HasFailure()) return;
    expectClean(folder, "db.zlc");
  }
  void fill(std::uint32_t count) {
    EditSession session(folder, GetParam());
    ASSERT_TRUE(session.enter().ok());
    for (std::uint32_t i = 1; i <= count; ++i) {
      const std::uint32_t number = i * 7919 % 10007;
      ASSERT_TRUE(session.add({number, "text " + std::to_string(number)}).ok()) << session.error();
    }
    ASSERT_TRUE(session.commit().ok());
    ASSERT_TRUE(session.end().ok());
  }
  [[nodiscard]] std::uint64_t indexes() const {
    return !GetParam().indexed ? 0 : GetParam().fixed ? 1 : 2;
  }

  FreshFolder folder;
};

TEST_P(CleanTable, OfManyObjectsIsSeenInFull) {
  make();
  fill(3000);
  CheckCounts counts;
  EXPECT_TRUE(checkDatabase(folder.file("db.zlc"), {}, &counts).empty());
  EXPECT_EQ(findingsOf(folder.file("db.zlc"), true), "");
  EXPECT_EQ(counts.tables, 1u);
  EXPECT_EQ(counts.objects, 3000u);
  EXPECT_EQ(counts.indexes, indexes());
  EXPECT_EQ(counts.keys, 3000 * indexes());
  EXPECT_EQ(counts.pages > 0, GetParam().indexed);
  EXPECT_EQ(counts.notChecked, 0u);
}

TEST_P(CleanTable, StaysSoThroughRandomTransactions) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  make();
  RandomEdits random(seed, GetParam());
  Model model;
  EditSession session(folder, GetParam());
  for (int round = 0; round < 40; ++round) {
    ASSERT_TRUE(session.enter().ok()) << session.error();
    const std::vector<EditStep> steps = random.transaction(model, 1 + random.below(60));
    ASSERT_TRUE(session.carryOut(steps).ok()) << session.error();
    const bool commit = random.below(5) != 0;
    ASSERT_TRUE((commit ? session.commit() : session.abort()).ok()) << session.error();
    ASSERT_TRUE(session.end().ok()) << session.error();
    for (const EditStep& step : steps) {
      if (commit) applyStep(model, step);
    }
    ASSERT_EQ(findingsOf(folder.file("db.zlc")), "") << "round " << round;
    CheckCounts counts;
    ASSERT_TRUE(checkDatabase(folder.file("db.zlc"), {}, &counts).empty());
    ASSERT_EQ(counts.objects, model.size());
  }
}

TEST_P(CleanTable, WithKeptLogsHasItsEntriesSeen) {
  make();
  {
    EditSession session(folder, GetParam());
    ASSERT_TRUE(session.begin(CZELTA::TransactionExclusive).ok());
    ASSERT_TRUE(setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, 1).ok());
    ASSERT_TRUE(session.end().ok());
    ASSERT_TRUE(session.enter().ok());
    for (std::uint32_t i = 1; i <= 60; ++i) {
      ASSERT_TRUE(session.add({i, std::to_string(i)}).ok());
      const std::uint64_t id = session.addedID();
      ASSERT_TRUE(session.commit().ok());
      if (i % 7 != 0) continue;
      ASSERT_TRUE(session.erase(id).ok()) << session.error();
      ASSERT_TRUE(session.commit().ok());
    }
    ASSERT_TRUE(session.end().ok());
  }
  EXPECT_EQ(findingsOf(folder.file("db.zlc"), true), "");
  CheckCounts counts;
  EXPECT_TRUE(checkDatabase(folder.file("db.zlc"), {}, &counts).empty());
  EXPECT_EQ(counts.logEntries, 68u);
}

INSTANTIATE_TEST_SUITE_P(AllForms, CleanTable, ::testing::ValuesIn(kForms),
                         [](const ::testing::TestParamInfo<TableForm>& form) {
                           std::string name = form.param.name;
                           for (char& c : name) c = c == ' ' ? '_' : c;
                           return name;
                         });

}  // namespace
}  // namespace zelta::testing

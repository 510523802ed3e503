// Transactions that work in several tables at once.

#include <gtest/gtest.h>

#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

class SeveralTables : public DatabaseTest {
 protected:
  void SetUp() override {
    ASSERT_DONE(one, one.CreateDatabase(path().c_str()));
    for (unsigned table = 1; table <= kTables; ++table) {
      makeTable(one, names_[table - 1], table, table);
    }
    ASSERT_DONE(two, two.OpenDatabase(path().c_str()));
    begin(one);
    begin(two);
    for (unsigned table = 1; table <= kTables; ++table) add(one, table, table);
    ASSERT_DONE(one, one.CommitTransaction(true));
  }
  void TearDown() override {
    EXPECT_DONE(one, one.CloseDatabase());
    EXPECT_DONE(two, two.CloseDatabase());
    expectClean(path());
  }
  static void begin(CZELTA& handle) {
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    for (unsigned table = 1; table <= kTables; ++table) {
      ASSERT_DONE(handle, handle.OpenTable(table));
    }
  }
  static void add(CZELTA& handle, unsigned table, std::uint32_t number) {
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.NewObject(table, &object, 0));
    std::memcpy(object.data, &number, 4);
    ASSERT_DONE(handle, handle.AddObject(table, nullptr, 0));
  }
  static void rewrite(CZELTA& handle, unsigned table, std::uint32_t number) {
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.ReadObject(table, 1, &object));
    std::memcpy(object.data, &number, 4);
    ASSERT_DONE(handle, handle.RewriteObject(table, nullptr));
  }
  /// The number of object 1, and its lock; 0 if that is another's.
  static std::uint32_t lock(CZELTA& handle, unsigned table) {
    CZELTA::Object object;
    const auto word = handle.ReadObject(table, 1, CZELTA::ReadNoWait, &object);
    if (word != 0) {
      EXPECT_EQ(word, ownCode(27));
      return 0;
    }
    std::uint32_t number = 0;
    std::memcpy(&number, object.data, 4);
    return number;
  }
  static bool isLocked(CZELTA& handle, unsigned table) {
    if (lock(handle, table) == 0) return true;
    EXPECT_DONE(handle, handle.RestoreObject(table, 1, true));
    return false;
  }

  static constexpr unsigned kTables = 3;
  CZELTA one;
  CZELTA two;

 private:
  const char16_t* names_[kTables] = {u"apples", u"pears", u"plums"};
};

TEST_F(SeveralTables, AreFreeBehindACommitEvenIfItChangesOnlyOne) {
  ASSERT_EQ(lock(one, 1), 1u);
  rewrite(one, 2, 20);
  ASSERT_DONE(one, one.CommitTransaction(false));
  EXPECT_TRUE(isLocked(two, 1));
  EXPECT_TRUE(isLocked(two, 2));
  EXPECT_FALSE(isLocked(two, 3));
  rewrite(one, 3, 30);
  ASSERT_DONE(one, one.CommitTransaction(true));
  for (unsigned table = 1; table <= kTables; ++table) EXPECT_FALSE(isLocked(two, table)) << table;
  EXPECT_EQ(lock(two, 2), 20u);
  EXPECT_EQ(lock(two, 3), 30u);
  CZELTA::Object object;
  for (unsigned table = 1; table <= kTables; ++table) {
    EXPECT_EQ(one.RewriteObject(table, &object), ownCode(39)) << table;
  }
}

TEST_F(SeveralTables, AreFreeBehindACommitOfNothing) {
  ASSERT_EQ(lock(one, 1), 1u);
  ASSERT_EQ(lock(one, 3), 3u);
  ASSERT_DONE(one, one.CommitTransaction(false));
  EXPECT_TRUE(isLocked(two, 1) && isLocked(two, 3));
  ASSERT_DONE(one, one.CommitTransaction(true));
  EXPECT_FALSE(isLocked(two, 1) || isLocked(two, 3));
}

TEST_F(SeveralTables, AreLeftAsTheyWereByAnAbort) {
  for (const bool releases : {false, true}) {
    rewrite(one, 3, 30);
    ASSERT_EQ(lock(one, 2), 2u);
    ASSERT_DONE(one, one.DeleteObject(1, 1, nullptr));
    add(one, 1, 10);
    ASSERT_DONE(one, one.AbortTransaction(releases));
    for (unsigned table = 1; table <= kTables; ++table) {
      EXPECT_EQ(isLocked(two, table), !releases) << table;
    }
  }
  for (unsigned table = 1; table <= kTables; ++table) {
    EXPECT_EQ(lock(two, table), table);
    add(two, table, table * 10);  // 10 and 30 are nobody's
  }
  ASSERT_DONE(two, two.CommitTransaction(true));
}

TEST_F(SeveralTables, ShareOneEntryOfTheLogInTheOrderOfTheirNumbers) {
  ASSERT_DONE(one, one.EndTransaction());
  ASSERT_DONE(two, two.EndTransaction());
  ASSERT_DONE(one, one.BeginTransaction(CZELTA::TransactionExclusive, 10000));
  ASSERT_DONE(one, one.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
  ASSERT_DONE(one, one.EndTransaction());
  begin(one);
  add(one, 3, 33);
  ASSERT_EQ(lock(one, 2), 2u);
  ASSERT_DONE(one, one.DeleteObject(1, 1, nullptr));
  ASSERT_DONE(one, one.CommitTransaction(true));
  const std::string log = folder.bytes("shop.0000.zll");
  constexpr std::uint64_t kEntry = 432;
  const auto at = [&](std::uint64_t offset) {
    return numberAt<std::uint32_t>(log, kEntry + offset);
  };
  EXPECT_EQ(at(16), 2u) << "sections";
  EXPECT_EQ(log.substr(kEntry + 32, 4), "ZELD");
  EXPECT_EQ(at(36), 1u);
  EXPECT_EQ(at(40), 1u) << "one deleted ID";
  EXPECT_EQ(at(48), 0u) << "no images";
  EXPECT_EQ(at(56), 1u) << "the ID";
  EXPECT_EQ(log.substr(kEntry + 60, 4), "ZELD");
  EXPECT_EQ(at(64), 3u);
  EXPECT_EQ(at(68), 0u);
  EXPECT_EQ(at(76), 16u) << "an image of 10 bytes";
  EXPECT_EQ(at(84), 10u);
  EXPECT_EQ(at(94), 33u) << "behind version and ID";
}

}  // namespace
}  // namespace zelta::testing

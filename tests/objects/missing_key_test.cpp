// Reads and deletes in modes that need a key, without one. Flags of the mode, and what a
// transaction that cannot write adds to it, change what comes of that.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/database_fixture.h"
#include "support/read_bench.h"

namespace zelta::testing {
namespace {

constexpr const char* kNamed =
    "One or more parameters is within an invaild range for table \"goods\".";
constexpr const char* kNameless = "One or more parameters is within an invaild range.";
constexpr auto kEqual = CZELTA::ReadEqual;

class MissingKey : public DatabaseTest {
 protected:
  void SetUp() override {
    makeShop();
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    begin(CZELTA::TransactionShared);
    for (std::uint32_t number = 1; number <= 3; ++number) {
      ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
      std::memcpy(object.data, &number, sizeof number);
      ASSERT_DONE(handle, handle.AddObject(1, nullptr, 0));
    }
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.EndTransaction());
  }
  void begin(CZELTA::Mode mode) {
    ASSERT_DONE(handle, handle.BeginTransaction(mode, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
  }
  unsigned long long read(CZELTA::Mode mode, unsigned index) {
    return handle.ReadObject(1, mode, &object, index, nullptr, nullptr);
  }
  unsigned long long erase(CZELTA::Mode mode, unsigned index = 0) {
    return handle.DeleteObject(1, mode, &object, index, nullptr, nullptr);
  }

  CZELTA handle;
  CZELTA::Object object{};
};

TEST_F(MissingKey, OfAReaderIsRefusedByTheTable) {
  for (const CZELTA::Mode mode : {CZELTA::TransactionRead, CZELTA::TransactionExclusiveRead}) {
    begin(mode);
    for (unsigned index = 0; index <= 1; ++index) {
      for (unsigned base = kEqual; base <= CZELTA::ReadGreaterEqual; ++base) {
        EXPECT_EQ(read(static_cast<CZELTA::Mode>(base), index), ownCode(7)) << base;
        EXPECT_EQ(messageOf(handle), kNamed);
      }
    }
    ASSERT_DONE(handle, handle.EndTransaction());
  }
}

TEST_F(MissingKey, OfAWriterIsRefusedByTheTableIfTheModeHasFlags) {
  begin(CZELTA::TransactionShared);
  for (unsigned index = 0; index <= 1; ++index) {
    EXPECT_EQ(read(kEqual, index), ownCode(7));
    EXPECT_EQ(messageOf(handle), kNameless);
    for (const CZELTA::Mode flag :
         {CZELTA::ReadNoLock, CZELTA::ReadNoWait, CZELTA::ReadShortWait}) {
      EXPECT_EQ(read(kEqual | flag, index), ownCode(7)) << flag;
      EXPECT_EQ(messageOf(handle), kNamed);
    }
  }
}

TEST_F(MissingKey, OfADeleteBesideFlagsMeansTheCurrentObject) {
  begin(CZELTA::TransactionShared);
  EXPECT_EQ(erase(kEqual | CZELTA::ReadNoWait), ownCode(39));
  ASSERT_DONE(handle, handle.ReadObject(1, 2, &object));
  EXPECT_EQ(erase(kEqual), ownCode(7));
  EXPECT_EQ(messageOf(handle), kNameless);
  EXPECT_EQ(erase(kEqual | CZELTA::ReadNoWait, 1), ownCode(7));
  EXPECT_EQ(messageOf(handle), kNamed);
  EXPECT_DONE(handle, erase(kEqual | CZELTA::ReadNoWait));
  EXPECT_EQ(object.objectID, 2);
  EXPECT_EQ(handle.ReadObject(1, 2, &object), ownCode(32));
}

TEST(MissingKeyOfResults, IsTheCurrentObject) {
  ReadBench bench;
  bench.write({{1, {10, "one"}}, {2, {20, "two"}}, {3, {30, "three"}}});
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  handle.table->schema->indexes[0].indexKind = CZELTA::SpatialPattern;
  handle.table->searchIndex = 1;
  handle.table->searchResults = SortedIds({1, 2, 3});
  ASSERT_TRUE(handle.readId(2).ok());
  ASSERT_TRUE(handle.read(CZELTA::ReadEqual, 1).ok());
  EXPECT_EQ(handle.object.objectID, 2);
  ASSERT_TRUE(handle.read(CZELTA::ReadGreater, 1).ok());
  EXPECT_EQ(handle.object.objectID, 3);
  handle.table->searchInverted = true;
  EXPECT_TRUE(handle.read(CZELTA::ReadEqual, 1).is(Own::parameter));
  handle.table->schema->indexes[0].indexKind = CZELTA::BPlusTree;
}

}  // namespace
}  // namespace zelta::testing

// IDs that are wider than those of the table: no object has one, and none that shares the lower
// half with it is touched.

#include <gtest/gtest.h>

#include <limits>

#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

class FarId : public DatabaseTest {
 protected:
  void SetUp() override {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    makeTable(handle, u"goods");
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 1000));
    ASSERT_DONE(handle, handle.OpenTable(1));
    for (std::uint32_t number = 1; number <= 3; ++number) {
      CZELTA::Object object;
      ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
      std::memcpy(object.data, &number, sizeof number);
      ASSERT_DONE(handle, handle.AddObject(1, nullptr, 0));
    }
    ASSERT_DONE(handle, handle.CommitTransaction(true));
  }
  void expectAll() {
    for (long long id = 1; id <= 3; ++id) {
      CZELTA::Object object;
      EXPECT_DONE(handle, handle.ReadObject(1, id, CZELTA::ReadNoLock, &object));
      EXPECT_EQ(object.objectID, id);
    }
  }
  static constexpr long long kFar[] = {0x1'0000'0000,
                                       0x1'0000'0001,
                                       0x1'0000'0003,
                                       0x2'0000'0002,
                                       std::numeric_limits<long long>::max(),
                                       std::numeric_limits<long long>::min(),
                                       std::numeric_limits<long long>::min() + 2,
                                       -1,
                                       -0x1'0000'0000 + 2};

  CZELTA handle;
};

TEST_F(FarId, IsNotReadInAnyMode) {
  for (const long long id : kFar) {
    SCOPED_TRACE(id);
    CZELTA::Object object;
    EXPECT_EQ(handle.ReadObject(1, id, &object), ownCode(32));
    EXPECT_EQ(messageOf(handle), "Unable to find index key for object " + std::to_string(id) +
                                     ", within index 0 of table \"goods\"");
    for (const CZELTA::Mode mode :
         {CZELTA::ReadEqual, CZELTA::ReadLess, CZELTA::ReadGreater, CZELTA::ReadLessEqual,
          CZELTA::ReadGreaterEqual, CZELTA::ReadNoLock, CZELTA::ReadNoWait}) {
      EXPECT_EQ(handle.ReadObject(1, id, mode, &object), ownCode(32)) << mode;
      EXPECT_EQ(object.data, nullptr);
    }
  }
  expectAll();
}

TEST_F(FarId, IsNotDeleted) {
  for (const long long id : kFar) {
    SCOPED_TRACE(id);
    ASSERT_DONE(handle, handle.ReadObject(1, 2, nullptr));  // the one in the buffer
    EXPECT_EQ(handle.DeleteObject(1, id, nullptr), ownCode(32));
    EXPECT_EQ(messageOf(handle), "Unable to find index key for object " + std::to_string(id) +
                                     ", within index 0 of table \"goods\"");
  }
  ASSERT_DONE(handle, handle.CommitTransaction(true));
  expectAll();
}

TEST_F(FarId, IsNotRestored) {
  ASSERT_DONE(handle, handle.DeleteObject(1, 2, nullptr));
  for (const long long id : kFar) {
    SCOPED_TRACE(id);
    EXPECT_EQ(handle.RestoreObject(1, id, true), ownCode(id < 0 ? 31 : 32));
    if (id < 0) continue;
    EXPECT_EQ(messageOf(handle), "Unable to find index key for object " + std::to_string(id) +
                                     ", within index 0 of table \"goods\"");
  }
  EXPECT_EQ(handle.RestoreObject(1, 0xFFFFFFFF, true), ownCode(31));
  EXPECT_EQ(handle.ReadObject(1, 2, nullptr), ownCode(32)) << "it is still deleted";
  EXPECT_DONE(handle, handle.RestoreObject(1, 2, true));
  expectAll();
}

TEST_F(FarId, IsNotAdded) {
  for (const long long id : kFar) {
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
    EXPECT_EQ(handle.AddObject(1, nullptr, id), ownCode(7)) << id;
  }
  expectAll();
}

TEST_F(FarId, InTheGeneralFormsTheIdIsAsWideAsTheTables) {
  const std::uint32_t id[] = {2, 7};  // what lies behind it is no part of it
  CZELTA::Object object;
  EXPECT_DONE(handle, handle.ReadObject(1, CZELTA::ReadEqual, &object, 0, id, nullptr));
  EXPECT_EQ(object.objectID, 2);
  EXPECT_DONE(handle, handle.DeleteObject(1, CZELTA::ReadEqual, &object, 0, id, nullptr));
  EXPECT_EQ(object.objectID, 2);
}

}  // namespace
}  // namespace zelta::testing

// Points that stand behind other points in an object, where no field is found.

#include <gtest/gtest.h>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

constexpr unsigned kTable = 1;

class HiddenPoints : public DatabaseTest {
 protected:
  /// A table with two fields of points, and an index over one of them.
  void makeTable(std::int32_t indexedField) {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    SchemaRecords records(
        {{CZELTA::TypeUInt32}, {CZELTA::TypePoints2, 20}, {CZELTA::TypePoints2, 20}},
        {{{{0, 0}}}, {{{indexedField, 0}}, CZELTA::SpatialPattern}}, 0);
    records.schema.tableId = kTable;
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 0));
    ASSERT_DONE(handle, handle.OpenTable(kTable));
  }
  unsigned long long add() {
    CZELTA::Object object{};
    const std::string point = Packed().number(std::int32_t{3}).number(std::int32_t{4});
    const std::string values = Packed().binary(point).binary(point);
    EXPECT_DONE(handle, handle.NewObject(kTable, &object, 0));
    EXPECT_DONE(handle,
                handle.PutVariableValues(kTable, values.data(),
                                         static_cast<unsigned>(values.size()), 0, 2, &object));
    return handle.AddObject(kTable, &object, 0);
  }

  CZELTA handle;
};

/// A commit that is decided could not be carried out.
TEST_F(HiddenPoints, ThatAnIndexIsOverAreRefusedBeforeTheyAreStored) {
  makeTable(2);
  EXPECT_EQ(add(), ownCode(39));
  EXPECT_EQ(messageOf(handle), "The table handle does not currently contain a valid object.");
  ASSERT_DONE(handle, handle.CommitTransaction(true));
  ASSERT_DONE(handle, handle.EndTransaction());
  ASSERT_DONE(handle, handle.CloseDatabase());
  EXPECT_EQ(findingsOf(path()), "");
  EXPECT_DONE(handle, handle.OpenDatabase(path().c_str()));
}

TEST_F(HiddenPoints, ThatNoIndexIsOverAreStored) {
  makeTable(1);
  ASSERT_DONE(handle, add());
  ASSERT_DONE(handle, handle.CommitTransaction(true));
  const std::string point = Packed().binary(Packed().number(std::int32_t{3}).number(4));
  long long count = 0;
  ASSERT_DONE(handle, handle.SearchIndex(kTable, 2, point.data(), 0u, CZELTA::Mode{}, &count));
  EXPECT_EQ(count, 1);
  ASSERT_DONE(handle, handle.EndTransaction());
}

}  // namespace
}  // namespace zelta::testing

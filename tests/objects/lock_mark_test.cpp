// The mark of how far locking has come, when the table that it stands in goes away.

#include <gtest/gtest.h>

#include "support/buffer_table.h"
#include "support/database_fixture.h"

namespace zelta {
namespace {

using testing::Segments;

class LockMark : public testing::DatabaseTest {
 protected:
  /// Makes table 1 of `fields` numbers, whose locks go by a key of all of them, and locks an object
  /// of it.
  static void makeAndLock(CZELTA& handle, std::size_t fields, std::uint32_t value) {
    Segments segments;
    for (std::size_t f = 0; f < fields; ++f) segments.push_back({static_cast<std::int32_t>(f), 0});
    testing::SchemaRecords records(testing::Fields(fields, {CZELTA::TypeUInt32}), {{segments}}, 0);
    records.schema.tableId = 1;
    records.schema.lockOrder = 9;
    records.schema.lockIndex = 1;
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    addAndLock(handle, fields, value);
  }
  static void addAndLock(CZELTA& handle, std::size_t fields, std::uint32_t value) {
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
    for (std::size_t f = 0; f < fields; ++f) {
      std::memcpy(static_cast<char*>(object.data) + 4 * f, &value, 4);
    }
    ASSERT_DONE(handle, handle.AddObject(1, &object, 0));
    ASSERT_DONE(handle, handle.CommitTransaction(false));
    ASSERT_DONE(handle, handle.ReadObject(1, object.objectID, &object));
  }
};

TEST_F(LockMark, OfARemovedTableIsNotComparedWithAnotherOnesKeys) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
  // The longer key would be read beyond the shorter one's end.
  for (const std::size_t fields : {1u, 64u, 2u}) {
    makeAndLock(handle, fields, 7);
    addAndLock(handle, fields, 8);
    ASSERT_DONE(handle, handle.RemoveTable(1, true));
  }
  ASSERT_DONE(handle, handle.EndTransaction());
}

}  // namespace
}  // namespace zelta

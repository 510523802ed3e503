// More keys than the checker looks at one by one.

#include <algorithm>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

class ManyKeys : public DatabaseTest {
 protected:
  static constexpr std::uint32_t kRows = 70000;

  /// One object, with a key for each of its rows.
  void SetUp() override {
    const Fields fields = {{CZELTA::TypeSubRecords, 40, {{CZELTA::TypeUInt32}}}};
    const Segments rows = {{1, 0}, {CZELTA::ObjectIdSegment, 0}, {CZELTA::EntryNumberSegment, 0}};
    SchemaRecords records(fields, {{rows}}, 0);
    records.schema.tableId = 1;
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.OpenTable(1));
    Packed values;
    for (std::uint32_t row = 0; row < kRows; ++row) values.number(row * 3);
    const std::string bytes = Packed().binary(values);
    CZELTA::Object object{};
    ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
    ASSERT_DONE(handle, handle.PutVariableValues(
                            1, bytes.data(), static_cast<unsigned>(bytes.size()), 0, 1, &object));
    ASSERT_DONE(handle, handle.AddObject(1, &object, 0));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.EndTransaction());
  }
};

TEST_F(ManyKeys, AgreeWithoutBeingKept) {
  CheckCounts counts;
  EXPECT_TRUE(checkDatabase(path(), {}, &counts).empty());
  EXPECT_EQ(counts.keys, kRows);
}

TEST_F(ManyKeys, ThatAreGoneAreCounted) {
  std::string bytes = folder.bytes("T.zli");
  constexpr std::size_t kRoot = 88;
  std::fill_n(bytes.begin() + kRoot, 8, '\0');
  folder.write("T.zli", bytes);
  CheckCounts counts;
  const auto all = checkDatabase(path(), {}, &counts);
  EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const CheckFinding& finding) {
    return finding.what == "index 0: at least 70000 keys are missing, 0 belong to no object";
  })) << describe(all.back());
  EXPECT_EQ(counts.keys, 0u);
}

}  // namespace
}  // namespace zelta::testing

// Schema changes in the log.

#include "frame/upcalls.h"
#include "transaction/log_fixture.h"

namespace zelta {
namespace {

using testing::LogTest;
using testing::numberAt;

class SchemaLog : public LogTest {
 protected:
  SchemaLog() { header.logFlags = 1; }
  Result log(DirectoryChange change, std::uint32_t table, const std::string& body) {
    return logSchemaChange(metaData, header, change, table, body);
  }
  std::size_t entries() { return raw("shop.0000.zll", "ZELO").entries.size(); }
};

TEST_F(SchemaLog, TheRecordHasItsForm) {
  ASSERT_TRUE(log(DirectoryChange::create, 7, "entry and schema").ok());
  const std::string bytes = folder.bytes("shop.0000.zll");
  ASSERT_EQ(bytes.size(), 432u + 72);
  const std::string entry = bytes.substr(432);
  EXPECT_EQ(numberAt<std::uint64_t>(entry, 0), 72u);
  EXPECT_EQ(entry.substr(8, 4), "ZELL");
  EXPECT_EQ(numberAt<std::uint32_t>(entry, 12), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(entry, 16), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(entry, 20), 0u);
  std::uint64_t checksum = 0;
  xorChecksum64(checksum, entry.data() + 32, 40);
  EXPECT_EQ(numberAt<std::uint64_t>(entry, 24), checksum);
  EXPECT_EQ(entry.substr(32, 4), "ZELS");
  EXPECT_EQ(numberAt<std::uint32_t>(entry, 36), 7u);
  EXPECT_EQ(numberAt<std::uint32_t>(entry, 40), 34u);
  EXPECT_EQ(numberAt<std::uint32_t>(entry, 44), 0u);
  EXPECT_EQ(numberAt<std::uint64_t>(entry, 48), 16u);
  EXPECT_EQ(entry.substr(56), "entry and schema");
}

TEST_F(SchemaLog, AnEqualRecordThatIsTheLastIsNotLoggedAgain) {
  ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
  ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
  EXPECT_EQ(entries(), 1u);
}

TEST_F(SchemaLog, AnyDifferenceIsLogged) {
  ASSERT_TRUE(log(DirectoryChange::changeSchema, 7, "body").ok());
  ASSERT_TRUE(log(DirectoryChange::changeSchema, 7, "Body").ok()) << "another body";
  ASSERT_TRUE(log(DirectoryChange::changeSchema, 7, "Body2").ok()) << "a longer body";
  ASSERT_TRUE(log(DirectoryChange::changeSchema, 8, "Body2").ok()) << "another table";
  ASSERT_TRUE(log(DirectoryChange::add, 8, "Body2").ok()) << "another operation";
  EXPECT_EQ(entries(), 5u);
  ASSERT_TRUE(log(DirectoryChange::changeSchema, 7, "body").ok()) << "not the last one any more";
  EXPECT_EQ(entries(), 6u);
}

TEST_F(SchemaLog, ARecordWithoutABodyIsLogged) {
  ASSERT_TRUE(log(DirectoryChange::remove, 7, "").ok());
  EXPECT_EQ(folder.bytes("shop.0000.zll").size(), 432u + 56);
}

TEST_F(SchemaLog, ABrokenOrIncompleteRecordIsLoggedAgain) {
  ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
  ASSERT_EQ(writeBuffer(metaData.logFile, 432 + 56, "X", 1), 0u);
  ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
  EXPECT_EQ(entries(), 2u);
  ASSERT_TRUE(prepare().ok());
  append(1, 100);
  ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
  EXPECT_EQ(entries(), 4u) << "a reserved entry is left as it is";
}

TEST_F(SchemaLog, ADeathAtAnyCallLeavesTheRecordLoggedOnceByTheNext) {
  ASSERT_TRUE(prepare().ok());
  append(9, 40);
  reopen();
  const std::string before = folder.bytes("shop.0000.zll");
  bool cameThrough = false;
  for (std::uint64_t calls = 0; !cameThrough; ++calls) {
    ASSERT_LT(calls, 50u);
    folder.write("shop.0000.zll", before);
    {
      const testing::StopAfter stop(calls, true);
      const Result result = log(DirectoryChange::create, 7, "body");
      cameThrough = !stop.stopped;
      EXPECT_EQ(result.ok(), cameThrough);
    }
    reopen();
    ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
    const std::size_t once = entries();
    ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
    EXPECT_EQ(entries(), once);
    reopen();
  }
}

TEST_F(SchemaLog, LoggingThatRotatesChangesTheCallersHeader) {
  header.logFileMegabytes = 1;
  ASSERT_TRUE(prepare().ok());
  append(2, 1100000);
  ASSERT_TRUE(log(DirectoryChange::create, 7, "body").ok());
  EXPECT_EQ(header.lastLogFile, 1u);
  EXPECT_EQ(raw("shop.0001.zll", "ZELO").entries.size(), 1u);
}

}  // namespace
}  // namespace zelta

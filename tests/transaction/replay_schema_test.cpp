// Replay of changes of the table directory from the log.

#include <gtest/gtest.h>

#include "frame/table_directory.h"
#include "frame/upcalls.h"
#include "platform/file_io.h"
#include "support/edit_session.h"
#include "transaction/log/log_parameters.h"
#include "transaction/log/log_search.h"
#include "transaction/replay/replay.h"

namespace zelta::testing {
namespace {

const TableForm kForm = {"variable", false, false, true};

/// A database that keeps its logs, in an exclusive transaction.
class ReplaySchema : public ::testing::Test {
 protected:
  ReplaySchema() {
    EXPECT_TRUE(session.begin(CZELTA::TransactionExclusive).ok());
    EXPECT_TRUE(setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, 1).ok());
    makeTable(true);
  }
  ~ReplaySchema() override { EXPECT_TRUE(session.end().ok()); }

  void makeTable(bool log) {
    const SchemaRecords records({{CZELTA::TypeUInt32}, {CZELTA::TypeText, 20}},
                                {{Segments{{0, 0}}}, {Segments{{1, 0}}}}, 0);
    CZELTA::Schema table = records.schema;
    table.tableName = u"Goods";
    table.tableId = 7;
    table.lockOrder = 70;
    ASSERT_TRUE(createTable({session.metaData, session.tables}, &table, nullptr, log).ok())
        << session.error();
  }
  void remove(bool deleteFiles, bool log) {
    ASSERT_TRUE(removeTable({session.metaData, session.tables}, 7, deleteFiles, log).ok())
        << session.error();
  }
  void enter(DirectoryChange change, const std::string& body) {
    ControlHeader_tag header;
    ASSERT_TRUE(refreshControlHeader(session.metaData, header).ok());
    ASSERT_TRUE(logSchemaChange(session.metaData, header, change, 7, body).ok());
  }
  /// Replays the last entry of number 1.
  Result replay() {
    clearError(session.metaData);
    ControlHeader_tag header;
    LogFile log(session.metaData);
    LogEntry entry;
    ZELTA_TRY(refreshControlHeader(session.metaData, header));
    ZELTA_TRY(findLogEntry(&header, 1, log, &entry.position));
    EXPECT_NE(entry.position, 0u);
    EXPECT_EQ(readBuffer(log.handle(), entry.position, &entry.head, sizeof entry.head), 0u);
    return replayLogEntry(log, entry, session.tables);
  }
  bool hasTable() {
    ControlHeader_tag header;
    TableDirectory directory;
    EXPECT_TRUE(refreshControlHeader(session.metaData, header).ok());
    EXPECT_TRUE(directory.read(session.metaData, header).ok());
    const DirectoryEntry* entry = directory.find(7);
    return entry != nullptr && entry->name == u"Goods" && entry->lockOrder == 70;
  }

  FreshFolder folder;
  EditSession session{folder, kForm};
};

TEST_F(ReplaySchema, A_table_is_made_as_it_was) {
  const std::string file = folder.bytes("Goods.zlt");
  remove(true, false);
  ASSERT_FALSE(folder.has("Goods.zlt"));
  ASSERT_TRUE(replay().ok()) << session.error();
  EXPECT_TRUE(hasTable());
  EXPECT_EQ(folder.bytes("Goods.zlt"), file);
}

TEST_F(ReplaySchema, A_table_that_stands_is_left_alone) {
  const std::string control = folder.bytes("db.zlc");
  ASSERT_TRUE(replay().ok()) << session.error();
  EXPECT_EQ(folder.bytes("db.zlc"), control);
}

TEST_F(ReplaySchema, A_table_is_removed_and_its_files_with_it_if_so_told) {
  remove(true, true);
  makeTable(false);
  ASSERT_TRUE(replay().ok()) << session.error();
  EXPECT_FALSE(hasTable());
  EXPECT_FALSE(folder.has("Goods.zlt"));
  ASSERT_TRUE(replay().ok()) << session.error();
}

TEST_F(ReplaySchema, A_removal_that_keeps_the_files_keeps_them) {
  remove(false, true);
  ASSERT_TRUE(addTable({session.metaData, session.tables}, u"Goods", 7, nullptr, 70, false).ok());
  ASSERT_TRUE(replay().ok()) << session.error();
  EXPECT_FALSE(hasTable());
  EXPECT_TRUE(folder.has("Goods.zlt"));
  ASSERT_TRUE(replay().ok()) << session.error();
}

TEST_F(ReplaySchema, A_table_is_entered_again) {
  remove(false, false);
  ASSERT_TRUE(addTable({session.metaData, session.tables}, u"Goods", 7, nullptr, 70, true).ok());
  remove(false, false);
  ASSERT_TRUE(replay().ok()) << session.error();
  EXPECT_TRUE(hasTable());
  ASSERT_TRUE(replay().ok()) << session.error();
  EXPECT_TRUE(hasTable());
}

TEST_F(ReplaySchema, Another_table_of_the_same_number_is_in_the_way) {
  remove(true, false);
  const SchemaRecords records({{CZELTA::TypeUInt32}}, {}, 0);
  CZELTA::Schema table = records.schema;
  table.tableName = u"Other";
  table.tableId = 7;
  ASSERT_TRUE(createTable({session.metaData, session.tables}, &table, nullptr, false).ok());
  EXPECT_TRUE(replay().is(Own::tableId));
}

TEST_F(ReplaySchema, Every_cut_of_a_body_is_refused) {
  std::string body;
  {
    const std::string log = folder.bytes("db.0000.zll");
    body = log.substr(432 + 56, numberAt<std::uint64_t>(log, 432 + 48));
  }
  remove(true, false);
  for (std::size_t length = 0; length < body.size(); ++length) {
    enter(DirectoryChange::create, body.substr(0, length));
    // The fill at the end of the block is no loss.
    const Result result = replay();
    if (result.ok()) FAIL() << length << " of " << body.size();
    EXPECT_TRUE(result.is(Own::logEntry)) << length;
    EXPECT_FALSE(hasTable());
  }
}

TEST_F(ReplaySchema, A_name_that_leads_out_of_the_folder_is_refused) {
  remove(false, false);
  for (const std::u16string name : {u"../Goods", u"v\\Goods", u"v/../Goods"}) {
    DirectoryEntry entry{7, 70, name, {}};
    TableDirectory single;
    single.insert(entry);
    const std::string body = single.bytes().substr(0, std::size_t{single.entryUnits()} * 2);
    for (const DirectoryChange change : {DirectoryChange::add, DirectoryChange::create}) {
      enter(change, body);
      EXPECT_TRUE(replay().is(Own::logEntry)) << session.error();
      EXPECT_FALSE(hasTable());
    }
  }
}

TEST_F(ReplaySchema, What_cannot_be_replayed_is_refused) {
  enter(DirectoryChange::changeSchema, std::string(8, '\1') + std::string(4, '\0'));
  EXPECT_TRUE(replay().is(Own::logEntry)) << "a body of another table";
  std::string body(8 + 4, '\0');
  body[0] = 7;
  enter(DirectoryChange::changeSchema, body);
  EXPECT_TRUE(replay().is(Own::context));
  enter(static_cast<DirectoryChange>(99), body);
  EXPECT_TRUE(replay().is(Own::logEntry));
}

}  // namespace
}  // namespace zelta::testing

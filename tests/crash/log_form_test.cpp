// Settings of the log's form beside what older log files hold: entries that are out of date must
// not come to life, whoever dies where.

#include "crash/commit_trial.h"
#include "crash/recorded_disk.h"
#include "platform/fault_calls.h"

namespace zelta::testing {
namespace {

const TableForm& kForm = kForms[2];  // texts, and an index
constexpr CZELTA::Mode kAlone = CZELTA::TransactionExclusive;

Result keepLogs(EditSession& session, bool keep) {
  return setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, keep ? 1 : 0);
}

class LogForm : public ::testing::Test {
 protected:
  void SetUp() override {
    EditSession session(folder, kForm);
    session.makeTable();
  }

  /// A setting in a transaction of its own.
  void set(bool keep) const {
    EditSession session(folder, kForm);
    ASSERT_TRUE(session.begin(kAlone).ok()) << session.error();
    ASSERT_TRUE(keepLogs(session, keep).ok()) << session.error();
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  void eachCommitInAFileOfItsOwn() const {
    EditSession session(folder, kForm);
    ASSERT_TRUE(session.begin(kAlone).ok()) << session.error();
    constexpr long long kNothing = 4096;
    ASSERT_TRUE(
        setDatabaseParameter(session.metaData, CZELTA::ParameterLogFileSize, kNothing).ok());
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  void carryOut(CZELTA::Mode mode, const std::vector<EditStep>& steps) {
    EditSession session(folder, kForm);
    ASSERT_TRUE(session.enter(mode).ok()) << session.error();
    ASSERT_TRUE(session.carryOut(steps).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_EQ(session.error(), "");
    ASSERT_TRUE(session.end().ok()) << session.error();
    for (const EditStep& step : steps) applyStep(expected, step);
  }
  /// Objects come, and go again in files behind, through transactions of either kind. What shares
  /// the database has the same number both times.
  void makePast() {
    carryOut(kAlone, adds(1, 4));
    carryOut(CZELTA::TransactionShared, adds(5, 6));
    eachCommitInAFileOfItsOwn();
    carryOut(kAlone, {erase(2)});
    carryOut(CZELTA::TransactionShared, {erase(5)});
  }
  /// The same with numbers that go round: the objects come in file 65535 and go in file 0.
  void makePastThatGoesRound() {
    std::string control = folder.bytes("db.zlc");
    control.replace(28, 4, "\xFE\xFF\xFE\xFF");
    folder.write("db.zlc", control);
    eachCommitInAFileOfItsOwn();
    carryOut(kAlone, adds(1, 6));
    ASSERT_TRUE(folder.has("db.ffff.zll"));
    carryOut(CZELTA::TransactionShared, {erase(2), erase(5)});
    ASSERT_TRUE(folder.has("db.0000.zll"));
    carryOut(CZELTA::TransactionShared, {rewrite(1, 100)});
    ASSERT_TRUE(folder.has("db.0001.zll"));
  }

  /// A process that begins a transaction and dies.
  static void dieBehindBegin(const FreshFolder& where, CZELTA::Mode mode) {
    EXPECT_EQ(inProcess([&] {
                EditSession session(where, kForm);
                if (session.begin(mode).failed()) return 1;
                platform::dieNow();
              }),
              kKilled);
  }
  /// Transactions die, one after the other; then the objects are those that should be there.
  void expectNothingComesBack(const FreshFolder& where, const std::string& context) const {
    for (const CZELTA::Mode mode : {kAlone, CZELTA::TransactionShared}) {
      dieBehindBegin(where, mode);
      std::string damage;
      EXPECT_EQ(contentsOf(where, kForm, &damage), expected) << context;
      EXPECT_EQ(damage, "") << context;
    }
  }

  /// Sets the form in a process that dies at a call. Whether there was such a call.
  static bool dieInSetting(const FreshFolder& where, bool keep, std::uint64_t call) {
    const int end = inProcess([&] {
      EditSession session(where, kForm);
      if (session.begin(kAlone).failed()) return 1;
      Misfortune misfortune(call, Misfortune::Kind::death);
      if (keepLogs(session, keep).failed()) return 2;
      if (!misfortune.struck) platform::dieNow();  // with the transaction still open
      return 3;
    });
    EXPECT_EQ(end, kKilled);
    return end == kKilled;
  }
  /// Dies at each of the calls that change files.
  int dieEverywhere(bool keep) {
    FreshFolder copy;
    const int calls = callsOf(keep);
    for (int call = 0; call <= calls; ++call) {
      const std::string context = " dead at call " + std::to_string(call);
      copyFiles(folder, copy);
      EXPECT_TRUE(dieInSetting(copy, keep, static_cast<std::uint64_t>(call))) << context;
      expectNothingComesBack(copy, context);
    }
    return calls;
  }
  /// How many changing calls a setting takes.
  int callsOf(bool keep) const {
    FreshFolder copy;
    copyFiles(folder, copy);
    Recorder recorder;
    EditSession session(copy, kForm);
    EXPECT_TRUE(session.begin(kAlone).ok()) << session.error();
    const std::size_t before = recorder.changes.size();
    EXPECT_TRUE(keepLogs(session, keep).ok()) << session.error();
    const auto calls = static_cast<int>(recorder.changes.size() - before);
    EXPECT_TRUE(session.end().ok()) << session.error();
    return calls;
  }
  /// Loses power behind each change of the files that a setting makes, and the next commit.
  void losePowerEverywhere(bool keep) {
    FreshFolder copy;
    copyFiles(folder, copy);
    Recorder recorder;
    {
      EditSession session(copy, kForm);
      ASSERT_TRUE(session.begin(kAlone).ok()) << session.error();
      ASSERT_TRUE(keepLogs(session, keep).ok()) << session.error();
      ASSERT_TRUE(session.end().ok()) << session.error();
    }
    platform::faults::install(nullptr);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Disk disk(folder);
    for (std::size_t i = 0; i <= recorder.changes.size(); ++i) {
      for (int sample = 0; sample < 4; ++sample) {
        disk.lose(copy, random);
        expectNothingComesBack(copy, " without power behind change " + std::to_string(i));
        if (HasFailure()) return;
      }
      if (i < recorder.changes.size()) disk.make(recorder.changes[i]);
    }
  }

  FreshFolder folder;
  Model expected;
};

TEST_F(LogForm, Kept_logs_that_are_kept_once_more_bring_nothing_back) {
  set(true);
  makePast();
  set(true);
  const std::string control = folder.bytes("db.zlc");
  EXPECT_EQ(numberAt<std::uint32_t>(control, 20), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(control, 28), 0u) << "both numbers";
  const std::string log = folder.bytes("db.0000.zll");
  EXPECT_EQ(log.substr(0, 8), std::string("ZELO\1\0\0\0", 8));
  EXPECT_EQ(numberAt<std::uint64_t>(log, 8), 0u) << "a tree";
  EXPECT_EQ(numberAt<std::uint64_t>(log, 24), 0u) << "the end of a file begun by rotation";
  expectNothingComesBack(folder, "");
}

TEST_F(LogForm, A_table_that_was_removed_stays_away) {
  set(true);
  {
    EditSession session(folder, kForm);
    ASSERT_TRUE(session.begin(kAlone).ok());
    const SchemaRecords records({{CZELTA::TypeUInt32}}, {{Segments{{0, 0}}}}, 0);
    CZELTA::Schema table = records.schema;
    table.tableName = u"Gone";
    table.tableId = 2;
    ASSERT_TRUE(createTable({session.metaData, session.tables}, &table, nullptr, true).ok())
        << session.error();
    ASSERT_TRUE(session.end().ok());
  }
  eachCommitInAFileOfItsOwn();
  {
    EditSession session(folder, kForm);
    ASSERT_TRUE(session.begin(kAlone).ok());
    ASSERT_TRUE(removeTable({session.metaData, session.tables}, 2, true, true).ok())
        << session.error();
    ASSERT_TRUE(session.end().ok());
  }
  ASSERT_TRUE(folder.has("db.0001.zll"));
  set(true);
  expectNothingComesBack(folder, "");
  EXPECT_FALSE(folder.has("Gone.zlt"));
  EditSession session(folder, kForm);
  ASSERT_TRUE(session.begin().ok());
  EXPECT_TRUE(openTable({session.metaData, session.tables}, 2).is(Own::tableNotFound));
  ASSERT_TRUE(session.end().ok());
}

TEST_F(LogForm, A_death_in_keeping_logs_once_more_brings_nothing_back) {
  set(true);
  makePast();
  EXPECT_GE(dieEverywhere(true), 2);
}

TEST_F(LogForm, A_death_in_giving_kept_logs_up_brings_nothing_back) {
  set(true);
  makePast();
  EXPECT_GE(dieEverywhere(false), 5);
}

TEST_F(LogForm, A_death_in_keeping_logs_brings_nothing_back) {
  makePast();
  EXPECT_GE(dieEverywhere(true), 3);
}

/// What was kept before and not deleted is out of date when logs are kept again.
TEST_F(LogForm, A_death_in_giving_logs_up_and_one_in_keeping_them_again_bring_nothing_back) {
  set(true);
  makePast();
  const int calls = callsOf(false);
  FreshFolder start;
  copyFiles(folder, start);
  const Model before = expected;
  for (int call = 0; call <= calls; ++call) {
    SCOPED_TRACE("dead at call " + std::to_string(call));
    copyFiles(start, folder);
    expected = before;
    ASSERT_TRUE(dieInSetting(folder, false, static_cast<std::uint64_t>(call)));
    set(false);  // what is left of the transaction is no longer in anybody's way
    carryOut(kAlone, {erase(3)});
    carryOut(CZELTA::TransactionShared, {erase(6)});
    dieEverywhere(true);
    copyFiles(start, folder);
    expected = before;
    ASSERT_TRUE(dieInSetting(folder, false, static_cast<std::uint64_t>(call)));
    carryOut(kAlone, {erase(3)});
    carryOut(CZELTA::TransactionShared, {erase(6)});
    dieEverywhere(true);
    if (HasFailure()) return;
  }
}

TEST_F(LogForm, A_death_beside_numbers_that_have_gone_round_brings_nothing_back) {
  set(true);
  makePastThatGoesRound();
  dieEverywhere(true);
  dieEverywhere(false);
}

TEST_F(LogForm, A_loss_of_power_in_a_setting_brings_nothing_back) {
  set(true);
  makePast();
  losePowerEverywhere(true);
  losePowerEverywhere(false);
  set(false);
  carryOut(kAlone, {erase(3)});
  carryOut(CZELTA::TransactionShared, {erase(6)});
  losePowerEverywhere(true);
}

TEST_F(LogForm, A_loss_of_power_beside_numbers_that_have_gone_round_brings_nothing_back) {
  set(true);
  makePastThatGoesRound();
  losePowerEverywhere(true);
  losePowerEverywhere(false);
}

TEST_F(LogForm, A_setting_that_fails_leaves_what_can_be_set_again) {
  set(true);
  makePastThatGoesRound();
  FreshFolder start;
  copyFiles(folder, start);
  for (const bool keep : {true, false}) {
    const int calls = callsOf(keep);
    for (int call = 0; call < calls; ++call) {
      SCOPED_TRACE("failing at call " + std::to_string(call));
      copyFiles(start, folder);
      {
        EditSession session(folder, kForm);
        ASSERT_TRUE(session.begin(kAlone).ok());
        {
          const Misfortune misfortune(static_cast<std::uint64_t>(call), Misfortune::Kind::failures);
          static_cast<void>(keepLogs(session, keep));
        }
        clearError(session.metaData);
        ASSERT_TRUE(session.end().ok()) << session.error();
      }
      expectNothingComesBack(folder, "");
      set(keep);
      expectNothingComesBack(folder, "");
      EXPECT_EQ(numberAt<std::uint32_t>(folder.bytes("db.zlc"), 20), keep ? 1u : 0u);
    }
  }
}

}  // namespace
}  // namespace zelta::testing

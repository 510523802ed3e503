// Some systems let nobody read a word that another handle has locked: a repair must not touch the
// entry that a living process makes meanwhile, even if it lies right behind the one that is
// replayed.

#include "crash/commit_trial.h"
#include "frame/mutex_guard.h"
#include "platform/file_io.h"
#include "transaction/log/log_rotation.h"

namespace zelta::testing {
namespace {

/// Reserves and locks an entry in the log, as a commit does, and leaves it in the making.
class EntryInTheMaking {
 public:
  explicit EntryInTheMaking(EditSession& maker) : maker_(maker) {
    MetaData& metaData = maker.metaData;
    MutexGuard database;
    constexpr std::uint32_t kWait = 10000;
    EXPECT_TRUE(database.acquire(metaData, metaData.databaseMutex, kWait).ok());
    ControlHeader_tag header{};
    EXPECT_EQ(readBuffer(metaData.controlFile, 0, &header, kExclusiveWord), 0u);
    LogFile log(metaData);
    EXPECT_TRUE(prepareLogFile(header, log).ok());
    EXPECT_TRUE(log.lock(kWait).ok());
    LogEntry entry;
    EXPECT_TRUE(log.append(metaData.transactionWord, 200, &entry).ok());
    position = entry.position;
    EXPECT_EQ(platform::lockWord(metaData.logFile, logEntryLock(position)), 0u);
  }
  void remove() {
    EXPECT_EQ(platform::unlockWord(maker_.metaData.logFile, logEntryLock(position)), 0u);
    EXPECT_TRUE(removeLogEntry(maker_.metaData, maker_.metaData.transactionWord, position).ok());
  }
  std::uint64_t position = 0;

 private:
  EditSession& maker_;
};

/// Counts reads of log files that touch a word.
class ReadsOfWord : public platform::faults::Hook {
 public:
  explicit ReadsOfWord(std::uint64_t position) : position_(position) {
    platform::faults::install(this);
  }
  ~ReadsOfWord() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    if (event.call != platform::faults::Call::read || !event.name.ends_with(".zll")) return {};
    ++reads;
    if (event.position < position_ + 4 && event.position + event.length > position_) ++touching;
    return {};
  }
  int reads = 0;
  int touching = 0;

 private:
  std::uint64_t position_;
};

/// With a parameter, log files are kept.
class LockedWord : public ::testing::TestWithParam<bool> {};

TEST_P(LockedWord, OfAnEntryInTheMakingIsNotReadByARepair) {
  const TableForm& form = kForms[2];
  const Scene scene = {"some objects", {adds(1, 10)}, adds(11, 14), false, GetParam()};
  const Trial trial(form, scene);
  int replayed = 0;
  for (std::uint64_t call = 0;; ++call) {
    const std::string context = contextOf(form, scene, call);
    FreshFolder folder;
    copyFiles(trial.start(), folder);
    EditSession maker(folder, form);
    EditSession repairer(folder, form);
    ASSERT_TRUE(maker.begin().ok()) << maker.error() << context;
    const int exitCode = trial.commitIn(folder, call, Misfortune::Kind::death);
    ASSERT_TRUE(exitCode == 0 || exitCode == kKilled) << exitCode << context;
    EntryInTheMaking entry(maker);
    {
      const ReadsOfWord reads(logEntryLock(entry.position).position);
      ASSERT_TRUE(repairer.enter().ok()) << repairer.error() << context;
      EXPECT_TRUE(reads.reads > 0 || exitCode == 0) << context;
      EXPECT_EQ(reads.touching, 0) << context;
    }
    std::string damage;
    const std::size_t objects = repairer.readAll(&damage).size();
    EXPECT_EQ(damage, "") << context;
    EXPECT_TRUE(objects == 10 || objects == 14) << objects << context;
    if (exitCode != 0 && objects == 14) ++replayed;
    ASSERT_TRUE(repairer.end().ok()) << repairer.error() << context;
    entry.remove();
    ASSERT_TRUE(maker.end().ok()) << maker.error() << context;
    if (HasFailure() || exitCode == 0) break;
  }
  EXPECT_GT(replayed, 3);
}

INSTANTIATE_TEST_SUITE_P(Logs, LockedWord, ::testing::Bool(), [](const auto& kept) {
  return std::string(kept.param ? "kept" : "single");
});

}  // namespace
}  // namespace zelta::testing

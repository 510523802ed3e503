// The loss of power: a disk keeps what was flushed, and of what was written since any part, whole
// or torn between sectors. From all that a transaction did to its files such disks are made, and
// the database on each of them must hold the transaction as a whole or not at all.

#include <set>

#include "crash/commit_trial.h"
#include "crash/recorded_disk.h"

namespace zelta::testing {
namespace {

class PowerLoss : public ::testing::Test {
 protected:
  PowerLoss() : thorough_(std::getenv("ZELTA_THOROUGH") != nullptr) {}

  /// Loses power behind each change of the files that the transaction makes.
  void tryEverywhere(const TableForm& form, const Scene& scene) {
    const Trial trial(form, scene);
    FreshFolder folder;
    copyFiles(trial.start(), folder);
    Recorder recorder;
    std::size_t committed = 0;
    {
      EditSession session(folder, form);
      ASSERT_TRUE(session.opened.ok()) << session.error();
      ASSERT_TRUE(session.enter(trial.mode()).ok()) << session.error();
      ASSERT_TRUE(session.carryOut(scene.edits).ok()) << session.error();
      ASSERT_TRUE(session.commit().ok()) << session.error();
      ASSERT_EQ(session.error(), "");
      committed = recorder.changes.size();
      ASSERT_TRUE(session.end().ok()) << session.error();
    }
    platform::faults::install(nullptr);
    const auto after = filesOf(folder);
    Disk disk(trial.start());
    for (std::size_t i = 0; i <= recorder.changes.size(); ++i) {
      for (int sample = 0; sample < (thorough_ ? 12 : 1); ++sample) {
        disk.lose(folder, random_);
        const std::string context = contextOf(form, scene, i);
        const int outcome = trial.outcome(folder, context);
        if (i >= committed) {
          EXPECT_EQ(outcome, 1) << "it was reported done" << context;
        }
        ++outcomes_[outcome];
        ASSERT_FALSE(HasFailure()) << context;
      }
      ++points_;
      if (i < recorder.changes.size()) disk.make(recorder.changes[i]);
    }
    EXPECT_TRUE(disk.whole() == after) << "something was changed unseen";
  }

  const bool thorough_;
  const unsigned seed_ = std::random_device{}();
  std::mt19937 random_{seed_};
  int outcomes_[2] = {0, 0};
  int points_ = 0;
};

TEST_F(PowerLoss, Leaves_all_of_a_transaction_or_nothing) {
  SCOPED_TRACE("seed " + std::to_string(seed_));
  const std::vector<Scene> all = scenes();
  const std::vector<TableForm> forms = allForms();
  for (std::size_t i = 0; i < all.size(); ++i) {
    for (std::size_t form = 0; form < forms.size(); ++form) {
      if (!thorough_ && form != (i + seed_) % forms.size()) continue;
      tryEverywhere(forms[form], all[i]);
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(outcomes_[0], 0);
  EXPECT_GT(outcomes_[1], 0);
  std::printf("%d points, %d disks\n", points_, outcomes_[0] + outcomes_[1]);
}

/// Where the head of an entry is completed: a write of 24 bytes that begins with its magic.
bool completesEntry(const Change& change) {
  return change.kind == Change::Kind::write && change.file == "db.zll" &&
         change.bytes.size() == 24 && change.bytes.compare(0, 4, "ZELL") == 0;
}

/// IDs in a row cancel each other out in the checksum of an entry: it does not miss a sector.
TEST(PowerLossInEntry, Finds_the_body_on_the_disk_before_the_head_that_completes_it) {
  for (const TableForm& form : kForms) {
    for (const Scene& scene : scenes()) {
      if (scene.keepLogs) continue;
      const Trial trial(form, scene);
      FreshFolder folder;
      copyFiles(trial.start(), folder);
      EditSession session(folder, form);
      ASSERT_TRUE(session.enter(trial.mode()).ok()) << session.error();
      ASSERT_TRUE(session.carryOut(scene.edits).ok()) << session.error();
      Recorder recorder;
      ASSERT_TRUE(session.commit().ok()) << session.error();
      platform::faults::install(nullptr);
      int completed = 0;
      std::set<std::uint64_t> unflushed;  // sectors
      for (const Change& change : recorder.changes) {
        if (change.file != "db.zll") continue;
        if (change.kind == Change::Kind::flush) unflushed.clear();
        if (completesEntry(change)) {
          ++completed;
          unflushed.erase(change.position / 512);
          EXPECT_TRUE(unflushed.empty()) << contextOf(form, scene, 0);
        }
        if (change.kind != Change::Kind::write || change.position < 112) continue;
        const std::uint64_t end = change.position + change.bytes.size();
        for (auto sector = change.position / 512; sector * 512 < end; ++sector) {
          unflushed.insert(sector);
        }
      }
      EXPECT_EQ(completed, 1) << contextOf(form, scene, 0);
      ASSERT_TRUE(session.end().ok()) << session.error();
    }
  }
}

}  // namespace
}  // namespace zelta::testing

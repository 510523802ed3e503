// The loss of power: a disk keeps what was flushed, and of what was written since any part, whole
// or torn between sectors. From all that a transaction did to its files such disks are made, and
// the database on each of them must hold the transaction as a whole or not at all.

#include <map>
#include <random>

#include "crash/commit_trial.h"

namespace zelta::testing {
namespace {

struct Change {
  enum class Kind { write, cut, removal, flush };
  Kind kind;
  std::string file;
  std::uint64_t position;
  std::string bytes;
};

/// Takes down what a process does to its files.
class Recorder : public platform::faults::Hook {
 public:
  Recorder() { platform::faults::install(this); }
  ~Recorder() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    const std::string file = std::filesystem::path(event.name).filename().string();
    if (event.call == Call::write) {
      changes.push_back({Change::Kind::write, file, event.position,
                         std::string(static_cast<const char*>(event.data), event.length)});
    } else if (event.call == Call::truncate) {
      changes.push_back({Change::Kind::cut, file, event.position, {}});
    } else if (event.call == Call::remove) {
      changes.push_back({Change::Kind::removal, file, 0, {}});
    } else if (event.call == Call::flush) {
      changes.push_back({Change::Kind::flush, file, 0, {}});
    }
    return {};
  }
  std::vector<Change> changes;
};

/// The files of a disk. What was not flushed may be lost.
class Disk {
 public:
  explicit Disk(const FreshFolder& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      const std::string name = entry.path().filename().string();
      files_[name].bytes = folder.bytes(name);
      files_[name].there = true;
    }
  }
  void make(const Change& change) {
    File& file = files_[change.file];
    if (change.kind != Change::Kind::flush) {
      file.pending.push_back(change);
      return;
    }
    for (const Change& earlier : file.pending) apply(file, earlier);
    file.pending.clear();
  }
  /// Writes to the folder what a loss of power right now could leave.
  void lose(const FreshFolder& folder, std::mt19937& random) const {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      std::filesystem::remove(entry.path());
    }
    // How much gets lost differs from loss to loss.
    const auto keep = random() % 5;
    for (const auto& [name, before] : files_) {
      File file = before;
      for (const Change& change : before.pending) {
        if (random() % 4 < keep) {
          apply(file, change);
        } else if (change.kind == Change::Kind::write && random() % 2 == 0) {
          tear(file, change, random);
        }
      }
      if (file.there) folder.write(name, file.bytes);
    }
  }

 private:
  struct File {
    std::string bytes;
    bool there = false;
    std::vector<Change> pending;
  };
  static void put(File& file, std::uint64_t position, const std::string& bytes) {
    file.there = true;
    if (file.bytes.size() < position + bytes.size()) {
      file.bytes.resize(position + bytes.size(), '\0');
    }
    file.bytes.replace(position, bytes.size(), bytes);
  }
  static void apply(File& file, const Change& change) {
    switch (change.kind) {
      case Change::Kind::write:
        put(file, change.position, change.bytes);
        break;
      case Change::Kind::cut:
        file.bytes.resize(change.position, '\0');
        break;
      case Change::Kind::removal:
        file = {};
        break;
      case Change::Kind::flush:
        break;
    }
  }
  static void tear(File& file, const Change& change, std::mt19937& random) {
    constexpr std::uint64_t kSector = 512;
    const std::uint64_t end = change.position + change.bytes.size();
    for (std::uint64_t at = change.position; at < end;) {
      const std::uint64_t next = std::min(end, (at / kSector + 1) * kSector);
      if (random() % 2 == 0) {
        put(file, at, change.bytes.substr(at - change.position, next - at));
      }
      at = next;
    }
  }

  std::map<std::string, File> files_;
};

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
      if (i < recorder.changes.size()) disk.make(recorder.changes[i]);
    }
  }

  const bool thorough_;
  const unsigned seed_ = std::random_device{}();
  std::mt19937 random_{seed_};
  int outcomes_[2] = {0, 0};
};

TEST_F(PowerLoss, Leaves_all_of_a_transaction_or_nothing) {
  SCOPED_TRACE("seed " + std::to_string(seed_));
  const std::vector<Scene> all = scenes();
  constexpr std::size_t kFormCount = std::size(kForms);
  for (std::size_t i = 0; i < all.size(); ++i) {
    for (std::size_t form = 0; form < kFormCount; ++form) {
      if (!thorough_ && form != (i + seed_) % kFormCount) continue;
      tryEverywhere(kForms[form], all[i]);
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(outcomes_[0], 0);
  EXPECT_GT(outcomes_[1], 0);
}

}  // namespace
}  // namespace zelta::testing

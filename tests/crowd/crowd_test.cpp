// Crowds of processes that write the same objects of three tables at once, alive and killed. What
// they told that they committed is compared with what is there, and the checker looks at the files.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>

#include "crowd/crowd_worker.h"
#include "support/check_database.h"

namespace zelta::testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration;
using std::chrono::milliseconds;

double secondsSince(Clock::time_point start) {
  return duration<double>(Clock::now() - start).count();
}

/// The board in memory that processes share.
class SharedBoard {
 public:
  SharedBoard()
      : board_(new (mmap(nullptr, sizeof(CrowdBoard), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) CrowdBoard) {}
  ~SharedBoard() { munmap(board_, sizeof(CrowdBoard)); }
  SharedBoard(const SharedBoard&) = delete;
  SharedBoard& operator=(const SharedBoard&) = delete;
  CrowdBoard* operator->() const { return board_; }
  CrowdBoard& operator*() const { return *board_; }

 private:
  CrowdBoard* board_;
};

class Crowd : public DatabaseTest {
 protected:
  static constexpr std::size_t kProcesses = 4;

  void SetUp() override {
    makeCrowdTables(path());
    std::cout << "seed " << seed << '\n';
  }

  // -- Processes ----------------------------------------------------------------------------------

  /// Starts a process in a place. Half of them are doomed if `mortal`: they die at some call.
  void start(std::size_t place, bool mortal) {
    const std::string journal = folder.path() / ("journal-" + std::to_string(++started));
    const auto childSeed = static_cast<unsigned>(random());
    const std::uint64_t calls = mortal && random() % 2 == 0 ? 1 + random() % 1500 : 0;
    const pid_t child = fork();
    if (child == 0) {
      CrowdHook hook(*board, calls);
      _exit(CrowdWorker(*board, hook, journal, childSeed).run(path()));
    }
    processes[place] = {child, journal};
  }
  /// Takes note of the end of a process; with `wait` false only if it has ended.
  bool bury(std::size_t place, bool wait, bool mayBeKilled) {
    int status = 0;
    pid_t ended = 0;
    const auto began = Clock::now();
    while ((ended = waitpid(processes[place].id, &status, WNOHANG)) == 0) {
      if (!wait) return false;
      if (secondsSince(began) > 120) {
        ADD_FAILURE() << "process " << processes[place].id << " does not end";
        kill(processes[place].id, SIGKILL);
      }
      std::this_thread::sleep_for(milliseconds(1));
    }
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    EXPECT_EQ(ended, processes[place].id);
    EXPECT_TRUE(killed ? mayBeKilled : WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "status " << status;
    kills += killed ? 1 : 0;
    CrowdJournal::read(processes[place].journal, told);
    unlink(processes[place].journal.c_str());
    processes[place].id = 0;
    return true;
  }

  // -- Rounds -------------------------------------------------------------------------------------

  /// A time in which all work; with `mortal`, they die one by one, and now and then all at once,
  /// and are started again.
  void workFor(double seconds, bool mortal) {
    board->stop = false;
    for (std::size_t i = 0; i < kProcesses; ++i) start(i, mortal);
    const auto began = Clock::now();
    while (secondsSince(began) < seconds && !HasFailure()) {
      std::this_thread::sleep_for(milliseconds(mortal ? 1 + random() % 60 : 20));
      if (mortal) strike(random() % 40 == 0 ? kProcesses : random() % 2);
      for (std::size_t i = 0; i < kProcesses; ++i) {
        if (bury(i, false, mortal)) start(i, mortal);
      }
    }
    board->stop = true;
    for (std::size_t i = 0; i < kProcesses; ++i) bury(i, true, mortal);
  }
  void strike(std::size_t victims) {
    const std::size_t first = random() % kProcesses;
    for (std::size_t i = 0; i < victims; ++i) {
      kill(processes[(first + i) % kProcesses].id, SIGKILL);
    }
    for (std::size_t i = 0; i < victims; ++i) {
      const std::size_t place = (first + i) % kProcesses;
      bury(place, true, true);
      start(place, true);
    }
  }
  /// Compares and checks all. In a process of its own: nothing of this one's is to be inherited.
  void judge() {
    Contents found;
    collect(found);
    ledger.enter(std::move(told), found);
    told.clear();
    ledger.compare(found);
    if (!HasFailure()) expectClean(path());
    ++checks;
  }
  /// All contents that are there, by each index in turn.
  void collect(Contents& found) {
    CrowdHandle handle;
    ASSERT_DONE(handle.db, handle.db.OpenDatabase(path().c_str()));
    ASSERT_DONE(handle.db, handle.db.BeginTransaction(CZELTA::TransactionExclusive, 20000));
    ASSERT_DONE(handle.db, handle.openTables());
    for (std::uint32_t table = 1; table <= kCrowdTables; ++table) {
      Contents byIndex[3];
      for (unsigned index = 0; index < 3; ++index) {
        auto mode = CZELTA::ReadFirst;
        unsigned long long result = 0;
        while ((result = handle.read(table, mode, index, nullptr)) == 0) {
          const CrowdRow row = handle.row();
          ASSERT_TRUE(handle.isWhole(table)) << row;
          const Held held{table, handle.object.objectID, row};
          ASSERT_TRUE(byIndex[index].emplace(stampOf(row), held).second) << held;
          mode = CZELTA::ReadNext;
        }
        ASSERT_EQ(result, ownCode(32)) << messageOf(handle.db);
      }
      ShapedObjects shaped;
      for (const auto& [stamp, held] : byIndex[0]) {
        shaped[static_cast<std::uint64_t>(held.id)] = {shapesOf(held.row)};
      }
      compareSearches(handle.db, table, kFirstSearch, searchesOf(table), shaped);
      ASSERT_TRUE(byIndex[0] == byIndex[1]) << "table " << table;
      ASSERT_TRUE(byIndex[0] == byIndex[2]) << "table " << table;
      found.merge(byIndex[0]);
    }
    ASSERT_DONE(handle.db, handle.db.EndTransaction());
    ASSERT_DONE(handle.db, handle.db.CloseDatabase());
  }
  void rounds(double seconds, double each, bool mortal) {
    const auto began = Clock::now();
    auto last = began;
    while (secondsSince(began) < seconds && !HasFailure()) {
      workFor(std::min(each, seconds - secondsSince(began)), mortal);
      judge();
      if (secondsSince(last) < 60) continue;
      last = Clock::now();
      report(secondsSince(began));
    }
    report(secondsSince(began));
  }
  void report(double seconds) {
    std::cout << static_cast<int>(seconds) << " s: " << kProcesses << " processes at once, "
              << started << " in all, " << kills << " killed; transactions " << board->committed
              << " committed, " << board->aborted << " aborted, " << ledger.finished()
              << " cut off and there, " << ledger.dropped() << " cut off and not there; operations "
              << board->retried << " met a lock, " << board->refused << " met a key; "
              << board->restored << " objects restored, " << board->searched << " searches, "
              << board->repaired << " replays; " << checks << " checks, "
              << ledger.contents().size() << " objects" << std::endl;
  }
  /// How long a test runs: short as part of all tests, longer if these are to be thorough.
  static double timeToRun(double brief) {
    const char* minutes = std::getenv("ZELTA_SOAK_MINUTES");
    if (minutes != nullptr) return std::atof(minutes) * 60;
    return std::getenv("ZELTA_THOROUGH") != nullptr ? 60 : brief;
  }

  struct Process {
    pid_t id = 0;
    std::string journal;
  };
  const unsigned seed = std::random_device{}();
  std::mt19937 random{seed};
  SharedBoard board;
  Process processes[kProcesses];
  std::vector<CrowdTransaction> told;
  Ledger ledger;
  std::uint64_t started = 0;
  std::uint64_t kills = 0;
  std::uint64_t checks = 0;
};

TEST_F(Crowd, LeavesWhatItTold) {
  rounds(timeToRun(4), 2, false);
  EXPECT_GT(board->committed, 20u);
  EXPECT_EQ(kills, 0u);
}

TEST_F(Crowd, OutlivesItsMembers) {
  rounds(timeToRun(6), 2, true);
  EXPECT_GT(board->committed, 20u);
  EXPECT_GT(kills, 5u);
}

}  // namespace
}  // namespace zelta::testing

// Named mutexes in processes that fork, come and go, and are killed.

#include <fcntl.h>
#include <signal.h>

#include <fstream>
#include <memory>
#include <vector>

#include "platform/mutex_fixture.h"

namespace zelta::testing {
namespace {

// -- Over a fork ----------------------------------------------------------------------------------

TEST_F(Mutexes, OutliveAForkedChildWithItsHandles) {
  const Handle mutex(name);
  ASSERT_EQ(waited(mutex, 0), kGained);
  ChildProcess child([&](const Line&) {
    if (waited(mutex, 0).code != code::kInvalidHandle) return 1;
    if (platform::releaseMutex(mutex) != code::kInvalidHandle) return 2;
    if (platform::claimMutex(mutex) != code::kInvalidHandle) return 3;
    const Handle own(name);
    if (waited(own, 0).code != code::kTimeout) return 4;  // the parent owns it, its child doesn't
    if (platform::releaseMutex(own) != code::kNotOwner) return 5;
    platform::closeMutex(mutex);
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(elsewhere(), code::kTimeout);
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  EXPECT_EQ(elsewhere(), 0u);
}

TEST_F(Mutexes, AreAbandonedByADeadOwnerThoughItsForkedChildLivesOn) {
  const Handle mutex(name);
  ChildProcess holder([this](const Line& line) {
    const Handle own(name);
    if (waited(own, 0).code != 0) return 1;
    if (fork() == 0) {
      line.say('y');
      for (char order = line.hear(); order != 0; order = line.hear()) line.say(order);
      _exit(0);
    }
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(holder.hears('y'));
  ASSERT_EQ(waited(mutex, 0), kTooLate);
  holder.kill();
  EXPECT_EQ(waited(mutex, 5000), kGainedFromTheDead);
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
  holder.tell('e');
  EXPECT_TRUE(holder.hears('e')) << "the grandchild lives";
}

TEST_F(Mutexes, AreNotInheritedByOtherPrograms) {
  const Handle mutex(name);
  ASSERT_EQ(platform::claimMutex(mutex), 0u);
  ASSERT_TRUE(hasFile());
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (!std::filesystem::equivalent(entry.path(), file(), gone)) continue;
    ++found;
    EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(found, 2);
}

// -- Claims ---------------------------------------------------------------------------------------

TEST_F(Mutexes, AreClaimedByAHandleNotByAThread) {
  const Handle one(name);
  const Handle two(name);
  ASSERT_EQ(platform::claimMutex(one), 0u);
  EXPECT_EQ(platform::claimMutex(two), code::kTimeout);
  platform::unclaimMutex(two);  // has none
  EXPECT_EQ(platform::claimMutex(two), code::kTimeout);
  inThread([&] { platform::unclaimMutex(one); });
  EXPECT_EQ(platform::claimMutex(two), 0u);
  EXPECT_EQ(platform::claimMutex(one), code::kTimeout);
}

TEST_F(Mutexes, LoseTheirClaimWithTheHandle) {
  const Handle one(name);
  {
    const Handle two(name);
    ASSERT_EQ(platform::claimMutex(two), 0u);
    { const Handle third(name); }
    EXPECT_EQ(platform::claimMutex(one), code::kTimeout);
  }
  EXPECT_EQ(platform::claimMutex(one), 0u);
}

TEST_F(Mutexes, LoseTheirClaimWithTheProcess) {
  const Handle mutex(name);
  ChildProcess holder([this](const Line& line) {
    const Handle own(name);
    line.say(platform::claimMutex(own) == 0 ? 'y' : 'n');
    if (fork() == 0) {
      line.say('f');
      line.hear();
      _exit(0);
    }
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(holder.hears('y'));
  ASSERT_TRUE(holder.hears('f'));
  EXPECT_EQ(platform::claimMutex(mutex), code::kTimeout);
  holder.kill();
  EXPECT_EQ(platform::claimMutex(mutex), 0u) << "though a forked child lives on";
  holder.tell('e');
}

TEST_F(Mutexes, KeepTheirClaimOverAForkedChildsEnd) {
  const Handle mutex(name);
  ASSERT_EQ(platform::claimMutex(mutex), 0u);
  ChildProcess child([&](const Line&) {
    platform::unclaimMutex(mutex);
    platform::closeMutex(mutex);
    const Handle own(name);
    return platform::claimMutex(own) == code::kTimeout ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
  const Handle other(name);
  EXPECT_EQ(platform::claimMutex(other), code::kTimeout);
}

// -- Many at once ---------------------------------------------------------------------------------

/// Adds to a counter in a file under the mutex, making and closing the handle each time, so that
/// the mutex itself comes and goes. The counter's file is taken away and put back: two at once
/// would show.
int countUp(const std::u16string& name, const std::filesystem::path& path, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    const Handle mutex(name);
    if (waited(mutex, 20000).code != 0) return 1;
    const std::filesystem::path taken = path.string() + "." + std::to_string(getpid());
    std::error_code failure;
    std::filesystem::rename(path, taken, failure);
    if (failure) return 2;
    long count = 0;
    std::ifstream(taken) >> count;
    std::ofstream(taken) << count + 1;
    std::filesystem::rename(taken, path, failure);
    if (failure) return 3;
    if (platform::releaseMutex(mutex) != 0) return 4;
  }
  return 0;
}

TEST_F(Mutexes, ComeAndGoInManyProcessesAndNeverLetTwoIn) {
  constexpr int kProcesses = 4;
  constexpr int kRounds = 400;
  folder.write("count", "0");
  std::vector<std::unique_ptr<ChildProcess>> all;
  for (int i = 0; i < kProcesses; ++i) {
    all.push_back(std::make_unique<ChildProcess>(
        [this](const Line&) { return countUp(name, folder.path() / "count", kRounds); }));
  }
  for (const auto& process : all) EXPECT_EQ(process->wait(), 0);
  EXPECT_EQ(folder.bytes("count"), std::to_string(kProcesses * kRounds));
  EXPECT_FALSE(hasFile());
}

TEST_F(Mutexes, LetNobodyWaitForEverWhenOwnersAreKilledAtRandom) {
  // Each process takes and gives back without a pause; some are killed wherever they are.
  const auto churn = [this](const Line& line) {
    line.say('y');
    for (;;) {
      const Handle mutex(name);
      for (int i = 0; i < 50; ++i) {
        if (platform::waitMutex(mutex, 20000) != 0) return 1;
        if (platform::releaseMutex(mutex) != 0) return 2;
      }
    }
  };
  for (int round = 0; round < 40; ++round) {
    ChildProcess one(churn);
    ChildProcess two(churn);
    ASSERT_TRUE(one.hears('y'));
    ASSERT_TRUE(two.hears('y'));
    std::this_thread::sleep_for(std::chrono::microseconds(round * 97));
    one.kill();
    ASSERT_EQ(elsewhere(20000), 0u) << "round " << round;
    two.kill();
    const Handle mutex(name);
    ASSERT_EQ(waited(mutex, 20000).code, 0u) << "round " << round;
    ASSERT_EQ(platform::releaseMutex(mutex), 0u);
  }
}

TEST_F(Mutexes, CountTheChangesOfWhatTheyGuardForAllWhoHaveThemOpen) {
  const Handle mutex(name);
  const std::uint32_t before = platform::changeCount(mutex);
  EXPECT_EQ(before % 2, 0u);
  const auto change = [this](const Line&) {
    const Handle own(name);
    if (platform::waitMutex(own, 20000) != 0) return 1;
    platform::advanceChangeCount(own);
    platform::advanceChangeCount(own);
    return platform::releaseMutex(own) == 0 ? 0 : 2;
  };
  EXPECT_EQ(ChildProcess(change).wait(), 0);
  EXPECT_EQ(platform::changeCount(mutex), before + 2);
  EXPECT_EQ(platform::changeCount(Mutex::none), 0u);
}

TEST_F(Mutexes, EndTheChangeOfAnOwnerThatDiedWhenTheyAreGainedAgain) {
  const Handle mutex(name);
  const std::uint32_t before = platform::changeCount(mutex);
  const auto change = [this](const Line&) {
    const Handle own(name);
    if (platform::waitMutex(own, 20000) != 0) return 1;
    platform::advanceChangeCount(own);
    raise(SIGKILL);
    return 2;
  };
  EXPECT_EQ(ChildProcess(change).wait(), 256 + SIGKILL);
  EXPECT_EQ(platform::changeCount(mutex), before + 1);
  EXPECT_EQ(waited(mutex, 20000), kGainedFromTheDead);
  EXPECT_EQ(platform::changeCount(mutex), before + 2);
  EXPECT_EQ(platform::releaseMutex(mutex), 0u);
}

TEST_F(Mutexes, AreGainedFromTheDeadWhenTheirFileLocksAreGoneToo) {
  constexpr std::size_t kMemory = 128u << 20;  // giving it back takes the dying process a while
  constexpr platform::LockWord kWord{64};
  folder.write("locked", "");
  const std::u16string path = folder.file("locked");
  const Handle mutex(name);
  const OpenedFile file(path);
  for (int round = 0; round < 5; ++round) {
    const ChildProcess victim([&](const Line& line) {
      const Handle own(name);
      const OpenedFile ownFile(path);
      const std::vector<char> memory(kMemory, 'm');
      if (platform::waitMutex(own, 20000) != 0) return 1;
      if (platform::lockWord(ownFile, kWord) != 0) return 2;
      line.say('y');
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      raise(SIGKILL);
      return 3;
    });
    ASSERT_TRUE(victim.hears('y'));
    ASSERT_EQ(waited(mutex, 20000), kGainedFromTheDead);
    ASSERT_EQ(platform::lockWord(file, kWord), 0u) << "round " << round;
    platform::unlockWord(file, kWord);
    ASSERT_EQ(platform::releaseMutex(mutex), 0u);
  }
}

}  // namespace
}  // namespace zelta::testing

// Byte-range locks: between handles of a process, between processes, over death and fork.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "platform/file.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using platform::Disposition;
using platform::File;
using platform::LockWord;
using Line = ChildProcess::Line;

/// What a caller of readLockable() gets to see.
struct Seen {
  SystemCode code = 0;
  std::uint32_t transferred = 0;
  std::string bytes;
};

Seen readThrough(File file, LockWord word, std::uint64_t position, std::uint32_t length) {
  Seen seen;
  seen.bytes.assign(length, '?');
  seen.transferred = 77;
  seen.code =
      platform::readLockable(file, word, position, seen.bytes.data(), length, &seen.transferred);
  return seen;
}

class Locks : public ::testing::Test {
 protected:
  void SetUp() override { folder.write("f", std::string(256, 'a')); }
  [[nodiscard]] std::u16string name() const { return folder.file("f"); }
  /// Whether a fresh handle gains the word.
  [[nodiscard]] SystemCode tried(LockWord word) const {
    const OpenedFile file(name());
    return platform::lockWord(file, word);
  }

  FreshFolder folder;
};

/// The same for a word known by its place alone and for one of a numbered kind.
class LocksOfBothKinds : public Locks, public ::testing::WithParamInterface<LockWord> {
 protected:
  LockWord word = GetParam();
};
INSTANTIATE_TEST_SUITE_P(, LocksOfBothKinds,
                         ::testing::Values(LockWord{32}, LockWord{0}, LockWord{1ull << 40},
                                           LockWord{108, 3}, LockWord{60, 0xFFFFFFFF},
                                           LockWord{60, 1ull << 40}),
                         [](const auto& parameter) {
                           return "at" + std::to_string(parameter.param.position) + "number" +
                                  std::to_string(parameter.param.ordinal);
                         });

TEST_P(LocksOfBothKinds, RefuseAHandleItsOwnWordASecondTime) {
  const OpenedFile file(name());
  EXPECT_EQ(platform::lockWord(file, word), 0u);
  EXPECT_EQ(platform::lockWord(file, word), code::kLockViolation);
  EXPECT_EQ(platform::lockWord(file, word), code::kLockViolation);
  EXPECT_EQ(platform::unlockWord(file, word), 0u);
  EXPECT_EQ(platform::lockWord(file, word), 0u);
}

TEST_P(LocksOfBothKinds, ExcludeOtherHandlesOfTheProcess) {
  const OpenedFile one(name());
  const OpenedFile two(name());
  ASSERT_EQ(platform::lockWord(one, word), 0u);
  EXPECT_EQ(platform::lockWord(two, word), code::kLockViolation);
  ASSERT_EQ(platform::unlockWord(one, word), 0u);
  EXPECT_EQ(platform::lockWord(two, word), 0u);
  EXPECT_EQ(platform::lockWord(one, word), code::kLockViolation);
}

TEST_P(LocksOfBothKinds, DieWithTheirHandleAndNoOther) {
  auto one = std::make_unique<OpenedFile>(name());
  const OpenedFile two(name());
  ASSERT_EQ(platform::lockWord(*one, word), 0u);
  { const OpenedFile third(name()); }  // a close of another handle drops nothing
  EXPECT_EQ(platform::lockWord(two, word), code::kLockViolation);
  one.reset();
  EXPECT_EQ(platform::lockWord(two, word), 0u);
}

TEST_P(LocksOfBothKinds, AreUnlockedByTheirHandleAlone) {
  const OpenedFile one(name());
  const OpenedFile two(name());
  EXPECT_EQ(platform::unlockWord(one, word), code::kNotLocked);
  ASSERT_EQ(platform::lockWord(one, word), 0u);
  EXPECT_EQ(platform::unlockWord(two, word), code::kNotLocked);
  EXPECT_EQ(platform::lockWord(two, word), code::kLockViolation);
  EXPECT_EQ(platform::unlockWord(one, word), 0u);
  EXPECT_EQ(platform::unlockWord(one, word), code::kNotLocked);
}

TEST_P(LocksOfBothKinds, RefusedLocksAreNotHeld) {
  const OpenedFile one(name());
  const OpenedFile two(name());
  ASSERT_EQ(platform::lockWord(one, word), 0u);
  ASSERT_EQ(platform::lockWord(two, word), code::kLockViolation);
  EXPECT_EQ(platform::unlockWord(two, word), code::kNotLocked);
  EXPECT_EQ(readThrough(two, word, 32, 4).code, code::kLockViolation);
}

TEST_P(LocksOfBothKinds, StopReadsThroughOtherHandlesOfTheProcess) {
  const OpenedFile one(name());
  const OpenedFile two(name());
  ASSERT_EQ(platform::lockWord(one, word), 0u);
  const Seen refused = readThrough(two, word, 32, 8);
  EXPECT_EQ(refused.code, code::kLockViolation);
  EXPECT_EQ(refused.transferred, 0u);
  EXPECT_EQ(refused.bytes, "????????");
  const Seen own = readThrough(one, word, 32, 8);
  EXPECT_EQ(own.code, 0u);
  EXPECT_EQ(own.bytes, "aaaaaaaa");
  ASSERT_EQ(platform::unlockWord(one, word), 0u);
  EXPECT_EQ(readThrough(two, word, 32, 8).code, 0u);
}

TEST_P(LocksOfBothKinds, StopLocksAndReadsOfOtherProcesses) {
  const ChildProcess owner([this](const Line& line) {
    const OpenedFile file(name());
    line.say(platform::lockWord(file, word) == 0 ? 'y' : 'n');
    line.hear();
    line.say(platform::unlockWord(file, word) == 0 ? 'y' : 'n');
    line.hear();
    return 0;
  });
  ASSERT_TRUE(owner.hears('y'));
  const OpenedFile file(name());
  EXPECT_EQ(platform::lockWord(file, word), code::kLockViolation);
  EXPECT_EQ(platform::unlockWord(file, word), code::kNotLocked);
  const Seen refused = readThrough(file, word, 32, 4);
  EXPECT_EQ(refused.code, code::kLockViolation);
  EXPECT_EQ(refused.transferred, 0u);
  EXPECT_EQ(refused.bytes, "????");
  std::uint32_t transferred = 0;
  char bytes[8];
  EXPECT_EQ(platform::readFile(file, 32, bytes, 8, &transferred), 0u);
  EXPECT_EQ(transferred, 8u) << "a read that asks for no word is not stopped";
  owner.tell('u');
  ASSERT_TRUE(owner.hears('y'));
  EXPECT_EQ(readThrough(file, word, 32, 4).code, 0u);
  EXPECT_EQ(platform::lockWord(file, word), 0u);
}

TEST_P(LocksOfBothKinds, DieWithAKilledProcess) {
  ChildProcess owner([this](const Line& line) {
    const OpenedFile file(name());
    line.say(platform::lockWord(file, word) == 0 ? 'y' : 'n');
    line.hear();
    return 0;
  });
  ASSERT_TRUE(owner.hears('y'));
  ASSERT_EQ(tried(word), code::kLockViolation);
  owner.kill();
  EXPECT_EQ(tried(word), 0u);
}

TEST_P(LocksOfBothKinds, DieWithAProcessThatJustEnds) {
  ChildProcess owner([this](const Line& line) -> int {
    const OpenedFile file(name());
    line.say(platform::lockWord(file, word) == 0 ? 'y' : 'n');
    line.hear();
    _exit(3);
  });
  ASSERT_TRUE(owner.hears('y'));
  ASSERT_EQ(tried(word), code::kLockViolation);
  owner.tell('e');
  EXPECT_EQ(owner.wait(), 3);
  EXPECT_EQ(tried(word), 0u);
}

TEST_P(LocksOfBothKinds, OutliveAForkedChild) {
  const OpenedFile file(name());
  ASSERT_EQ(platform::lockWord(file, word), 0u);
  ChildProcess child([&](const Line&) {
    // The inherited handle is dead here, and nothing done with it reaches the parent's locks.
    if (platform::unlockWord(file, word) != code::kInvalidHandle) return 1;
    platform::closeFile(file);
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(tried(word), code::kLockViolation);
  EXPECT_EQ(platform::unlockWord(file, word), 0u);
  EXPECT_EQ(tried(word), 0u);
}

TEST_P(LocksOfBothKinds, DieWithTheirProcessThoughAForkedChildLivesOn) {
  ChildProcess owner([this](const Line& line) {
    const OpenedFile file(name());
    if (platform::lockWord(file, word) != 0) return 1;
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      line.say('y');
      for (char order = line.hear(); order != 0; order = line.hear()) line.say(order);
      _exit(0);
    }
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(owner.hears('y'));
  ASSERT_EQ(tried(word), code::kLockViolation);
  owner.kill();
  EXPECT_EQ(tried(word), 0u);
  owner.tell('e');
  EXPECT_TRUE(owner.hears('e')) << "the grandchild lives";
}

TEST_F(Locks, AreOfFourBytes) {
  const OpenedFile one(name());
  const OpenedFile two(name());
  ASSERT_EQ(platform::lockWord(one, {100}), 0u);
  for (const std::uint64_t before : {97u, 98u, 99u, 101u, 102u, 103u}) {
    EXPECT_EQ(platform::lockWord(two, {before}), code::kLockViolation) << before;
  }
  EXPECT_EQ(platform::lockWord(two, {96}), 0u);
  EXPECT_EQ(platform::lockWord(two, {104}), 0u);
}

TEST_F(Locks, OfNeighboursLeaveEachOtherAlone) {
  const OpenedFile one(name());
  const OpenedFile two(name());
  for (std::uint64_t number = 1; number <= 9; ++number) {
    ASSERT_EQ(platform::lockWord(number % 3 == 0 ? two : one, {number * 12, number}), 0u);
  }
  // The kernel joins neighbours; a piece given back from the middle leaves both sides locked.
  ASSERT_EQ(platform::unlockWord(one, {5 * 12, 5}), 0u);
  for (std::uint64_t number = 1; number <= 9; ++number) {
    const SystemCode expected = number == 5 ? 0 : code::kLockViolation;
    EXPECT_EQ(tried({number * 12, number}), expected) << number;
  }
}

TEST_F(Locks, InOneFileSayNothingOfAnother) {
  const OpenedFile one(name());
  const OpenedFile other(folder.file("g"));
  ASSERT_EQ(platform::lockWord(one, {32}), 0u);
  EXPECT_EQ(platform::lockWord(other, {32}), 0u);
}

TEST_F(Locks, MayLieBehindTheEndOfTheFile) {
  const OpenedFile file(name());
  EXPECT_EQ(platform::lockWord(file, {100000}), 0u);
  EXPECT_EQ(tried({100000}), code::kLockViolation);
  EXPECT_EQ(std::filesystem::file_size(folder.path() / "f"), 256u);
}

TEST_F(Locks, OfAnyNumberCostTheSame) {
  constexpr std::uint64_t kMany = 30000;
  const OpenedFile file(name());
  const std::clock_t start = std::clock();
  for (std::uint64_t number = 1; number <= kMany; ++number) {
    ASSERT_EQ(platform::lockWord(file, {number * 12, number}), 0u);
  }
  for (const std::uint64_t number : {std::uint64_t{1}, kMany / 2, kMany}) {
    EXPECT_EQ(tried({number * 12, number}), code::kLockViolation);
  }
  for (std::uint64_t number = 1; number <= kMany; ++number) {
    ASSERT_EQ(platform::unlockWord(file, {number * 12, number}), 0u);
  }
  EXPECT_EQ(tried({12, 1}), 0u);
  // Scattered locks in the kernel's list would take more than ten times as long.
  EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, 2.0);
}

TEST_F(Locks, RandomOnesAgreeWithAModel) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  constexpr std::size_t kHandles = 3;
  constexpr std::uint64_t kNumbers = 40;
  std::unique_ptr<OpenedFile> files[kHandles];
  std::set<std::uint64_t> held[kHandles];
  for (auto& file : files) file = std::make_unique<OpenedFile>(name());
  for (int step = 0; step < 20000; ++step) {
    const std::size_t h = random() % kHandles;
    const std::uint64_t number = 1 + random() % kNumbers;
    const LockWord word{number * 12, number};
    const auto holds = [&](const auto& set) { return set.count(number) != 0; };
    const bool taken = std::any_of(held, held + kHandles, holds);
    switch (random() % 16) {
      case 0:
        if (random() % 8 != 0) break;
        files[h].reset();
        held[h].clear();
        files[h] = std::make_unique<OpenedFile>(name());
        break;
      case 1:
      case 2:
      case 3:
      case 4:
      case 5:
        ASSERT_EQ(platform::unlockWord(*files[h], word), holds(held[h]) ? 0 : code::kNotLocked);
        held[h].erase(number);
        break;
      case 6:
      case 7:
      case 8:
        ASSERT_EQ(readThrough(*files[h], word, 8, 4).code,
                  taken && !holds(held[h]) ? code::kLockViolation : 0);
        break;
      default:
        ASSERT_EQ(platform::lockWord(*files[h], word), taken ? code::kLockViolation : 0);
        if (!taken) held[h].insert(number);
    }
  }
}

TEST_F(Locks, AreOfNoUseWithoutAFile) {
  EXPECT_EQ(platform::lockWord(File::none, {32}), code::kInvalidHandle);
  EXPECT_EQ(platform::unlockWord(File::none, {32}), code::kInvalidHandle);
  EXPECT_EQ(readThrough(File::none, {32}, 0, 4).code, code::kInvalidHandle);
}

TEST_F(Locks, AndFilesAreNotInheritedByOtherPrograms) {
  const OpenedFile file(name());
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != folder.path() / "f") continue;
    ++found;
    const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
    EXPECT_NE(flags & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(found, 1);
}

TEST_F(Locks, OfAllHandlesGoOnWhileOtherThreadsFork) {
  std::atomic<bool> stop{false};
  std::thread worker([&] {
    for (unsigned i = 0; !stop; ++i) {
      const std::u16string fresh = folder.file("t" + std::to_string(i % 4));
      File file = File::none;
      static_cast<void>(platform::openFile(fresh.c_str(), Disposition::openAlways, &file));
      static_cast<void>(platform::lockWord(file, {32}));
      static_cast<void>(platform::flushFile(file));
      platform::closeFile(file);
      static_cast<void>(platform::deleteFile(fresh.c_str()));
    }
  });
  for (int round = 0; round < 60; ++round) {
    ChildProcess child([&](const Line& line) {
      const std::u16string mine = folder.file("child");
      File file = File::none;
      SystemCode failure = platform::openFile(mine.c_str(), Disposition::openAlways, &file);
      if (failure == 0) failure = platform::lockWord(file, {32});
      if (failure == 0) failure = platform::flushFile(file);
      platform::closeFile(file);
      if (failure == 0) failure = platform::deleteFile(mine.c_str());
      line.say(failure == 0 ? 'y' : 'n');
      return 0;
    });
    EXPECT_TRUE(child.hears('y')) << "round " << round;
    if (HasFailure()) break;
  }
  stop = true;
  worker.join();
}

}  // namespace
}  // namespace zelta::testing

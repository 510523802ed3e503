// The four kinds of transaction against each other: who goes on, who is refused, and when.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "process/shop_fixture.h"

namespace zelta::testing {
namespace {

constexpr CZELTA::Mode kShared = CZELTA::TransactionShared;
constexpr CZELTA::Mode kExclusive = CZELTA::TransactionExclusive;
constexpr CZELTA::Mode kRead = CZELTA::TransactionRead;
constexpr CZELTA::Mode kExclusiveRead = CZELTA::TransactionExclusiveRead;

/// Who holds the database, who wants to begin, and what a begin without time gives.
struct Meeting {
  CZELTA::Mode holder;
  CZELTA::Mode beginner;
  unsigned long long elsewhere;   ///< in different processes
  unsigned long long sameThread;  ///< with two handles of one thread
};
constexpr Meeting kMeetings[] = {
    {kShared, kShared, 0, 0},
    {kShared, kExclusive, kDatabaseLocked, kDatabaseLocked},
    {kShared, kRead, 0, 0},
    {kShared, kExclusiveRead, kDatabaseLocked, kDatabaseLocked},
    {kExclusive, kShared, kDatabaseLocked, kDatabaseLocked},
    {kExclusive, kExclusive, kDatabaseLocked, kDatabaseLocked},
    {kExclusive, kRead, 0, 0},
    {kExclusive, kExclusiveRead, kDatabaseLocked, kDatabaseLocked},
    {kRead, kShared, 0, 0},
    {kRead, kExclusive, 0, 0},
    {kRead, kRead, 0, 0},
    {kRead, kExclusiveRead, 0, 0},
    // A mutex is what keeps others out here, and its own thread passes a mutex.
    {kExclusiveRead, kShared, kTimedOut, 0},
    {kExclusiveRead, kExclusive, kTimedOut, 0},
    {kExclusiveRead, kRead, 0, 0},
    {kExclusiveRead, kExclusiveRead, kTimedOut, 0},
};

/// Work of a process that holds a transaction until it is told to end it.
std::function<int(const Line&)> holder(const std::u16string& path, CZELTA::Mode mode) {
  return [path, mode](const Line& line) {
    Shop shop;
    line.say(shop.open(path) && shop.begin(mode) == 0 ? 'y' : 'n');
    line.hear();
    if (shop.end() != 0) return 1;
    line.say('e');
    line.hear();
    return 0;
  };
}

class Modes : public ShopTest {};
class MeetingModes : public Modes, public ::testing::WithParamInterface<Meeting> {
 protected:
  const CZELTA::Mode held = GetParam().holder;
  const CZELTA::Mode wanted = GetParam().beginner;
  const unsigned long long refusal = GetParam().elsewhere;
};
std::string nameOf(const ::testing::TestParamInfo<Meeting>& parameter) {
  return std::to_string(parameter.param.beginner) + "after" +
         std::to_string(parameter.param.holder);
}
INSTANTIATE_TEST_SUITE_P(, MeetingModes, ::testing::ValuesIn(kMeetings), nameOf);

/// The meetings in which one has to wait.
class RefusedModes : public MeetingModes {};
std::vector<Meeting> refusals() {
  std::vector<Meeting> out;
  for (const Meeting& meeting : kMeetings) {
    if (meeting.elsewhere != 0) out.push_back(meeting);
  }
  return out;
}
INSTANTIATE_TEST_SUITE_P(, RefusedModes, ::testing::ValuesIn(refusals()), nameOf);

TEST_P(MeetingModes, InTwoProcesses) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));  // first: opening, too, waits while readers keep others out
  ChildProcess other(holder(path(), held));
  ASSERT_TRUE(other.hears('y'));
  EXPECT_EQ(shop.begin(wanted, 0), refusal) << messageOf(shop.db);
  EXPECT_DONE(shop.db, shop.end());
  // Once the other has ended, nothing stands in the way, and a refusal has left nothing behind.
  other.tell('e');
  ASSERT_TRUE(other.hears('e'));
  EXPECT_DONE(shop.db, shop.begin(wanted, 0));
  EXPECT_DONE(shop.db, shop.end());
}

TEST_P(MeetingModes, InTwoHandlesOfAThread) {
  Shop one;
  Shop two;
  ASSERT_TRUE(one.open(path()));
  ASSERT_TRUE(two.open(path()));
  ASSERT_DONE(one.db, one.begin(held, 0));
  EXPECT_EQ(two.begin(wanted, 0), GetParam().sameThread) << messageOf(two.db);
  EXPECT_DONE(two.db, two.end());
  EXPECT_DONE(one.db, one.end());
  EXPECT_DONE(two.db, two.begin(wanted, 0));
  EXPECT_DONE(two.db, two.end());
  EXPECT_DONE(one.db, one.begin(held, 0));
}

TEST_P(MeetingModes, InTwoThreadsOfAProcess) {
  Shop one;
  Shop two;
  ASSERT_TRUE(one.open(path()));
  ASSERT_TRUE(two.open(path()));
  ASSERT_DONE(one.db, one.begin(held, 0));
  std::thread([&] {
    EXPECT_EQ(two.begin(wanted, 0), refusal) << messageOf(two.db);
    EXPECT_DONE(two.db, two.end());
  }).join();
  EXPECT_DONE(one.db, one.end());
}

TEST_P(RefusedModes, AreSoWhenTheTimeIsSpent) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  ChildProcess other(holder(path(), held));
  ASSERT_TRUE(other.hears('y'));
  for (const unsigned time : {0u, 1u, 150u}) {
    double best = 1e9;
    // A busy machine may be late, but not every time.
    for (int attempt = 0; attempt < 4 && best > time + 60; ++attempt) {
      const Stopwatch watch;
      EXPECT_EQ(shop.begin(wanted, time), refusal);
      EXPECT_GE(watch.elapsed() + 1, time) << "the tick counter is cut to whole milliseconds";
      best = std::min(best, watch.elapsed());
    }
    EXPECT_LT(best, time + 60);
  }
}

TEST_P(RefusedModes, ThatWaitBeginWhenTheHolderEnds) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  ChildProcess other(holder(path(), held));
  ASSERT_TRUE(other.hears('y'));
  std::atomic<bool> told{false};
  std::thread teller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // most likely into the wait
    told = true;
    other.tell('e');
  });
  EXPECT_DONE(shop.db, shop.begin(wanted, Shop::kTimeout));
  EXPECT_TRUE(told);
  teller.join();
  EXPECT_TRUE(other.hears('e'));
  EXPECT_DONE(shop.db, shop.end());
}

TEST_P(RefusedModes, ThatWaitBeginWhenTheHolderDies) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  ChildProcess other(holder(path(), held));
  ASSERT_TRUE(other.hears('y'));
  std::thread killer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    other.kill();
  });
  EXPECT_DONE(shop.db, shop.begin(wanted, Shop::kTimeout));
  killer.join();
  EXPECT_DONE(shop.db, shop.end());
}

TEST_P(MeetingModes, NeedNoTimeBehindADeadHolder) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  ChildProcess other(holder(path(), held));
  ASSERT_TRUE(other.hears('y'));
  other.kill();
  EXPECT_DONE(shop.db, shop.begin(wanted, 0));
  EXPECT_DONE(shop.db, shop.end());
}

TEST_F(Modes, OfOtherNumbersAreRefused) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  for (const unsigned mode : {0u, 1u, 32u, 36u, 64u, 96u, 97u, 99u, 34u | 128u, 0xFFFFFFFFu}) {
    EXPECT_EQ(shop.db.BeginTransaction(static_cast<CZELTA::Mode>(mode), 0), ownCode(7)) << mode;
  }
  EXPECT_DONE(shop.db, shop.begin());
  EXPECT_EQ(shop.begin(kRead, 0), ownCode(34)) << "one transaction for each handle";
}

TEST_F(Modes, ThatKeepWritersOutWaitForThoseWhoAreInAndStopNewOnes) {
  for (const CZELTA::Mode mode : {kExclusive, kExclusiveRead}) {
    Shop shop;
    ASSERT_TRUE(shop.open(path()));
    ChildProcess inside(holder(path(), kShared));
    ASSERT_TRUE(inside.hears('y'));
    {
      ChildProcess waiter(holder(path(), mode));
      // From some moment on it waits, and no writer begins any more.
      unsigned long long result = 0;
      for (const Stopwatch watch;
           (result == 0 || result == kTimedOut) && watch.elapsed() < 10000;) {
        result = shop.begin(kShared, 0);
        EXPECT_DONE(shop.db, shop.end());
      }
      EXPECT_EQ(result, kDatabaseLocked);
      EXPECT_DONE(shop.db, shop.begin(kRead, 0)) << "readers go on";
      EXPECT_DONE(shop.db, shop.end());
    }
    EXPECT_DONE(shop.db, shop.begin(kShared, 0)) << "a dead waiter stops nobody";
    EXPECT_DONE(shop.db, shop.end());
    ChildProcess second(holder(path(), mode));
    inside.tell('e');
    EXPECT_TRUE(inside.hears('e'));
    EXPECT_TRUE(second.hears('y')) << "the one inside has ended";
    second.tell('e');
    EXPECT_TRUE(second.hears('e'));
    EXPECT_DONE(shop.db, shop.begin(kShared, 0));
    EXPECT_DONE(shop.db, shop.end());
  }
}

TEST_F(Modes, ThatGiveUpLeaveTheDatabaseToOthers) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  ChildProcess inside(holder(path(), kShared));
  ASSERT_TRUE(inside.hears('y'));
  for (const CZELTA::Mode mode : {kExclusive, kExclusiveRead}) {
    for (const unsigned time : {0u, 40u}) {
      EXPECT_EQ(shop.begin(mode, time), kDatabaseLocked);
      ChildProcess next(holder(path(), kShared));
      EXPECT_TRUE(next.hears('y')) << "with the handle that gave up open";
      EXPECT_DONE(shop.db, shop.begin(kShared, 0));
      EXPECT_DONE(shop.db, shop.end());
    }
  }
}

TEST_F(Modes, ThatKeepWritersOutAreNotStarvedByAStreamOfThem) {
  std::vector<std::unique_ptr<ChildProcess>> streams;
  for (int i = 0; i < 3; ++i) {
    streams.push_back(std::make_unique<ChildProcess>([this](const Line& line) {
      Shop shop;
      line.say(shop.open(path()) ? 'y' : 'n');
      for (;;) {
        if (shop.begin(kShared) != 0 || shop.end() != 0) return 1;
      }
    }));
  }
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  for (const auto& stream : streams) ASSERT_TRUE(stream->hears('y'));
  for (int round = 0; round < 15; ++round) {
    ASSERT_DONE(shop.db, shop.begin(round % 2 == 0 ? kExclusive : kExclusiveRead));
    EXPECT_DONE(shop.db, shop.end());
  }
}

TEST_F(Modes, TakeAndLeaveTheirSlots) {
  Shop shop;
  ASSERT_TRUE(shop.open(path()));
  const std::uint32_t start = word(16);  // where the directory ends
  ASSERT_EQ(control().size(), start);
  const auto slot = [&](int number) { return word(start + 8 * static_cast<unsigned>(number)); };
  auto one = std::make_unique<ChildProcess>(holder(path(), kShared));
  ASSERT_TRUE(one->hears('y'));
  ChildProcess two(holder(path(), kShared));
  ASSERT_TRUE(two.hears('y'));
  ChildProcess three(holder(path(), kShared));
  ASSERT_TRUE(three.hears('y'));
  ASSERT_EQ(control().size(), start + 24);
  EXPECT_EQ(slot(0), 2u) << "the table's maker was exclusive; the numbers begin again";
  EXPECT_EQ(slot(1), 3u);
  EXPECT_EQ(slot(2), 4u);
  EXPECT_EQ(word(32), 4u);

  two.tell('e');
  ASSERT_TRUE(two.hears('e'));
  EXPECT_EQ(control().size(), start + 24);
  EXPECT_EQ(slot(1), 0u) << "one in the middle is emptied";
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(slot(1), 5u) << "and taken by the next";
  EXPECT_DONE(shop.db, shop.end());
  EXPECT_EQ(slot(1), 0u);

  three.tell('e');
  ASSERT_TRUE(three.hears('e'));
  EXPECT_EQ(control().size(), start + 8) << "the end is cut with all empty ones before it";
  one->kill();
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(control().size(), start + 8) << "the dead one's was healed and taken";
  EXPECT_EQ(slot(0), 6u);
  EXPECT_DONE(shop.db, shop.end());
  EXPECT_EQ(control().size(), start);

  ASSERT_DONE(shop.db, shop.begin(kExclusive));
  EXPECT_EQ(word(32), 1u);
  EXPECT_EQ(word(36), 1u);
  EXPECT_DONE(shop.db, shop.end());
  EXPECT_EQ(word(36), 0u);
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(slot(0), 2u);
}

}  // namespace
}  // namespace zelta::testing

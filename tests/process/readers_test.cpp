// Readers beside writers that commit, abort and die all the time.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <vector>

#include "frame/lifecycle.h"
#include "platform/mutex.h"
#include "process/shop_fixture.h"
#include "support/check_database.h"

namespace zelta::testing {
namespace {

/// Rows of writer 0 are there from the start and never touched.
constexpr std::uint64_t kLasting = 120;
constexpr std::uint64_t kLastingStep = 1000;  // the writers' keys come between them
/// Rows of this writer are never committed.
constexpr std::uint32_t kDoomed = 99;
constexpr std::uint32_t kGroup = 3;

Row lasting(std::uint64_t n) { return {n * kLastingStep, 0, static_cast<std::uint32_t>(n + 1)}; }

/// A writer's rows come and go in groups of three, whose members have one version in common: the
/// key's rest of 10.
Row member(std::uint32_t writer, std::uint32_t group, std::uint32_t i, std::uint64_t version) {
  const std::uint64_t place = (group * 7919ull % kLasting) * kLastingStep;
  const std::uint64_t key = place + 10 + ((group / kLasting * 5 + writer) % 30 * kGroup + i) * 10;
  return {key + version, writer, group * kGroup + i + 1};
}

/// Changes groups of its own until it is killed; each change is one commit, and some are dropped.
class Changer {
 public:
  Changer(Shop& shop, std::uint32_t writer, unsigned seed)
      : shop_(shop), writer_(writer), random_(seed + writer) {}

  /// The line where something was not as it should be; 0 when the transactions are done.
  int run(int transactions) {
    for (int i = 0; i < transactions; ++i) {
      if (shop_.begin() != 0) return __LINE__;
      if (const int line = doomed(); line != 0) return line;
      if (shop_.db.AbortTransaction(true) != 0) return __LINE__;
      if (const int line = change(random_() % (kLasting * 2)); line != 0) return line;
      if (shop_.commit() != 0) return __LINE__;
      if (const int line = doomed(); line != 0) return line;
      if (shop_.end() != 0) return __LINE__;
    }
    return 0;
  }

 private:
  int doomed() {
    for (std::uint32_t i = 0; i < 3; ++i) {
      const Row row{random_() % (kLasting * kLastingStep) / 10 * 10 + 9, kDoomed,
                    writer_ * 1000000u + ++count_};
      const auto result = shop_.add(row);
      if (result != 0 && result != kKeyExists) return __LINE__;
    }
    return 0;
  }
  int change(std::uint64_t number) {
    const auto group = static_cast<std::uint32_t>(number);
    const auto found = groups_.find(group);
    if (found == groups_.end()) {
      Group added{{}, 0};
      for (std::uint32_t i = 0; i < kGroup; ++i) {
        if (shop_.add(member(writer_, group, i, 0)) != 0) return __LINE__;
        added.ids[i] = shop_.object.objectID;
      }
      groups_.emplace(group, added);
      return 0;
    }
    const bool removes = random_() % 3 == 0;
    Group& present = found->second;
    present.version = (present.version + 1) % 8;
    for (std::uint32_t i = 0; i < kGroup; ++i) {
      if (removes) {
        if (shop_.remove(present.ids[i]) != 0) return __LINE__;
      } else {
        if (shop_.readId(present.ids[i]) != 0) return __LINE__;
        if (shop_.rewrite(member(writer_, group, i, present.version)) != 0) return __LINE__;
      }
    }
    if (removes) groups_.erase(found);
    return 0;
  }

  struct Group {
    long long ids[kGroup];
    std::uint64_t version;
  };
  Shop& shop_;
  std::uint32_t writer_;
  std::mt19937 random_;
  std::map<std::uint32_t, Group> groups_;
  std::uint32_t count_ = 0;
};

class Readers : public ShopTest {
 protected:
  void SetUp() override {
    ShopTest::SetUp();
    std::vector<Row> rows;
    for (std::uint64_t n = 0; n < kLasting; ++n) rows.push_back(lasting(n));
    stock(rows);
    ASSERT_TRUE(shop.open(path()));
    std::cout << "seed " << seed << '\n';
  }
  void letChange(std::uint32_t writers, int transactions) {
    for (std::uint32_t w = 1; w <= writers; ++w) {
      changers.push_back(std::make_unique<ChildProcess>([this, w, transactions](const Line& line) {
        Shop own;
        if (!own.open(path())) return 1;
        line.say('y');
        const int where = Changer(own, w, seed).run(transactions);
        if (where != 0) std::cerr << "line " << where << ": " << messageOf(own.db) << '\n';
        line.say('e');
        return where == 0 ? 0 : 2;
      }));
      ASSERT_TRUE(changers.back()->hears('y'));
    }
  }
  /// Whether some writer is still at work.
  [[nodiscard]] bool atWork() const {
    for (const auto& changer : changers) {
      if (changer->line().quiet()) return true;
    }
    return false;
  }
  void finish() {
    for (const auto& changer : changers) EXPECT_EQ(changer->wait(), 0);
    changers.clear();
    shop.db.CloseDatabase();
    expectClean(path());
  }

  /// One walk by an index from end to end; the rows in its order.
  std::vector<Row> walk(unsigned index, CZELTA::Mode flags = CZELTA::Mode{}) {
    std::vector<Row> rows;
    for (auto mode = CZELTA::ReadFirst;; mode = CZELTA::ReadNext) {
      const auto result = shop.walk(mode | flags, index);
      if (result == kNotFound) return rows;
      EXPECT_EQ(result, 0u) << "index " << index << ": " << messageOf(shop.db);
      if (result != 0) return rows;
      rows.push_back(shop.row());
      EXPECT_TRUE(shop.isWhole()) << rows.back().key;
      EXPECT_NE(rows.back().writer, kDoomed) << "seen before a commit that never came";
      if (::testing::Test::HasFailure() || rows.size() > 100000) return rows;
    }
  }
  /// A walk by key that others change under the walker's feet: what lasts is met, and in order.
  void walkBesideWriters(CZELTA::Mode flags) {
    std::uint64_t next = 0;
    std::uint64_t last = 0;
    for (const Row& row : walk(1, flags)) {
      EXPECT_TRUE(row.key == 0 || row.key > last) << row.key << " after " << last;
      last = row.key;
      if (row.writer != 0) continue;
      ASSERT_EQ(row, lasting(next)) << "a row that lasts was left out";
      ++next;
    }
    ASSERT_EQ(next, kLasting);
  }
  void readOnesThatLast(CZELTA::Mode flags) {
    for (int i = 0; i < 30; ++i) {
      const Row row = lasting(random() % kLasting);
      ASSERT_DONE(shop.db, shop.readKey(row.key, flags));
      ASSERT_EQ(shop.row(), row);
      ASSERT_TRUE(shop.isWhole());
      ASSERT_DONE(shop.db, shop.readPair(row.writer, row.sequence, flags));
      ASSERT_EQ(shop.row(), row);
      ASSERT_DONE(shop.db, shop.readId(row.sequence, flags));
      ASSERT_EQ(shop.row(), row);
    }
  }
  /// With writers kept out: all three orders hold the same, and groups are whole.
  void readAllAtRest() {
    std::map<std::uint64_t, Row> sets[3];
    for (unsigned index = 0; index < 3; ++index) {
      const std::vector<Row> rows = walk(index);
      for (const Row& row : rows) sets[index].emplace(row.key, row);
      ASSERT_EQ(sets[index].size(), rows.size());
    }
    ASSERT_TRUE(sets[0] == sets[1]);
    ASSERT_TRUE(sets[0] == sets[2]);
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<std::uint64_t>> groups;
    std::uint64_t lastingOnes = 0;
    for (const auto& [key, row] : sets[0]) {
      if (row.writer == 0) {
        ++lastingOnes;
      } else {
        groups[{row.writer, (row.sequence - 1) / kGroup}].push_back(key % 10);
      }
    }
    ASSERT_EQ(lastingOnes, kLasting);
    for (const auto& [group, versions] : groups) {
      ASSERT_EQ(versions, std::vector<std::uint64_t>(kGroup, versions[0]))
          << "writer " << group.first << ", group " << group.second;
    }
  }

  const unsigned seed = std::random_device{}();
  std::mt19937 random{seed};
  Shop shop;
  std::vector<std::unique_ptr<ChildProcess>> changers;
};

TEST_F(Readers, MeetWhatLastsAndNothingUncommitted) {
  letChange(2, 50);
  int rounds = 0;
  for (; (atWork() || rounds < 3) && !HasFailure(); ++rounds) {
    ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionRead));
    walkBesideWriters(CZELTA::Mode{});
    readOnesThatLast(CZELTA::Mode{});
    ASSERT_DONE(shop.db, shop.end());
  }
  finish();
}

TEST_F(Readers, ThatStayInOneTransactionSeeWhatIsCommittedMeanwhile) {
  letChange(2, 50);
  ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionRead));
  while (atWork() && !HasFailure()) {
    walkBesideWriters(CZELTA::Mode{});
    readOnesThatLast(CZELTA::Mode{});
  }
  readAllAtRest();
  ASSERT_DONE(shop.db, shop.end());
  finish();
}

TEST_F(Readers, ThatMayWriteNeedNoLock) {
  letChange(2, 50);
  while (atWork() && !HasFailure()) {
    ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionShared));
    walkBesideWriters(CZELTA::ReadNoLock);
    readOnesThatLast(CZELTA::ReadNoLock);
    ASSERT_DONE(shop.db, shop.end());
  }
  finish();
}

TEST_F(Readers, ThatKeepWritersOutSeeWholeTransactions) {
  letChange(3, 25);
  int rounds = 0;
  for (; (atWork() || rounds < 3) && !HasFailure(); ++rounds) {
    ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionExclusiveRead));
    readAllAtRest();
    ASSERT_DONE(shop.db, shop.end());
  }
  finish();
}

TEST_F(Readers, WaitOnceForAChangeThatNobodyEnds) {
  platform::Mutex mutex = platform::Mutex::none;
  const OpenedLockFile locks(folder);
  ASSERT_EQ(platform::createMutex(locks, (u"Global\\" + folder.file("things.zlt")).c_str(), &mutex),
            0u);
  ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionRead));
  platform::advanceChangeCount(mutex);
  const Stopwatch first;
  ASSERT_DONE(shop.db, shop.readKey(lasting(7).key));
  EXPECT_EQ(shop.row(), lasting(7));
  EXPECT_GT(first.elapsed(), 100);
  EXPECT_LT(first.elapsed(), 20000);
  const Stopwatch second;
  readOnesThatLast(CZELTA::Mode{});
  walkBesideWriters(CZELTA::Mode{});
  EXPECT_LT(second.elapsed(), first.elapsed());
  ASSERT_DONE(shop.db, shop.end());
  platform::advanceChangeCount(mutex);
  platform::closeMutex(mutex);
}

}  // namespace
}  // namespace zelta::testing

// Processes that die when their commit is decided and partly carried out, beside a transaction that
// began before and so was not the one to repair anything at its begin.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "process/die_between.h"
#include "process/shop_fixture.h"
#include "support/raw_table.h"

namespace zelta::testing {
namespace {

/// Behind the index and the table, the entry goes from the log.
const std::vector<std::string> kApplied = {".zli", ".zlt", ".zll"};
const std::vector<std::string> kKeysAlone = {".zli", ".zlt"};

constexpr Row kLost{5, 1, 1};
constexpr Row kRest{50, 1, 2};

class DeadCommit : public ShopTest {
 protected:
  /// Lets a process add and change objects in one transaction, which dies in its commit between
  /// writes to these files. Meanwhile `shop` is in a transaction.
  void dieBetween(const std::vector<std::string>& files) {
    stock({{7, 2, 1}});
    ChildProcess victim([&](const Line& line) {
      if (line.hear() != 'g') return 1;
      Shop own;
      if (!own.open(path()) || own.begin() != 0) return 2;
      if (own.add(kLost) != 0 || own.add(kRest) != 0) return 3;
      if (own.readKey(7) != 0 || own.rewrite({8, 2, 2}) != 0) return 4;
      const DieBetween death(files);
      static_cast<void>(own.commit());
      return 5;
    });
    ASSERT_TRUE(shop.open(path()));
    ASSERT_DONE(shop.db, shop.begin());
    victim.tell('g');
    ASSERT_EQ(victim.wait(), kKilled);
  }
  /// What a transaction finds that begins now, in another process.
  void expectElsewhere(const std::vector<std::uint64_t>& there,
                       const std::vector<std::uint64_t>& gone) {
    ChildProcess other([&](const Line&) {
      Shop own;
      if (!own.open(path()) || own.begin(CZELTA::TransactionShared, 5000) != 0) return 1;
      for (const std::uint64_t key : there) {
        if (own.readKey(key, CZELTA::ReadNoLock) != 0) return 2;
      }
      for (const std::uint64_t key : gone) {
        if (own.readKey(key, CZELTA::ReadNoLock) != kNotFound) return 3;
      }
      return own.end() == 0 ? 0 : 4;
    });
    EXPECT_EQ(other.wait(), 0);
  }

  Shop shop;
};

TEST_F(DeadCommit, ThatIsAppliedDoesNotBringBackWhatAnotherDeleted) {
  dieBetween(kApplied);
  ASSERT_DONE(shop.db, shop.readKey(kLost.key));
  ASSERT_DONE(shop.db, shop.remove(0));
  ASSERT_DONE(shop.db, shop.readKey(8));
  ASSERT_DONE(shop.db, shop.remove(0));
  ASSERT_DONE(shop.db, shop.commit());
  ASSERT_DONE(shop.db, shop.end());
  expectElsewhere({kRest.key}, {kLost.key, 7, 8});
}

TEST_F(DeadCommit, ThatIsAppliedIsRepairedWhileAnotherHoldsItsObjects) {
  dieBetween(kApplied);
  ASSERT_DONE(shop.db, shop.readKey(kLost.key));
  ASSERT_DONE(shop.db, shop.readKey(8));
  expectElsewhere({kLost.key, kRest.key, 8}, {7});
  ASSERT_DONE(shop.db, shop.rewrite({9, 2, 3}));
  ASSERT_DONE(shop.db, shop.commit());
  ASSERT_DONE(shop.db, shop.end());
  expectElsewhere({kLost.key, kRest.key, 9}, {7, 8});
}

TEST_F(DeadCommit, WhoseKeysAloneAreInTheIndexIsFinishedByTheOneThatMeetsThem) {
  dieBetween(kKeysAlone);
  ASSERT_DONE(shop.db, shop.readKey(kLost.key));
  EXPECT_EQ(shop.row(), kLost);
  EXPECT_TRUE(shop.isWhole());
  EXPECT_EQ(shop.readKey(7), kNotFound);
  ASSERT_DONE(shop.db, shop.readKey(8));
  ASSERT_DONE(shop.db, shop.readKey(kRest.key));
  ASSERT_DONE(shop.db, shop.end());
  expectElsewhere({kLost.key, kRest.key, 8}, {7});
}

TEST_F(DeadCommit, WhoseKeysAloneAreInTheIndexKeepsThem) {
  dieBetween(kKeysAlone);
  EXPECT_EQ(shop.add({kLost.key, 3, 1}), kKeyExists);
  ASSERT_DONE(shop.db, shop.add({7, 3, 2}));  // given up by the dead one
  ASSERT_DONE(shop.db, shop.commit());
  ASSERT_DONE(shop.db, shop.end());
  expectElsewhere({kLost.key, kRest.key, 7, 8}, {});
}

/// The commit stays as it is for whoever comes when the table's file is mended.
TEST_F(DeadCommit, ThatMeetsASlotInUseAmongTheFreeIDsIsNotReplayed) {
  stock({{1, 1, 1}, {2, 1, 2}, {3, 1, 3}, {4, 1, 4}, {5, 1, 5}});
  ChildProcess victim([&](const Line&) {
    Shop own;
    if (!own.open(path()) || own.begin() != 0 || own.remove(2) != 0 || own.commit() != 0) return 1;
    if (own.remove(4) != 0) return 2;
    const DieBetween death(kKeysAlone);
    static_cast<void>(own.commit());
    return 3;
  });
  ASSERT_EQ(victim.wait(), kKilled);
  std::string bytes = folder.bytes("things.zlt");
  RawBytes raw(bytes);
  const std::uint64_t top = readRawTableHeader(raw).slotBase + 12 * 2 + 7;  // of the slot of ID 2
  const auto flip = [&] {
    bytes[top] = static_cast<char>(bytes[top] ^ 0x80);
    folder.write("things.zlt", bytes);
  };
  flip();
  EXPECT_EQ(shop.db.OpenDatabase(path().c_str()), ownCode(59));
  const char16_t* message = nullptr;
  shop.db.GetErrorMessage(&message);
  EXPECT_EQ(std::u16string(message),
            u"An unclassified error has occured while executing operation.\nString1 = things.\n"
            u"String2 = .zlt.\nInteger1 = 2, Integer2 = 0");
  flip();
  ASSERT_TRUE(shop.open(path()));
  expectElsewhere({1, 3, 5}, {2, 4});
}

/// Watches a repairer: from the time that it has locked the word of a slot to the time that it
/// unlocks it again, nobody else may gain the database's mutex. He would take the dead one for
/// alive.
class RepairWatch final : public platform::faults::Hook {
 public:
  RepairWatch() { platform::faults::install(this); }
  ~RepairWatch() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    constexpr std::string_view kControl = ".zlc";
    if (event.name.size() < kControl.size() ||
        event.name.compare(event.name.size() - kControl.size(), kControl.size(), kControl) != 0) {
      return {};
    }
    if (event.call == Call::mutexWait) ++owned_;
    if (event.call == Call::mutexRelease && --owned_ == 0) {
      for (auto& [position, let] : wanted_) let = true;
    }
    if (event.call == Call::lock) wanted_[event.position] = false;
    if (event.call == Call::unlock && wanted_.count(event.position) != 0) {
      ++unlocked;
      letGo = letGo || wanted_[event.position];
      wanted_.erase(event.position);
    }
    return {};
  }
  int unlocked = 0;
  bool letGo = false;

 private:
  int owned_ = 0;
  std::map<std::uint64_t, bool> wanted_;  ///< words, and whether the mutex was let go since
};

class RepairedCommit : public DeadCommit {
 protected:
  /// Work of `shop` that repairs the dead transaction on its way.
  void expectNoGap(const std::function<unsigned long long()>& work) {
    RepairWatch watch;
    EXPECT_EQ(work(), 0u) << messageOf(shop.db);
    EXPECT_GE(watch.unlocked, 1);
    EXPECT_FALSE(watch.letGo);
    EXPECT_EQ(shop.readKey(kLost.key), 0u) << messageOf(shop.db);
  }
};

TEST_F(RepairedCommit, NeverSeemsAliveToOthersWhenACommitRepairs) {
  dieBetween(kKeysAlone);
  ASSERT_DONE(shop.db, shop.add({100, 9, 9}));
  expectNoGap([&] { return shop.commit(); });
  ASSERT_DONE(shop.db, shop.end());
}

TEST_F(RepairedCommit, NeverSeemsAliveToOthersWhenAReadRepairs) {
  dieBetween(kKeysAlone);
  expectNoGap([&] { return shop.readKey(kRest.key); });
  ASSERT_DONE(shop.db, shop.end());
}

TEST_F(RepairedCommit, NeverSeemsAliveToOthersWhenABeginRepairs) {
  dieBetween(kKeysAlone);
  ASSERT_DONE(shop.db, shop.end());
  expectNoGap([&] { return shop.begin(); });
  ASSERT_DONE(shop.db, shop.end());
}

TEST_F(RepairedCommit, NeverSeemsAliveToOthersWhenTheBeginOfAnExclusiveOneRepairs) {
  dieBetween(kKeysAlone);
  ASSERT_DONE(shop.db, shop.end());
  expectNoGap([&] { return shop.begin(CZELTA::TransactionExclusive); });
  ASSERT_DONE(shop.db, shop.end());
}

/// Lets something happen between the time that a commit's entry is in the log and the time that it
/// is applied to the table.
class BeforeItIsApplied final : public platform::faults::Hook {
 public:
  explicit BeforeItIsApplied(std::function<void()> event) : event_(std::move(event)) {
    platform::faults::install(this);
  }
  ~BeforeItIsApplied() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    // The table's mutex is owned while its section is written, and then to apply it.
    if (event.call == platform::faults::Call::mutexWait &&
        event.name.find(".zlt") != std::string::npos && ++waits_ == 2) {
      event_();
    }
    return {};
  }
  [[nodiscard]] bool happened() const { return waits_ >= 2; }

 private:
  std::function<void()> event_;
  int waits_ = 0;
};

TEST_F(DeadCommit, WhoseNewObjectHasToMoveBeforeItsContentIsThereIsReplayed) {
  const std::vector<std::string> tableDecided = {".zlt", ".zlt", ".zlt"};
  ChildProcess victim([&](const Line& line) {
    Shop own;
    if (!own.open(path()) || own.begin() != 0 || own.add(kLost) != 0) return 2;
    line.say('y');
    if (line.hear() != 'g') return 1;
    const DieBetween death(tableDecided);
    static_cast<void>(own.commit());
    return 5;
  });
  ASSERT_TRUE(victim.hears('y'));
  ASSERT_TRUE(shop.open(path()));
  ASSERT_DONE(shop.db, shop.begin());
  // So many that their slots take the place of the first record.
  std::vector<std::uint64_t> keys = {kLost.key};
  for (std::uint32_t i = 0; i < 100; ++i) {
    ASSERT_DONE(shop.db, shop.add({1000 + i, 3, i}));
    keys.push_back(1000 + i);
  }
  {
    int end = 0;
    const BeforeItIsApplied other([&] {
      victim.tell('g');
      end = victim.wait();
    });
    ASSERT_DONE(shop.db, shop.commit());
    ASSERT_TRUE(other.happened());
    ASSERT_EQ(end, kKilled);
  }
  ASSERT_DONE(shop.db, shop.readKey(kLost.key));
  EXPECT_EQ(shop.row(), kLost);
  EXPECT_TRUE(shop.isWhole());
  ASSERT_DONE(shop.db, shop.end());
  expectElsewhere(keys, {});
}

}  // namespace
}  // namespace zelta::testing

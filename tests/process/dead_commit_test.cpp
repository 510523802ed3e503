// Processes that die when their commit is decided and partly carried out, beside a transaction that
// began before and so was not the one to repair anything at its begin.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process/shop_fixture.h"

namespace zelta::testing {
namespace {

/// Kills the process before a write to the last of some files, once the others have been written in
/// their order.
class DieBetween final : public platform::faults::Hook {
 public:
  explicit DieBetween(std::vector<std::string> extensions) : extensions_(std::move(extensions)) {
    platform::faults::install(this);
  }
  ~DieBetween() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    const std::string& next = extensions_[seen_];
    if (event.call != platform::faults::Call::write || event.name.size() < next.size() ||
        event.name.compare(event.name.size() - next.size(), next.size(), next) != 0) {
      return verdict;
    }
    verdict.die = seen_ + 1 == extensions_.size();
    if (verdict.die) verdict.cutTo = 0;
    ++seen_;
    return verdict;
  }

 private:
  std::vector<std::string> extensions_;
  std::size_t seen_ = 0;
};

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
    ASSERT_EQ(victim.wait(), 256 + SIGKILL);
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

}  // namespace
}  // namespace zelta::testing

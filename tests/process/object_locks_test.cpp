// Objects and keys that two running transactions want: who waits for how long, and what the one
// that gives up is told.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "process/shop_fixture.h"
#include "support/check_database.h"

namespace zelta::testing {
namespace {

constexpr CZELTA::Mode kNoWait = CZELTA::ReadNoWait;
constexpr CZELTA::Mode kShortWait = CZELTA::ReadShortWait;
constexpr CZELTA::Mode kNoLock = CZELTA::ReadNoLock;

/// Another process with a transaction; it does what the bytes that it hears stand for, and answers
/// '0' for success, else a letter for the code.
class Other {
 public:
  using Order = std::function<unsigned long long(Shop&)>;
  Other(const std::u16string& path, const std::map<char, Order>& orders)
      : process_([path, orders](const Line& line) {
          Shop shop;
          if (!shop.open(path)) return 1;
          for (char order = line.hear(); order != 0; order = line.hear()) {
            const auto found = orders.find(order);
            if (found == orders.end()) return 2;
            line.say(letterOf(found->second(shop)));
          }
          return 0;
        }) {}
  /// The answer's letter.
  char ask(char order) {
    process_.tell(order);
    return process_.line().hear();
  }
  void order(char order) { process_.tell(order); }
  char answer() { return process_.line().hear(); }
  void kill() { process_.kill(); }

  static char letterOf(unsigned long long result) {
    return result == 0                    ? '0'
           : result == kObjectLocked      ? 'L'
           : result == kTransactionLocked ? 'T'
           : result == kKeyExists         ? 'K'
           : result == kNotFound          ? 'N'
                                          : '?';
  }

 private:
  ChildProcess process_;
};

class ObjectLocks : public ShopTest {
 protected:
  void SetUp() override {
    ShopTest::SetUp();
    stock({{1, 0, 1}, {2, 0, 2}, {3, 0, 3}});
    ASSERT_TRUE(shop.open(path()));
  }
  void TearDown() override {
    shop.db.CloseDatabase();
    ShopTest::TearDown();
  }
  /// The usual orders of the other process: 'b'egin, 'c'ommit, 'k'eep the locks of a commit,
  /// 'a'bort, 'e'nd, lock object '1', '2' or '3'.
  std::map<char, Other::Order> orders() const {
    std::map<char, Other::Order> all{{'b', [](Shop& s) { return s.begin(); }},
                                     {'c', [](Shop& s) { return s.commit(true); }},
                                     {'k', [](Shop& s) { return s.commit(false); }},
                                     {'a', [](Shop& s) { return s.db.AbortTransaction(true); }},
                                     {'l', [](Shop& s) { return s.db.AbortTransaction(false); }},
                                     {'e', [](Shop& s) { return s.end(); }},
                                     {'+',
                                      [](Shop& s) {
                                        return s.add({100, 9, 1});
                                      }},
                                     {'d', [](Shop& s) { return s.remove(1); }},
                                     {'r', [](Shop& s) {
                                        const auto failure = s.readId(1);
                                        return failure != 0 ? failure : s.rewrite({11, 9, 2});
                                      }}};
    for (char id = '1'; id <= '3'; ++id) {
      all[id] = [id](Shop& s) { return s.readId(id - '0', kNoWait); };
    }
    return all;
  }

  Shop shop;
};

// -- Locks of reads -------------------------------------------------------------------------------

TEST_F(ObjectLocks, OfAnotherTransactionStopLockingReadsAlone) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('1'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(shop.readId(1, kNoWait), kObjectLocked);
  EXPECT_EQ(messageOf(shop.db), "Unable to gain lock on object 1 in table things.");
  EXPECT_EQ(shop.readKey(1, kNoWait), kObjectLocked);
  EXPECT_EQ(shop.readPair(0, 1, kNoWait), kObjectLocked);
  EXPECT_DONE(shop.db, shop.readId(1, kNoLock));
  EXPECT_EQ(shop.row(), (Row{1, 0, 1}));
  EXPECT_DONE(shop.db, shop.readKey(1, kNoLock));
  EXPECT_DONE(shop.db, shop.readId(2, kNoWait)) << "its neighbour is free";
  EXPECT_EQ(other.ask('2'), 'L') << "and now locked here";
  ASSERT_EQ(other.ask('e'), '0');
  EXPECT_DONE(shop.db, shop.readId(1, kNoWait));
}

TEST_F(ObjectLocks, NeedNoClockWhenNobodyWaits) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('1'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  double best = 1e9;
  for (int attempt = 0; attempt < 4 && best > 60; ++attempt) {
    const Stopwatch watch;
    EXPECT_EQ(shop.readId(1, kNoWait), kObjectLocked);
    best = std::min(best, watch.elapsed());
  }
  EXPECT_LT(best, 60);
}

TEST_F(ObjectLocks, AreWaitedForTenShortTimes) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('1'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  const Stopwatch watch;
  EXPECT_EQ(shop.readId(1, kShortWait), kObjectLocked);
  EXPECT_GE(watch.elapsed() + 2, 1100) << "100 ms, and ten times more";
  EXPECT_LT(watch.elapsed(), 5000);
}

TEST_F(ObjectLocks, AreGainedWhenTheirOwnerGivesThemUp) {
  for (const char way : {'c', 'a', 'e'}) {
    Other other(path(), orders());
    ASSERT_EQ(other.ask('b'), '0');
    ASSERT_EQ(other.ask('1'), '0');
    ASSERT_DONE(shop.db, shop.begin());
    ASSERT_EQ(shop.readId(1, kNoWait), kObjectLocked);
    std::thread teller([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));  // most likely into the wait
      other.order(way);
    });
    EXPECT_DONE(shop.db, shop.readId(1)) << way;
    teller.join();
    EXPECT_EQ(other.answer(), '0');
    EXPECT_EQ(shop.row(), (Row{1, 0, 1}));
    EXPECT_DONE(shop.db, shop.end());
  }
}

TEST_F(ObjectLocks, DieWithTheirOwner) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('1'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  ASSERT_EQ(shop.readId(1, kNoWait), kObjectLocked);
  other.kill();
  EXPECT_DONE(shop.db, shop.readId(1, kNoWait));
}

TEST_F(ObjectLocks, SurviveACommitThatKeepsThem) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('1'), '0');
  ASSERT_EQ(other.ask('+'), '0');
  ASSERT_EQ(other.ask('k'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(shop.readId(1, kNoWait), kObjectLocked) << "locked by a read";
  EXPECT_EQ(shop.readId(4, kNoWait), kObjectLocked) << "added and committed";
  EXPECT_DONE(shop.db, shop.readId(4, kNoLock));
  EXPECT_EQ(shop.row(), (Row{100, 9, 1}));
  ASSERT_EQ(other.ask('l'), '0');
  EXPECT_EQ(shop.readId(1, kNoWait), kObjectLocked) << "an abort can keep them, too";
  EXPECT_EQ(shop.readId(4, kNoWait), kObjectLocked);
  ASSERT_EQ(other.ask('a'), '0');
  EXPECT_DONE(shop.db, shop.readId(1, kNoWait));
  EXPECT_DONE(shop.db, shop.readId(4, kNoWait));
}

TEST_F(ObjectLocks, OfTwoHandlesOfOneThreadExcludeEachOther) {
  Shop two;
  ASSERT_TRUE(two.open(path()));
  ASSERT_DONE(shop.db, shop.begin());
  ASSERT_DONE(two.db, two.begin());
  ASSERT_DONE(shop.db, shop.readId(1));
  EXPECT_EQ(two.readId(1, kNoWait), kObjectLocked);
  EXPECT_DONE(two.db, two.readId(2));
  EXPECT_EQ(shop.readId(2, kNoWait), kObjectLocked);
  EXPECT_DONE(shop.db, shop.end());
  EXPECT_DONE(two.db, two.readId(1));
  EXPECT_DONE(two.db, two.end());
}

TEST_F(ObjectLocks, AreNoneOfAReadersBusiness) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('1'), '0');
  ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionRead));
  EXPECT_DONE(shop.db, shop.readId(1));
  EXPECT_DONE(shop.db, shop.readKey(1));
  EXPECT_EQ(other.ask('2'), '0') << "and a reader locks nothing";
}

// -- What is not committed yet --------------------------------------------------------------------

TEST_F(ObjectLocks, HideRewritesUntilTheirCommit) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('r'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(shop.readId(1, kNoWait), kObjectLocked);
  EXPECT_DONE(shop.db, shop.readId(1, kNoLock));
  EXPECT_EQ(shop.row(), (Row{1, 0, 1}));
  EXPECT_TRUE(shop.isWhole());
  EXPECT_DONE(shop.db, shop.readKey(1, kNoLock)) << "the old key is in the index";
  ASSERT_EQ(other.ask('c'), '0');
  EXPECT_DONE(shop.db, shop.readId(1, kNoWait));
  EXPECT_EQ(shop.row(), (Row{11, 9, 2}));
  EXPECT_EQ(shop.readKey(1), kNotFound);
  EXPECT_DONE(shop.db, shop.readKey(11));
}

TEST_F(ObjectLocks, HideDeletesUntilTheirCommit) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('d'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(shop.readId(1, kNoWait), kObjectLocked);
  EXPECT_DONE(shop.db, shop.readId(1, kNoLock));
  EXPECT_DONE(shop.db, shop.readKey(1, kNoLock));
  EXPECT_EQ(shop.add({1, 5, 5}), kKeyExists) << "its key is taken until then";
  ASSERT_EQ(other.ask('c'), '0');
  EXPECT_EQ(shop.readId(1, kNoWait), kNotFound);
  EXPECT_EQ(shop.readKey(1, kNoWait), kNotFound);
  EXPECT_DONE(shop.db, shop.add({1, 5, 5}));
  EXPECT_EQ(shop.object.objectID, 1) << "the ID is free, too";
}

TEST_F(ObjectLocks, HideAddsUntilTheirCommit) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('+'), '0');
  for (const CZELTA::Mode mode : {CZELTA::TransactionShared, CZELTA::TransactionRead}) {
    ASSERT_DONE(shop.db, shop.begin(mode));
    EXPECT_EQ(shop.readId(4, kNoLock), kNotFound);
    EXPECT_DONE(shop.db, shop.walk(CZELTA::ReadLast | kNoLock, 0));
    EXPECT_EQ(shop.object.objectID, 3);
    EXPECT_DONE(shop.db, shop.end());
  }
  ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionRead));
  EXPECT_EQ(shop.readKey(100), kNotFound);
  EXPECT_DONE(shop.db, shop.walk(CZELTA::ReadLast, 1));
  EXPECT_EQ(shop.row(), (Row{3, 0, 3}));
  ASSERT_EQ(other.ask('c'), '0');
  EXPECT_DONE(shop.db, shop.readKey(100)) << "once it is committed, a running reader sees it";
  EXPECT_DONE(shop.db, shop.end());
}

// -- Unique keys ----------------------------------------------------------------------------------

TEST_F(ObjectLocks, HaveNothingToDoWithKeysWhichTheFirstTakes) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('+'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_EQ(shop.add({100, 7, 7}), kKeyExists) << "pending in another transaction";
  EXPECT_EQ(messageOf(shop.db),
            "Unable to add/edit/restore object in things.\n"
            "Index key value already exists in index 1 with object 4.");
  EXPECT_EQ(shop.add({101, 9, 1}), kKeyExists) << "the second index, likewise";
  EXPECT_EQ(shop.add({3, 7, 7}), kKeyExists) << "committed long ago";
  EXPECT_EQ(shop.add({101, 7, 7}, 4), kObjectExists) << "the other's ID";
  EXPECT_DONE(shop.db, shop.add({101, 7, 7}));
  EXPECT_EQ(shop.object.objectID, 5);
  ASSERT_EQ(other.ask('a'), '0');
  EXPECT_DONE(shop.db, shop.add({100, 7, 8})) << "given up by the other";
  EXPECT_DONE(shop.db, shop.commit());
  ASSERT_EQ(other.ask('+'), 'K');
  ASSERT_EQ(other.ask('e'), '0');
  EXPECT_DONE(shop.db, shop.end());
  shop.db.CloseDatabase();
  expectClean(path());
}

TEST_F(ObjectLocks, OfADeadOwnerGiveItsKeysBack) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_EQ(other.ask('+'), '0');
  ASSERT_EQ(other.ask('r'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  ASSERT_EQ(shop.add({100, 7, 7}), kKeyExists);
  other.kill();
  EXPECT_DONE(shop.db, shop.readId(1, kNoWait));
  EXPECT_EQ(shop.row(), (Row{1, 0, 1}));
  // A key of the dead may look taken until somebody begins who meets its slot.
  EXPECT_DONE(shop.db, shop.end());
  ASSERT_DONE(shop.db, shop.begin());
  EXPECT_DONE(shop.db, shop.add({100, 7, 7}));
  EXPECT_DONE(shop.db, shop.add({11, 9, 2}));
  EXPECT_DONE(shop.db, shop.commit());
  EXPECT_DONE(shop.db, shop.end());
  shop.db.CloseDatabase();
  expectClean(path());
}

TEST_F(ObjectLocks, OfADeadOwnerThatWereGotOverLeaveNoText) {
  Other other(path(), orders());
  ASSERT_EQ(other.ask('b'), '0');
  ASSERT_DONE(shop.db, shop.begin());
  ASSERT_EQ(other.ask('+'), '0');
  other.kill();
  // The key looks taken until its owner is looked for.
  ASSERT_DONE(shop.db, shop.add({100, 7, 7}));
  EXPECT_EQ(messageOf(shop.db), "No error message");
  ASSERT_DONE(shop.db, shop.commit());
  EXPECT_EQ(messageOf(shop.db), "No error message");
  ASSERT_DONE(shop.db, shop.end());
}

// -- The order of locks ---------------------------------------------------------------------------

class OrderedLocks : public ObjectLocks {
 protected:
  void SetUp() override {}  // each test has its own table

  /// Locks go by the key. Both transactions have locked an object and want the other's.
  void cross(std::uint32_t flags, long long mine, long long theirs) {
    makeShop(1, flags);
    stock({{1, 0, 1}, {2, 0, 2}, {3, 0, 3}});
    ASSERT_TRUE(shop.open(path()));
    auto all = orders();
    all['<'] = [=](Shop& s) { return s.readId(mine, kShortWait); };
    Other other(path(), all);
    ASSERT_EQ(other.ask('b'), '0');
    ASSERT_EQ(other.ask(static_cast<char>('0' + theirs)), '0');
    ASSERT_DONE(shop.db, shop.begin());
    ASSERT_DONE(shop.db, shop.readId(mine));
    const Stopwatch watch;
    other.order('<');
    std::atomic<double> gaveUpAfter{0};
    std::thread listener([&] {
      EXPECT_EQ(other.answer(), 'L');
      gaveUpAfter = watch.elapsed();
      EXPECT_EQ(other.ask('e'), '0');
    });
    EXPECT_DONE(shop.db, shop.readId(theirs)) << "a wait in order goes on";
    listener.join();
    EXPECT_GE(gaveUpAfter + 2, 100) << "its first time";
    EXPECT_LT(gaveUpAfter, 1000) << "and no more of them";
  }
};

TEST_F(OrderedLocks, LetTheOneAgainstTheOrderGiveUpAndTheOtherGoOn) { cross(0, 1, 3); }

TEST_F(OrderedLocks, MayGoDownwards) { cross(CZELTA::SchemaLockDescending, 3, 1); }

}  // namespace
}  // namespace zelta::testing

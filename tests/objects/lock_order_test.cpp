// The order in which a transaction should lock objects: how far it has come, whether a wait keeps
// to the order, and how long waits last.

#include <gtest/gtest.h>

#include <chrono>
#include <utility>

#include "objects/lock_position.h"
#include "objects/read/lock_wait.h"
#include "platform/file_io.h"
#include "support/object_handle.h"

namespace zelta::testing {
namespace {

// -- The mark -------------------------------------------------------------------------------------

/// A table with a number that its locks may go by.
class OrderedTable : public BufferTable {
 public:
  OrderedTable(MetaData& database, std::uint32_t order, bool byKey, std::uint32_t flags = 0)
      : BufferTable({{CZELTA::TypeUInt32}}, {{Segments{{0, 0}}}}, flags, &database) {
    table.tableLockOrder = order;
    table.schema->lockIndex = byKey ? 1 : 0;
  }
};

class LockOrder : public ::testing::Test {
 protected:
  ~LockOrder() override { dropLockPosition(metaData); }
  void lockKey(const OrderedTable& table, std::uint32_t key) {
    advanceLockPosition(table.table, 1, &key);
  }
  void lockID(const OrderedTable& table, std::uint64_t id) {
    advanceLockPosition(table.table, id, nullptr);
  }
  bool isAhead(const OrderedTable& table, std::uint32_t key) {
    return isAheadOfLockPosition(table.table, &key);
  }
  /// Key, or 0 if there is none.
  [[nodiscard]] std::uint32_t key() const {
    return metaData.lockKey == nullptr ? 0 : *metaData.lockKey;
  }

  MetaData metaData;
};

TEST_F(LockOrder, GoesUpByKeyAndNeverBack) {
  const OrderedTable table(metaData, 5, true);
  EXPECT_TRUE(isAhead(table, 1)) << "nothing is locked yet";
  for (const auto& [locked, reached] : {std::pair{20u, 20u}, {10u, 20u}, {20u, 20u}, {30u, 30u}}) {
    lockKey(table, locked);
    EXPECT_EQ(key(), reached);
    EXPECT_EQ(metaData.lockOrderReached, 5u);
  }
  EXPECT_TRUE(isAhead(table, 31));
  EXPECT_FALSE(isAhead(table, 30));
  EXPECT_FALSE(isAhead(table, 29));
}

TEST_F(LockOrder, GoesDownByKeyIfTheTableSaysSo) {
  const OrderedTable table(metaData, 5, true, CZELTA::SchemaLockDescending);
  for (const auto& [locked, reached] : {std::pair{20u, 20u}, {30u, 20u}, {20u, 20u}, {10u, 10u}}) {
    lockKey(table, locked);
    EXPECT_EQ(key(), reached);
  }
  EXPECT_TRUE(isAhead(table, 9));
  EXPECT_FALSE(isAhead(table, 10));
  EXPECT_FALSE(isAhead(table, 11));
}

TEST_F(LockOrder, ByIDIsKeptButHoldsNobodyUp) {
  for (const bool down : {false, true}) {
    dropLockPosition(metaData);
    const OrderedTable table(metaData, 5, false, down ? CZELTA::SchemaLockDescending : 0u);
    lockID(table, 20);
    EXPECT_EQ(metaData.lockObjectID, 20u);
    lockID(table, 10);
    EXPECT_EQ(metaData.lockObjectID, down ? 10u : 20u);
    lockID(table, 30);
    EXPECT_EQ(metaData.lockObjectID, down ? 10u : 30u);
    EXPECT_EQ(metaData.lockOrderReached, 5u);
    EXPECT_TRUE(isAhead(table, 1));
  }
}

TEST_F(LockOrder, OfTablesComesBeforeThatOfObjects) {
  const OrderedTable low(metaData, 3, true);
  const OrderedTable middle(metaData, 5, true);
  const OrderedTable high(metaData, 7, true);
  lockKey(middle, 20);
  EXPECT_FALSE(isAhead(low, 99));
  EXPECT_TRUE(isAhead(high, 1));
  lockKey(low, 90);
  EXPECT_EQ(key(), 20u) << "a table behind the mark does not move it";
  EXPECT_EQ(metaData.lockOrderReached, 5u);
  lockKey(high, 10);
  EXPECT_EQ(key(), 10u);
  EXPECT_EQ(metaData.lockOrderReached, 7u);
  EXPECT_FALSE(isAhead(middle, 99));
}

TEST_F(LockOrder, LosesItsKeyToALaterTableThatGoesByID) {
  const OrderedTable byKey(metaData, 5, true);
  const OrderedTable byID(metaData, 6, false);
  const OrderedTable another(metaData, 7, true);
  lockKey(byKey, 20);
  lockID(byID, 4);
  EXPECT_EQ(metaData.lockKey, nullptr);
  EXPECT_EQ(metaData.lockOrderReached, 6u);
  EXPECT_EQ(metaData.lockObjectID, 4u);
  EXPECT_TRUE(isAhead(byKey, 1)) << "without a key there is nothing to be behind of";
  lockKey(another, 3);
  EXPECT_EQ(metaData.lockObjectID, 0u);
  EXPECT_EQ(key(), 3u);
}

TEST_F(LockOrder, ByAnIndexThatIsNotThereIsThatOfIDs) {
  const OrderedTable table(metaData, 5, true);
  table.table.schema->lockIndex = 2;
  std::uint32_t index = 0;
  EXPECT_FALSE(lockingIndex(table.table, &index));
  lockID(table, 20);
  EXPECT_EQ(metaData.lockObjectID, 20u);
}

// -- Waits ----------------------------------------------------------------------------------------

TEST(LockWaits, AreFiveQuickOnesWithoutTheClock) {
  for (const CZELTA::Mode flags :
       {CZELTA::ReadNoWait, CZELTA::ReadNoWait | CZELTA::ReadShortWait}) {
    LockWait wait(flags);
    const auto start = std::chrono::steady_clock::now();
    int tries = 0;
    for (; tries < 100 && wait.again(); ++tries) wait.rest();
    EXPECT_EQ(tries, 5);
    EXPECT_FALSE(wait.mayExtend());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
  }
}

TEST(LockWaits, MayBeExtendedTenTimes) {
  LockWait wait(CZELTA::ReadShortWait);
  int steps = 0;
  for (; steps < 100 && wait.mayExtend(); ++steps) wait.extend();
  EXPECT_EQ(steps, 10);
  EXPECT_TRUE(wait.again());
}

// -- Objects --------------------------------------------------------------------------------------

class LockedObjects : public ObjectTest {
 protected:
  /// Objects 1 to 3 with the keys 10, 20 and 30, which order the locks.
  void makeOrdered() {
    make(ObjectForm{kNumberField, kNumberIndex, 0, 1});
    for (const std::uint32_t key : {10u, 20u, 30u}) one->added(number(key));
    one->commit();
  }
  using Clock = std::chrono::steady_clock;
};

/// Counts passes: in each the header of the table is read.
class Passes : public platform::faults::Hook {
 public:
  Passes() { platform::faults::install(this); }
  ~Passes() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    const bool header = event.call == platform::faults::Call::read && event.position == 0;
    if (header && event.name.find(".zlt") != std::string::npos) ++count;
    return {};
  }
  int count = 0;
};

TEST_F(LockedObjects, AreTriedSixTimesWithoutAWait) {
  makeOrdered();
  two = join();
  two->done(two->read(1));
  for (const bool erase : {false, true}) {
    Passes passes;
    EXPECT_EQ((erase ? one->erase(1, kNoWait) : one->read(1, kNoWait)).word(),
              ownWord(Own::objectLocked));
    EXPECT_EQ(passes.count, 6);
  }
}

TEST_F(LockedObjects, AgainstTheOrderAreWaitedForASecond) {
  makeOrdered();
  two = join();
  two->done(two->read(1));
  one->done(one->read(3));
  const auto start = Clock::now();
  EXPECT_EQ(one->read(1).word(), ownWord(Own::objectLocked));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(990));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_EQ(*one->metaData.lockKey, 30u);
}

TEST_F(LockedObjects, AreOrderedByTheKeyOfTheVersionThatWasRead) {
  makeOrdered();
  one->done(one->read(3, CZELTA::ReadNoLock));
  EXPECT_EQ(one->metaData.lockKey, nullptr) << "what is not locked leaves no mark";
  one->done(one->read(2));
  EXPECT_EQ(*one->metaData.lockKey, 20u);
  one->done(one->rewrite(number(40)));
  one->done(one->read(1));
  EXPECT_EQ(*one->metaData.lockKey, 20u);
  one->done(one->read(2));
  EXPECT_EQ(*one->metaData.lockKey, 40u);
}

TEST_F(LockedObjects, LeaveTheirMarkAsLongAsTheirLocksAreKept) {
  makeOrdered();
  const auto isMarked = [&] {
    EXPECT_EQ(one->metaData.lockOrderReached != 0, one->metaData.lockKey != nullptr);
    return one->metaData.lockKey != nullptr;
  };
  for (const bool changed : {false, true}) {
    for (const bool commits : {false, true}) {
      for (const bool releases : {false, true}) {
        one->done(one->read(2));
        if (changed) one->done(one->rewrite(number(20)));
        EXPECT_TRUE(isMarked());
        commits ? one->commit(releases) : one->abort(releases);
        EXPECT_EQ(isMarked(), !releases) << changed << commits;
      }
    }
  }
  one->done(one->read(2));
  one->end();
  EXPECT_FALSE(isMarked());
}

TEST_F(LockedObjects, ThatABlockerHasMarkedAreWaitedForElevenShortTimes) {
  makeOrdered();
  two = join();
  const std::uint32_t number = two->metaData.transactionWord;
  const std::uint64_t mark = slotPosition(one->table().slotBase, 2) + 8;
  ASSERT_EQ(writeBuffer(one->table().tableFile, mark, &number, 4), 0u);
  const auto start = Clock::now();
  EXPECT_EQ(one->read(2, CZELTA::ReadShortWait).word(), ownWord(Own::transactionLocked));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1090));
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(4000));
  EXPECT_EQ(one->table().lockedObjects, nullptr);
  two.reset();
  one->done(one->read(2));
  finish();
}

/// Counts the times that the database's mutex is waited for, and the objects that are locked then.
class Questions : public platform::faults::Hook {
 public:
  Questions() { platform::faults::install(this); }
  ~Questions() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    const bool table = event.name.find(".zlt") != std::string::npos;
    if (table && event.call == Call::lock) ++held_;
    if (table && event.call == Call::unlock) --held_;
    if (event.call == Call::mutexWait && event.name.find(".zlc") != std::string::npos) {
      ++asked;
      heldThen += held_;
    }
    return {};
  }
  int asked = 0;
  int heldThen = 0;

 private:
  int held_ = 0;
};

TEST_F(LockedObjects, AreGivenBackWhileItIsAskedWhoHasMarkedThem) {
  makeOrdered();
  two = join();
  const std::uint32_t number = two->metaData.transactionWord;
  const std::uint64_t mark = slotPosition(one->table().slotBase, 2) + 8;
  ASSERT_EQ(writeBuffer(one->table().tableFile, mark, &number, 4), 0u);
  {
    const Questions questions;
    EXPECT_EQ(one->read(2, kNoWait).word(), ownWord(Own::transactionLocked));
    EXPECT_GT(questions.asked, 0);
    EXPECT_EQ(questions.heldThen, 0);
  }
  two.reset();
  one->done(one->read(2));
  finish();
}

TEST_F(LockedObjects, MayHaveTheMarkOfAnExclusiveTransactionThatIsNoMore) {
  makeOrdered();
  const std::uint32_t exclusive = 1;
  const std::uint64_t mark = slotPosition(one->table().slotBase, 2) + 8;
  ASSERT_EQ(writeBuffer(one->table().tableFile, mark, &exclusive, 4), 0u);
  one->done(one->rewrite(2, number(25)));
  one->done(one->findNumber(25));
  one->commit();
  EXPECT_EQ(numberAt<std::uint32_t>(folder.bytes("T.zlt"), mark), 0u);
  finish();
}

}  // namespace
}  // namespace zelta::testing

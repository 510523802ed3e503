#include "objects/read/read_object.h"
#include "frame/upcalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <random>
#include <string>

#include "platform/clock.h"
#include "support/read_bench.h"

namespace zelta::testing {
namespace {

std::map<std::uint64_t, Row> someRows() {
  return {{1, {50, "one"}}, {2, {40, "two"}}, {4, {30, "four"}}, {5, {20, ""}}, {9, {10, "nine"}}};
}

constexpr auto kNoWait = CZELTA::ReadNoWait;

TEST(ReadById, GivesTheObjectAsItWasStored) {
  for (const bool wide : {false, true}) {
    for (const bool texts : {false, true}) {
      ReadBench bench({wide, texts, false, false});
      bench.write(someRows());
      ReadHandle& handle = bench.first();
      handle.begin(CZELTA::TransactionRead);
      for (const auto& [id, row] : someRows()) {
        ASSERT_TRUE(handle.readId(id).ok());
        EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(id));
        EXPECT_EQ(handle.object.version, 7);
        EXPECT_EQ(handle.number(), row.number);
        if (texts) {
          EXPECT_EQ(handle.text(), row.text);
          EXPECT_EQ(handle.object.length, 4 + row.text.size() + 1);
        } else {
          EXPECT_EQ(handle.object.variableData, nullptr);
          EXPECT_EQ(handle.object.length, 4u);
        }
        EXPECT_EQ(handle.table->currentObjectID, id);
      }
    }
  }
}

TEST(ReadById, MissingIdIsNamed) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  for (const std::uint64_t id : {3u, 10u, 4000000000u}) {
    EXPECT_TRUE(handle.readId(id).is(Own::keyNotFound)) << id;
    const std::string digits = std::to_string(id);
    EXPECT_EQ(handle.message(), u"Unable to find index key for object " +
                                    std::u16string(digits.begin(), digits.end()) +
                                    u", within index 0 of table \"T\"");
  }
  EXPECT_TRUE(handle.readId(0).is(Own::keyNotFound));
}

TEST(ReadById, AllModesAgreeWithAMap) {
  for (const CZELTA::Mode transaction : {CZELTA::TransactionRead, CZELTA::TransactionShared}) {
    ReadBench bench;
    const auto rows = someRows();
    bench.write(rows);
    ReadHandle& handle = bench.first();
    handle.begin(transaction);
    const auto expect = [&](CZELTA::Mode mode, std::uint64_t id, auto expected) {
      const Result result = handle.read(mode, 0, &id);
      if (expected == rows.end()) {
        EXPECT_TRUE(result.is(Own::keyNotFound)) << mode << " " << id;
      } else {
        EXPECT_TRUE(result.ok()) << mode << " " << id;
        EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(expected->first));
      }
    };
    const auto before = [&](auto place) {
      return place == rows.begin() ? rows.end() : std::prev(place);
    };
    for (std::uint64_t id = 1; id <= 10; ++id) {
      expect(CZELTA::ReadEqual, id, rows.find(id));
      expect(CZELTA::ReadGreater, id, rows.upper_bound(id));
      expect(CZELTA::ReadGreaterEqual, id, rows.lower_bound(id));
      if (id <= 10) expect(CZELTA::ReadLess, id, before(rows.lower_bound(id)));
      if (id <= 9) expect(CZELTA::ReadLessEqual, id, before(rows.upper_bound(id)));
    }
    // Above the highest ID there is nothing to come down from.
    expect(CZELTA::ReadLessEqual, 10, rows.end());
    expect(CZELTA::ReadLess, 12, rows.end());
    expect(CZELTA::ReadFirst, 0, rows.begin());
    expect(CZELTA::ReadLast, 0, std::prev(rows.end()));
    for (auto row = std::prev(rows.end()); row != rows.begin();) {
      --row;
      ASSERT_TRUE(handle.read(CZELTA::ReadPrevious).ok());
      EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(row->first));
    }
    EXPECT_TRUE(handle.read(CZELTA::ReadPrevious).is(Own::keyNotFound));
    EXPECT_EQ(handle.table->currentObjectID, 1u) << "a miss does not lose the place";
    ASSERT_TRUE(handle.read(CZELTA::ReadNext).ok());
    EXPECT_EQ(handle.object.objectID, 2);
  }
}

TEST(ReadById, NextWithoutACurrentObjectIsRefused) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  EXPECT_TRUE(handle.read(CZELTA::ReadNext).is(Own::noObject));
  EXPECT_TRUE(handle.read(CZELTA::ReadPrevious).is(Own::noObject));
  EXPECT_TRUE(handle.read(CZELTA::ReadNext, 1).is(Own::noObject));
}

TEST(ReadById, BadArgumentsAreRefused) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  EXPECT_TRUE(handle.read(CZELTA::ReadEqual, 0, nullptr).is(Own::parameter));
  EXPECT_TRUE(handle.read(CZELTA::ReadEqual, 1, nullptr).is(Own::parameter));
  EXPECT_TRUE(handle.read(CZELTA::ReadFirst, 2).is(Own::parameter));
  EXPECT_EQ(
      handle.message(),
      u"One or more parameters is within an invaild range for table \"T\".\nParameter 1 = 2.");
  EXPECT_TRUE(handle.read(static_cast<CZELTA::Mode>(39)).is(Own::readMode));
  EXPECT_TRUE(handle.read(static_cast<CZELTA::Mode>(49 | 64)).is(Own::readMode));
  EXPECT_EQ(handle.message(), u"Unable to complete read operation as search mode 49 is incorrect.");
}

TEST(ReadById, EmptyTableHasNothing) {
  ReadBench bench;
  bench.write({});
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  EXPECT_TRUE(handle.read(CZELTA::ReadFirst).is(Own::keyNotFound));
  EXPECT_TRUE(handle.read(CZELTA::ReadLast).is(Own::keyNotFound));
  EXPECT_TRUE(handle.read(CZELTA::ReadFirst, 1).isSystem(code::kFileNotFound));
  ReadHandle& writer = bench.another();
  writer.begin(CZELTA::TransactionShared);
  EXPECT_TRUE(writer.read(CZELTA::ReadFirst, 1).is(Own::keyNotFound));
  EXPECT_TRUE(handle.read(CZELTA::ReadFirst, 1).is(Own::keyNotFound)) << "now there is an index";
}

TEST(ReadById, NullObjectOnlyMovesTheCursor) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  std::uint64_t id = 4;
  ASSERT_TRUE(readObject({handle.metaData, handle.tables}, *handle.table,
                         {CZELTA::ReadEqual, 0, &id}, nullptr, nullptr)
                  .ok());
  ASSERT_TRUE(handle.read(CZELTA::ReadNext).ok());
  EXPECT_EQ(handle.object.objectID, 5);
}

TEST(ReadById, ObjectsOfAllSizesCome) {
  ReadBench bench;
  std::map<std::uint64_t, Row> rows;
  std::mt19937 random(3);
  for (std::uint32_t id = 1; id <= 60; ++id) {
    const std::size_t length = id % 7 == 0 ? 100000 + random() % 200000 : random() % 300;
    rows[id] = {id, std::string(length, static_cast<char>('a' + id % 26))};
  }
  bench.write(rows);
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  for (int i = 0; i < 500; ++i) {
    const std::uint64_t id = 1 + random() % 60;
    ASSERT_TRUE(handle.readId(id).ok());
    ASSERT_EQ(handle.text(), rows[id].text);
  }
}

// -- Damage ---------------------------------------------------------------------------------------

TEST(ReadDamage, RecordsThatCannotBeAreReported) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionExclusive);
  ASSERT_TRUE(handle.readId(2).ok());
  std::uint64_t position = 0;
  const std::string file = bench.folder.bytes("T.zlt");
  std::memcpy(&position, file.data() + bench.slotOf(1), 8);
  for (const std::uint32_t length : {0u, 10u, 100000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    bench.patch(position + 4, &length, 4);
    EXPECT_TRUE(handle.readId(1).is(Own::tableFile)) << length;
    EXPECT_EQ(handle.table->currentObjectID, 0u);
    EXPECT_EQ(find(handle.table->lockedObjects, 1), nullptr)
        << "the lock of a failed read is undone";
  }
  bench.patch(position, file.data() + position, 16);
  const std::uint32_t otherId = 77;
  bench.patch(position + 10, &otherId, 4);
  EXPECT_TRUE(handle.readId(1).is(Own::tableFile));
  bench.patch(position, file.data() + position, 16);
  for (const std::uint64_t wild : {std::uint64_t{0}, std::uint64_t{5}, bench.areaStart - 1,
                                   std::uint64_t{file.size()}, std::uint64_t{1} << 62}) {
    bench.patch(bench.slotOf(1), &wild, 8);
    EXPECT_TRUE(handle.readId(1).is(Own::tableFile)) << wild;
  }
  bench.patch(bench.slotOf(1), file.data() + bench.slotOf(1), 8);
  EXPECT_TRUE(handle.readId(1).ok());
}

// -- Locks ----------------------------------------------------------------------------------------

TEST(ReadLocks, WriterLocksWhatItReadsUnlessToldNotTo) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& one = bench.first();
  ReadHandle& two = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionShared);
  ASSERT_TRUE(one.readId(1).ok());
  EXPECT_NE(find(one.table->lockedObjects, 1), nullptr);
  ASSERT_TRUE(one.readId(1).ok()) << "a second read of a locked object";
  ASSERT_TRUE(one.readId(2, CZELTA::ReadNoLock).ok());
  EXPECT_EQ(find(one.table->lockedObjects, 2), nullptr);

  EXPECT_TRUE(two.readId(1, kNoWait).is(Own::objectLocked));
  EXPECT_EQ(two.message(), u"Unable to gain lock on object 1 in table T.");
  ASSERT_TRUE(two.readId(1, CZELTA::ReadNoLock).ok());
  EXPECT_EQ(two.number(), 50u);
  ASSERT_TRUE(two.readId(2, kNoWait).ok());
}

TEST(ReadLocks, NoWaitGivesUpAtOnce) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& one = bench.first();
  ReadHandle& two = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionShared);
  ASSERT_TRUE(one.readId(1).ok());
  const std::uint32_t start = platform::tickCount();
  EXPECT_TRUE(two.readId(1, kNoWait).is(Own::objectLocked));
  EXPECT_LT(platform::tickCount() - start, 500u);
}

TEST(ReadLocks, ShortWaitLastsElevenStepsInATableOrderedById) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& one = bench.first();
  ReadHandle& two = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionShared);
  ASSERT_TRUE(one.readId(1).ok());
  const std::uint32_t start = platform::tickCount();
  EXPECT_TRUE(two.readId(1, CZELTA::ReadShortWait).is(Own::objectLocked));
  const std::uint32_t taken = platform::tickCount() - start;
  EXPECT_GE(taken, 1100u);
  EXPECT_LT(taken, 3000u);
}

TEST(ReadLocks, WaitAgainstTheOrderOfKeysEndsAtTheFirstDeadline) {
  for (const bool descending : {false, true}) {
    ReadBench bench({false, true, true, descending});
    bench.write(someRows());
    ReadHandle& one = bench.first();
    ReadHandle& two = bench.another();
    one.begin(CZELTA::TransactionShared);
    two.begin(CZELTA::TransactionShared);
    // Keys fall with the IDs: object 9 has key 10, object 1 has key 50.
    const std::uint64_t low = descending ? 1 : 9;
    const std::uint64_t high = descending ? 9 : 1;
    ASSERT_TRUE(one.readId(low).ok());
    ASSERT_TRUE(two.readId(high).ok());
    std::uint32_t start = platform::tickCount();
    EXPECT_TRUE(two.readId(low, CZELTA::ReadShortWait).is(Own::objectLocked));
    EXPECT_LT(platform::tickCount() - start, 900u) << "against the order";
    start = platform::tickCount();
    EXPECT_TRUE(one.readId(high, CZELTA::ReadShortWait).is(Own::objectLocked));
    EXPECT_GE(platform::tickCount() - start, 1100u) << "in the order";
  }
}

TEST(ReadLocks, SlotMarkOfATransactionThatIsGoneIsClearedByAWriterOnly) {
  ReadBench bench;
  bench.write(someRows());
  const std::uint32_t gone = 4711;
  bench.patch(bench.slotOf(2) + 8, &gone, 4);
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  ASSERT_TRUE(handle.readId(2).ok());
  EXPECT_EQ(numberAt<std::uint32_t>(bench.folder.bytes("T.zlt"), bench.slotOf(2) + 8), gone);
  ReadHandle& writer = bench.another();
  writer.begin(CZELTA::TransactionShared);
  ASSERT_TRUE(writer.readId(2, CZELTA::ReadNoLock).ok());
  EXPECT_EQ(numberAt<std::uint32_t>(bench.folder.bytes("T.zlt"), bench.slotOf(2) + 8), gone);
  ASSERT_TRUE(writer.readId(2).ok());
  EXPECT_EQ(numberAt<std::uint32_t>(bench.folder.bytes("T.zlt"), bench.slotOf(2) + 8), 0u);
}

TEST(ReadLocks, LivingTransactionsMarkIsWaitedForAndNamed) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& one = bench.first();
  ReadHandle& two = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionShared);
  const std::uint32_t number = one.metaData.transactionWord;
  bench.patch(bench.slotOf(2) + 8, &number, 4);
  EXPECT_TRUE(two.readId(2, kNoWait).is(Own::transactionLocked));
  const std::string digits = std::to_string(number);
  EXPECT_EQ(two.message(), u"Unable to gain lock on transaction " +
                               std::u16string(digits.begin(), digits.end()) + u".");
  EXPECT_TRUE(two.readId(2, CZELTA::ReadNoLock).ok());
  EXPECT_TRUE(one.readId(2, kNoWait).ok()) << "the one that met the mark has given its lock back";
}

// -- Pending objects ------------------------------------------------------------------------------

TEST(ReadPending, OwnAddedObjectComesFromTheMemoryFileWithoutALock) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& one = bench.first();
  ReadHandle& two = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionShared);
  one.pend(10, {35, "ten"}, true);
  ASSERT_TRUE(one.readId(10).ok());
  EXPECT_EQ(one.text(), "ten");
  EXPECT_EQ(one.table->lockedObjects, nullptr);
  ASSERT_TRUE(one.read(CZELTA::ReadLast).ok());
  EXPECT_EQ(one.object.objectID, 10);
  ASSERT_TRUE(one.read(CZELTA::ReadPrevious).ok());
  EXPECT_EQ(one.object.objectID, 9);
  ASSERT_TRUE(one.read(CZELTA::ReadNext).ok());
  EXPECT_EQ(one.object.objectID, 10);
  EXPECT_TRUE(two.readId(10, kNoWait).is(Own::keyNotFound));
  ASSERT_TRUE(two.read(CZELTA::ReadLast | CZELTA::ReadNoLock).ok());
  EXPECT_EQ(two.object.objectID, 9) << "another's add is not there yet";
}

TEST(ReadPending, GapsAboveTheHighestIdAreJumpedOnTheWayUpOnly) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionShared);
  handle.pend(200, {35, "far"}, true);
  std::uint64_t id = 12;
  ASSERT_TRUE(handle.read(CZELTA::ReadGreater, 0, &id).ok());
  EXPECT_EQ(handle.object.objectID, 200);
  EXPECT_TRUE(handle.read(CZELTA::ReadNext).is(Own::keyNotFound));
  id = 150;
  EXPECT_TRUE(handle.read(CZELTA::ReadLess, 0, &id).is(Own::keyNotFound));
}

TEST(ReadPending, OwnRewrittenObjectIsSeenByItsTransactionAlone) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& one = bench.first();
  ReadHandle& two = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionRead);
  one.pend(4, {30, "changed"}, false);
  for (const CZELTA::Mode flags : {CZELTA::Mode{}, CZELTA::ReadNoLock}) {
    ASSERT_TRUE(one.readId(4, flags).ok());
    EXPECT_EQ(one.text(), "changed");
  }
  ASSERT_TRUE(two.readId(4).ok());
  EXPECT_EQ(two.text(), "four");
}

TEST(ReadPending, DeletedObjectIsPassedOver) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionShared);
  ASSERT_EQ(lockObject(handle.table->tableFile, handle.table->slotBase, 4), 0u);
  new UInt64AVLTree(handle.table->deletedObjects, 4);
  EXPECT_TRUE(handle.readId(4).is(Own::keyNotFound));
  std::uint64_t id = 2;
  ASSERT_TRUE(handle.read(CZELTA::ReadGreater, 0, &id).ok());
  EXPECT_EQ(handle.object.objectID, 5);
  ASSERT_TRUE(handle.read(CZELTA::ReadPrevious).ok());
  EXPECT_EQ(handle.object.objectID, 2);
}

// -- Through the B+Tree ---------------------------------------------------------------------------

/// Makes the index file by a first keyed read of a writer.
void buildIndex(ReadBench& bench) {
  ReadHandle& handle = bench.another();
  handle.begin(CZELTA::TransactionShared);
  ASSERT_TRUE(handle.readKey(CZELTA::ReadFirst | CZELTA::ReadNoLock, 0).ok());
  ASSERT_TRUE(endTransaction({handle.metaData, handle.tables}).ok());
}

TEST(ReadByKey, AllModesAgreeWithAMap) {
  ReadBench bench;
  std::map<std::uint64_t, Row> rows;
  std::map<std::uint32_t, std::uint64_t> keys;
  std::mt19937 random(8);
  for (std::uint32_t id = 1; id <= 500; ++id) {
    const auto key = static_cast<std::uint32_t>(random() % 5000);
    if (keys.count(key) != 0) continue;
    keys[key] = id;
    rows[id] = {key, "row"};
  }
  bench.write(rows);
  buildIndex(bench);
  for (const CZELTA::Mode transaction : {CZELTA::TransactionRead, CZELTA::TransactionShared}) {
    ReadHandle& handle = bench.another();
    handle.begin(transaction);
    const auto expect = [&](CZELTA::Mode mode, std::uint32_t pivot, auto expected) {
      const Result result = handle.readKey(mode | CZELTA::ReadNoLock, pivot);
      if (expected == keys.end()) {
        EXPECT_TRUE(result.is(Own::keyNotFound)) << mode << " " << pivot;
      } else {
        ASSERT_TRUE(result.ok()) << mode << " " << pivot;
        EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(expected->second));
      }
    };
    const auto before = [&](auto place) {
      return place == keys.begin() ? keys.end() : std::prev(place);
    };
    for (int i = 0; i < 300; ++i) {
      const auto pivot = static_cast<std::uint32_t>(random() % 5100);
      expect(CZELTA::ReadEqual, pivot, keys.find(pivot));
      expect(CZELTA::ReadGreater, pivot, keys.upper_bound(pivot));
      expect(CZELTA::ReadGreaterEqual, pivot, keys.lower_bound(pivot));
      expect(CZELTA::ReadLess, pivot, before(keys.lower_bound(pivot)));
      expect(CZELTA::ReadLessEqual, pivot, before(keys.upper_bound(pivot)));
    }
    ASSERT_TRUE(handle.readKey(CZELTA::ReadFirst, 0).ok());
    for (const auto& [key, id] : keys) {
      EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(id));
      const Result result = handle.readKey(CZELTA::ReadNext, 0);
      EXPECT_EQ(result.ok(), id != keys.rbegin()->second);
    }
    ASSERT_TRUE(handle.readKey(CZELTA::ReadPrevious, 0).ok()) << "the place is still the last";
    EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(std::prev(keys.end(), 2)->second));
    // A read by ID moves the place in the index as well.
    ASSERT_TRUE(handle.readId(keys.begin()->second, CZELTA::ReadNoLock).ok());
    ASSERT_TRUE(handle.readKey(CZELTA::ReadNext, 0).ok());
    EXPECT_EQ(handle.object.objectID, static_cast<std::int64_t>(std::next(keys.begin())->second));
  }
}

TEST(ReadByKey, ReaderFindsNoIndexFileThatNobodyMade) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  EXPECT_TRUE(handle.readKey(CZELTA::ReadEqual, 50).isSystem(code::kFileNotFound));
  EXPECT_FALSE(bench.folder.has("T.zlm")) << "a reader makes no files";
}

TEST(ReadByKey, OwnPendingKeysAreMergedIntoTheWalk) {
  ReadBench bench;
  bench.write(someRows());
  buildIndex(bench);
  ReadHandle& handle = bench.another();
  handle.begin(CZELTA::TransactionShared);
  handle.pend(10, {35, "a"}, true);
  handle.pend(11, {5, "b"}, true);
  handle.pend(12, {60, "c"}, true);
  std::vector<std::uint32_t> seen;
  for (Result result = handle.readKey(CZELTA::ReadFirst, 0); result.ok();
       result = handle.readKey(CZELTA::ReadNext, 0)) {
    seen.push_back(handle.number());
  }
  EXPECT_EQ(seen, (std::vector<std::uint32_t>{5, 10, 20, 30, 35, 40, 50, 60}));
  seen.clear();
  for (Result result = handle.readKey(CZELTA::ReadLast, 0); result.ok();
       result = handle.readKey(CZELTA::ReadPrevious, 0)) {
    seen.push_back(handle.number());
  }
  EXPECT_EQ(seen, (std::vector<std::uint32_t>{60, 50, 40, 35, 30, 20, 10, 5}));
}

TEST(ReadByKey, KeysTakenOutAreSkippedAndReplacedOnesLeadToTheNewObject) {
  ReadBench bench;
  bench.write(someRows());
  buildIndex(bench);
  ReadHandle& handle = bench.another();
  handle.begin(CZELTA::TransactionShared);
  IndexCursor& cursor = handle.table->indexStates[0];
  const KeyShape shape = handle.table->keyShape(0);
  const auto add = [&](ObjectKeyNode*& tree, std::uint32_t key, std::uint64_t id) {
    ObjectKeyNode* node = handle.table->nodePool.take();
    node->key = cursor.keyPool.copy(shape, &key);
    node->objectID = id;
    insert(node, tree, shape);
  };
  add(cursor.removedKeys, 30, 4);
  add(cursor.replacedKeys, 20, 9);
  EXPECT_TRUE(handle.readKey(CZELTA::ReadEqual, 30).is(Own::keyNotFound));
  ASSERT_TRUE(handle.readKey(CZELTA::ReadGreater, 20).ok());
  EXPECT_EQ(handle.number(), 40u);
  ASSERT_TRUE(handle.readKey(CZELTA::ReadLess, 40).ok());
  EXPECT_EQ(handle.object.objectID, 9);
}

TEST(ReadByKey, ForeignPendingKeyIsRefusedOnlyWhereItIsTheNearest) {
  ReadBench bench;
  bench.write(someRows());
  buildIndex(bench);
  ReadHandle& one = bench.another();
  ReadHandle& two = bench.another();
  ReadHandle& reader = bench.another();
  one.begin(CZELTA::TransactionShared);
  two.begin(CZELTA::TransactionShared);
  reader.begin(CZELTA::TransactionRead);
  one.pend(10, {35, "mine"}, true);
  EXPECT_TRUE(two.readKey(CZELTA::ReadEqual, 35).is(Own::objectLocked));
  EXPECT_EQ(two.message(), u"Unable to gain lock on object 10 in table T.");
  EXPECT_TRUE(two.readKey(CZELTA::ReadGreater, 30).is(Own::objectLocked));
  ASSERT_TRUE(two.readKey(CZELTA::ReadGreater, 35).ok());
  EXPECT_EQ(two.number(), 40u);
  EXPECT_TRUE(two.readKey(CZELTA::ReadEqual | CZELTA::ReadNoLock, 35).is(Own::keyNotFound));
  ASSERT_TRUE(two.readKey(CZELTA::ReadGreater | CZELTA::ReadNoLock, 30).ok());
  EXPECT_EQ(two.number(), 40u);
  ASSERT_TRUE(reader.readKey(CZELTA::ReadGreater, 30).ok());
  EXPECT_EQ(reader.number(), 40u);
}

// -- Through search results -----------------------------------------------------------------------

TEST(ReadResults, IndexMustBeTheSearchedOne) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  handle.table->schema->indexes[0].indexKind = CZELTA::SpatialTree;
  EXPECT_TRUE(handle.read(static_cast<CZELTA::Mode>(5), 1).is(Own::noSearch)) << "40 before 18";
  EXPECT_EQ(handle.message(),
            u"SearchIndex() must be called before you are able to read on index 1.");
  handle.table->schema->indexes[0].indexKind = CZELTA::BPlusTree;
}

TEST(ReadResults, WalkVisitsTheIdsOfTheTree) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionShared);
  handle.table->schema->indexes[0].indexKind = CZELTA::SpatialPattern;
  handle.table->searchIndex = 1;
  EXPECT_TRUE(handle.read(CZELTA::ReadFirst, 1).is(Own::keyNotFound)) << "nothing found";
  handle.table->searchResults = SortedIds({1, 4, 5, 9});
  ASSERT_TRUE(handle.read(CZELTA::ReadFirst, 1).ok());
  EXPECT_EQ(handle.object.objectID, 1);
  ASSERT_TRUE(handle.read(CZELTA::ReadNext, 1).ok());
  EXPECT_EQ(handle.object.objectID, 4);
  std::uint32_t id = 2;
  EXPECT_TRUE(handle.read(CZELTA::ReadEqual, 1, &id).is(Own::keyNotFound))
      << "not among the results";
  id = 5;
  ASSERT_TRUE(handle.read(CZELTA::ReadEqual, 1, &id).ok());
  id = 6;
  ASSERT_TRUE(handle.read(CZELTA::ReadLessEqual, 1, &id).ok());
  EXPECT_EQ(handle.object.objectID, 5);
  ASSERT_TRUE(handle.read(CZELTA::ReadGreaterEqual, 1, &id).ok());
  EXPECT_EQ(handle.object.objectID, 9);
  EXPECT_TRUE(handle.read(CZELTA::ReadNext, 1).is(Own::keyNotFound));
  ASSERT_TRUE(handle.read(CZELTA::ReadLast, 1).ok());
  ASSERT_TRUE(handle.read(CZELTA::ReadPrevious, 1).ok());
  EXPECT_EQ(handle.object.objectID, 5);
  new UInt64AVLTree(handle.table->deletedObjects, 4);
  ASSERT_TRUE(handle.read(CZELTA::ReadPrevious, 1).ok());
  EXPECT_EQ(handle.object.objectID, 1) << "a deleted object does not count";
  handle.table->schema->indexes[0].indexKind = CZELTA::BPlusTree;
}

TEST(ReadResults, InvertedWalkVisitsAllOthers) {
  ReadBench bench;
  bench.write(someRows());
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  handle.table->schema->indexes[0].indexKind = CZELTA::AsciiList;
  handle.table->searchIndex = 1;
  handle.table->searchInverted = true;
  handle.table->searchResults = SortedIds({1, 5});
  std::vector<std::int64_t> seen;
  for (Result result = handle.read(CZELTA::ReadFirst, 1); result.ok();
       result = handle.read(CZELTA::ReadNext, 1)) {
    seen.push_back(handle.object.objectID);
  }
  EXPECT_EQ(seen, (std::vector<std::int64_t>{2, 4, 9}));
  std::uint32_t id = 5;
  EXPECT_TRUE(handle.read(CZELTA::ReadEqual, 1, &id).is(Own::keyNotFound));
  handle.table->schema->indexes[0].indexKind = CZELTA::BPlusTree;
}

// -- Cost -----------------------------------------------------------------------------------------

TEST(ReadCost, ReadByIdTakesThreeSystemCalls) {
  ReadBench bench;
  std::map<std::uint64_t, Row> rows;
  for (std::uint32_t id = 1; id <= 100; ++id) rows[id] = {id, std::string(90 + id % 20, 'x')};
  bench.write(rows);
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionRead);
  for (std::uint64_t id = 1; id <= 100; ++id) ASSERT_TRUE(handle.readId(id).ok());
  const std::uint64_t before = platform::faults::systemCalls();
  for (std::uint64_t id = 1; id <= 100; ++id) ASSERT_TRUE(handle.readId(id * 37 % 100 + 1).ok());
  EXPECT_LE(platform::faults::systemCalls() - before, 300u);
}

}  // namespace
}  // namespace zelta::testing

// Deleting objects: which one, what becomes of its versions and keys, and of the walk that led to
// it.

#include "objects/change/delete_object.h"

#include <gtest/gtest.h>

#include <chrono>

#include "support/object_handle.h"

namespace zelta::testing {
namespace {

class DeleteObject : public ObjectTest {
 protected:
  using IDs = std::vector<std::uint64_t>;
  /// Objects 1, 2, ... with these numbers, committed.
  void fill(std::initializer_list<std::uint32_t> numbers) {
    for (const std::uint32_t value : numbers) one->added(number(value));
    one->commit();
  }
};

// -- Which object ---------------------------------------------------------------------------------

TEST_F(DeleteObject, ByIDFillsTheRecordAndKeepsTheObjectInTheBuffer) {
  make(kNumberField, kNumberIndex);
  fill({5, 6});
  one->done(one->erase(2));
  EXPECT_EQ(one->object.objectID, 2);
  EXPECT_EQ(one->content(), number(6));
  EXPECT_EQ(one->table().currentObjectID, 2u);
  EXPECT_TRUE(one->in(one->table().deletedObjects, 2));
  EXPECT_EQ(one->table().lockedObjects, nullptr);
  EXPECT_EQ(one->table().deletedCount, 1u);
  EXPECT_TRUE(pending().objects.empty());
  one->commit();
  EXPECT_EQ(one->walk(0), IDs{1});
  EXPECT_EQ(one->walk(1), IDs{1});
  finish();
}

TEST_F(DeleteObject, TheCurrentOneNeedsNoKeyAndStaysAsItIsInTheBuffer) {
  make(kNumberField, kNumberIndex);
  fill({5, 6});
  one->done(one->read(1));
  one->change(number(77));
  const char* place = one->table().objectData;
  one->done(one->erase(0));
  EXPECT_EQ(one->object.objectID, 1);
  EXPECT_EQ(one->content(), number(77));
  EXPECT_EQ(one->table().objectData, place);
  EXPECT_EQ(one->walk(1), IDs{2});
  one->commit();
  EXPECT_TRUE(one->findNumber(5).is(Own::keyNotFound));
  EXPECT_TRUE(one->findNumber(77).is(Own::keyNotFound));
  finish();
}

TEST_F(DeleteObject, WithIndex0AndNoKeyTheModeDoesNotMatter) {
  make(kNumberField, {});
  fill({5, 6, 7});
  for (const CZELTA::Mode mode :
       {CZELTA::ReadFirst, CZELTA::ReadLast, CZELTA::ReadNext, CZELTA::ReadPrevious}) {
    one->done(one->read(2));
    one->done(one->erase(mode, 0, nullptr));
    EXPECT_EQ(one->object.objectID, 2);
    one->done(one->restore(2));
  }
}

TEST_F(DeleteObject, WithoutACurrentObjectIsError39) {
  make(kNumberField, {});
  fill({5});
  one->table().currentObjectID = 0;
  EXPECT_EQ(one->erase(0).word(), ownWord(Own::noObject));
  EXPECT_EQ(one->erase(CZELTA::ReadNext, 0, nullptr).word(), ownWord(Own::noObject));
  EXPECT_EQ(one->error(), "The table handle does not currently contain a valid object.");
}

TEST_F(DeleteObject, LocksACurrentObjectThatWasReadWithoutLock) {
  make(kNumberField, kNumberIndex);
  fill({5});
  two = join();
  one->done(one->read(1, CZELTA::ReadNoLock));
  two->done(two->rewrite(1, number(6)));
  two->commit();
  one->done(one->erase(0));
  EXPECT_EQ(one->content(), number(6));  // what is deleted, not what was read then
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  one->commit();
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::keyNotFound));
  finish();
}

TEST_F(DeleteObject, ByKeyInEveryMode) {
  make(kNumberField, kNumberIndex);
  fill({10, 20, 30, 40, 50});
  struct Case {
    CZELTA::Mode mode;
    std::uint32_t key;
    std::int64_t id;  ///< 0: none
  };
  for (const Case& wanted : {Case{CZELTA::ReadEqual, 20, 2},
                             {CZELTA::ReadEqual, 25, 0},
                             {CZELTA::ReadLess, 30, 2},
                             {CZELTA::ReadLess, 10, 0},
                             {CZELTA::ReadLessEqual, 35, 3},
                             {CZELTA::ReadGreater, 30, 4},
                             {CZELTA::ReadGreater, 50, 0},
                             {CZELTA::ReadGreaterEqual, 41, 5},
                             {CZELTA::ReadFirst, 0, 1},
                             {CZELTA::ReadLast, 0, 5},
                             {CZELTA::ReadNext, 0, 4},
                             {CZELTA::ReadPrevious, 0, 2}}) {
    one->done(one->read(3));
    const Result result = one->erase(wanted.mode, 1, &wanted.key);
    if (wanted.id == 0) {
      EXPECT_EQ(result.word(), ownWord(Own::keyNotFound)) << wanted.key;
      continue;
    }
    one->done(result);
    EXPECT_EQ(one->object.objectID, wanted.id) << wanted.mode << " " << wanted.key;
    one->done(one->restore(0));
  }
  finish();
}

TEST_F(DeleteObject, ByTheKeyOfARowTellsTheRow) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 3}));
  one->added(rows({9, 2}));
  one->commit();
  const std::uint32_t key = 2;
  one->done(one->erase(CZELTA::ReadEqual, 1, &key));
  EXPECT_EQ(one->object.objectID, 2);
  EXPECT_EQ(one->entry, 1u);
  EXPECT_EQ(one->walk(1), (IDs{1, 1}));
  one->commit();
  finish();
}

TEST_F(DeleteObject, BadArgumentsAreRefused) {
  make(kNumberField, kNumberIndex);
  fill({5});
  const std::uint32_t key = 5;
  EXPECT_EQ(one->erase(CZELTA::ReadEqual, 2, &key).word(), ownWord(Own::parameter));
  EXPECT_EQ(one->erase(static_cast<CZELTA::Mode>(30), 1, &key).word(), ownWord(Own::readMode));
  one->table().currentObjectID = 0;
  EXPECT_EQ(one->erase(CZELTA::ReadNext, 1, nullptr).word(), ownWord(Own::noObject));
  EXPECT_EQ(one->erase(77).word(), ownWord(Own::keyNotFound));
  EXPECT_EQ(one->table().deletedObjects, nullptr);
  EXPECT_EQ(one->table().lockedObjects, nullptr);
}

// -- What is left ---------------------------------------------------------------------------------

TEST_F(DeleteObject, OfAnAddedOneLeavesNoTraceAndItsIDIsFreeAtOnce) {
  make(kNumberField, kNumberIndex);
  fill({1});
  const std::string before = files();
  EXPECT_EQ(one->added(number(5)), 2u);
  one->done(one->erase(0));
  EXPECT_FALSE(one->table().hasEdits());
  EXPECT_EQ(one->table().addedCount, 0u);
  EXPECT_EQ(one->table().deletedCount, 0u);
  EXPECT_EQ(one->table().pendingBytes, 0u);
  EXPECT_TRUE(pending().objects.empty());
  EXPECT_EQ(pending().damage, "");
  EXPECT_EQ(pendingRoot(0), 0u);
  EXPECT_EQ(one->restore(2).word(), ownWord(Own::objectNotFound));
  one->commit();
  EXPECT_EQ(folder.bytes("T.zlt") + folder.bytes("T.zli"),
            before.substr(0, before.find('|')) + before.substr(before.rfind('|') + 1));
  EXPECT_EQ(one->added(number(5)), 2u);
  finish();
}

TEST_F(DeleteObject, IsFoundByNobodyAfterwards) {
  make(kNumberField, kNumberIndex);
  fill({5, 6, 7});
  one->done(one->erase(2));
  EXPECT_EQ(one->read(2).word(), ownWord(Own::keyNotFound));
  EXPECT_EQ(one->erase(2).word(), ownWord(Own::keyNotFound));
  EXPECT_TRUE(one->findNumber(6).is(Own::keyNotFound));
  EXPECT_EQ(one->walk(0), (IDs{1, 3}));
  EXPECT_EQ(one->walk(1), (IDs{1, 3}));
  two = join();
  EXPECT_EQ(two->walk(1), (IDs{1, 2, 3}));  // as long as it is not committed
  finish();
}

TEST_F(DeleteObject, OfARewrittenOneGivesBothKeysUp) {
  make(kNumberField, kNumberIndex);
  fill({5});
  one->done(one->rewrite(1, number(6)));
  one->done(one->erase(0));
  EXPECT_EQ(one->table().editedObjects, nullptr);
  EXPECT_TRUE(one->in(one->table().deletedObjects, 1));
  EXPECT_EQ(one->table().pendingBytes, 0u);
  EXPECT_TRUE(pending().objects.empty());
  EXPECT_EQ(pendingRoot(0), 0u);
  EXPECT_EQ(one->added(number(6)), 2u);
  EXPECT_EQ(one->added(number(5)), 3u);
  one->commit();
  EXPECT_EQ(one->walk(1), (IDs{3, 2}));
  finish();
}

TEST_F(DeleteObject, LeavesALentKeyWithItsBorrower) {
  make(kNumberField, kNumberIndex);
  fill({5, 7});
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(2, number(5)));
  one->done(one->erase(1));
  EXPECT_EQ(one->walk(1), IDs{2});
  one->commit();
  EXPECT_EQ(one->walk(1), IDs{2});
  one->done(one->findNumber(5));
  finish();
}

TEST_F(DeleteObject, OfABorrowerGivesTheKeyUpAgain) {
  make(kNumberField, kNumberIndex);
  fill({5, 7});
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(2, number(5)));
  one->done(one->erase(2));
  const IndexCursor& cursor = one->table().indexStates[0];
  EXPECT_EQ(cursor.replacedKeys, nullptr);
  ASSERT_EQ(count(cursor.removedKeys), 2u);
  EXPECT_EQ(findFirst(cursor.removedKeys)->objectID, 1u);  // whom the committed tree names
  EXPECT_EQ(one->added(number(5)), 3u);
  one->done(one->erase(3));
  one->commit();
  EXPECT_EQ(one->walk(1), IDs{1});
  one->done(one->findNumber(6));
  finish();
}

TEST_F(DeleteObject, OfABorrowerGivesItsRowsUpAgain) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2, 3}));
  one->added(rows({7}));
  one->commit();
  one->done(one->rewrite(1, rows({3, 4})));
  one->done(one->rewrite(2, rows({1, 2, 8})));
  one->done(one->erase(2));
  const IndexCursor& cursor = one->table().indexStates[0];
  EXPECT_EQ(cursor.replacedKeys, nullptr);
  std::vector<std::uint64_t> holders;  // whom the committed tree names
  for (const ObjectKeyNode* node = findFirst(cursor.removedKeys); node != nullptr;
       node = findNext(cursor.removedKeys, one->table().keyShape(0), node->key)) {
    holders.push_back(node->objectID);
  }
  EXPECT_EQ(holders, (IDs{1, 1, 2}));
  one->done(one->rewrite(1, rows({4, 2})));  // its own again
  EXPECT_EQ(one->added(rows({1, 7})), 3u);
  EXPECT_EQ(one->walk(1), (IDs{3, 1, 1, 3}));
  one->commit();
  EXPECT_EQ(one->walk(1), (IDs{3, 1, 1, 3}));
  finish();
}

TEST_F(DeleteObject, OfAllRowsAtOnce) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2, 3}));
  one->added(rows({}));
  one->commit();
  one->done(one->rewrite(1, rows({2, 3, 4})));
  one->done(one->erase(1));
  one->done(one->erase(2));
  EXPECT_EQ(count(one->table().indexStates[0].removedKeys), 3u);
  EXPECT_EQ(pendingRoot(0), 0u);
  EXPECT_EQ(one->added(rows({4, 3, 1})), 3u);
  one->commit();
  EXPECT_EQ(one->walk(1), (IDs{3, 3, 3}));
  finish();
}

TEST_F(DeleteObject, FreesIDsInAscendingOrderForTheNextAdds) {
  make(kNumberField, {});
  fill({1, 2, 3, 4, 5, 6});
  one->done(one->erase(5));
  one->done(one->erase(3));
  EXPECT_EQ(one->added(number(7)), 7u);  // they are free only after the commit
  one->commit();
  EXPECT_EQ(one->added(number(0)), 3u);
  EXPECT_EQ(one->added(number(0)), 5u);
  EXPECT_EQ(one->added(number(0)), 8u);
  one->commit();
  finish();
}

TEST_F(DeleteObject, OfEveryObjectAndAgain) {
  for (const std::uint32_t flags : {0u, std::uint32_t{CZELTA::SchemaWideObjectIds}}) {
    const FreshFolder fresh;
    ObjectHandle(fresh).create({{{CZELTA::TypeUInt32}, {CZELTA::TypeText}},
                                {{Segments{{0, 0}}}, {Segments{{1, 0}}}},
                                flags,
                                0});
    {
      ObjectHandle handle(fresh);
      handle.begin();
      for (int round = 0; round < 3; ++round) {
        for (std::uint32_t i = 0; i < 300; ++i) {
          handle.added(Packed().number(i).text("text " + std::to_string(i)));
        }
        handle.commit();
        CZELTA::Mode mode = CZELTA::ReadFirst;
        int deleted = 0;
        for (; handle.erase(mode, 2, nullptr).ok(); mode = CZELTA::ReadNext) ++deleted;
        EXPECT_EQ(deleted, 300);
        handle.commit();
        EXPECT_EQ(handle.walk(0).size(), 0u);
      }
      EXPECT_EQ(handle.added(Packed().number(1u).text("last")), 1u);
    }
    expectClean(fresh, "db.zlc");
  }
}

TEST_F(DeleteObject, AWalkGoesOnFromTheDeletedOne) {
  make(kNumberField, kNumberIndex);
  fill({50, 40, 30, 20, 10});
  one->done(one->find(CZELTA::ReadFirst, 1));
  const auto next = [&](CZELTA::Mode mode, std::uint32_t index) {
    one->done(one->find(mode, index));
    return one->object.objectID;
  };
  EXPECT_EQ(next(CZELTA::ReadNext, 1), 4);
  one->done(one->erase(0));
  EXPECT_EQ(next(CZELTA::ReadNext, 1), 3);
  one->done(one->erase(0));
  EXPECT_EQ(next(CZELTA::ReadPrevious, 1), 5);
  EXPECT_EQ(next(CZELTA::ReadNext, 1), 2);
  one->done(one->erase(0));
  EXPECT_EQ(next(CZELTA::ReadNext, 0), 5);
  finish();
}

// -- Aborts and others ----------------------------------------------------------------------------

TEST_F(DeleteObject, AnAbortBringsItBack) {
  make(kNumberField, kNumberIndex);
  fill({5, 6});
  const std::string before = folder.bytes("T.zlt") + folder.bytes("T.zli");
  two = join();
  one->done(one->erase(1));
  one->abort(false);
  EXPECT_EQ(folder.bytes("T.zlt") + folder.bytes("T.zli"), before);
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  one->done(one->rewrite(number(7)));  // it is the current one still
  EXPECT_EQ(one->walk(1), (IDs{2, 1}));
  one->done(one->erase(2));
  one->abort(true);
  two->done(two->read(1, kNoWait));
  EXPECT_EQ(two->walk(1), (IDs{1, 2}));
  finish();
}

TEST_F(DeleteObject, ThatIsLockedElsewhereGivesUpInTimeAndChangesNothing) {
  make(kNumberField, kNumberIndex);
  fill({5});
  two = join();
  two->done(two->read(1));
  one->done(one->read(1, CZELTA::ReadNoLock));
  const std::string before = files();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(one->erase(1, kNoWait).word(), ownWord(Own::objectLocked));
  EXPECT_EQ(one->erase(1, CZELTA::ReadShortWait).word(), ownWord(Own::objectLocked));
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GE(time, std::chrono::milliseconds(1090));
  EXPECT_LT(time, std::chrono::milliseconds(4000));
  EXPECT_EQ(one->error(), "Unable to gain lock on object 1 in table T.");
  EXPECT_EQ(files(), before);
  EXPECT_FALSE(one->table().hasEdits());
  EXPECT_EQ(one->table().lockedObjects, nullptr);
  two->abort();
  one->done(one->erase(1, kNoWait));
  finish();
}

TEST_F(DeleteObject, KeepsOthersAwayFromTheObjectAndItsKey) {
  make(kNumberField, kNumberIndex);
  fill({5});
  two = join();
  one->done(one->erase(1));
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  EXPECT_EQ(two->erase(1, kNoWait).word(), ownWord(Own::objectLocked));
  EXPECT_EQ(two->add(number(5)).word(), ownWord(Own::keyExists));
  one->commit(false);
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::keyNotFound));
  EXPECT_EQ(two->added(number(5)), 1u);
  finish();
}

TEST_F(DeleteObject, ThatFailsInTheMemoryFileChangesNothing) {
  make(kNumberField, kNumberIndex);
  fill({5});
  one->done(one->rewrite(1, number(6)));
  {
    const StopAfter stop(0);
    EXPECT_EQ(one->erase(1).word(), Result::system(code::kGeneralFailure).word());
  }
  EXPECT_TRUE(one->in(one->table().editedObjects, 1));
  EXPECT_EQ(one->table().deletedCount, 0u);
  EXPECT_EQ(one->table().currentObjectID, 0u);
  one->done(one->read(1));
  EXPECT_EQ(one->content(), number(6));
  one->done(one->erase(1));
  one->commit();
  EXPECT_EQ(one->walk(1).size(), 0u);
  finish();
}

TEST_F(DeleteObject, ThatFailsToReadGivesItsLockBack) {
  make({{CZELTA::TypeText}}, {});
  one->added(Packed().text("text"));
  one->commit();
  one->end();
  std::string bytes = folder.bytes("T.zlt");
  const std::uint64_t position =
      numberAt<std::uint64_t>(bytes, numberAt<std::uint32_t>(bytes, 8) + 12);
  bytes[position + 4] = 1;  // the length: shorter than any object
  folder.write("T.zlt", bytes);
  one->begin();
  EXPECT_EQ(one->erase(1).word(), ownWord(Own::tableFile));
  EXPECT_EQ(one->table().lockedObjects, nullptr);
  EXPECT_FALSE(one->table().hasEdits());
  two = join();
  const platform::LockWord word = objectLock(two->table().slotBase, 1);
  EXPECT_EQ(platform::lockWord(two->table().tableFile, word), 0u);
  EXPECT_EQ(platform::unlockWord(two->table().tableFile, word), 0u);
}

TEST_F(DeleteObject, IntoTheLockOrderOfTheTable) {
  make(ObjectForm{kNumberField, kNumberIndex, CZELTA::SchemaLockDescending, 1});
  fill({10, 20, 30});
  two = join();
  two->done(two->read(1));  // the lowest key: all others lie behind, against the order
  one->done(one->erase(3));
  ASSERT_NE(one->metaData.lockKey, nullptr);
  EXPECT_EQ(*one->metaData.lockKey, 30u);
  one->done(one->erase(2));
  EXPECT_EQ(*one->metaData.lockKey, 20u);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(two->read(3, CZELTA::ReadShortWait).word(), ownWord(Own::objectLocked));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));
  EXPECT_EQ(one->erase(1, CZELTA::ReadShortWait).word(), ownWord(Own::objectLocked));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1190));
  finish();
}

}  // namespace
}  // namespace zelta::testing

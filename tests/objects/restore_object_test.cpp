// Restoring objects: every change undone, with and without the lock, and keys that others took.

#include "objects/change/restore_object.h"

#include <gtest/gtest.h>

#include "support/object_handle.h"

namespace zelta::testing {
namespace {

class RestoreObject : public ObjectTest {
 protected:
  using IDs = std::vector<std::uint64_t>;
  void fill(std::initializer_list<std::uint32_t> numbers) {
    for (const std::uint32_t value : numbers) one->added(number(value));
    one->commit();
  }
  [[nodiscard]] bool isLocked(std::uint64_t id) {
    if (two == nullptr) two = join();
    const platform::LockWord word = objectLock(two->table().slotBase, id);
    if (platform::lockWord(two->table().tableFile, word) != 0) return true;
    platform::unlockWord(two->table().tableFile, word);
    return false;
  }
  void expectUntouched() {
    EXPECT_FALSE(one->table().hasEdits());
    EXPECT_EQ(one->table().addedCount, 0u);
    EXPECT_EQ(one->table().deletedCount, 0u);
    EXPECT_EQ(one->table().pendingBytes, 0u);
    for (std::uint32_t i = 0; i < one->table().indexCount; ++i) {
      EXPECT_EQ(one->table().indexStates[i].removedKeys, nullptr) << i;
      EXPECT_EQ(one->table().indexStates[i].replacedKeys, nullptr) << i;
      EXPECT_EQ(pendingRoot(i), 0u) << i;
    }
    EXPECT_TRUE(pending().objects.empty());
    EXPECT_EQ(pending().damage, "");
  }
};

// -- What there is to undo ------------------------------------------------------------------------

TEST_F(RestoreObject, WithoutACurrentObjectIsError31) {
  make(kNumberField, {});
  EXPECT_EQ(one->restore(0).word(), ownWord(Own::objectNotFound));
  EXPECT_EQ(one->error(), "Unable to find object 0 in table T.zlm.");
}

TEST_F(RestoreObject, OfAnObjectThatTheTransactionDidNotTouchIsError31) {
  make(kNumberField, {});
  fill({5});
  EXPECT_EQ(one->restore(1).word(), ownWord(Own::objectNotFound));
  EXPECT_EQ(one->error(), "Unable to find object 1 in table T.zlm.");
  EXPECT_EQ(one->restore(-1).word(), ownWord(Own::objectNotFound));
  one->done(one->read(1, CZELTA::ReadNoLock));
  EXPECT_EQ(one->restore(0).word(), ownWord(Own::objectNotFound));
}

TEST_F(RestoreObject, OfTheCurrentOnesLockLeavesThePlaceInAllIndexes) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}}, {{Segments{{0, 0}}}, {Segments{{1, 0}}}});
  for (std::uint32_t i = 1; i <= 4; ++i) one->added(Packed().number(i).number(10 - i));
  one->commit();
  for (const std::uint32_t index : {1u, 2u}) {
    one->done(one->findNumber(2));
    one->done(one->restore(0, true));
    EXPECT_EQ(one->restore(0).word(), ownWord(Own::objectNotFound)) << "no object is current";
    one->done(one->find(CZELTA::ReadNext, index));
    EXPECT_EQ(one->object.objectID, index == 1 ? 3 : 1);
  }
}

TEST_F(RestoreObject, OfALockedOneGivesUpTheLockAtMost) {
  make(kNumberField, {});
  fill({5, 6});
  one->done(one->read(1));
  one->done(one->restore(1, false));
  EXPECT_TRUE(isLocked(1));
  EXPECT_EQ(one->table().currentObjectID, 1u);
  one->done(one->read(2));
  one->done(one->restore(1, true));
  EXPECT_FALSE(isLocked(1));
  EXPECT_EQ(one->table().currentObjectID, 2u);
  one->done(one->restore(0, true));
  EXPECT_FALSE(isLocked(2));
  EXPECT_EQ(one->table().currentObjectID, 0u);
  EXPECT_EQ(one->restore(2, true).word(), ownWord(Own::objectNotFound));
}

TEST_F(RestoreObject, OfAnAddedOneLeavesNothing) {
  make(kNumberField, kNumberIndex);
  for (const bool unlock : {false, true}) {
    EXPECT_EQ(one->added(number(5)), 1u);
    one->done(one->restore(0, unlock));
    EXPECT_EQ(one->table().currentObjectID, 0u);
    expectUntouched();
    EXPECT_EQ(one->read(1).word(), ownWord(Own::keyNotFound));
    EXPECT_EQ(one->find(CZELTA::ReadNext, 1).word(), ownWord(Own::noObject));
  }
  EXPECT_EQ(one->added(number(5)), 1u);
  EXPECT_EQ(one->added(number(6)), 2u);
  one->done(one->restore(1));  // not the current one
  EXPECT_EQ(one->table().currentObjectID, 2u);
  EXPECT_EQ(one->added(number(5)), 3u);
  one->commit();
  EXPECT_EQ(one->walk(1), (IDs{3, 2}));
  finish();
}

TEST_F(RestoreObject, OfARewrittenOneBringsTheCommittedVersionBack) {
  make(kNumberField, kNumberIndex);
  fill({5});
  for (const bool unlock : {false, true}) {
    one->done(one->rewrite(1, number(6)));
    one->done(one->rewrite(number(7)));
    one->done(one->restore(0, unlock));
    expectUntouched();
    EXPECT_EQ(one->in(one->table().lockedObjects, 1), !unlock);
    EXPECT_EQ(isLocked(1), !unlock);
    EXPECT_EQ(one->table().currentObjectID, 1u);
    one->done(one->findNumber(5, 1, CZELTA::ReadEqual | CZELTA::ReadNoLock));
    EXPECT_EQ(one->content(), number(5));
    EXPECT_EQ(one->object.version, 1);
    EXPECT_TRUE(one->findNumber(6).is(Own::keyNotFound));
    EXPECT_TRUE(one->findNumber(7).is(Own::keyNotFound));
  }
  EXPECT_EQ(one->added(number(6)), 2u);
  one->commit();
  finish();
}

TEST_F(RestoreObject, OfADeletedOneBringsItBack) {
  make(kNumberField, kNumberIndex);
  fill({5, 6});
  for (const bool unlock : {false, true}) {
    for (const bool rewritten : {false, true}) {
      if (rewritten) one->done(one->rewrite(1, number(7)));
      one->done(one->erase(1));
      one->done(one->restore(1, unlock));
      expectUntouched();
      EXPECT_EQ(one->in(one->table().lockedObjects, 1), !unlock);
      EXPECT_EQ(isLocked(1), !unlock);
      EXPECT_EQ(one->walk(1), (IDs{1, 2}));
    }
  }
  one->commit();
  EXPECT_EQ(one->walk(1), (IDs{1, 2}));
  finish();
}

TEST_F(RestoreObject, AfterTheCommitIsError31) {
  make(kNumberField, kNumberIndex);
  fill({5});
  one->done(one->erase(1));
  one->commit(false);
  EXPECT_EQ(one->restore(1).word(), ownWord(Own::objectNotFound));
  EXPECT_EQ(one->restore(0).word(), ownWord(Own::objectNotFound));
  finish();
}

TEST_F(RestoreObject, KeepsTheLockForTheTransactionUnlessToldOtherwise) {
  make(kNumberField, {});
  fill({5});
  two = join();
  one->done(one->erase(1));
  one->done(one->restore(1, false));
  ObjectSlot slot{};
  EXPECT_EQ(readSlot(two->table().tableFile, two->table().slotBase, 1, &slot),
            code::kLockViolation);
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  one->done(one->restore(1, true));
  two->done(two->read(1, kNoWait));
  finish();
}

// -- The buffer and the walk ----------------------------------------------------------------------

TEST_F(RestoreObject, LeavesTheBufferFromWhichTheObjectCanBeRewritten) {
  make(kNumberField, kNumberIndex);
  fill({5});
  one->done(one->rewrite(1, number(6)));
  one->done(one->restore(0));
  EXPECT_EQ(std::string(one->table().objectData + 6, 4), number(6));
  one->done(one->rewrite());
  EXPECT_TRUE(one->findNumber(5).is(Own::keyNotFound));
  one->done(one->findNumber(6));
  one->done(one->restore(0, true));
  EXPECT_EQ(one->rewrite().word(), ownWord(Own::noObject));
  finish();
}

TEST_F(RestoreObject, LetsTheWalkGoOnFromTheCommittedKey) {
  make(kNumberField, kNumberIndex);
  fill({10, 20, 30});
  one->done(one->rewrite(1, number(25)));
  one->done(one->restore(0));
  one->done(one->find(CZELTA::ReadNext, 1));
  EXPECT_EQ(one->object.objectID, 2);
  one->done(one->rewrite(1, number(25)));
  one->done(one->read(2));
  one->done(one->restore(1));  // not the current one
  one->done(one->find(CZELTA::ReadNext, 1));
  EXPECT_EQ(one->object.objectID, 3);
  finish();
}

// -- Keys -----------------------------------------------------------------------------------------

TEST_F(RestoreObject, WhoseKeyWasReusedIsError37AndChangesNothing) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}}, {{Segments{{0, 0}}}, {Segments{{1, 0}}}});
  one->added(number(1) + number(1));
  one->commit();
  one->done(one->erase(1));
  one->added(number(7) + number(1));
  const std::string before = files();
  EXPECT_EQ(one->restore(1).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 2 "
            "with object 1.");
  EXPECT_EQ(files(), before);
  EXPECT_TRUE(one->in(one->table().deletedObjects, 1));
  EXPECT_NE(one->table().indexStates[0].removedKeys, nullptr);
  EXPECT_NE(one->table().indexStates[1].replacedKeys, nullptr);
  // Once the other one is gone it can be retried.
  one->done(one->erase(2));
  one->done(one->restore(1));
  expectUntouched();
  one->commit();
  EXPECT_EQ(one->walk(1), IDs{1});
  EXPECT_EQ(one->walk(2), IDs{1});
  finish();
}

TEST_F(RestoreObject, OfABorrowerLetsTheOwnerBeRestored) {
  make(kNumberField, kNumberIndex);
  fill({5, 7});
  for (const bool added : {false, true}) {
    one->done(one->rewrite(1, number(6)));
    std::uint64_t borrower = 2;
    if (added) {
      borrower = one->added(number(5));
    } else {
      one->done(one->rewrite(2, number(5)));
    }
    EXPECT_EQ(one->restore(1).word(), ownWord(Own::keyExists));
    one->done(one->restore(static_cast<long long>(borrower)));
    EXPECT_EQ(one->table().indexStates[0].replacedKeys, nullptr);
    one->done(one->restore(1));
    expectUntouched();
  }
  EXPECT_EQ(one->walk(1), (IDs{1, 2}));
  finish();
}

TEST_F(RestoreObject, OfRowsTakesOnlyWhatDiffers) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2, 3}));
  one->added(rows({8}));
  one->commit();
  one->done(one->rewrite(1, rows({3, 4, 5})));
  one->done(one->rewrite(2, rows({8, 1})));
  EXPECT_EQ(one->restore(1).word(), ownWord(Own::keyExists));
  one->done(one->restore(2));
  one->done(one->restore(1));
  expectUntouched();
  EXPECT_EQ(one->walk(1), (IDs{1, 1, 1, 2}));
  one->done(one->rewrite(1, rows({4})));
  one->done(one->erase(1));
  one->done(one->restore(1));
  expectUntouched();
  finish();
}

TEST_F(RestoreObject, OfRowsWaitsUntilNobodyHasOneOfThem) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2, 3}));
  one->commit();
  one->done(one->erase(1));
  EXPECT_EQ(one->added(rows({9, 2})), 2u);
  EXPECT_EQ(one->added(rows({3})), 3u);
  const std::string before = files();
  EXPECT_EQ(one->restore(1).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 1 "
            "with object 1.");
  EXPECT_EQ(files(), before);
  one->done(one->rewrite(2, rows({9})));
  EXPECT_EQ(one->restore(1).word(), ownWord(Own::keyExists));
  EXPECT_EQ(count(one->table().indexStates[0].removedKeys), 2u);
  one->done(one->restore(3));
  one->done(one->restore(1, true));
  EXPECT_EQ(one->table().indexStates[0].removedKeys, nullptr);
  EXPECT_EQ(one->table().indexStates[0].replacedKeys, nullptr);
  EXPECT_EQ(one->walk(1), (IDs{1, 1, 1, 2}));
  one->commit();
  EXPECT_EQ(one->walk(1), (IDs{1, 1, 1, 2}));
  finish();
}

TEST_F(RestoreObject, ThatFailsInTheMemoryFileCanBeRetried) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}}, kNumberIndex, CZELTA::SchemaWideObjectIds);
  one->added(Packed().number(5u).text("old"));
  one->commit();
  one->done(one->rewrite(1, Packed().number(6u).text("new")));
  {
    const StopAfter stop(0);
    EXPECT_EQ(one->restore(1).word(), Result::system(code::kGeneralFailure).word());
  }
  EXPECT_TRUE(one->in(one->table().editedObjects, 1));
  one->done(one->findNumber(6));
  one->done(one->restore(1));
  expectUntouched();
  one->done(one->findNumber(5));
  finish();
}

TEST_F(RestoreObject, BetweenCommitsOfOneTransaction) {
  make(kNumberField, kNumberIndex);
  fill({5});
  one->done(one->rewrite(1, number(6)));
  one->commit(false);
  one->done(one->rewrite(number(7)));
  one->done(one->restore(0));
  one->done(one->findNumber(6));
  EXPECT_EQ(one->object.version, 2);
  one->done(one->erase(0));
  one->done(one->restore(0));
  one->commit(false);
  one->commit(true);
  EXPECT_EQ(one->walk(1), IDs{1});
  one->done(one->findNumber(6));
  finish();
}

}  // namespace
}  // namespace zelta::testing

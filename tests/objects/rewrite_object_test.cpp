// Rewriting objects: versions, keys that come and go, refusals, and other transactions meanwhile.

#include "objects/change/rewrite_object.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>

#include "platform/faults.h"
#include "platform/file_io.h"
#include "storage/memory_file/memory_file_map.h"
#include "support/object_handle.h"

namespace zelta::testing {
namespace {

class RewriteObject : public ObjectTest {};

// -- What it stores -------------------------------------------------------------------------------

TEST_F(RewriteObject, WithUnchangedKeysTouchesNoIndex) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}}, kNumberIndex);
  one->added(Packed().number(5u).text("old"));
  one->commit();
  const std::string index = folder.bytes("T.zli");
  one->done(one->rewrite(1, Packed().number(5u).text("new")));
  EXPECT_EQ(one->object.version, 2);
  EXPECT_EQ(one->object.objectID, 1);
  EXPECT_EQ(one->content(), Packed().number(5u).text("new").str());
  EXPECT_EQ(one->table().indexStates[0].removedKeys, nullptr);
  EXPECT_EQ(pendingRoot(0), 0u);
  EXPECT_EQ(folder.bytes("T.zli"), index);
  const MemoryImage image = pending();
  EXPECT_EQ(image.damage, "");
  ASSERT_EQ(image.objects.count(1), 1u);
  EXPECT_EQ(image.objects.at(1).transaction, one->metaData.transactionWord);
  one->commit();
  EXPECT_EQ(folder.bytes("T.zli"), index);
  one->done(one->findNumber(5));
  EXPECT_EQ(one->content(), Packed().number(5u).text("new").str());
  EXPECT_EQ(one->object.version, 2);
  finish();
}

TEST_F(RewriteObject, MovesTheObjectFromTheLockedToTheEditedOnes) {
  make(kNumberField, {});
  one->added(number(5));
  one->commit();
  one->done(one->read(1));
  EXPECT_TRUE(one->in(one->table().lockedObjects, 1));
  one->done(one->rewrite(number(6)));
  EXPECT_FALSE(one->in(one->table().lockedObjects, 1));
  EXPECT_TRUE(one->in(one->table().editedObjects, 1));
  one->done(one->rewrite(number(7)));
  EXPECT_EQ(count(one->table().editedObjects), 1u);
  EXPECT_EQ(one->object.version, 3);
  finish();
}

TEST_F(RewriteObject, VersionsGoFrom65534To1) {
  make(kNumberField, {});
  one->added(number(5));
  for (const auto& [from, to] : {std::pair{65533, 65534}, {65534, 1}, {65535, 1}, {0, 1}, {1, 2}}) {
    const auto version = static_cast<std::uint16_t>(from);
    std::memcpy(one->table().objectData, &version, 2);
    one->done(one->rewrite());
    EXPECT_EQ(one->object.version, to);
  }
}

TEST_F(RewriteObject, OfAnAddedObjectIsStillAnAdd) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->done(one->rewrite(number(6)));
  EXPECT_TRUE(one->in(one->table().addedObjects, 1));
  EXPECT_EQ(one->table().editedObjects, nullptr);
  EXPECT_EQ(one->table().addedCount, 1u);
  EXPECT_EQ(one->table().pendingBytes, pendingImageBytes(10));
  EXPECT_TRUE(one->findNumber(5).is(Own::keyNotFound));
  one->commit();
  one->done(one->findNumber(6));
  EXPECT_EQ(one->object.version, 2);
  finish();
}

TEST_F(RewriteObject, KeepsItsBlockInTheMemoryFileUntilItDoesNotSuit) {
  make({{CZELTA::TypeText}}, {});
  one->added(Packed().text(std::string(100, 'a')));
  const auto endOfFile = [&] { return pending().endOfFile; };
  const std::uint64_t end = endOfFile();
  one->done(one->rewrite(Packed().text(std::string(90, 'b'))));
  EXPECT_EQ(endOfFile(), end);
  one->done(one->rewrite(Packed().text(std::string(250, 'c'))));  // more than double
  EXPECT_GT(endOfFile(), end);
  EXPECT_EQ(pending().damage, "");
  one->done(one->rewrite(Packed().text("d")));
  EXPECT_EQ(pending().damage, "");
  EXPECT_EQ(one->table().pendingBytes, pendingImageBytes(8));
  one->commit();
  one->done(one->read(1));
  EXPECT_EQ(one->content(), Packed().text("d").str());
  finish();
}

TEST_F(RewriteObject, AnIDWrittenIntoTheBufferDoesNotMoveTheObject) {
  for (const bool wide : {false, true}) {
    const FreshFolder fresh;
    ObjectHandle(fresh).create({kNumberField, {}, wide ? CZELTA::SchemaWideObjectIds : 0u, 0});
    ObjectHandle handle(fresh);
    handle.begin();
    handle.added(number(5));
    handle.added(number(6));
    handle.commit();
    handle.done(handle.read(1));
    const std::uint64_t other = 2;
    std::memcpy(handle.table().objectData + 2, &other, wide ? 8 : 4);
    handle.done(handle.rewrite(number(7)));
    EXPECT_EQ(handle.object.objectID, 1);
    handle.commit();
    handle.done(handle.read(2));
    EXPECT_EQ(handle.content(), number(6));
    handle.done(handle.read(1));
    EXPECT_EQ(handle.content(), number(7));
  }
}

TEST_F(RewriteObject, CommitsInSeveralStepsOfOneTransaction) {
  make(kNumberField, kNumberIndex);
  one->added(number(1));
  one->commit(false);
  for (std::uint32_t i = 2; i < 6; ++i) {
    one->done(one->rewrite(number(i)));
    EXPECT_EQ(one->object.version, i);
    one->commit(false);
    EXPECT_TRUE(one->in(one->table().lockedObjects, 1));
    EXPECT_EQ(one->table().indexStates[0].removedKeys, nullptr);
  }
  EXPECT_EQ(one->walk(1), std::vector<std::uint64_t>{1});
  one->done(one->findNumber(5));
  finish();
}

// -- Refusals -------------------------------------------------------------------------------------

TEST_F(RewriteObject, WithoutACurrentObjectIsError39) {
  make(kNumberField, {});
  EXPECT_EQ(one->rewrite().word(), ownWord(Own::noObject));
  EXPECT_EQ(one->error(), "The table handle does not currently contain a valid object.");
  one->added(number(1));
  ASSERT_TRUE(newObject(one->table(), nullptr, 0).ok());
  EXPECT_EQ(one->rewrite().word(), ownWord(Own::noObject));
}

TEST_F(RewriteObject, OfAnObjectReadWithoutLockIsError39) {
  make(kNumberField, {});
  one->added(number(1));
  one->commit();
  const std::string before = files();
  one->done(one->read(1, CZELTA::ReadNoLock));
  EXPECT_EQ(one->rewrite(number(2)).word(), ownWord(Own::noObject));
  EXPECT_EQ(files(), before);
}

TEST_F(RewriteObject, OfADeletedObjectIsError39) {
  make(kNumberField, kNumberIndex);
  one->added(number(1));
  one->commit();
  one->done(one->erase(1));
  EXPECT_EQ(one->rewrite(number(2)).word(), ownWord(Own::noObject));
  one->added(number(3));
  one->done(one->erase(2));
  EXPECT_EQ(one->rewrite(number(4)).word(), ownWord(Own::noObject));
}

TEST_F(RewriteObject, OfAMalformedObjectStoresNothing) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}}, kNumberIndex);
  one->added(Packed().number(1u).text("good"));
  one->commit();
  one->done(one->read(1));
  const std::string before = files();
  EXPECT_EQ(one->rewrite(Packed().number(1u).raw("no end")).word(), ownWord(Own::variableField));
  EXPECT_EQ(one->rewrite(Packed().number(1u).text("a").raw("b")).word(),
            ownWord(Own::objectTooLong));
  EXPECT_EQ(files(), before);
  EXPECT_TRUE(one->in(one->table().lockedObjects, 1));
  EXPECT_EQ(numberAt<std::uint16_t>(std::string(one->table().objectData, 2), 0), 1);
  one->done(one->rewrite(Packed().number(1u).text("mended")));
  finish();
}

TEST_F(RewriteObject, ThatCannotBeStoredLeavesVersionAndSetsAsTheyWere) {
  make(kNumberField, kNumberIndex);
  one->added(number(1));
  one->commit();
  one->done(one->read(1));
  {
    const StopAfter stop(0);
    EXPECT_EQ(one->rewrite(number(2)).word(), Result::system(code::kGeneralFailure).word());
  }
  EXPECT_EQ(numberAt<std::uint16_t>(std::string(one->table().objectData, 2), 0), 1);
  EXPECT_TRUE(one->in(one->table().lockedObjects, 1));
  EXPECT_EQ(one->table().editedObjects, nullptr);
  EXPECT_EQ(one->table().indexStates[0].removedKeys, nullptr);
  EXPECT_EQ(one->table().pendingBytes, 0u);
  one->done(one->rewrite());
  EXPECT_EQ(one->object.version, 2);
  one->commit();
  one->done(one->findNumber(2));
  finish();
}

TEST_F(RewriteObject, ThatFailsDoesNotTurnTheVersionOverEither) {
  make(kNumberField, {});
  one->added(number(1));
  const std::uint16_t last = 65534;
  std::memcpy(one->table().objectData, &last, 2);
  {
    const StopAfter stop(0);
    EXPECT_EQ(one->rewrite(number(2)).word(), Result::system(code::kGeneralFailure).word());
  }
  EXPECT_EQ(numberAt<std::uint16_t>(std::string(one->table().objectData, 2), 0), last);
  one->done(one->rewrite());
  EXPECT_EQ(one->object.version, 1);
}

TEST_F(RewriteObject, AfterACommitThatReleasesItNeedsAnotherRead) {
  make(kNumberField, kNumberIndex);
  one->added(number(1));
  for (const bool changed : {true, false}) {
    if (!changed) one->done(one->read(1));
    one->commit(true);
    EXPECT_EQ(one->rewrite(number(2)).word(), ownWord(Own::noObject));
    EXPECT_EQ(one->erase(0).word(), ownWord(Own::noObject));
    EXPECT_EQ(one->find(CZELTA::ReadNext, 1).word(), ownWord(Own::noObject));
  }
  finish();
}

/// The content of another object is still to come from the log, so the index cannot be built.
TEST_F(RewriteObject, ThatNeverGetsAtTheIndexIsError27AndChangesNothing) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}}, kNumberIndex);
  one->added(Packed().number(1u).text("a"));
  one->added(Packed().number(2u).text("b"));
  one->commit();
  one->end();
  std::string bytes = folder.bytes("T.zlt");
  const std::string sound = bytes;
  const std::uint64_t slot = numberAt<std::uint32_t>(bytes, 8) + 2 * 12u;
  const auto position = numberAt<std::uint64_t>(bytes, slot);
  bytes.replace(position + 4, 6, std::string("\0\0\0\0\xFF\xFF", 6));
  folder.write("T.zlt", bytes);
  std::filesystem::remove(folder.path() / "T.zli");
  one->begin();
  one->done(one->read(1));
  EXPECT_EQ(one->rewrite(Packed().number(3u).text("c")).word(), ownWord(Own::objectLocked));
  EXPECT_EQ(one->error(), "Unable to gain lock on object 1 in table T.");
  EXPECT_EQ(folder.bytes("T.zlt"), bytes);
  EXPECT_TRUE(pending().objects.empty());
  EXPECT_TRUE(one->in(one->table().lockedObjects, 1));
  one->done(one->rewrite(Packed().number(1u).text("c")));  // it needs no index
  one->end();
  folder.write("T.zlt", sound);
  one->begin();
  one->done(one->rewrite(1, Packed().number(3u).text("d")));
  one->commit();
  finish();
}

// -- Keys -----------------------------------------------------------------------------------------

TEST_F(RewriteObject, AChangedKeyIsFoundHereAtOnceAndElsewhereAfterTheCommit) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->commit();
  two = join();
  one->done(one->rewrite(1, number(6)));
  EXPECT_TRUE(one->findNumber(5).is(Own::keyNotFound));
  one->done(one->findNumber(6));
  EXPECT_EQ(one->object.version, 2);
  EXPECT_TRUE(two->findNumber(6, 1, CZELTA::ReadEqual | CZELTA::ReadNoLock).is(Own::keyNotFound));
  two->done(two->findNumber(5, 1, CZELTA::ReadEqual | CZELTA::ReadNoLock));
  EXPECT_EQ(two->object.version, 1);
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  one->commit();
  EXPECT_TRUE(two->findNumber(5).is(Own::keyNotFound));
  two->done(two->findNumber(6));
  finish();
}

TEST_F(RewriteObject, TakesAKeyThatAnotherObjectGaveUp) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->added(number(7));
  one->commit();
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(2, number(5)));
  const IndexCursor& cursor = one->table().indexStates[0];
  ASSERT_NE(cursor.replacedKeys, nullptr);
  EXPECT_EQ(cursor.replacedKeys->objectID, 2u);
  EXPECT_EQ(cursor.replacedKeys->extra, 1u);
  one->done(one->findNumber(5));
  EXPECT_EQ(one->object.objectID, 2);
  // Both ways round: the three keys change hands in a circle.
  one->done(one->rewrite(1, number(7)));
  EXPECT_EQ(pendingRoot(0), 0u);
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{2, 1}));
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{2, 1}));
  finish();
}

TEST_F(RewriteObject, ALentKeyIsError37ForItsFormerOwner) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->added(number(7));
  one->commit();
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(2, number(5)));
  EXPECT_EQ(one->rewrite(1, number(5)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 1 "
            "with object 2.");
  // Once the borrower has moved on, the key comes back.
  one->done(one->rewrite(2, number(8)));
  one->done(one->rewrite(1, number(5)));
  EXPECT_EQ(one->table().indexStates[0].replacedKeys, nullptr);
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 2}));
  finish();
}

TEST_F(RewriteObject, AnObjectThatTakesItsOwnKeyBackLeavesNoTraceInTheIndex) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->commit();
  const std::string index = folder.bytes("T.zli");
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(1, number(5)));
  EXPECT_EQ(one->table().indexStates[0].removedKeys, nullptr);
  EXPECT_EQ(one->table().indexStates[0].replacedKeys, nullptr);
  EXPECT_EQ(pendingRoot(0), 0u);
  one->commit();
  EXPECT_EQ(folder.bytes("T.zli"), index);
  finish();
}

TEST_F(RewriteObject, AKeyInUseIsError37AndChangesNothing) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeUInt32}}, {{Segments{{0, 0}}}, {Segments{{1, 0}}}});
  one->added(number(1) + number(1));
  one->added(number(2) + number(2));
  one->commit();
  two = join();
  two->added(number(3) + number(3));
  one->done(one->read(1));
  const std::string before = files();
  EXPECT_EQ(one->rewrite(number(9) + number(2)).word(), ownWord(Own::keyExists));  // committed
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 2 "
            "with object 2.");
  EXPECT_EQ(one->rewrite(number(9) + number(3)).word(), ownWord(Own::keyExists));  // pending
  EXPECT_EQ(files(), before);
  EXPECT_EQ(one->table().indexStates[0].removedKeys, nullptr);
  EXPECT_TRUE(one->in(one->table().lockedObjects, 1));
  one->done(one->rewrite(number(9) + number(9)));
  EXPECT_EQ(two->add(number(9) + number(10)).word(), ownWord(Own::keyExists));
  one->commit();
  two->commit();
  finish();
}

TEST_F(RewriteObject, APendingKeyMovesWithItsObject) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->commit();
  two = join();
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(1, number(7)));
  EXPECT_EQ(two->added(number(6)), 2u);
  EXPECT_EQ(two->add(number(7)).word(), ownWord(Own::keyExists));
  EXPECT_EQ(two->add(number(5)).word(), ownWord(Own::keyExists));  // until the commit
  one->commit();
  EXPECT_EQ(two->added(number(5)), 3u);
  finish();
}

TEST_F(RewriteObject, AfterAnAbortTheOldKeysCount) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->added(number(7));
  one->commit();
  one->done(one->rewrite(1, number(6)));
  one->done(one->rewrite(2, number(5)));
  one->abort(false);
  one->done(one->findNumber(5));
  EXPECT_EQ(one->object.objectID, 1);
  EXPECT_TRUE(one->findNumber(6).is(Own::keyNotFound));
  // The buffer's object may be changed further: it goes from the version that is stored.
  one->done(one->rewrite(1, number(8)));
  one->abort(false);
  one->done(one->rewrite(number(9)));
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{2, 1}));
  EXPECT_TRUE(one->findNumber(8).is(Own::keyNotFound));
  finish();
}

TEST_F(RewriteObject, VariableKeysOfSeveralSegmentsFollowTheText) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}},
       {{Segments{{1, CZELTA::SegmentUpperCase}, {CZELTA::ObjectIdSegment, 0}}},
        {Segments{{0, 0}, {1, 0}}}},
       CZELTA::SchemaWideObjectIds);
  for (const char* name : {"delta", "alpha", "charlie", "bravo"}) {
    one->added(Packed().number(1u).text(name));
  }
  one->commit();
  one->done(one->rewrite(2, Packed().number(1u).text("zulu")));
  one->done(one->rewrite(1, Packed().number(0u).text("BRAVO")));
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 4, 3, 2}));
  EXPECT_EQ(one->walk(2), (std::vector<std::uint64_t>{1, 4, 3, 2}));
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 4, 3, 2}));
  finish();
}

TEST_F(RewriteObject, KeysChangeHandsFromCommitToCommit) {
  make(kNumberField, kNumberIndex);
  for (const std::uint32_t key : {5u, 6u, 7u}) one->added(number(key));
  one->commit(false);
  const IndexCursor& cursor = one->table().indexStates[0];
  // Each takes the key of the one before it, and the first that of the last.
  for (int round = 0; round < 3; ++round) {
    const std::vector<std::uint64_t> before = one->walk(1);
    one->done(one->rewrite(before[0], number(99)));
    for (const std::size_t i : {2u, 1u}) {
      one->done(one->rewrite(before[i], number(static_cast<std::uint32_t>(1000 + i))));
    }
    one->done(one->rewrite(before[1], number(5)));
    one->done(one->rewrite(before[2], number(6)));
    one->done(one->rewrite(before[0], number(7)));
    EXPECT_EQ(count(cursor.replacedKeys), 3u);
    EXPECT_EQ(cursor.removedKeys, nullptr);
    EXPECT_EQ(pendingRoot(0), 0u);
    one->commit(false);
    EXPECT_EQ(cursor.replacedKeys, nullptr);
    EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{before[1], before[2], before[0]}));
  }
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 2, 3}));
  finish();
}

// -- Rows -----------------------------------------------------------------------------------------

TEST_F(RewriteObject, OnlyTheRowsThatDifferTouchTheIndex) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2, 3}));
  one->added(rows({7}));
  one->commit();
  one->done(one->rewrite(1, rows({3, 4, 1})));
  const IndexCursor& cursor = one->table().indexStates[0];
  ASSERT_EQ(count(cursor.removedKeys), 1u);
  EXPECT_EQ(cursor.removedKeys->objectID, 1u);
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 1, 1, 2}));
  EXPECT_TRUE(one->findNumber(2).is(Own::keyNotFound));
  one->done(one->findNumber(1));
  EXPECT_EQ(one->entry, 2u);
  one->done(one->rewrite(2, rows({2, 7})));  // takes what the first gave up
  one->done(one->rewrite(1, rows({})));
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{2, 2}));
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{2, 2}));
  finish();
}

TEST_F(RewriteObject, TwoEqualRowsAreError37EvenIfTheKeyIsItsOwn) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2}));
  one->commit();
  one->done(one->read(1));
  const std::string before = files();
  for (const auto& twice : {rows({1, 2, 1}), rows({3, 3}), rows({1, 4, 4})}) {
    EXPECT_EQ(one->rewrite(twice).word(), ownWord(Own::keyExists));
    EXPECT_EQ(one->error(),
              "Unable to add/edit/restore object in T.\nIndex key value already exists in index 1 "
              "with object 1.");
  }
  EXPECT_EQ(files(), before);
  one->done(one->rewrite(rows({2, 1})));
  finish();
}

TEST_F(RewriteObject, ManyRowsChangeInOneGo) {
  make(kRowsField, kRowsIndex);
  const auto span = [](std::uint32_t from, std::uint32_t to) {
    Packed packed;
    for (std::uint32_t i = to; i-- > from;) packed.number(i);
    return std::string(Packed().binary(packed));
  };
  one->added(span(0, 500));
  one->commit();
  one->done(one->rewrite(1, span(250, 900)));
  EXPECT_EQ(count(one->table().indexStates[0].removedKeys), 250u);
  EXPECT_EQ(one->added(span(0, 250)), 2u);
  EXPECT_EQ(count(one->table().indexStates[0].replacedKeys), 250u);
  one->commit();
  EXPECT_EQ(one->walk(1).size(), 900u);
  finish();
}

TEST_F(RewriteObject, ABorrowedRowGoesBackWhenItsBorrowerGivesItUp) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 2, 3}));
  one->added(rows({7}));
  one->commit();
  one->done(one->rewrite(1, rows({3})));
  one->done(one->rewrite(2, rows({7, 1, 2})));
  EXPECT_EQ(one->rewrite(1, rows({1, 3})).word(), ownWord(Own::keyExists));
  EXPECT_EQ(one->error(),
            "Unable to add/edit/restore object in T.\nIndex key value already exists in index 1 "
            "with object 2.");
  one->done(one->rewrite(2, rows({2, 7})));
  const IndexCursor& cursor = one->table().indexStates[0];
  ASSERT_EQ(count(cursor.removedKeys), 1u);
  EXPECT_EQ(cursor.removedKeys->objectID, 1u);
  EXPECT_EQ(count(cursor.replacedKeys), 1u);
  one->done(one->rewrite(1, rows({1, 3})));
  EXPECT_EQ(cursor.removedKeys, nullptr);
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 2, 1, 2}));
  one->commit();
  EXPECT_EQ(one->walk(1), (std::vector<std::uint64_t>{1, 2, 1, 2}));
  finish();
}

TEST_F(RewriteObject, RowsThatChangePlacesHaveOtherKeysIfTheseHoldThePlace) {
  make(kRowsField, {{Segments{{1, 0}, {CZELTA::EntryNumberSegment, 0}}}});
  one->added(rows({5, 6, 8}));
  one->commit();
  one->done(one->rewrite(1, rows({6, 5, 8})));
  EXPECT_EQ(count(one->table().indexStates[0].removedKeys), 2u);
  for (int round = 0; round < 2; ++round) {
    const auto find = [&](std::uint32_t value, std::uint32_t place) {
      const std::uint32_t key[2] = {value, place};
      const Result result = one->find(CZELTA::ReadEqual, 1, key);
      if (result.ok()) {
        EXPECT_EQ(one->entry, place);
      }
      return result.ok();
    };
    EXPECT_TRUE(find(5, 1) && find(6, 0) && find(8, 2));
    EXPECT_FALSE(find(5, 0) || find(6, 1));
    one->commit();
  }
  finish();
}

TEST_F(RewriteObject, AWalkOverRowsGoesOnFromTheRowItCameTo) {
  make(kRowsField, kRowsIndex);
  one->added(rows({1, 3, 5}));
  one->added(rows({2, 4, 6}));
  one->commit();
  std::vector<std::uint64_t> met;
  CZELTA::Mode mode = CZELTA::ReadFirst;
  for (; met.size() < 20 && one->find(mode, 1).ok(); mode = CZELTA::ReadNext) {
    met.push_back(static_cast<std::uint64_t>(one->object.objectID));
    one->done(one->rewrite(one->content()));
  }
  EXPECT_EQ(met, (std::vector<std::uint64_t>{1, 2, 1, 2, 1, 2}));
  finish();
}

// -- Others ---------------------------------------------------------------------------------------

TEST_F(RewriteObject, KeepsOthersAwayUntilTheEnd) {
  make(kNumberField, {});
  one->added(number(1));
  one->commit();
  two = join();
  one->done(one->rewrite(1, number(2)));
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  EXPECT_EQ(two->error(), "Unable to gain lock on object 1 in table T.");
  one->commit(false);
  EXPECT_EQ(two->read(1, kNoWait).word(), ownWord(Own::objectLocked));
  two->done(two->read(1, CZELTA::ReadNoLock));
  EXPECT_EQ(two->content(), number(2));
  one->abort(true);
  two->done(two->rewrite(1, number(3)));
  finish();
}

/// The shortest time from a question for dead transactions to the next pass.
class Rests : public platform::faults::Hook {
 public:
  /// `third` is done at the third question.
  explicit Rests(std::function<void()> third) : third_(std::move(third)) {
    platform::faults::install(this);
  }
  ~Rests() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    if (event.call != platform::faults::Call::mutexWait) return {};
    if (event.name.find(".zlc") != std::string::npos) {
      asked_ = Clock::now();
      if (++questions == 3) third_();
    } else if (event.name.find(".zlt") != std::string::npos && questions != 0) {
      shortest = std::min<Clock::duration>(shortest, Clock::now() - asked_);
    }
    return {};
  }

  using Clock = std::chrono::steady_clock;
  int questions = 0;
  Clock::duration shortest = std::chrono::hours(1);

 private:
  std::function<void()> third_;
  Clock::time_point asked_;
};

/// The index file is gone, and cannot be built before an object has its content.
TEST_F(RewriteObject, AsksForTheDeadAtOnceAndPausesThen) {
  make(kNumberField, kNumberIndex);
  one->added(number(5));
  one->added(number(6));
  one->commit();
  one.reset();
  ASSERT_TRUE(std::filesystem::remove(folder.path() / "T.zli"));
  one = join();
  one->done(one->read(1));
  const std::string bytes = folder.bytes("T.zlt");
  const auto record =
      numberAt<std::uint64_t>(bytes, slotPosition(numberAt<std::uint32_t>(bytes, 8), 2));
  const platform::File file = one->table().tableFile;
  const std::uint16_t placeholder = kPlaceholderVersion;
  ASSERT_EQ(writeBuffer(file, record, &placeholder, sizeof placeholder), 0u);
  const std::uint16_t version = 1;
  const auto heal = [&] { EXPECT_EQ(writeBuffer(file, record, &version, sizeof version), 0u); };
  {
    const Rests rests(heal);
    one->done(one->rewrite(number(7)));
    EXPECT_EQ(rests.questions, 3);
    EXPECT_GE(rests.shortest, std::chrono::milliseconds(10));
  }
  finish();
}

}  // namespace
}  // namespace zelta::testing

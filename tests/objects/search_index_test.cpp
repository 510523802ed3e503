// The passes of a search: what others have locked, and what becomes of what is found.

#include "objects/search/search_index.h"

#include <gtest/gtest.h>

#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "index/btree/btree.h"
#include "index/btree/cursor.h"
#include "index/search/key_search.h"
#include "platform/file_io.h"
#include "support/object_handle.h"

namespace zelta::testing {
namespace {

using Ids = std::vector<std::uint64_t>;
using Form = SearchQuery::Form;

/// Finds what it is told to.
class ToldSearch final : public IndexSearch {
 public:
  explicit ToldSearch(Ids ids) : ids_(std::move(ids)) {}
  Result run(AtomicManager& manager, FoundObjects& found) override {
    ++runs;
    if (manager.indexRoot(0) == 0) return Result::own(Own::unclassified);
    if (throws) throw std::bad_alloc();
    if (failure.failed()) return runs <= failures ? failure : Result{};
    for (const std::uint64_t id : ids_) found.add(id);
    found.inverted = inverted;
    if (count != 0) found.count = count;
    return {};
  }
  int runs = 0;
  int failures = 1000000;
  Result failure;
  std::optional<bool> inverted;
  long long count = 0;  ///< that it tells; 0: none
  bool throws = false;

 private:
  const Ids ids_;
};

class SearchPasses : public ObjectTest {
 protected:
  /// A table with the objects 1 to 5. Its index counts as one that is searched.
  void SetUp() override {
    make(kNumberField, kNumberIndex);
    for (const char* content : {"aaaa", "bbbb", "cccc", "dddd", "eeee"}) one->added(content);
    one->commit();
    pose(*one);
  }
  void TearDown() override {
    if (one) pose(*one, CZELTA::BPlusTree);
    if (two) pose(*two, CZELTA::BPlusTree);
    finish();
  }
  static void pose(ObjectHandle& handle, CZELTA::IndexKind kind = CZELTA::SpatialTree) {
    handle.table().schema->indexes[0].indexKind = static_cast<std::uint8_t>(kind);
  }
  void joinTwo() {
    two = join();
    pose(*two);
  }
  Result search(ObjectHandle& handle, IndexSearch& told, Form form = Form::expression,
                std::uint32_t flags = 0) {
    clearError(handle.metaData);
    const SearchQuery query{form, 1, "", "", 0, static_cast<CZELTA::Mode>(flags)};
    return runSearch({handle.metaData, handle.tables}, handle.table(), query, told, &count_);
  }
  Result search(const Ids& ids, Form form = Form::expression, std::uint32_t flags = 0) {
    ToldSearch told(ids);
    return search(*one, told, form, flags);
  }
  [[nodiscard]] static Ids idsOf(UInt64AVLTree* set) {
    Ids ids(count(set));
    flatten(set, ids.data(), ids.data() + ids.size());
    return ids;
  }
  [[nodiscard]] Ids results() const {
    const SortedIds& ids = one->table().searchResults;
    return {ids.begin(), ids.end()};
  }
  [[nodiscard]] Ids locked() const { return idsOf(one->table().lockedObjects); }

  long long count_ = -1;
};

TEST_F(SearchPasses, ResultsAreReadInTheOrderOfIds) {
  one->done(search({4, 2}));
  EXPECT_EQ(count_, 2);
  EXPECT_EQ(one->table().searchIndex, 1u);
  EXPECT_EQ(one->walk(1), (Ids{2, 4}));
  EXPECT_TRUE(locked().empty());
}

TEST_F(SearchPasses, ReaderSearchesWithoutTheMutex) {
  one->end();
  one->begin(CZELTA::TransactionRead);
  pose(*one);
  one->done(search({3}, Form::shape, CZELTA::SearchLockResults));
  EXPECT_EQ(one->walk(1), Ids{3});
  EXPECT_TRUE(locked().empty()) << "nor with locks";
}

TEST_F(SearchPasses, SearchWithoutKeepingLosesTheEarlierResultsEvenIfItFails) {
  one->done(search({1, 2}));
  ToldSearch failing({});
  failing.failure = Result::own(Own::indexFile);
  EXPECT_TRUE(search(*one, failing, Form::shape, CZELTA::SearchKeepResults).is(Own::indexFile));
  EXPECT_EQ(results(), (Ids{1, 2}));
  EXPECT_TRUE(search(*one, failing).is(Own::indexFile));
  EXPECT_TRUE(results().empty());
  EXPECT_EQ(one->table().searchIndex, 0u);
  EXPECT_EQ(failing.runs, 2);
}

TEST_F(SearchPasses, SearchMayTellAnotherCountThanItsResultsHave) {
  ToldSearch told({2, 4, 2});
  one->done(search(*one, told));
  EXPECT_EQ(count_, 2);
  told.count = 9;
  one->done(search(*one, told));
  EXPECT_EQ(count_, 9);
  EXPECT_EQ(results(), (Ids{2, 4}));
}

TEST_F(SearchPasses, KeptResultsAreJoined) {
  one->done(search({1, 2}));
  one->done(search({2, 3}, Form::expression, CZELTA::SearchKeepResults));
  EXPECT_EQ(results(), (Ids{1, 2, 3}));
  EXPECT_EQ(count_, 3) << "all that is there now";
  one->done(search({3, 4}, Form::shape, CZELTA::SearchKeepResults));
  EXPECT_EQ(results(), (Ids{1, 2, 3, 4}));
  EXPECT_EQ(count_, 2) << "what this search has found";
}

TEST_F(SearchPasses, LockedResultsThatWereThereBeforeLeaveThem) {
  constexpr std::uint32_t kBoth = CZELTA::SearchKeepResults | CZELTA::SearchLockResults;
  one->done(search({1, 2}));
  one->done(search({2, 3}, Form::expression, kBoth));
  EXPECT_EQ(results(), (Ids{1, 3}));
  EXPECT_EQ(locked(), (Ids{2, 3}));
  one->done(search({3, 4}, Form::shape, kBoth));
  EXPECT_EQ(results(), (Ids{1, 3, 4}));
  EXPECT_EQ(locked(), (Ids{2, 3, 4}));
}

TEST_F(SearchPasses, LockedResultsAreKeptFromOthers) {
  one->done(search({2, 4}, Form::shape, CZELTA::SearchLockResults));
  EXPECT_EQ(one->metaData.lockObjectID, 4u);
  joinTwo();
  EXPECT_TRUE(two->read(2, CZELTA::ReadNoWait).failed());
  two->done(two->read(3, CZELTA::ReadNoWait));
  one->end();
  one->begin();
  pose(*one);
  two->done(two->read(2, CZELTA::ReadNoWait));
}

TEST_F(SearchPasses, LockPositionMovesToTheFurthestOfThem) {
  one->table().schema->schemaFlags |= CZELTA::SchemaLockDescending;
  one->metaData.lockOrderReached = one->table().tableLockOrder;  // and no object yet
  constexpr struct {
    std::uint64_t first, second, reached;
  } kSteps[] = {{4, 3, 3}, {5, 2, 2}, {4, 5, 2}};
  for (const auto& step : kSteps) {
    one->done(search({step.first, step.second}, Form::shape, CZELTA::SearchLockResults));
    EXPECT_EQ(one->metaData.lockObjectID, step.reached);
  }
  one->table().schema->schemaFlags &= ~std::uint32_t{CZELTA::SchemaLockDescending};
}

TEST_F(SearchPasses, OwnObjectsNeedNoLock) {
  one->done(one->read(1));
  pose(*one, CZELTA::BPlusTree);
  one->done(one->erase(5));
  const std::uint64_t own = one->added("ffff");
  pose(*one);
  one->done(search({1, 2, 5, own}, Form::shape, CZELTA::SearchLockResults));
  EXPECT_EQ(locked(), (Ids{1, 2}));
}

TEST_F(SearchPasses, LockOfAnotherEndsASearchAfterManyPasses) {
  joinTwo();
  two->done(two->read(3));
  ToldSearch told({1, 2, 3});
  const Result result = search(*one, told, Form::shape, CZELTA::SearchLockResults);
  EXPECT_TRUE(result.is(Own::objectLocked)) << one->error();
  EXPECT_EQ(told.runs, 500);
  EXPECT_TRUE(locked().empty());
  EXPECT_TRUE(results().empty());
  two->done(two->read(1, CZELTA::ReadNoWait));
}

TEST_F(SearchPasses, SearchThatMeetsALockIsRunAgain) {
  ToldSearch told({});
  told.failure = Result::locked();
  told.failures = 3;
  one->done(search(*one, told));
  EXPECT_EQ(told.runs, 4);
}

TEST_F(SearchPasses, ObjectToLockThatIsGoneMakesTheIndexInconsistent) {
  pose(*one, CZELTA::BPlusTree);
  one->done(one->erase(2));
  one->commit();
  pose(*one);
  EXPECT_TRUE(search({1, 2}, Form::shape, CZELTA::SearchLockResults).is(Own::indexInconsistent));
  EXPECT_TRUE(search({77}, Form::shape, CZELTA::SearchLockResults).is(Own::indexInconsistent));
  EXPECT_TRUE(locked().empty());
}

TEST_F(SearchPasses, InvertedResultsAreAllOthers) {
  ToldSearch told({2});
  told.inverted = true;
  one->done(search(*one, told, Form::expression, CZELTA::SearchLockResults));
  EXPECT_EQ(count_, 4) << "the highest ID less those that match";
  EXPECT_TRUE(one->table().searchInverted);
  EXPECT_EQ(locked(), (Ids{1, 3, 4})) << "the highest one is left out";
  EXPECT_EQ(one->walk(1), (Ids{1, 3, 4, 5}));
  one->done(search({5}, Form::expression, CZELTA::SearchKeepResults));
  EXPECT_TRUE(one->table().searchInverted) << "this search says nothing of it";
  one->done(search({5}));
  EXPECT_FALSE(one->table().searchInverted);
}

TEST_F(SearchPasses, FailedSearchLeavesKeptResultsAsTheyWere) {
  joinTwo();
  two->done(two->read(3));
  one->done(search({1, 2}));
  ToldSearch told({1, 2});
  told.inverted = true;
  constexpr std::uint32_t kBoth = CZELTA::SearchKeepResults | CZELTA::SearchLockResults;
  EXPECT_TRUE(search(*one, told, Form::shape, kBoth).is(Own::objectLocked));
  EXPECT_EQ(results(), (Ids{1, 2}));
  EXPECT_FALSE(one->table().searchInverted);
  EXPECT_EQ(one->table().searchIndex, 1u);
}

TEST_F(SearchPasses, ExhaustedMemoryHasACodeForEachForm) {
  ToldSearch told({});
  told.throws = true;
  one->done(search({1, 2}));
  EXPECT_TRUE(search(*one, told, Form::shape, CZELTA::SearchKeepResults).is(Own::context));
  EXPECT_EQ(one->error(), "This method has been called in an incorrect context.");
  EXPECT_EQ(results(), (Ids{1, 2}));
  EXPECT_TRUE(search(*one, told).isSystem(code::kNoMemory));
  EXPECT_TRUE(results().empty());
  EXPECT_EQ(one->table().searchIndex, 0u);
  joinTwo();
  ToldSearch another({1});
  two->done(search(*two, another));
}

// -- Marks of other transactions ------------------------------------------------------------------

class SearchMarks : public SearchPasses {
 protected:
  void mark(std::uint64_t id, std::uint32_t transaction) {
    ASSERT_EQ(writeBuffer(one->table().tableFile, word(id), &transaction, sizeof transaction), 0u);
  }
  [[nodiscard]] std::uint32_t markOf(std::uint64_t id) {
    return numberAt<std::uint32_t>(folder.bytes("T.zlt"), word(id));
  }
  std::uint64_t word(std::uint64_t id) { return objectLock(one->table().slotBase, id).position; }
  static constexpr std::uint32_t kNobody = 7777;
};

TEST_F(SearchMarks, ThatOfADeadTransactionIsTakenAway) {
  mark(3, kNobody);
  mark(4, kNobody);
  ToldSearch told({2, 3, 4});
  one->done(search(*one, told, Form::shape, CZELTA::SearchLockResults));
  EXPECT_EQ(told.runs, 2) << "once for the transaction that both name";
  EXPECT_EQ(locked(), (Ids{2, 3, 4}));
  EXPECT_EQ(markOf(3), 0u);
  EXPECT_EQ(markOf(4), 0u);
}

TEST_F(SearchMarks, ThatOfALivingTransactionIsALock) {
  joinTwo();
  mark(3, two->metaData.transactionWord);
  ToldSearch told({2, 3});
  EXPECT_TRUE(search(*one, told, Form::shape, CZELTA::SearchLockResults).is(Own::objectLocked));
  EXPECT_EQ(markOf(3), two->metaData.transactionWord);
  two->done(two->read(2, CZELTA::ReadNoWait));
  two.reset();
  one->done(search({2, 3}, Form::shape, CZELTA::SearchLockResults));
  EXPECT_EQ(markOf(3), 0u);
}

TEST_F(SearchMarks, ThatOnAFreeIdIsPassedByInverted) {
  pose(*one, CZELTA::BPlusTree);
  one->done(one->erase(2));
  one->commit();
  pose(*one);
  ToldSearch told({1});
  told.inverted = true;
  one->done(search(*one, told, Form::expression, CZELTA::SearchLockResults));
  EXPECT_EQ(locked(), (Ids{3, 4}));
}

// -- What the transaction has pending -------------------------------------------------------------

TEST_F(SearchPasses, IdThatNoObjectHasIsNotFound) {
  pose(*one, CZELTA::BPlusTree);
  const std::uint64_t own = one->added("ffff");
  pose(*one);
  constexpr std::uint64_t kStopWord = 0x7FFFFFFFFFFFFFFF;
  one->done(search({3, own, kStopWord}));
  EXPECT_TRUE(one->find(CZELTA::ReadLast, 1).is(Own::keyNotFound));
  one->done(one->findNumber(static_cast<std::uint32_t>(own)));
  pose(*one, CZELTA::BPlusTree);
  one->done(one->restore(static_cast<long long>(own)));
  pose(*one);
  EXPECT_TRUE(one->findNumber(static_cast<std::uint32_t>(own)).is(Own::keyNotFound));
  EXPECT_TRUE(one->find(CZELTA::ReadFirst, 1).ok());
  EXPECT_TRUE(one->find(CZELTA::ReadNext, 1).is(Own::keyNotFound));
}

/// Matches all keys up to that of the search.
Result searchUpTo(const IndexTree& tree, const std::uint32_t* key, EntryFilter& filter) {
  BPlusCursor cursor(tree, PageRole::node);
  ZELTA_TRY(cursor.seek(CZELTA::ReadFirst, nullptr));
  while (cursor.valid() && cursor.key()[0] <= key[0]) {
    filter.take(cursor.key(), cursor.objectID());
    ZELTA_TRY(cursor.next(true));
  }
  return {};
}

TEST_F(SearchPasses, KeySearchSeesWhatTheTransactionSees) {
  pose(*one, CZELTA::BPlusTree);
  joinTwo();
  pose(*two, CZELTA::BPlusTree);
  two->added("abab");
  one->done(one->erase(1));
  one->done(one->rewrite(2, "zzzz"));
  one->done(one->rewrite(5, "baba"));
  const std::uint64_t own = one->added("acac");
  KeyKind kind = kBPlusTree;
  kind.search = searchUpTo;
  KeySearch upTo(one->table(), 0, kind);
  one->done(upTo.takeKey("cccc"));
  one->done(search(*one, upTo));
  EXPECT_EQ(results(), (Ids{3, 5, own}));
  EXPECT_EQ(count_, 3) << "nothing of the other transaction";
}

}  // namespace
}  // namespace zelta::testing

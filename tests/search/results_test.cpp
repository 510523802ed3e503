// What a search leaves behind: the nine modes of reading through it, changes beside it, locks, and
// its end.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

constexpr unsigned kTable = 1;
enum Index : unsigned { kBoxes = 1, kWords, kWideWords, kNames };
constexpr unsigned long long kNotFound = ownCode(32);
constexpr unsigned long long kNoSearch = ownCode(40);
constexpr CZELTA::Mode kNoFlags{};

using Ids = std::vector<long long>;

/// A handle of a table whose objects have a line (their boxes lie side by side on it)
/// and a unique name, which is also their text.
class Items {
 public:
  explicit Items(const std::u16string& path) { EXPECT_DONE(db, db.OpenDatabase(path.c_str())); }

  void begin(CZELTA::Mode mode = CZELTA::TransactionShared) {
    ASSERT_DONE(db, db.BeginTransaction(mode, 10000));
    ASSERT_DONE(db, db.OpenTable(kTable));
  }
  void end() { ASSERT_DONE(db, db.EndTransaction()); }
  void commit() { ASSERT_DONE(db, db.CommitTransaction(true)); }

  long long add(std::int32_t line, const std::string& name, long long id = 0) {
    EXPECT_DONE(db, db.NewObject(kTable, &object, 0));
    const std::u16string wide(name.begin(), name.end());
    const std::string values = Packed().text(name).wide(wide);
    EXPECT_DONE(db, db.PutVariableValues(kTable, values.data(),
                                         static_cast<unsigned>(values.size()), 0, 2, &object));
    move(line);
    EXPECT_DONE(db, db.AddObject(kTable, &object, id));
    return object.objectID;
  }
  void move(std::int32_t line) {
    static std::int32_t x = 0;  // no two boxes are equal
    const std::int32_t box[] = {x, line, x + 1, line};
    ++x;
    std::memcpy(object.data, box, sizeof box);
  }
  void rewrite(long long id, std::int32_t line) {
    ASSERT_DONE(db, db.ReadObject(kTable, id, &object));
    move(line);
    ASSERT_DONE(db, db.RewriteObject(kTable, &object));
  }
  void erase(long long id) { ASSERT_DONE(db, db.DeleteObject(kTable, id, nullptr)); }

  unsigned long long search(std::int32_t first, std::int32_t last, CZELTA::Mode flags = kNoFlags) {
    const std::int32_t box[] = {0, first, INT32_MAX, last};
    return db.SearchIndex(kTable, kBoxes, box, nullptr, flags, &count);
  }
  unsigned long long searchWords(const char* expression, CZELTA::Mode flags = kNoFlags) {
    return db.SearchIndex(kTable, kWords, nullptr, expression, flags, &count);
  }
  unsigned long long searchWide(unsigned index, const char16_t* expression,
                                CZELTA::Mode flags = kNoFlags) {
    return db.SearchIndex(kTable, index, nullptr, expression, flags, &count);
  }

  unsigned long long read(CZELTA::Mode mode, unsigned index = kBoxes) {
    return db.ReadObject(kTable, mode, &object, index, nullptr, nullptr);
  }
  /// The ID that a read from a pivot gives, or 0 for "not found".
  long long from(CZELTA::Mode mode, std::uint32_t pivot, unsigned index = kBoxes) {
    const auto word =
        db.ReadObject(kTable, mode | CZELTA::ReadNoLock, &object, index, &pivot, nullptr);
    EXPECT_TRUE(word == 0 || word == kNotFound) << messageOf(db);
    return word == 0 ? object.objectID : 0;
  }
  Ids walk(unsigned index = kBoxes, bool upward = true) {
    Ids ids;
    CZELTA::Mode mode = upward ? CZELTA::ReadFirst : CZELTA::ReadLast;
    unsigned long long word = 0;
    while ((word = read(mode | CZELTA::ReadNoLock, index)) == 0) {
      ids.push_back(object.objectID);
      mode = upward ? CZELTA::ReadNext : CZELTA::ReadPrevious;
    }
    EXPECT_EQ(word, kNotFound) << messageOf(db);
    return ids;
  }

  CZELTA db;
  CZELTA::Object object{};
  long long count = -1;
};

class Results : public DatabaseTest {
 protected:
  /// The objects 1 to 7: the even ones lie on line 2, the others on line 1.
  void SetUp() override {
    {
      CZELTA maker;
      ASSERT_DONE(maker, maker.CreateDatabase(path().c_str()));
      ASSERT_DONE(maker, maker.BeginTransaction(CZELTA::TransactionExclusive, 0));
      const Fields fields = {
          {CZELTA::TypeRect2}, {CZELTA::TypeText, 40}, {CZELTA::TypeWideText, 40}};
      const Indexes indexes = {{{{0, 0}}, CZELTA::SpatialTree},
                               {{{1, CZELTA::SegmentWords}}, CZELTA::AsciiList},
                               {{{2, CZELTA::SegmentWords}}, CZELTA::WideList},
                               {{{2, 0}}, CZELTA::BPlusTree}};
      SchemaRecords records(fields, indexes, 0);
      records.schema.tableId = kTable;
      records.schema.tableName = u"items";
      ASSERT_DONE(maker, maker.CreateTable(&records.schema, nullptr));
      ASSERT_DONE(maker, maker.EndTransaction());
    }
    one.emplace(path());
    one->begin();
    constexpr const char* kNames[] = {"ant", "bee ant", "cat", "dog ant", "eel", "fox", "gnu"};
    for (int i = 0; i < 7; ++i) ASSERT_EQ(one->add(1 + i % 2, kNames[i]), i + 1);
    one->commit();
    two.emplace(path());
    two->begin();
  }
  void TearDown() override {
    for (auto* items : {&one, &two}) {
      if (*items) (*items)->db.CloseDatabase();
      items->reset();
    }
    EXPECT_EQ(findingsOf(path()), "");
  }

  std::optional<Items> one;
  std::optional<Items> two;
};

// -- The walk over what was found -----------------------------------------------------------------

TEST_F(Results, NothingFoundIsASuccess) {
  EXPECT_DONE(one->db, one->search(50, 60));
  EXPECT_EQ(one->count, 0);
  for (const CZELTA::Mode mode : {CZELTA::ReadFirst, CZELTA::ReadLast, CZELTA::ReadNext}) {
    EXPECT_EQ(one->read(mode), kNotFound);
  }
  EXPECT_EQ(messageOf(one->db), "Unable to find index key within index 1 of table \"items\"");
}

TEST_F(Results, NineModesLeadThroughThem) {
  ASSERT_DONE(one->db, one->search(2, 2));
  EXPECT_EQ(one->count, 3);
  struct Line {
    CZELTA::Mode mode;
    long long fromOne, fromFour, fromFive, fromNine;
  };
  constexpr Line kLines[] = {
      {CZELTA::ReadEqual, 0, 4, 0, 0},        {CZELTA::ReadLess, 0, 2, 4, 6},
      {CZELTA::ReadGreater, 2, 6, 6, 0},      {CZELTA::ReadLessEqual, 0, 4, 4, 6},
      {CZELTA::ReadGreaterEqual, 2, 4, 6, 0}, {CZELTA::ReadFirst, 2, 2, 2, 2},
      {CZELTA::ReadLast, 6, 6, 6, 6}};
  for (const Line& line : kLines) {
    EXPECT_EQ(one->from(line.mode, 1), line.fromOne) << line.mode;
    EXPECT_EQ(one->from(line.mode, 4), line.fromFour) << line.mode;
    EXPECT_EQ(one->from(line.mode, 5), line.fromFive) << line.mode;
    EXPECT_EQ(one->from(line.mode, 9), line.fromNine) << line.mode;
  }
  EXPECT_EQ(one->from(CZELTA::ReadLess, 0), 0);
  EXPECT_EQ(one->from(CZELTA::ReadGreater, 0xFFFFFFFF), 0);
  EXPECT_EQ(one->from(CZELTA::ReadEqual, 0), 0);
  EXPECT_EQ(one->walk(), (Ids{2, 4, 6}));
  EXPECT_EQ(one->walk(kBoxes, false), (Ids{6, 4, 2}));
}

TEST_F(Results, WalkGoesOnFromWhateverWasReadLast) {
  ASSERT_DONE(one->db, one->search(2, 2));
  ASSERT_DONE(one->db, one->read(CZELTA::ReadNext)) << "without a position from the begin";
  EXPECT_EQ(one->object.objectID, 2);
  ASSERT_DONE(one->db, one->db.ReadObject(kTable, 5, &one->object));
  ASSERT_DONE(one->db, one->read(CZELTA::ReadNext));
  EXPECT_EQ(one->object.objectID, 6);
  EXPECT_EQ(one->read(CZELTA::ReadNext), kNotFound);
  ASSERT_DONE(one->db, one->read(CZELTA::ReadPrevious)) << "the end has not moved the position";
  EXPECT_EQ(one->object.objectID, 4);
  ASSERT_DONE(one->db,
              one->db.ReadObject(kTable, CZELTA::ReadPrevious, nullptr, kBoxes, nullptr, nullptr));
  ASSERT_DONE(one->db, one->read(CZELTA::ReadGreaterEqual | CZELTA::ReadNoLock));
  EXPECT_EQ(one->object.objectID, 2) << "beside a flag no key means the current object";
  EXPECT_EQ(one->read(CZELTA::ReadGreaterEqual), ownCode(7));
}

TEST_F(Results, BelongToTheIndexSearchedLast) {
  EXPECT_EQ(one->read(CZELTA::ReadFirst), kNoSearch);
  EXPECT_EQ(messageOf(one->db),
            "SearchIndex() must be called before you are able to read on index 1.");
  ASSERT_DONE(one->db, one->search(2, 2));
  ASSERT_DONE(one->db, one->searchWords("ant"));
  EXPECT_EQ(one->read(CZELTA::ReadFirst), kNoSearch);
  EXPECT_EQ(one->read(CZELTA::Mode{60}), kNoSearch) << "asked before the mode";
  EXPECT_EQ(one->walk(kWords), (Ids{1, 2, 4}));
  EXPECT_EQ(one->read(CZELTA::Mode{49}, kWords), ownCode(18));
  EXPECT_EQ(one->read(CZELTA::Mode{39}, kWords), ownCode(18));
  ASSERT_DONE(one->db, one->search(2, 2, CZELTA::SearchKeepResults));
  EXPECT_EQ(one->read(CZELTA::ReadFirst, kWords), kNoSearch);
  EXPECT_EQ(one->walk(), (Ids{1, 2, 4, 6}));
  EXPECT_EQ(one->count, 4);
}

TEST_F(Results, WhatIsRefusedLeavesThem) {
  ASSERT_DONE(one->db, one->search(2, 2));
  const std::int32_t box[4] = {};
  EXPECT_EQ(one->db.SearchIndex(2, 1, box, nullptr, kNoFlags, nullptr), ownCode(6));
  EXPECT_EQ(one->db.SearchIndex(kTable, 0, box, nullptr, kNoFlags, nullptr), ownCode(7));
  EXPECT_EQ(one->db.SearchIndex(kTable, 5, box, 0u, kNoFlags, nullptr), ownCode(7));
  EXPECT_EQ(one->db.SearchIndex(kTable, kBoxes, nullptr, 0u, kNoFlags, nullptr), ownCode(7));
  EXPECT_EQ(one->db.SearchIndex(kTable, kWords, box, 0u, kNoFlags, nullptr), ownCode(19));
  EXPECT_EQ(one->searchWide(kNames, u"ant"), ownCode(19));
  EXPECT_EQ(one->searchWide(kNames, u"ant", CZELTA::SearchKeepResults), ownCode(19));
  EXPECT_EQ(one->searchWords("ant and"), ownCode(63));
  EXPECT_EQ(one->walk(), (Ids{2, 4, 6}));
  EXPECT_EQ(one->count, 3);
  one->end();
  EXPECT_EQ(one->search(2, 2), ownCode(3));
}

// -- Those that do not match ----------------------------------------------------------------------

TEST_F(Results, NineModesLeadThroughAllOthers) {
  one->erase(3);
  one->commit();
  ASSERT_DONE(one->db, one->searchWords("not (ant or fox)"));
  EXPECT_EQ(one->count, 7 - 4) << "object 3 counts, though it is gone";
  one->erase(5);
  EXPECT_EQ(one->add(1, "yak", 12), 12);
  EXPECT_EQ(one->walk(kWords), (Ids{7, 12}));
  EXPECT_EQ(one->walk(kWords, false), Ids{12}) << "a gap above the committed IDs ends a way down";
  struct Line {
    CZELTA::Mode mode;
    long long fromOne, fromSeven, fromNine, fromTwelve;
  };
  constexpr Line kLines[] = {{CZELTA::ReadEqual, 0, 7, 0, 12},
                             {CZELTA::ReadLess, 0, 0, 0, 0},
                             {CZELTA::ReadGreater, 7, 12, 12, 0},
                             {CZELTA::ReadLessEqual, 0, 7, 0, 12},
                             {CZELTA::ReadGreaterEqual, 7, 7, 12, 12}};
  for (const Line& line : kLines) {
    EXPECT_EQ(one->from(line.mode, 1, kWords), line.fromOne) << line.mode;
    EXPECT_EQ(one->from(line.mode, 7, kWords), line.fromSeven) << line.mode;
    EXPECT_EQ(one->from(line.mode, 9, kWords), line.fromNine) << line.mode;
    EXPECT_EQ(one->from(line.mode, 12, kWords), line.fromTwelve) << line.mode;
  }
  EXPECT_EQ(one->from(CZELTA::ReadLess, 0, kWords), 0);
  EXPECT_EQ(one->from(CZELTA::ReadGreater, 0xFFFFFFFF, kWords), 0);
  one->rewrite(7, 1);
  EXPECT_EQ(one->from(CZELTA::ReadEqual, 7, kWords), 7);
  one->erase(7);
  EXPECT_EQ(one->from(CZELTA::ReadGreater, 0, kWords), 12);
  EXPECT_EQ(one->read(CZELTA::ReadFirst, kWords), kNotFound) << "the first mode passes no gap";
}

TEST_F(Results, KeptInvertedOnesAreJoinedAsTheyStand) {
  ASSERT_DONE(one->db, one->searchWords("not (ant or fox)"));
  EXPECT_EQ(one->walk(kWords), (Ids{3, 5, 7}));
  ASSERT_DONE(one->db, one->search(1, 1, CZELTA::SearchKeepResults));
  EXPECT_EQ(one->count, 7) << "of all that the set has";
  EXPECT_EQ(one->walk(), Ids{});
  ASSERT_DONE(one->db, one->searchWords("eel", CZELTA::SearchKeepResults));
  EXPECT_EQ(one->walk(kWords), (Ids{1, 2, 3, 4, 5, 6, 7})) << "the last list decides";
  ASSERT_DONE(one->db, one->search(2, 2));
  EXPECT_EQ(one->walk(), (Ids{2, 4, 6}));
}

// -- The keys of an ordered index by words --------------------------------------------------------

TEST_F(Results, OfWideWordsAreJoinedWithThoseOfKeys) {
  ASSERT_DONE(one->db, one->searchWide(kWideWords, u"fox"));
  EXPECT_EQ(one->walk(kWideWords), Ids{6});
  one->add(9, "owl");
  one->erase(3);
  two->add(9, "bat");
  ASSERT_DONE(one->db, one->searchWide(kNames, u"\"cat\" or \"owl\" or \"gnu\" or \"bat\"",
                                       CZELTA::SearchKeepResults));
  EXPECT_EQ(one->walk(kWideWords), (Ids{6, 7, 8})) << "still those of the list";
  EXPECT_EQ(one->count, 3);
  EXPECT_EQ(one->searchWide(kNames, u"gnu and", CZELTA::SearchKeepResults), ownCode(63));
  EXPECT_EQ(one->searchWide(kNames, nullptr, CZELTA::SearchKeepResults), ownCode(7));
  EXPECT_EQ(one->walk(kWideWords), (Ids{6, 7, 8}));
}

TEST_F(Results, OfNarrowWordsCannotBe) {
  ASSERT_DONE(one->db, one->searchWords("fox"));
  EXPECT_EQ(one->db.SearchIndex(kTable, kNames, nullptr, "gnu", CZELTA::SearchKeepResults, nullptr),
            ~0ull);
  EXPECT_EQ(messageOf(one->db), "No error message");
  EXPECT_EQ(one->walk(kWords), Ids{6});
  two->add(9, "bat");
  EXPECT_EQ(one->db.SearchIndex(kTable, kNames, nullptr, "gnu", kNoFlags, nullptr), ownCode(19));
}

// -- Beside changes -------------------------------------------------------------------------------

TEST_F(Results, FollowTheChangesOfTheirTransaction) {
  one->rewrite(2, 1);
  one->rewrite(1, 2);
  const long long own = one->add(2, "owl");
  two->add(2, "bat");
  ASSERT_DONE(one->db, one->search(2, 2));
  EXPECT_EQ(one->walk(), (Ids{1, 4, 6, own}));
  one->erase(4);
  ASSERT_DONE(one->db, one->db.RestoreObject(kTable, own, true));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(one->walk(), (Ids{1, 6}));
  EXPECT_EQ(one->from(CZELTA::ReadEqual, 4), 0);
  EXPECT_EQ(one->from(CZELTA::ReadEqual, static_cast<std::uint32_t>(own)), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1)) << "nobody waits";
  ASSERT_DONE(two->db, two->search(2, 2));
  EXPECT_EQ(two->walk().size(), 4u) << "2, 4 and 6 as they are committed, and its own";
}

TEST_F(Results, ObjectThatAnotherHasDeletedIsLikeALockedOne) {
  ASSERT_DONE(one->db, one->search(1, 2));
  two->erase(2);
  two->commit();
  ASSERT_DONE(one->db, one->read(CZELTA::ReadFirst));
  EXPECT_EQ(one->read(CZELTA::ReadNext | CZELTA::ReadNoWait), ownCode(67));
  EXPECT_EQ(one->from(CZELTA::ReadGreater, 2), 3);
  two->erase(7);
  two->commit();
  EXPECT_EQ(one->from(CZELTA::ReadEqual, 7), 0) << "there is no such slot any more";
}

TEST_F(Results, EndWithACommitAnAbortAndTheTransaction) {
  for (int end = 0; end < 3; ++end) {
    ASSERT_DONE(one->db, one->searchWords("not (ant)"));
    if (end == 0) one->commit();
    if (end == 1) {
      ASSERT_DONE(one->db, one->db.AbortTransaction(false));
    }
    if (end == 2) {
      one->end();
      one->begin();
    }
    EXPECT_EQ(one->read(CZELTA::ReadFirst, kWords), kNoSearch) << end;
    ASSERT_DONE(one->db, one->search(2, 2, CZELTA::SearchKeepResults));
    EXPECT_EQ(one->walk(), (Ids{2, 4, 6})) << "nothing was left to keep, nor inverted";
  }
}

// -- Locks ----------------------------------------------------------------------------------------

TEST_F(Results, LockedOnesAreKeptFromOthersUntilTheEnd) {
  ASSERT_DONE(one->db, one->search(2, 2, CZELTA::SearchLockResults));
  for (long long id = 1; id <= 7; ++id) {
    const auto word = two->db.ReadObject(kTable, id, CZELTA::ReadNoWait, &two->object);
    EXPECT_EQ(word, id % 2 == 0 ? ownCode(27) : 0u) << id;
  }
  one->end();
  ASSERT_DONE(two->db, two->db.ReadObject(kTable, 2, CZELTA::ReadNoWait, &two->object));
  one->begin();
}

TEST_F(Results, ThatCannotAllBeLockedAreNot) {
  ASSERT_DONE(two->db, two->db.ReadObject(kTable, 6, &two->object));
  ASSERT_DONE(one->db, one->search(1, 1));
  EXPECT_EQ(one->search(2, 2, CZELTA::SearchLockResults), ownCode(27));
  EXPECT_EQ(messageOf(one->db), "Unable to gain lock on object 0 in table items.");
  EXPECT_EQ(one->read(CZELTA::ReadFirst), kNoSearch);
  ASSERT_DONE(two->db, two->db.ReadObject(kTable, 2, CZELTA::ReadNoWait, &two->object));
  ASSERT_DONE(two->db, two->db.ReadObject(kTable, 4, CZELTA::ReadNoWait, &two->object));
}

TEST_F(Results, InvertedOnesAreLockedButForTheLast) {
  const auto flags = CZELTA::SearchLockResults;
  ASSERT_DONE(one->db, one->searchWords("not (ant or fox)", flags));
  for (long long id = 1; id <= 7; ++id) {
    const auto word = two->db.ReadObject(kTable, id, CZELTA::ReadNoWait, &two->object);
    EXPECT_EQ(word, id == 3 || id == 5 ? ownCode(27) : 0u) << id;
  }
}

TEST_F(Results, LocksOfADeadProcessAreGone) {
  ChildProcess child([this](const ChildProcess::Line& line) {
    Items items(path());
    items.begin();
    line.say(items.search(2, 2, CZELTA::SearchLockResults) == 0 ? 'y' : 'n');
    line.hear();
    return 0;
  });
  ASSERT_TRUE(child.hears('y'));
  EXPECT_EQ(one->search(2, 2, CZELTA::SearchLockResults), ownCode(27));
  child.kill();
  EXPECT_DONE(one->db, one->search(2, 2, CZELTA::SearchLockResults));
  one->end();
  one->begin();  // makes the place of the dead transaction free
}

// -- Readers --------------------------------------------------------------------------------------

class ResultsOfReaders : public Results {
 protected:
  /// Leaves one handle in a transaction that reads.
  void SetUp() override {
    Results::SetUp();
    two.reset();
    one.reset();
  }
  void beginReading() {
    one.emplace(path());
    one->begin(CZELTA::TransactionRead);
  }
};

TEST_F(ResultsOfReaders, NeedNoMemoryFileAndMakeNone) {
  for (const bool empty : {false, true}) {
    std::filesystem::remove(std::filesystem::path(folder.file("items.zlm")));
    if (empty) folder.write("items.zlm", "");
    beginReading();
    ASSERT_DONE(one->db, one->search(2, 2, CZELTA::SearchLockResults));
    EXPECT_EQ(one->walk(), (Ids{2, 4, 6}));
    ASSERT_DONE(one->db, one->searchWords("not (ant or fox)"));
    EXPECT_EQ(one->walk(kWords), (Ids{3, 5, 7}));
    EXPECT_EQ(folder.has("items.zlm"), empty);
    EXPECT_EQ(empty ? folder.bytes("items.zlm") : "", "");
    one.reset();
  }
}

TEST_F(ResultsOfReaders, FailWithoutAnIndexFileThatWritersBuild) {
  std::filesystem::remove(std::filesystem::path(folder.file("items.zli")));
  beginReading();
  EXPECT_EQ(one->search(2, 2), systemCode(2));
  EXPECT_EQ(one->read(CZELTA::ReadFirst), kNoSearch);
  EXPECT_FALSE(folder.has("items.zli"));
  one->end();
  one->begin();
  ASSERT_DONE(one->db, one->search(2, 2));
  EXPECT_EQ(one->walk(), (Ids{2, 4, 6}));
}

TEST_F(ResultsOfReaders, FollowCommitsOfOthers) {
  beginReading();
  two.emplace(path());
  two->begin();
  two->rewrite(2, 1);
  ASSERT_DONE(one->db, one->search(2, 2));
  EXPECT_EQ(one->walk(), (Ids{2, 4, 6})) << "pending changes of others are not seen";
  two->commit();
  ASSERT_DONE(one->db, one->search(2, 2));
  EXPECT_EQ(one->walk(), (Ids{4, 6}));
}

}  // namespace
}  // namespace zelta::testing

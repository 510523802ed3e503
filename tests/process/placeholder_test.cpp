// What others meet of objects whose places in the table are decided while their content still is in
// the log only: a process died in its commit, and the table file has been repaired since.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "process/die_between.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

constexpr unsigned kTable = 1;
constexpr auto kNoLock = CZELTA::ReadNoLock;
constexpr auto kNoWait = CZELTA::ReadNoWait;

/// A handle of the table, whose objects hold a number.
struct Pupil {
  CZELTA db;
  CZELTA::Object object{};

  unsigned long long begin(const std::u16string& path, CZELTA::Mode mode) {
    if (const auto failure = db.OpenDatabase(path.c_str()); failure != 0) return failure;
    if (const auto failure = db.BeginTransaction(mode, 10000); failure != 0) return failure;
    return db.OpenTable(kTable);
  }
  unsigned long long add(std::uint32_t number) {
    if (const auto failure = db.NewObject(kTable, &object, 0); failure != 0) return failure;
    std::memcpy(object.data, &number, sizeof number);
    return db.AddObject(kTable, nullptr, 0);
  }
  unsigned long long rewrite(long long id, std::uint32_t number) {
    if (const auto failure = db.ReadObject(kTable, id, &object); failure != 0) return failure;
    std::memcpy(object.data, &number, sizeof number);
    return db.RewriteObject(kTable, nullptr);
  }
  unsigned long long read(long long id, CZELTA::Mode flags) {
    return db.ReadObject(kTable, id, flags, &object);
  }
  unsigned long long readKey(std::uint32_t key, CZELTA::Mode flags) {
    return db.ReadObject(kTable, CZELTA::ReadEqual | flags, &object, 1, &key, nullptr);
  }
  unsigned long long eraseKey(std::uint32_t key, CZELTA::Mode flags) {
    return db.DeleteObject(kTable, CZELTA::ReadEqual | flags, &object, 1, &key, nullptr);
  }
  [[nodiscard]] std::uint32_t number() const {
    std::uint32_t number = 0;
    std::memcpy(&number, object.data, sizeof number);
    return number;
  }
};

/// With a parameter, the table has a field of variable length too.
class Placeholder : public DatabaseTest, public ::testing::WithParamInterface<bool> {
 protected:
  /// Objects 1 to 3 hold 10, 20 and 30. `writer` and `reader` are in transactions when a process
  /// dies that has committed 22 for the second one and 44 as a fourth.
  void SetUp() override {
    ChildProcess maker([this](const ChildProcess::Line&) { return make() ? 0 : 1; });
    ASSERT_EQ(maker.wait(), 0);
    ChildProcess victim([this](const ChildProcess::Line& line) {
      if (line.hear() != 'g') return 1;
      Pupil own;
      if (own.begin(path(), CZELTA::TransactionShared) != 0) return 2;
      if (own.rewrite(2, 22) != 0 || own.add(44) != 0) return 3;
      // Behind the index, the table gets its journal, and the word that it counts.
      const DieBetween death({".zli", ".zlt", ".zlt", ".zlt"});
      static_cast<void>(own.db.CommitTransaction(true));
      return 4;
    });
    ASSERT_DONE(writer.db, writer.begin(path(), CZELTA::TransactionShared));
    ASSERT_DONE(reader.db, reader.begin(path(), CZELTA::TransactionRead));
    victim.tell('g');
    ASSERT_EQ(victim.wait(), kKilled);
    // Who reads anything repairs the table file, and nothing else.
    ASSERT_DONE(writer.db, writer.read(1, kNoLock));
  }
  void TearDown() override {
    ASSERT_DONE(writer.db, writer.db.CloseDatabase());
    ASSERT_DONE(reader.db, reader.db.CloseDatabase());
    expectClean(path());
  }
  bool make() {
    SmallSchema small(u"T", kTable);
    CZELTA::Schema::Field fields[] = {small.field, {CZELTA::TypeText, 0, 9, 0, u"text", nullptr}};
    small.schema.fields = fields;
    small.schema.fieldCount = GetParam() ? 2 : 1;
    Pupil first;
    bool done = first.db.CreateDatabase(path().c_str()) == 0 &&
                first.db.BeginTransaction(CZELTA::TransactionExclusive, 10000) == 0 &&
                first.db.CreateTable(&small.schema, nullptr) == 0;
    for (std::uint32_t number = 10; done && number <= 30; number += 10) {
      done = first.add(number) == 0;
    }
    return done && first.db.CommitTransaction(true) == 0 && first.db.EndTransaction() == 0;
  }
  void expectRead(Pupil& pupil, long long id, std::uint32_t number, CZELTA::Mode flags) {
    ASSERT_DONE(pupil.db, pupil.read(id, flags)) << id;
    EXPECT_EQ(pupil.number(), number);
    EXPECT_EQ(pupil.object.version, id == 2 ? 2 : 1);
  }

  Pupil writer;
  Pupil reader;
};

TEST_P(Placeholder, IsNoObjectToAReader) {
  EXPECT_EQ(reader.read(2, CZELTA::Mode{}), ownCode(55));
  EXPECT_EQ(reader.read(4, CZELTA::Mode{}), ownCode(55));
  expectRead(reader, 3, 30, CZELTA::Mode{});
  expectRead(writer, 2, 22, kNoWait);
  expectRead(reader, 2, 22, CZELTA::Mode{});
  expectRead(reader, 4, 44, CZELTA::Mode{});
}

TEST_P(Placeholder, GetsItsContentWhenAWriterReadsItWithoutLock) {
  expectRead(writer, 4, 44, kNoLock);
}

TEST_P(Placeholder, OfARewrittenObjectGetsItsContentLikewise) {
  expectRead(writer, 2, 22, kNoLock);
}

TEST_P(Placeholder, IsWorkToBeDoneToTheCheckerButNoDamage) {
  int toCome = 0;
  for (const CheckFinding& finding : checkDatabase(path())) {
    EXPECT_EQ(finding.kind, CheckKind::pendingWork) << describe(finding);
    if (finding.what == "content is still to come from the log") ++toCome;
  }
  EXPECT_EQ(toCome, 2);
  expectRead(writer, 2, 22, kNoLock);
}

/// The same to the checker, with bytes of the files changed: what it finds.
class SpoiltPlaceholder : public Placeholder {
 protected:
  void TearDown() override {
    expectRead(writer, 2, 22, kNoLock);
    Placeholder::TearDown();
  }
  /// Where the version word of an object's record stands.
  [[nodiscard]] std::uint64_t objectAt(std::uint64_t id) const {
    const std::string table = folder.bytes("T.zlt");
    const auto slots = numberAt<std::uint32_t>(table, 8);
    return numberAt<std::uint64_t>(table, slots + 12 * id) + (GetParam() ? 8 : 0);
  }
  template <class Number>
  std::string findingsWith(const std::string& file, std::uint64_t offset, Number value) {
    const std::string sound = folder.bytes(file);
    std::string bytes = sound;
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    folder.write(file, bytes);
    const std::string found = findingsOf(path());
    folder.write(file, sound);
    return found;
  }
  static bool has(const std::string& findings, const std::string& what) {
    return findings.find(what) != std::string::npos;
  }
};

TEST_P(SpoiltPlaceholder, IsBelievedOnlyIfItsSlotLeadsThere) {
  const std::uint64_t id = objectAt(4) + 2;
  for (const std::uint32_t other : {2u, 3u}) {
    const std::string found = findingsWith("T.zlt", id, other);
    EXPECT_TRUE(
        has(found, "slot of object " + std::to_string(other) + " does not lead to its record"))
        << found;
    EXPECT_TRUE(has(found, "index 0: object 4 has no such key")) << found;
  }
  EXPECT_TRUE(has(findingsWith("T.zlt", id, 700u), "object of impossible ID 700"));
}

TEST_P(SpoiltPlaceholder, ExplainsNoKeyButItsOwn) {
  // The keys 10, 22, 30 and 44 stand one after the other in the only leaf.
  constexpr std::uint64_t kThird = 1024 + 24 + 2 * 4;
  ASSERT_EQ(numberAt<std::uint32_t>(folder.bytes("T.zli"), kThird + 4), 44u);
  const std::string found = findingsWith("T.zli", kThird + 4, 45u);
  EXPECT_TRUE(has(found, "index 0: object 4 has no such key")) << found;
  EXPECT_TRUE(has(found, "index 0: key of object 4 is missing")) << found;
}

TEST_P(SpoiltPlaceholder, NeedsTheMarkOfItsTransactionAndTheEntryInTheLog) {
  const std::string table = folder.bytes("T.zlt");
  const std::uint64_t mark = numberAt<std::uint32_t>(table, 8) + 12 * 4 + 8;
  EXPECT_TRUE(has(findingsWith("T.zlt", mark, 0u), "content of object 4 is in no entry"));
  const std::string log = folder.bytes("shop.zll");
  const auto entry = numberAt<std::uint64_t>(log, numberAt<std::uint64_t>(log, 8) + 112);
  const std::string found = findingsWith("shop.zll", entry + 16, 0u);
  EXPECT_TRUE(has(found, "content of object 2 is in no entry")) << found;
  EXPECT_TRUE(has(found, "content of object 4 is in no entry")) << found;
}

/// The index file is gone, and the build of a new one stops at the first placeholder.
class PlaceholderWithoutIndex : public Placeholder {
 protected:
  void SetUp() override {
    Placeholder::SetUp();
    ASSERT_TRUE(std::filesystem::remove(folder.path() / "T.zli"));
  }
};

TEST_P(PlaceholderWithoutIndex, GetsItsContentWhenAWriterReadsByKey) {
  ASSERT_DONE(writer.db, writer.readKey(22, kNoWait));
  EXPECT_EQ(writer.object.objectID, 2);
  EXPECT_EQ(writer.number(), 22u);
  ASSERT_DONE(writer.db, writer.readKey(44, kNoWait));
  EXPECT_EQ(writer.readKey(20, kNoWait), ownCode(32));
}

TEST_P(PlaceholderWithoutIndex, GetsItsContentWhenAWriterReadsByKeyWithoutLock) {
  ASSERT_DONE(writer.db, writer.readKey(44, kNoWait | kNoLock));
  EXPECT_EQ(writer.object.objectID, 4);
  EXPECT_EQ(writer.number(), 44u);
}

TEST_P(PlaceholderWithoutIndex, GetsItsContentWhenAWriterDeletesByKey) {
  ASSERT_DONE(writer.db, writer.eraseKey(22, kNoWait));
  EXPECT_EQ(writer.object.objectID, 2);
  EXPECT_EQ(writer.number(), 22u);
  ASSERT_DONE(writer.db, writer.db.CommitTransaction(true));
}

std::string nameOfTable(const ::testing::TestParamInfo<bool>& variable) {
  return variable.param ? "variable" : "fixed";
}
INSTANTIATE_TEST_SUITE_P(Tables, Placeholder, ::testing::Bool(), nameOfTable);
INSTANTIATE_TEST_SUITE_P(Tables, SpoiltPlaceholder, ::testing::Bool(), nameOfTable);
INSTANTIATE_TEST_SUITE_P(Tables, PlaceholderWithoutIndex, ::testing::Bool(), nameOfTable);

}  // namespace
}  // namespace zelta::testing

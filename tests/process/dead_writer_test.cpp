// Processes that die in a transaction, and what the next one finds.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>

#include "czelta.h"
#include "support/check_database.h"
#include "support/storage_fixture.h"

namespace {

constexpr unsigned kTable = 1;
constexpr unsigned kTimeout = 20000;

/// A database in a folder of its own, with one table of a number and a unique name.
class DeadWriter : public ::testing::Test {
 protected:
  void SetUp() override {
    inChild([this](CZELTA& db) {
      CZELTA::Schema::Field fields[] = {{CZELTA::TypeInt32, 0, 0, 0, u"number", nullptr},
                                        {CZELTA::TypeText, 0, 16, 0, u"name", nullptr}};
      CZELTA::Schema::Segment segment[] = {{1, 0}};
      CZELTA::Schema::Index index[1] = {};
      index[0].segmentCount = 1;
      index[0].segments = segment;
      CZELTA::Schema schema = {0, 1, 0, 0, 2, 0, u"things", nullptr, fields, index};
      return db.CreateDatabase(path().c_str()) == 0 &&
             db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout) == 0 &&
             db.CreateTable(&schema, nullptr) == 0 && db.EndTransaction() == 0;
    });
  }
  void TearDown() override { EXPECT_EQ(zelta::testing::findingsOf(path()), ""); }

  std::u16string path() const { return folder_.file("db.zlc"); }

  /// Runs work in a process of its own, which must return true.
  void inChild(const std::function<bool(CZELTA&)>& work) {
    const pid_t child = fork();
    if (child == 0) {
      bool done = false;
      {
        CZELTA db;
        done = work(db);
      }
      _exit(done ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  /// Runs work in a process that is killed behind it, with all that it holds.
  void inVictim(const std::function<bool(CZELTA&)>& work) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      CZELTA db;
      const char mark = work(db) ? 'y' : 'n';
      if (write(ready[1], &mark, 1) != 1) _exit(1);
      for (;;) pause();
    }
    char mark = 0;
    ASSERT_EQ(read(ready[0], &mark, 1), 1);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
    ASSERT_EQ(mark, 'y');
  }

  bool open(CZELTA& db) { return db.OpenDatabase(path().c_str()) == 0; }
  static bool begin(CZELTA& db, CZELTA::Mode mode = CZELTA::TransactionShared) {
    return db.BeginTransaction(mode, kTimeout) == 0 && db.OpenTable(kTable) == 0;
  }
  static unsigned long long add(CZELTA& db, const char* name) {
    CZELTA::Object object;
    if (const auto failure = db.NewObject(kTable, &object, 0); failure != 0) return failure;
    if (const auto failure = db.PutVariableValues(kTable, name, 0, 0, 1, &object); failure != 0) {
      return failure;
    }
    return db.AddObject(kTable, &object, 0);
  }
  static bool has(CZELTA& db, const char* name) {
    return db.ReadObject(kTable, CZELTA::ReadEqual, nullptr, 1, name, nullptr) == 0;
  }

  zelta::testing::FreshFolder folder_;
};

TEST_F(DeadWriter, LeavesNothingBehindWhenItHadNotCommitted) {
  inChild([this](CZELTA& db) {
    return open(db) && begin(db) && add(db, "kept") == 0 && db.CommitTransaction(true) == 0;
  });
  // Somebody keeps the database open, so that no first opener repairs.
  int stop[2];
  ASSERT_EQ(pipe(stop), 0);
  int opened[2];
  ASSERT_EQ(pipe(opened), 0);
  const pid_t keeper = fork();
  if (keeper == 0) {
    CZELTA db;
    char byte = open(db) ? 'y' : 'n';
    if (write(opened[1], &byte, 1) != 1) _exit(1);
    _exit(read(stop[0], &byte, 1) == 1 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(opened[0], &byte, 1), 1);
  ASSERT_EQ(byte, 'y');

  inVictim([this](CZELTA& db) { return open(db) && begin(db) && add(db, "lost") == 0; });
  inChild([this](CZELTA& db) {
    return open(db) && begin(db) && has(db, "kept") && !has(db, "lost") && add(db, "lost") == 0 &&
           db.CommitTransaction(true) == 0 && has(db, "lost");
  });
  ASSERT_EQ(write(stop[1], "x", 1), 1);
  waitpid(keeper, nullptr, 0);
}

TEST_F(DeadWriter, IsClearedAwayByTheFirstOpener) {
  inVictim([this](CZELTA& db) { return open(db) && begin(db) && add(db, "lost") == 0; });
  inVictim([this](CZELTA& db) {
    return open(db) && db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout) == 0;
  });
  inChild([this](CZELTA& db) {
    return open(db) && begin(db) && !has(db, "lost") && add(db, "next") == 0 &&
           db.CommitTransaction(true) == 0;
  });
}

TEST_F(DeadWriter, WithTheNumberOfAnEntryThatWasAppliedLongAgoHarmsNothing) {
  inChild([this](CZELTA& db) {
    return open(db) && db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout) == 0 &&
           db.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1) == 0 &&
           db.EndTransaction() == 0 && begin(db) && add(db, "first") == 0 &&
           db.CommitTransaction(true) == 0 && db.EndTransaction() == 0 &&
           db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout) == 0;
  });
  // After an exclusive transaction the numbers begin again.
  inVictim([this](CZELTA& db) { return open(db) && begin(db) && add(db, "lost") == 0; });
  inChild([this](CZELTA& db) {
    return open(db) && begin(db) && has(db, "first") && !has(db, "lost") &&
           add(db, "second") == 0 && db.CommitTransaction(true) == 0;
  });
  inChild([this](CZELTA& db) {
    return open(db) && begin(db, CZELTA::TransactionRead) && has(db, "first") && has(db, "second");
  });
}

/// With the entry of the first commit still in the log, and without it.
TEST_F(DeadWriter, LosesOnlyWhatCameBehindItsLastCommit) {
  for (const bool keepsLogs : {false, true}) {
    inChild([&](CZELTA& db) {
      return open(db) && db.BeginTransaction(CZELTA::TransactionExclusive, kTimeout) == 0 &&
             db.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, keepsLogs ? 1 : 0) == 0 &&
             db.EndTransaction() == 0;
    });
    const std::string kept = keepsLogs ? "kept, logged" : "kept";
    const std::string more = kept + " as well";
    // The one that stays begins after the death, and is not the first opener.
    CZELTA keeper;
    ASSERT_TRUE(open(keeper));
    inVictim([&](CZELTA& db) {
      CZELTA::Object object;
      return open(db) && begin(db) && add(db, kept.c_str()) == 0 && add(db, more.c_str()) == 0 &&
             db.CommitTransaction(false) == 0 &&
             db.DeleteObject(kTable, CZELTA::ReadEqual, &object, 1, kept.c_str(), nullptr) == 0 &&
             db.ReadObject(kTable, CZELTA::ReadEqual, &object, 1, more.c_str(), nullptr) == 0 &&
             db.PutVariableValues(kTable, "lost", 0, 0, 1, &object) == 0 &&
             db.RewriteObject(kTable, nullptr) == 0 && add(db, "lost as well") == 0;
    });
    // It has cleared the keys away when it begins, before it meets an object of the dead one.
    ASSERT_TRUE(begin(keeper));
    EXPECT_EQ(add(keeper, "lost"), 0u);
    EXPECT_EQ(add(keeper, "lost as well"), 0u);
    EXPECT_EQ(keeper.AbortTransaction(true), 0u);
    EXPECT_TRUE(has(keeper, kept.c_str()));
    EXPECT_TRUE(has(keeper, more.c_str()));
    EXPECT_FALSE(has(keeper, "lost"));
    EXPECT_FALSE(has(keeper, "lost as well"));
    EXPECT_EQ(keeper.EndTransaction(), 0u);
  }
}

TEST_F(DeadWriter, SeveralProcessesAddSideBySideWithUniqueKeys) {
  constexpr int kWriters = 3;
  constexpr int kEach = 60;
  pid_t writers[kWriters];
  for (int w = 0; w < kWriters; ++w) {
    writers[w] = fork();
    if (writers[w] != 0) continue;
    CZELTA db;
    bool good = open(db);
    for (int i = 0; good && i < kEach; ++i) {
      const std::string own = "w" + std::to_string(w) + "-" + std::to_string(i);
      const std::string shared = "shared-" + std::to_string(i);
      good = begin(db) && add(db, own.c_str()) == 0;
      const auto result = good ? add(db, shared.c_str()) : 0;
      constexpr unsigned long long kExists = 0x100000025;
      good = good && (result == 0 || result == kExists) && db.CommitTransaction(true) == 0 &&
             db.EndTransaction() == 0;
    }
    _exit(good ? 0 : 1);
  }
  for (const pid_t writer : writers) {
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  inChild([this](CZELTA& db) {
    if (!open(db) || !begin(db, CZELTA::TransactionRead)) return false;
    int count = 0;
    std::string last;
    CZELTA::Object object;
    for (auto mode = CZELTA::ReadFirst;
         db.ReadObject(kTable, mode, &object, 1, nullptr, nullptr) == 0; mode = CZELTA::ReadNext) {
      const std::string name = static_cast<char*>(object.variableData);
      if (name <= last) return false;
      last = name;
      ++count;
    }
    return count == kWriters * kEach + kEach;
  });
}

}  // namespace

// Memory that runs out anywhere in a transaction: what is reported as done lasts, what is reported
// as failed leaves nothing.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <new>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"
#include "support/sanitized.h"

namespace {

/// Allocations of this thread that may still be made; the next one fails, or all from it on.
/// Negative: no limit.
thread_local long allocationsLeft = -1;
thread_local bool allFail = false;
thread_local bool failed = false;

bool mayAllocate() {
  if (allocationsLeft < 0) return true;
  if (allocationsLeft > 0) {
    --allocationsLeft;
    return true;
  }
  failed = true;
  if (!allFail) allocationsLeft = -1;
  return false;
}

}  // namespace

#if defined(__GLIBC__) && !ZELTA_TEST_SANITIZED
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* malloc(std::size_t size) { return mayAllocate() ? __libc_malloc(size) : nullptr; }
void* calloc(std::size_t count, std::size_t size) {
  return mayAllocate() ? __libc_calloc(count, size) : nullptr;
}
}
#else
#include "support/replaced_new.h"
#endif

namespace zelta::testing {
namespace {

/// Lets memory run out in an operation.
template <class Work>
unsigned long long starved(long allocations, bool all, const Work& work, bool* met) {
  failed = false;
  allFail = all;
  allocationsLeft = allocations;
  const unsigned long long word = work();
  allocationsLeft = -1;
  *met = failed;
  return word;
}

class ExhaustedMemory : public DatabaseTest {
 protected:
  using Numbers = std::map<std::int64_t, std::uint32_t>;

  void SetUp() override {
    CZELTA creator;
    ASSERT_DONE(creator, creator.CreateDatabase(path().c_str()));
    ASSERT_DONE(creator, creator.BeginTransaction(CZELTA::TransactionExclusive, 10000));
    const SchemaRecords records(
        {{CZELTA::TypeUInt32}, {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}}},
        {{Segments{{2, 0}, {CZELTA::ObjectIdSegment, 0}}}, {Segments{{0, 0}}}}, 0);
    ASSERT_DONE(creator, creator.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(creator, creator.EndTransaction());
    ASSERT_DONE(creator, creator.CloseDatabase());
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  }

  /// An operation on the object at hand: the words of all its calls, the first that failed.
  unsigned long long add(std::uint32_t number) {
    CZELTA::Object object;
    if (const auto word = handle.NewObject(1, &object, 0); word != 0) return word;
    std::memcpy(object.data, &number, 4);
    const std::uint32_t rows[3] = {sizeof rows, number, number + 1};  // length, two rows
    const auto word = handle.PutVariableValues(1, rows, sizeof rows, 0, 1, &object);
    return word != 0 ? word : handle.AddObject(1, nullptr, 0);
  }
  unsigned long long find(std::uint32_t number, CZELTA::Object* object) {
    return handle.ReadObject(1, CZELTA::ReadEqual, object, 2, &number, nullptr);
  }
  unsigned long long rewrite(std::uint32_t from, std::uint32_t to) {
    CZELTA::Object object;
    if (const auto word = find(from, &object); word != 0) return word;
    std::memcpy(object.data, &to, 4);
    return handle.RewriteObject(1, nullptr);
  }
  unsigned long long erase(std::uint32_t number) {
    return handle.DeleteObject(1, CZELTA::ReadEqual, nullptr, 2, &number, nullptr);
  }
  /// The objects by ID; by their numbers there must be the same.
  std::multiset<std::uint32_t> numbers() {
    std::multiset<std::uint32_t> all[2];
    for (const unsigned index : {0u, 2u}) {
      CZELTA::Mode mode = CZELTA::ReadFirst;
      CZELTA::Object object;
      while (handle.ReadObject(1, mode, &object, index, nullptr, nullptr) == 0) {
        std::uint32_t number = 0;
        std::memcpy(&number, object.data, 4);
        all[index / 2].insert(number);
        mode = CZELTA::ReadNext;
      }
    }
    EXPECT_EQ(all[0], all[1]);
    return all[0];
  }
  void begin() {
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
  }
  void makeObjects() {
    begin();
    for (std::uint32_t i = 0; i < 60; ++i) ASSERT_DONE(handle, add(i));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.EndTransaction());
    for (std::uint32_t i = 0; i < 60; ++i) model.insert(i);
  }
  /// One round of work in a transaction, with the given step starved: whether it noticed.
  bool round(int starvedStep, long allocations, bool all);

  CZELTA handle;
  std::multiset<std::uint32_t> model;
  std::uint32_t next = 1000;
};

bool ExhaustedMemory::round(int starvedStep, long allocations, bool all) {
  bool met = false;
  int step = 0;
  const auto run = [&](const auto& work) {
    if (step++ != starvedStep) return work();
    const unsigned long long word = starved(allocations, all, work, &met);
    EXPECT_TRUE(word == 0 || word == systemCode(8)) << std::hex << word << messageOf(handle);
    EXPECT_TRUE(word == 0 || met);
    return word;
  };
  bool over = false;
  bool commitStarved = false;
  /// A step that failed is done again. Behind a commit that could not be carried out the
  /// transaction can only be ended.
  const auto must = [&](const auto& work) {
    if (over || run(work) == 0 || work() == 0) return;
    EXPECT_TRUE(commitStarved) << "step " << step << ": " << messageOf(handle);
    over = true;
  };
  const std::uint32_t first = *model.begin();
  const std::uint32_t second = *std::next(model.begin());
  std::multiset<std::uint32_t> wanted = model;
  const auto commit = [&](bool release) {
    if (over) return;
    commitStarved = commitStarved || step == starvedStep;
    if (run([&] { return handle.CommitTransaction(release); }) != 0) {
      // Either it stands, or it is over and nothing of it is left.
      const auto again = handle.CommitTransaction(release);
      over = again != 0;
      EXPECT_TRUE(!over || again == ownCode(3) || (all && again == ownCode(58)) ||
                  (commitStarved && again == systemCode(code::kDeviceError)))
          << std::hex << again;
    }
    if (!over) model = wanted;
  };
  must([&] { return handle.BeginTransaction(CZELTA::TransactionShared, 10000); });
  must([&] { return handle.OpenTable(1); });
  must([&] { return rewrite(first, next); });
  must([&] { return erase(second); });
  must([&] { return add(second); });
  must([&] { return add(next + 1); });
  wanted.erase(first);
  wanted.insert(next);
  wanted.insert(next + 1);
  commit(false);
  must([&] { return erase(next + 1); });
  must([&] { return handle.RestoreObject(1, 0, false); });
  must([&] { return rewrite(next + 1, next + 2); });
  must([&] { return handle.AbortTransaction(false); });
  must([&] { return erase(next + 1); });
  wanted.erase(next + 1);
  commit(true);
  must([&] { return add(next + 3); });
  if (run([&] { return handle.EndTransaction(); }) != 0) {
    EXPECT_DONE(handle, handle.EndTransaction());
  }
  next += 4;
  begin();
  EXPECT_EQ(numbers(), model);
  EXPECT_DONE(handle, handle.EndTransaction());
  return met;
}

TEST_F(ExhaustedMemory, LeavesWhatIsReportedDoneAndNothingElse) {
  makeObjects();
  for (const bool all : {false, true}) {
    for (int step = 0; step < 15; ++step) {
      bool met = true;
      for (long n = 0; met; ++n) {
        SCOPED_TRACE("step " + std::to_string(step) + " allocation " + std::to_string(n) +
                     (all ? " and all later" : ""));
        met = round(step, n, all);
        if (HasFailure()) return;
      }
    }
  }
  ASSERT_DONE(handle, handle.CloseDatabase());
  expectClean(folder, "shop.zlc");
}

TEST_F(ExhaustedMemory, LeavesNoFileOfADatabaseThatCouldNotBeMade) {
  const std::u16string name = folder.file("new.zlc");
  for (const bool all : {false, true}) {
    bool met = true;
    for (long n = 0; met; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (all ? " and all later" : ""));
      CZELTA creator;
      const auto word = starved(
          n, all, [&] { return creator.CreateDatabase(name.c_str()); }, &met);
      EXPECT_TRUE(word == 0 || (met && word == systemCode(8))) << std::hex << word;
      ASSERT_EQ(folder.has("new.zlc"), word == 0);
      if (word != 0) continue;
      ASSERT_DONE(creator, creator.CloseDatabase());
      std::filesystem::remove(folder.path() / "new.zlc");
    }
  }
}

TEST_F(ExhaustedMemory, LeavesDatabasesAndTablesWholeOrAbsent) {
  makeObjects();
  ASSERT_DONE(handle, handle.CloseDatabase());
  SmallSchema small(u"small", 7);
  const std::u16string name = path();
  for (const bool all : {false, true}) {
    for (int starvedStep = 0; starvedStep < 9; ++starvedStep) {
      bool met = true;
      for (long n = 0; met; ++n) {
        SCOPED_TRACE("step " + std::to_string(starvedStep) + " allocation " + std::to_string(n) +
                     (all ? " and all later" : ""));
        met = false;
        int step = 0;
        const auto must = [&](const auto& work, unsigned done = 0) {
          if (step++ == starvedStep) {
            const unsigned long long word = starved(n, all, work, &met);
            EXPECT_TRUE(word == 0 || (met && word == systemCode(8)))
                << std::hex << word << messageOf(handle);
            if (word == 0) return;
          }
          const unsigned long long again = work();
          EXPECT_TRUE(again == 0 || (done != 0 && met && again == ownCode(done)))
              << "step " << step << std::hex << again << messageOf(handle);
        };
        must([&] { return handle.OpenDatabase(name.c_str()); });
        must([&] { return handle.BeginTransaction(CZELTA::TransactionExclusive, 1000); });
        // A change of the directory whose second phase stands is finished by whoever comes next.
        must([&] { return handle.CreateTable(&small.schema, nullptr); }, 10);
        must([&] { return handle.OpenTable(7); });
        must([&] { return handle.OpenTable(1); });
        must([&] {
          const std::uint32_t number = 3;
          CZELTA::Object object;
          return handle.ReadObject(1, CZELTA::ReadEqual, &object, 2, &number, nullptr);
        });
        must([&] { return handle.RemoveTable(7, true); }, 10);
        must([&] { return handle.EndTransaction(); });
        must([&] { return handle.CloseDatabase(); });
        if (HasFailure()) return;
      }
    }
  }
  expectClean(folder, "shop.zlc");
}

}  // namespace
}  // namespace zelta::testing

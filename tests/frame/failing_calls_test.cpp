// Calls of the system that fail while a database is opened, listed and changed: each failure is
// told as it is, and whoever comes next finds the database whole.

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "frame/directory_fixture.h"

namespace zelta::testing {
namespace {

using Work = std::function<unsigned long long(CZELTA&)>;

/// Lets one call fail, or that one and all later ones, or those of them that go to the control
/// file. Unlocking is left alone: nobody could go on where a lock stays for ever.
class FailingSystem : public platform::faults::Hook {
 public:
  enum class Kind { one, all, control };
  static constexpr SystemCode kCode = code::kDeviceError;

  FailingSystem(std::uint64_t calls, Kind kind) : left_(calls), kind_(kind) {
    platform::faults::install(this);
  }
  ~FailingSystem() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    if (event.call == Call::mutexRelease || event.call == Call::unlock) return verdict;
    if (kind_ == Kind::control && event.name.find(".zlc") == std::string::npos) return verdict;
    if (struck && kind_ == Kind::one) return verdict;
    if (left_ != 0) {
      --left_;
      return verdict;
    }
    struck = true;
    verdict.code = kCode;
    return verdict;
  }
  bool struck = false;

 private:
  std::uint64_t left_;
  Kind kind_;
};

class FailingCalls : public DirectoryChangeTest {
 protected:
  /// Does `work` on a handle that `prepare` was done on, with a failure one call later each time.
  void failEverywhere(const Work& prepare, const Work& work) {
    using Kind = FailingSystem::Kind;
    const State before = state();
    for (const Kind kind : {Kind::one, Kind::all, Kind::control}) {
      bool struck = true;
      for (std::uint64_t calls = 0; struck; ++calls) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(kind)) + ", after " +
                     std::to_string(calls) + " calls");
        ASSERT_LT(calls, 100u);
        restore(before);
        CZELTA own;
        ASSERT_DONE(own, prepare(own));
        {
          const FailingSystem failing(calls, kind);
          const unsigned long long result = work(own);
          struck = failing.struck;
          EXPECT_TRUE(result == 0 || (struck && result == systemCode(FailingSystem::kCode)))
              << std::hex << result << " " << messageOf(own);
          own.CloseDatabase();
        }
        ASSERT_NO_FATAL_FAILURE(expectWhole());
      }
    }
  }

  /// The next one repairs what there is to repair, and every table that is named can be opened.
  void expectWhole() {
    ASSERT_NO_FATAL_FAILURE(repair());
    ASSERT_NO_FATAL_FAILURE(expectAtRest());
    std::vector<unsigned int> ids;
    for (const RawEntry& entry : RawControl(control()).entries) ids.push_back(entry.id);
    expectUsable(ids);
  }

  Work opening() {
    return [this](CZELTA& own) { return own.OpenDatabase(path().c_str()); };
  }
  Work beginning(CZELTA::Mode mode) {
    return [this, mode](CZELTA& own) {
      const auto failure = own.OpenDatabase(path().c_str());
      return failure != 0 ? failure : own.BeginTransaction(mode, 10000);
    };
  }
  static unsigned long long nothing(CZELTA& /*own*/) { return 0; }
};

TEST_F(FailingCalls, OfAnOpening) { failEverywhere(nothing, opening()); }

TEST_F(FailingCalls, OfAnOpeningThatClearsTheDead) {
  patch(word(16), words({5, 1, 0, 0, 9, 1}));
  failEverywhere(nothing, opening());
}

TEST_F(FailingCalls, OfAnOpeningThatClearsADeadExclusiveTransaction) {
  patch(36, words({1}));
  failEverywhere(nothing, opening());
}

TEST_F(FailingCalls, OfAnOpeningThatFinishesAChange) {
  const State before = state();
  for (const std::uint64_t calls : {1u, 7u}) {
    restore(before);
    ChildProcess maker([&](const ChildProcess::Line&) {
      CZELTA own;
      if (beginning(CZELTA::TransactionExclusive)(own) != 0) return 1;
      SmallSchema small(u"mid", 9);
      const DieAt die(calls);
      own.CreateTable(&small.schema, nullptr);
      return 2;
    });
    ASSERT_EQ(maker.wait(), kKilled);
    ASSERT_NO_FATAL_FAILURE(failEverywhere(nothing, opening()));
  }
}

TEST_F(FailingCalls, OfBegins) {
  for (const CZELTA::Mode mode : {CZELTA::TransactionExclusive, CZELTA::TransactionShared,
                                  CZELTA::TransactionExclusiveRead}) {
    SCOPED_TRACE(mode);
    failEverywhere(opening(), [&](CZELTA& own) { return own.BeginTransaction(mode, 100); });
  }
}

TEST_F(FailingCalls, OfLists) {
  for (const CZELTA::Mode mode : {CZELTA::TransactionRead, CZELTA::TransactionShared}) {
    SCOPED_TRACE(mode);
    failEverywhere(beginning(mode), [](CZELTA& own) {
      CZELTA::DatabaseMember members[8];
      unsigned int size = 0;
      return own.GetDatabaseMembers(members, &size);
    });
    failEverywhere(beginning(mode), [](CZELTA& own) {
      long long value = 0;
      return own.GetDatabaseParameter(CZELTA::ParameterLogFileSize, &value);
    });
  }
}

TEST_F(FailingCalls, OfSettings) {
  for (const CZELTA::Parameter parameter :
       {CZELTA::ParameterKeepLogFiles, CZELTA::ParameterLogRetention}) {
    failEverywhere(beginning(CZELTA::TransactionExclusive),
                   [parameter](CZELTA& own) { return own.SetDatabaseParameter(parameter, 1); });
  }
}

TEST_F(FailingCalls, OfCreations) {
  failEverywhere(beginning(CZELTA::TransactionExclusive), [](CZELTA& own) {
    SmallSchema small(u"mid", 9);
    return own.CreateTable(&small.schema, nullptr);
  });
}

TEST_F(FailingCalls, OfRemovals) {
  const State before = state();
  for (const bool files : {false, true}) {
    restore(before);
    failEverywhere(beginning(CZELTA::TransactionExclusive),
                   [files](CZELTA& own) { return own.RemoveTable(1, files); });
  }
}

/// Fails calls of one kind on names that end so, with codes of their own.
class FailingNames : public platform::faults::Hook {
 public:
  struct Rule {
    platform::faults::Call call;
    std::string ending;
    SystemCode failure;
  };
  explicit FailingNames(std::vector<Rule> rules) : rules_(std::move(rules)) {
    platform::faults::install(this);
  }
  ~FailingNames() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    for (const Rule& rule : rules_) {
      const std::size_t length = rule.ending.size();
      if (event.call != rule.call || event.name.size() < length ||
          event.name.compare(event.name.size() - length, length, rule.ending) != 0) {
        continue;
      }
      verdict.code = rule.failure;
    }
    return verdict;
  }

 private:
  std::vector<Rule> rules_;
};

using platform::faults::Call;

TEST_F(FailingCalls, OfAMutexThatIsGivenBackFailAnOpening) {
  const auto releaseLeft = [this](const char16_t* file) {
    platform::Mutex mutex = platform::Mutex::none;
    const std::u16string name = u"Global\\" + folder.file("shop") + file;
    const bool there = folder.has("shop.zlc");
    const OpenedLockFile locks(folder);
    if (!there) std::filesystem::remove(folder.path() / "shop.zlc");
    ASSERT_EQ(platform::createMutex(locks, name.c_str(), &mutex), 0u);
    // Where a mutex goes with its last handle, nothing is left of it.
    static_cast<void>(platform::releaseMutex(mutex));
    platform::closeMutex(mutex);
  };
  {
    const FailingNames failing({{Call::mutexRelease, ".zlc", code::kNotOwner}});
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), systemCode(288));
    EXPECT_EQ(messageOf(handle), "Attempt to release mutex not owned by caller.");
  }
  releaseLeft(u".zlc");
  EXPECT_EQ(handle.BeginTransaction(CZELTA::TransactionRead, 0), ownCode(3)) << "it is closed";
  restore({});
  {
    const FailingNames failing({{Call::mutexRelease, ".zll", code::kNotOwner}});
    EXPECT_EQ(handle.CreateDatabase(path().c_str()), systemCode(288));
  }
  releaseLeft(u".zll");
  EXPECT_FALSE(folder.has("shop.zlc"));
}

TEST_F(FailingCalls, BehindAFirstOneLeaveItsText) {
  ASSERT_DONE(handle, beginning(CZELTA::TransactionExclusive)(handle));
  const FailingNames failing(
      {{Call::write, "mid.zlt", code::kDiskFull}, {Call::truncate, ".zlc", code::kDeviceError}});
  SmallSchema small(u"mid", 9);
  EXPECT_EQ(handle.CreateTable(&small.schema, nullptr), systemCode(112));
  EXPECT_EQ(messageOf(handle), "There is not enough space on the disk to complete the operation.");
}

TEST_F(FailingCalls, OfSeveralTablesInAnAbortTellOfTheFirst) {
  ASSERT_DONE(handle, beginning(CZELTA::TransactionShared)(handle));
  for (const unsigned int table : {1u, 2u}) {
    CZELTA::Object object{};
    ASSERT_DONE(handle, handle.OpenTable(table));
    ASSERT_DONE(handle, handle.NewObject(table, &object, 0));
    ASSERT_DONE(handle, handle.AddObject(table, &object, 0));
  }
  {
    const FailingNames failing({{Call::write, "goods.zlm", code::kDiskFull},
                                {Call::write, "sales.zlm", code::kDeviceError}});
    EXPECT_EQ(handle.AbortTransaction(true), systemCode(112));
    EXPECT_EQ(messageOf(handle),
              "There is not enough space on the disk to complete the operation.");
  }
  EXPECT_DONE(handle, handle.AbortTransaction(true));
}

}  // namespace
}  // namespace zelta::testing

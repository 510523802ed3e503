// A commit that is decided, has reached the index and not the table, beside reads by key: its
// transaction lives on for a while.

#include <chrono>

#include "platform/clock.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

/// Fails all changes of table files.
class TablesFail : public platform::faults::Hook {
 public:
  TablesFail() { platform::faults::install(this); }
  ~TablesFail() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    const bool ours = event.name.size() > 4 && event.name.substr(event.name.size() - 4) == ".zlt";
    if (ours && changesFiles(event.call)) verdict.code = code::kDeviceError;
    return verdict;
  }
};

class DecidedCommit : public DatabaseTest, public ::testing::WithParamInterface<bool> {
 protected:
  static constexpr std::uint32_t kKept = 1;
  static constexpr std::uint32_t kDecided = 2;

  static unsigned long long add(CZELTA& handle, std::uint32_t number) {
    CZELTA::Object object;
    if (const auto result = handle.NewObject(1, &object, 0); result != 0) return result;
    std::memcpy(object.data, &number, 4);
    return handle.AddObject(1, nullptr, 0);
  }
  unsigned long long begin(CZELTA& handle, CZELTA::Mode mode) const {
    if (const auto result = handle.OpenDatabase(path().c_str()); result != 0) return result;
    if (const auto result = handle.BeginTransaction(mode, 10000); result != 0) return result;
    return handle.OpenTable(1);
  }
  static unsigned long long read(CZELTA& handle, std::uint32_t number, std::uint32_t flags = 0) {
    CZELTA::Object object;
    const auto mode = static_cast<CZELTA::Mode>(CZELTA::ReadEqual | flags);
    return handle.ReadObject(1, mode, &object, 1, &number, nullptr);
  }
  void SetUp() override {
    makeShop();
    CZELTA handle;
    if (GetParam()) {
      ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
      ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
      ASSERT_DONE(handle, handle.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
      ASSERT_DONE(handle, handle.CloseDatabase());
    }
    ASSERT_DONE(handle, begin(handle, CZELTA::TransactionShared));
    ASSERT_DONE(handle, add(handle, kKept));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
  }
  /// Commits, and ends its transaction some time after it is told to.
  int commit(const ChildProcess::Line& line) const {
    CZELTA handle;
    if (begin(handle, CZELTA::TransactionShared) != 0 || add(handle, kDecided) != 0) return 1;
    {
      const TablesFail fault;
      if (handle.CommitTransaction(true) != 0) return 2;
    }
    line.say('c');
    if (line.hear() != 'e') return 3;
    platform::sleepMilliseconds(300);
    return handle.EndTransaction() == 0 ? 0 : 4;
  }
};

TEST_P(DecidedCommit, IsWaitedForAsAnyThatIsLocked) {
  CZELTA handle;
  ASSERT_DONE(handle, begin(handle, CZELTA::TransactionShared));
  ChildProcess other([this](const ChildProcess::Line& line) { return commit(line); });
  ASSERT_TRUE(other.hears('c'));
  EXPECT_DONE(handle, read(handle, kKept));
  EXPECT_EQ(read(handle, kDecided, CZELTA::ReadNoWait), ownCode(67));
  EXPECT_EQ(messageOf(handle).substr(0, 34), "Unable to gain lock on transaction");
  EXPECT_EQ(read(handle, kDecided, CZELTA::ReadShortWait), ownCode(67));
  other.tell('e');
  EXPECT_DONE(handle, read(handle, kDecided)) << "its transaction has ended meanwhile";
  EXPECT_EQ(other.wait(), 0);
  EXPECT_DONE(handle, handle.EndTransaction());
}

TEST_P(DecidedCommit, IsWaitedForByAReaderUntilSomebodyCarriesItOut) {
  CZELTA handle;
  ASSERT_DONE(handle, begin(handle, CZELTA::TransactionRead));
  ChildProcess other([this](const ChildProcess::Line& line) {
    const int end = commit(line);
    CZELTA next;  // carries it out
    return end != 0 ? end : begin(next, CZELTA::TransactionShared) == 0 ? 0 : 5;
  });
  ASSERT_TRUE(other.hears('c'));
  EXPECT_EQ(read(handle, kDecided, CZELTA::ReadNoWait), ownCode(67));
  other.tell('e');
  EXPECT_DONE(handle, read(handle, kDecided));
  EXPECT_EQ(other.wait(), 0);
  EXPECT_DONE(handle, handle.EndTransaction());
}

/// An index whose key leads nowhere, though nobody is about to bring an object.
TEST_P(DecidedCommit, IsNoExcuseForADamagedIndex) {
  {
    CZELTA handle;
    ASSERT_DONE(handle, begin(handle, CZELTA::TransactionShared));
    const std::string before = folder.bytes("goods.zlt");
    ASSERT_DONE(handle, add(handle, kDecided));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.CloseDatabase());
    folder.write("goods.zlt", before);
  }
  CZELTA other;
  ASSERT_DONE(other, begin(other, CZELTA::TransactionShared));
  ASSERT_DONE(other, add(other, 7));
  CZELTA handle;
  ASSERT_DONE(handle, begin(handle, CZELTA::TransactionShared));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(read(handle, kDecided), ownCode(44));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << "at once";
  EXPECT_EQ(messageOf(handle).substr(0, 24), "Index 1 of table \"goods\"");
}

INSTANTIATE_TEST_SUITE_P(Log, DecidedCommit, ::testing::Bool(),
                         [](const auto& state) { return state.param ? "Kept" : "Single"; });

}  // namespace
}  // namespace zelta::testing

// Creating, opening and closing databases.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

namespace fs = std::filesystem;

class Lifecycle : public DatabaseTest {
 protected:
  [[nodiscard]] std::string name(const std::string& file) const {
    return (folder.path() / file).string();
  }
};

std::u16string wide(const std::string& text) { return {text.begin(), text.end()}; }

TEST_F(Lifecycle, TheReleaseIsFourNumbers) { EXPECT_EQ(CZELTA::Version(), 0x4000500090000u); }

TEST_F(Lifecycle, TheHandleIsTwoWords) { EXPECT_EQ(sizeof(CZELTA), 2 * sizeof(void*)); }

TEST_F(Lifecycle, ANewDatabaseIsAHeaderAndNothingElse) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  std::string expected("ZELC\1\0\2\0", 8);
  expected += words({0, 0, 76, 0, 0, 0, 1});
  expected.resize(76, '\0');
  EXPECT_EQ(control(), expected);
  ASSERT_DONE(handle, handle.CloseDatabase());
  EXPECT_EQ(control(), expected);
}

TEST_F(Lifecycle, MissingFoldersAreMade) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase((folder.path() / "x" / "y" / "z").u16string().c_str()));
  EXPECT_TRUE(fs::is_directory(folder.path() / "x" / "y"));
  EXPECT_TRUE(folder.has("x/y/z.zlc"));
}

TEST_F(Lifecycle, BackslashesSeparateFoldersToo) {
  CZELTA handle;
  std::u16string windows = path();
  for (char16_t& c : windows) c = c == u'/' ? u'\\' : c;
  ASSERT_DONE(handle, handle.CreateDatabase(windows.c_str()));
  EXPECT_TRUE(folder.has("shop.zlc"));
}

TEST_F(Lifecycle, TheExtensionIsAppendedUnlessItIsThere) {
  const struct {
    const char* given;
    const char* made;
  } cases[] = {{"a", "a.zlc"},       {"b.zlc", "b.zlc"},       {"C.ZLC", "C.ZLC"},
               {"d.zl", "d.zl.zlc"}, {"e.zlcx", "e.zlcx.zlc"}, {"f.", "f..zlc"},
               {".zlc", ".zlc"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.given);
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(wide(name(one.given)).c_str()));
    EXPECT_TRUE(folder.has(one.made));
    ASSERT_DONE(handle, handle.CloseDatabase());
    ASSERT_DONE(handle, handle.OpenDatabase(wide(name(one.given)).c_str()));
  }
}

TEST_F(Lifecycle, OtherFilesOfADatabaseEndInLowerCase) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(wide(name("Y.ZLC")).c_str()));
  makeTable(handle, u"Goods");
  EXPECT_TRUE(folder.has("Goods.zlt"));
}

TEST_F(Lifecycle, AnExistingFileIsLeftAlone) {
  folder.write("shop.zlc", "precious");
  CZELTA handle;
  EXPECT_EQ(handle.CreateDatabase(path().c_str()), systemCode(80));
  EXPECT_EQ(messageOf(handle),
            "Unable to create \"" + name("shop.zlc") + "\",\nFile already exists.");
  EXPECT_EQ(control(), "precious");
  EXPECT_EQ(handle.BeginTransaction(CZELTA::TransactionRead, 0), ownCode(3));
}

TEST_F(Lifecycle, APathWithoutAFolderIsNotLocal) {
  CZELTA handle;
  EXPECT_EQ(handle.CreateDatabase(u"shop"), ownCode(2));
  EXPECT_EQ(messageOf(handle), "Unable to open shop.zlc.\nFile is not located on local machine.");
  EXPECT_EQ(handle.CreateDatabase(u""), ownCode(2));
  // When opening, the file is looked for first.
  EXPECT_EQ(handle.OpenDatabase(u"zelta-no-such-shop.zlc"), systemCode(2));
}

TEST_F(Lifecycle, AFileWithoutAFolderInThePathIsRefusedWhereItLies) {
  const fs::path before = fs::current_path();
  {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  }
  fs::current_path(folder.path());
  CZELTA handle;
  EXPECT_EQ(handle.OpenDatabase(u"shop.zlc"), ownCode(2));
  EXPECT_DONE(handle, handle.OpenDatabase(u".\\shop.zlc"));
  fs::current_path(before);
}

TEST_F(Lifecycle, AFileSystemOfAnotherMachineIsRefused) {
  // Nothing here mounts one; the kernel's process folder is at least no disk that can be written.
  CZELTA handle;
  EXPECT_NE(handle.CreateDatabase(u"/proc/zelta/shop.zlc"), 0u);
}

TEST_F(Lifecycle, MissingFilesAndFoldersAreToldApart) {
  CZELTA handle;
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), systemCode(2));
  EXPECT_EQ(messageOf(handle), "The system cannot find file \"" + name("shop.zlc") + "\".");
  EXPECT_EQ(handle.OpenDatabase(wide(name("none/shop")).c_str()), systemCode(3));
  EXPECT_EQ(messageOf(handle),
            "The directory path for file \"" + name("none/shop.zlc") + "\" does not exist.");
  folder.write("file", "x");
  EXPECT_EQ(handle.OpenDatabase(wide(name("file/shop")).c_str()), systemCode(3));
  EXPECT_EQ(handle.CreateDatabase(wide(name("file/sub/shop")).c_str()), systemCode(3));
}

TEST_F(Lifecycle, AnOpenHandleRefusesASecondDatabase) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  EXPECT_EQ(handle.CreateDatabase(folder.file("other.zlc").c_str()), ownCode(34));
  EXPECT_EQ(messageOf(handle), "CZELTA is already in use.");
  EXPECT_FALSE(folder.has("other.zlc"));
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(34));
  EXPECT_EQ(handle.OpenDatabase(nullptr), ownCode(7));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionRead, 0));
}

TEST_F(Lifecycle, ClosingAlwaysSucceedsAndTheHandleOpensAgain) {
  CZELTA handle;
  EXPECT_EQ(handle.CloseDatabase(), 0u);
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  for (const CZELTA::Mode mode : {CZELTA::TransactionShared, CZELTA::TransactionExclusive,
                                  CZELTA::TransactionRead, CZELTA::TransactionExclusiveRead}) {
    ASSERT_DONE(handle, handle.BeginTransaction(mode, 1000));
    EXPECT_EQ(handle.CloseDatabase(), 0u);
    EXPECT_EQ(handle.EndTransaction(), 0u);
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    EXPECT_EQ(handle.CommitTransaction(true), ownCode(3)) << "no transaction survives";
  }
}

TEST_F(Lifecycle, ClosingGivesTheExclusiveReadersMutexBack) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusiveRead, 1000));
  ASSERT_DONE(handle, handle.CloseDatabase());
  ChildProcess other([&](const ChildProcess::Line&) {
    CZELTA second;
    if (second.OpenDatabase(path().c_str()) != 0) return 1;
    return second.BeginTransaction(CZELTA::TransactionShared, 5000) == 0 ? 0 : 2;
  });
  EXPECT_EQ(other.wait(), 0);
}

TEST_F(Lifecycle, TheDestructorCloses) {
  {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  }
  CZELTA second;
  ASSERT_DONE(second, second.OpenDatabase(path().c_str()));
  EXPECT_DONE(second, second.BeginTransaction(CZELTA::TransactionExclusive, 0));
}

TEST_F(Lifecycle, AssignmentSharesTheDatabase) {
  alignas(CZELTA) unsigned char memory[sizeof(CZELTA)];
  unsigned char own[sizeof(CZELTA)];
  CZELTA first;
  auto* second = new (memory) CZELTA;
  std::memcpy(own, memory, sizeof own);
  ASSERT_DONE(first, first.CreateDatabase(path().c_str()));
  *second = first;
  ASSERT_DONE(first, first.BeginTransaction(CZELTA::TransactionRead, 0));
  EXPECT_EQ(second->BeginTransaction(CZELTA::TransactionRead, 0), ownCode(34));
  EXPECT_DONE(first, second->EndTransaction());
  // Only one of the two may be destroyed as it is; this one gets its own words back.
  std::memcpy(memory, own, sizeof own);
  second->~CZELTA();
}

TEST_F(Lifecycle, AHandleWithoutMemoryAnswersWithAWordAlone) {
  alignas(CZELTA) unsigned char memory[sizeof(CZELTA)] = {};
  auto& handle = *reinterpret_cast<CZELTA*>(memory);  // as a failed construction leaves it
  const char16_t* text = nullptr;
  EXPECT_EQ(handle.GetErrorMessage(&text), 0u);
  EXPECT_EQ(plainText(text), "Database is not initialised");
  EXPECT_EQ(handle.GetErrorMessage(nullptr), 0u);
  long long value = 0;
  unsigned int number = 0;
  EXPECT_EQ(handle.CreateDatabase(u"/x/y"), ownCode(59));
  EXPECT_EQ(handle.OpenDatabase(nullptr), ownCode(59));
  EXPECT_EQ(handle.CloseDatabase(), ownCode(59));
  EXPECT_EQ(handle.BeginTransaction(CZELTA::TransactionRead, 0), ownCode(59));
  EXPECT_EQ(handle.EndTransaction(), ownCode(59));
  EXPECT_EQ(handle.CommitTransaction(true), ownCode(59));
  EXPECT_EQ(handle.GetDatabaseMembers(nullptr, &number), ownCode(59));
  EXPECT_EQ(handle.GetDatabaseParameter(CZELTA::ParameterKeepLogFiles, &value), ownCode(59));
  EXPECT_EQ(handle.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1), ownCode(59));
  EXPECT_EQ(handle.AppendTransaction(0, 0, 0, 0, nullptr), ownCode(59));
  EXPECT_EQ(handle.WaitNextCommit(&number, &value, &number, &value, nullptr, 0), ownCode(59));
  EXPECT_EQ(handle.AddTable(u"x", 0, nullptr, 0), ownCode(59));
  EXPECT_EQ(handle.OpenTable(1), ownCode(59));
}

TEST_F(Lifecycle, AFailureTextLivesUntilTheNextCall) {
  CZELTA handle;
  EXPECT_EQ(messageOf(handle), "No error message");
  EXPECT_EQ(handle.BeginTransaction(CZELTA::TransactionRead, 0), ownCode(3));
  EXPECT_EQ(handle.GetErrorMessage(nullptr), 0u);
  const std::string text = messageOf(handle);
  EXPECT_EQ(text,
            "A vaild database and transaction must be open before this operation can complete.");
  EXPECT_EQ(CZELTA::Version(), 0x4000500090000u);
  EXPECT_EQ(messageOf(handle), text) << "asking for it doesn't end it";
  EXPECT_EQ(handle.EndTransaction(), 0u);
  EXPECT_EQ(messageOf(handle), "No error message");
}

TEST_F(Lifecycle, AFailedCreationLeavesNoFile) {
  for (std::uint64_t calls = 0;; ++calls) {
    SCOPED_TRACE(calls);
    CZELTA handle;
    bool stopped = false;
    unsigned long long result = 0;
    {
      const StopAfter stop(calls);
      result = handle.CreateDatabase(path().c_str());
      stopped = stop.stopped;
    }
    if (!stopped) {
      EXPECT_DONE(handle, result);
      break;
    }
    ASSERT_LT(calls, 10u);
    // Flushing the header may fail without harm.
    if (result == 0) {
      ASSERT_DONE(handle, handle.CloseDatabase());
      ASSERT_EQ(control().size(), 76u);
      fs::remove(folder.path() / "shop.zlc");
      continue;
    }
    EXPECT_EQ(result, systemCode(31));
    EXPECT_FALSE(folder.has("shop.zlc"));
    EXPECT_EQ(handle.BeginTransaction(CZELTA::TransactionRead, 0), ownCode(3)) << "it is closed";
  }
}

TEST_F(Lifecycle, AFailedOpeningLeavesTheHandleClosed) {
  makeShop();
  patch(0, "XELC");
  CZELTA handle;
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
  EXPECT_EQ(messageOf(handle), "Control file has become corrupted.");
  patch(0, "ZELC");
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  // Nothing of the failed try is in the way: neither the opener's claim nor a lock.
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
}

TEST_F(Lifecycle, TheSameFileThroughTwoHandles) {
  makeShop();
  CZELTA first;
  CZELTA second;
  ASSERT_DONE(first, first.OpenDatabase(path().c_str()));
  ASSERT_DONE(second, second.OpenDatabase(path().c_str()));
  ASSERT_DONE(first, first.BeginTransaction(CZELTA::TransactionShared, 0));
  ASSERT_DONE(second, second.BeginTransaction(CZELTA::TransactionShared, 0));
  ASSERT_DONE(first, first.CloseDatabase());
  EXPECT_DONE(second, second.EndTransaction());
}

TEST_F(Lifecycle, ClosingFromAnotherThreadDoesNoHarm) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 0));
  std::thread([&] { EXPECT_EQ(handle.CloseDatabase(), 0u); }).join();
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  EXPECT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
}

}  // namespace
}  // namespace zelta::testing

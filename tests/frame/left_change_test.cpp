// Changes of the directory that a dead process left in the control file, and files of version 1.1.

#include "frame/directory_fixture.h"

namespace zelta::testing {
namespace {

// -- Intents that a dead process left -------------------------------------------------------------

class LeftIntent : public DirectoryChangeTest {
 protected:
  struct Intent {
    std::uint32_t oldEnd;
    std::uint32_t imageEnd;
    std::uint32_t imageStart;
    std::uint32_t operation;
    std::uint32_t table;
    std::uint32_t count;
    std::uint32_t units;
    std::uint32_t end;
  };
  void leave(const Intent& i, const std::string& image, std::uint32_t spoil = 0) {
    const std::string tail = words({i.operation, i.table, i.count, i.units, i.end});
    patch(36,
          words({3, i.oldEnd, i.imageEnd, i.imageStart, checksum(tail) ^ checksum(image) ^ spoil}) +
              tail);
    patch(std::max(i.oldEnd, i.imageStart), image);
  }
  unsigned long long open() { return handle.OpenDatabase(path().c_str()); }
};

TEST_F(LeftIntent, AnImageOfTheFilesLengthIsWhole) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  // Takes table 1 out again: the image is the directory with it.
  leave({end, end + length, end - 30, 35, 1, 1, (length - 30 - 8) / 2, end - 30},
        before.substr(76));
  ASSERT_DONE(handle, open());
  EXPECT_EQ(tableNames(), std::vector<std::string>{"sales"});
}

TEST_F(LeftIntent, ASpoiltOrShortImageIsRolledBack) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  const Intent intent{end, end + length, end - 30, 35, 1, 1, (length - 30 - 8) / 2, end - 30};
  std::string idle = before;
  leave(intent, before.substr(76), 1);
  ASSERT_DONE(handle, open());
  EXPECT_EQ(control(), idle);
  ASSERT_DONE(handle, handle.CloseDatabase());
  leave(intent, before.substr(76, length - 1));
  ASSERT_DONE(handle, open());
  EXPECT_EQ(control(), idle);
}

TEST_F(LeftIntent, ATableThatTheImageDoesNotNameIsNotFound) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  for (const std::uint32_t operation : {33u, 34u, 37u}) {
    SCOPED_TRACE(operation);
    folder.write("shop.zlc", before);
    leave({end, end + length, end, operation, 77, 2, (length - 16) / 2, end}, before.substr(76));
    const std::string pending = control();
    EXPECT_EQ(open(), ownCode(30));
    EXPECT_EQ(messageOf(handle), "Unable to find table with ID = 77.");
    EXPECT_EQ(control(), pending) << "the intent stays for the next one";
  }
}

TEST_F(LeftIntent, AnUnknownOperationIsAnImpossibleState) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  for (const std::uint32_t operation : {0u, 32u, 40u, 42u, 44u, 0xFFFFu}) {
    SCOPED_TRACE(operation);
    folder.write("shop.zlc", before);
    leave({end, end + length, end, operation, 1, 2, (length - 16) / 2, end}, before.substr(76));
    EXPECT_EQ(open(), ownCode(8));
  }
}

TEST_F(LeftIntent, AnIntentThatWouldCutTheDirectoryIsDamage) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  // A roll-back to an end that isn't the directory's.
  leave({end - 8, end + length + 500, end, 34, 1, 2, (length - 16) / 2, end}, before.substr(76));
  std::string pending = control();
  EXPECT_EQ(open(), ownCode(54));
  EXPECT_EQ(control(), pending);
  folder.write("shop.zlc", before);
  leave({0, 0, 80, 0, 0, 0, 0, 0}, "");
  EXPECT_EQ(open(), ownCode(54));
}

/// Where the file would end by a number that its checksum knows.
TEST_F(LeftIntent, AnIntentThatWouldLetTheFileGrowIsDamage) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  const std::string image = before.substr(76);
  constexpr std::uint32_t kFar = 0x7F000000;
  const auto refused = [&](const char* what) {
    SCOPED_TRACE(what);
    const std::string pending = control();
    EXPECT_EQ(open(), ownCode(54));
    EXPECT_EQ(messageOf(handle), "Control file has become corrupted.");
    ASSERT_EQ(std::filesystem::file_size(folder.path() / "shop.zlc"), pending.size());
    EXPECT_EQ(control().substr(0, 32), pending.substr(0, 32));
    EXPECT_EQ(control().substr(40), pending.substr(40));
    EXPECT_TRUE(folder.has("goods.zlt"));
  };
  const auto leaveAnew = [&](const Intent& intent, const std::string& bytes) {
    folder.write("shop.zlc", before);
    leave(intent, bytes);
  };
  const std::uint32_t removed = length - 30;
  leaveAnew({end, end + length, end - 30, 36, 1, 1, (removed - 8) / 2, kFar}, image);
  refused("a removal");
  if (HasFatalFailure()) return;
  leaveAnew({end, end + length, end - 30, 36, 1, 1, (removed - 8) / 2 + 4, end - 30}, image);
  refused("a removal to another size");
  if (HasFatalFailure()) return;
  for (const std::uint32_t operation : {33u, 34u, 37u}) {
    leaveAnew({end, end + length, end, operation, 1, 2, (length - 16) / 2, kFar}, image);
    refused("a table that is made or added");
    if (HasFatalFailure()) return;
  }
  for (const std::uint32_t units : {(length - 16) / 2, (kFar - 76 - 16) / 2}) {
    leaveAnew({end, end + length, end - 4, 43, 0, 2, units, kFar}, image);
    refused("an upgrade");
    if (HasFatalFailure()) return;
  }
  folder.write("shop.zlc", before);
  // Without an image: to an end that the header has, too, but not the file.
  patch(12, words({(kFar - 76 - 16) / 2, kFar}));
  patch(36, words({3, 0, 0, kFar}));
  refused("nothing but an end");
  if (HasFatalFailure()) return;
  folder.write("shop.zlc", before);
  patch(12, words({(kFar - 76 - 16) / 2, kFar}));
  refused("no intent at all");
}

TEST_F(LeftIntent, EveryFlippedByteOfAnIntentIsSurvived) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  leave({end, end + length, end - 30, 35, 1, 1, (length - 30 - 8) / 2, end - 30},
        before.substr(76));
  const std::string pending = control();
  for (std::size_t i = 36; i < pending.size(); ++i) {
    for (const int flip : {0x01, 0xFF}) {
      SCOPED_TRACE("byte " + std::to_string(i) + " flip " + std::to_string(flip));
      std::string bad = pending;
      bad[i] = static_cast<char>(bad[i] ^ flip);
      folder.write("shop.zlc", bad);
      const unsigned long long result = open();
      if (result != 0) continue;
      ASSERT_DONE(handle, handle.CloseDatabase());
      if (i < 48 || i >= 52) {  // without its mark an intent isn't one
        const auto names = tableNames();
        EXPECT_TRUE(names.size() == 1 || names.size() == 2) << names.size();
        EXPECT_EQ(names.back(), "sales");
      }
    }
  }
}

TEST_F(LeftIntent, AReaderLeavesAPendingChangeAlone) {
  const std::string before = control();
  const auto end = static_cast<std::uint32_t>(before.size());
  const auto length = end - 76;
  ASSERT_DONE(handle, open());
  leave({end, end + length, end - 30, 35, 1, 1, (length - 30 - 8) / 2, end - 30},
        before.substr(76));
  const std::string pending = control();
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionRead, 0));
  unsigned int size = 0;
  ASSERT_DONE(handle, handle.GetDatabaseMembers(nullptr, &size));
  ASSERT_DONE(handle, handle.OpenTable(1));
  EXPECT_EQ(control(), pending);
  ASSERT_DONE(handle, handle.EndTransaction());
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 1000));
  EXPECT_EQ(tableNames(), std::vector<std::string>{"sales"}) << "a writer completes it";
}

// -- Version 1.1 ----------------------------------------------------------------------------------

class OldVersion : public DirectoryChangeTest {
 protected:
  /// The database as the release before left it: the shorter header, the same directory.
  [[nodiscard]] std::string oldForm(std::uint32_t state = 0) const {
    const std::string now = control();
    std::string old("ZELC\1\0\1\0", 8);
    old += words({numberAt<std::uint32_t>(now, 8), numberAt<std::uint32_t>(now, 12),
                  numberAt<std::uint32_t>(now, 16) - 12, 41, state});
    old.resize(64, '\0');
    return old + now.substr(76);
  }
  [[nodiscard]] std::string upgraded(std::uint32_t state = 0) const {
    std::string now = control();
    now.replace(32, 8, words({41, state}));
    return now;
  }
};

TEST_F(OldVersion, TheFirstOpenerUpgradesIt) {
  const std::string wanted = upgraded();
  folder.write("shop.zlc", oldForm());
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  EXPECT_EQ(control(), wanted);
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 0));
  EXPECT_EQ(word(32), 42u) << "transaction numbers go on";
  expectUsable({1, 2});
}

TEST_F(OldVersion, AnEmptyOneIsShorterThanTheNewHeader) {
  std::string old("ZELC\1\0\1\0", 8);
  old += words({0, 0, 64, 5, 0});
  old.resize(64, '\0');
  folder.write("shop.zlc", old);
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  EXPECT_EQ(control().size(), 76u);
  EXPECT_EQ(half(6), 2u);
  EXPECT_EQ(word(16), 76u);
  EXPECT_EQ(word(32), 5u);
}

TEST_F(OldVersion, UnrepairedWorkIsRefused) {
  const std::string old = oldForm() + words({7, 1});
  folder.write("shop.zlc", old);
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(21));
  EXPECT_EQ(messageOf(handle),
            "Control file version 1.1 is invalid.\nExpecting version 1.2 for this release.");
  EXPECT_EQ(control(), old);
}

TEST_F(OldVersion, ALaterOpenerMayNotUpgrade) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));  // keeps the claim
  std::string empty("ZELC\1\0\1\0", 8);
  empty += words({0, 0, 64, 5, 0});
  empty.resize(64, '\0');
  CZELTA later;
  ASSERT_DONE(later, later.OpenDatabase(path().c_str()));
  for (const std::string& old : {oldForm(), empty}) {
    SCOPED_TRACE(old.size());
    folder.write("shop.zlc", old);
    for (const CZELTA::Mode mode : {CZELTA::TransactionShared, CZELTA::TransactionExclusive}) {
      EXPECT_EQ(later.BeginTransaction(mode, 0), systemCode(4));
      EXPECT_EQ(messageOf(later),
                "Unknown Windows error code 4 (0x4).\nString1 = shop.\nString2 = .zlc.\n"
                "Integer1 = 0, Integer2 = 0");
    }
    EXPECT_EQ(control(), old);
  }
}

TEST_F(OldVersion, WildNumbersAreDamage) {
  const std::string old = oldForm();
  for (const std::size_t at : {8u, 11u, 12u, 15u, 16u, 19u}) {
    SCOPED_TRACE(at);
    std::string bad = old;
    bad[at] = static_cast<char>(bad[at] ^ 0x40);
    folder.write("shop.zlc", bad);
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
    EXPECT_EQ(control(), bad);
  }
}

TEST_F(OldVersion, AnUpgradeIsDoneOrNotWhereverItsProcessDies) {
  const std::string wanted = upgraded();
  const std::string old = oldForm();
  bool cameThrough = false;
  for (std::uint64_t calls = 0; !cameThrough; ++calls) {
    ASSERT_LT(calls, 40u);
    folder.write("shop.zlc", old);
    SCOPED_TRACE(calls);
    ChildProcess child([&](const ChildProcess::Line&) {
      CZELTA own;
      const DieAt die(calls);
      return own.OpenDatabase(path().c_str()) == 0 ? 0 : 1;
    });
    const int ended = child.wait();
    ASSERT_TRUE(ended == 0 || ended == kKilled) << ended;
    cameThrough = ended == 0;
    CZELTA next;
    ASSERT_DONE(next, next.OpenDatabase(path().c_str()));
    ASSERT_EQ(control(), wanted);
  }
}

}  // namespace
}  // namespace zelta::testing

// The control file's bytes, the settings in it, and damaged ones.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/database_fixture.h"
#include "support/raw_control.h"

namespace zelta::testing {
namespace {

class ControlFile : public DatabaseTest {
 protected:
  void open() { ASSERT_DONE(handle, handle.OpenDatabase(path().c_str())); }
  void begin(CZELTA::Mode mode) { ASSERT_DONE(handle, handle.BeginTransaction(mode, 10000)); }
  long long parameter(unsigned int number) {
    long long value = -1;
    EXPECT_DONE(handle,
                handle.GetDatabaseParameter(static_cast<CZELTA::Parameter>(number), &value));
    return value;
  }
  unsigned long long set(unsigned int number, long long value) {
    return handle.SetDatabaseParameter(static_cast<CZELTA::Parameter>(number), value);
  }
  CZELTA handle;
};

// -- Directory ------------------------------------------------------------------------------------

TEST_F(ControlFile, EntriesStandInTheOrderOfNamesWithoutRegardToCase) {
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  makeTable(handle, u"mid", 7, 3);
  makeTable(handle, u"Zed", 2, 9);
  makeTable(handle, u"alpha", 900, 1);
  makeTable(handle, u"Beta_", 5, 2);
  makeTable(handle, u"betaa", 6, 4);
  const RawControl raw(control());
  ASSERT_EQ(raw.entries.size(), 5u);
  const char* names[] = {"alpha", "Beta_", "betaa", "mid", "Zed"};  // '_' sorts before letters
  const unsigned int ids[] = {900, 5, 6, 7, 2};
  const unsigned int orders[] = {1, 2, 4, 3, 9};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(raw.entries[i].name, names[i]);
    EXPECT_EQ(raw.entries[i].id, ids[i]);
    EXPECT_EQ(raw.entries[i].order, orders[i]);
    EXPECT_EQ(raw.entries[i].indexPath, "");
  }
  EXPECT_FALSE(raw.pending);
  EXPECT_EQ(raw.state, 0u);
}

TEST_F(ControlFile, MembersAreListedBehindTheirRecords) {
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  makeTable(handle, u"second", 3, 8);
  makeTable(handle, u"first", 4, 7);
  for (const CZELTA::Mode mode : {CZELTA::TransactionRead, CZELTA::TransactionShared,
                                  CZELTA::TransactionExclusive, CZELTA::TransactionExclusiveRead}) {
    begin(mode);
    unsigned int size = 99;
    ASSERT_DONE(handle, handle.GetDatabaseMembers(nullptr, &size));
    // 8 bytes of head, the name, an empty path, 8 bytes of index record, each
    EXPECT_EQ(size, (8u + 14 + 2 + 8) + (8 + 12 + 2 + 8));
    std::vector<char> buffer(size);
    auto* members = reinterpret_cast<CZELTA::DatabaseMember*>(buffer.data());
    size = 0;  // not looked at
    ASSERT_DONE(handle, handle.GetDatabaseMembers(members, &size));
    ASSERT_EQ(size, 2u);
    EXPECT_EQ(members[0].tableId, 4u);
    EXPECT_EQ(members[0].lockOrder, 7u);
    EXPECT_EQ(plainText(members[0].tableName), "first");
    EXPECT_EQ(members[1].tableId, 3u);
    EXPECT_EQ(plainText(members[1].tableName), "second");
    const auto* behind = reinterpret_cast<const char*>(members + 2);
    EXPECT_EQ(reinterpret_cast<const char*>(members[0].tableName), behind);
    ASSERT_DONE(handle, handle.EndTransaction());
  }
}

TEST_F(ControlFile, WithoutTablesThereIsNothingToList) {
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  unsigned int size = 5;
  EXPECT_EQ(handle.GetDatabaseMembers(nullptr, &size), ownCode(3));
  begin(CZELTA::TransactionRead);
  EXPECT_EQ(handle.GetDatabaseMembers(nullptr, nullptr), ownCode(7));
  EXPECT_DONE(handle, handle.GetDatabaseMembers(nullptr, &size));
  EXPECT_EQ(size, 0u);
}

// -- Settings -------------------------------------------------------------------------------------

TEST_F(ControlFile, SettingsLieAtTheirOffsets) {
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  begin(CZELTA::TransactionExclusive);
  ASSERT_DONE(handle, set(2, 0x12345));
  ASSERT_DONE(handle, set(3, 0xFFFF0007));
  ASSERT_DONE(handle, set(1, 0x7FFFFFFFFFFFFFFF));
  EXPECT_EQ(half(26), 0x2345u);
  EXPECT_EQ(half(24), 7u);
  EXPECT_EQ(word(20), 1u);
  EXPECT_EQ(word(28), 0u);
  EXPECT_EQ(parameter(1), 1);
  EXPECT_EQ(parameter(2), 0x2345);
  EXPECT_EQ(parameter(3), 7);
  ASSERT_DONE(handle, set(1, 2));
  EXPECT_EQ(parameter(1), 0);
  EXPECT_EQ(word(20), 0u);
}

TEST_F(ControlFile, OnlyBitZeroOfTheFlagsChanges) {
  makeShop();
  patch(20, words({0xA0}));
  open();
  begin(CZELTA::TransactionExclusive);
  ASSERT_DONE(handle, set(1, 1));
  EXPECT_EQ(word(20), 0xA1u);
  ASSERT_DONE(handle, set(1, 0));
  EXPECT_EQ(word(20), 0xA0u);
}

TEST_F(ControlFile, FileNumbersAreForReadingAndOtherNumbersAreRefused) {
  makeShop();
  patch(28, words({0x00090004}));
  open();
  EXPECT_EQ(parameter(4), 4);
  EXPECT_EQ(parameter(5), 9);
  begin(CZELTA::TransactionExclusive);
  long long value = 0;
  for (const unsigned int number : {0u, 6u, 7u, 0xFFFFFFFFu}) {
    EXPECT_EQ(handle.GetDatabaseParameter(static_cast<CZELTA::Parameter>(number), &value),
              ownCode(7));
  }
  for (const unsigned int number : {0u, 4u, 5u, 6u}) EXPECT_EQ(set(number, 1), ownCode(7));
  EXPECT_EQ(handle.GetDatabaseParameter(CZELTA::ParameterLogFileSize, nullptr), ownCode(7));
  EXPECT_EQ(word(28), 0x00090004u);
}

TEST_F(ControlFile, ReadingASettingOfNoDatabaseIsAnInvalidHandle) {
  long long value = 0;
  EXPECT_EQ(handle.GetDatabaseParameter(CZELTA::ParameterLogFileSize, &value), systemCode(6));
  EXPECT_EQ(messageOf(handle),
            "Invaild handle given for operation to complete.\nFile name: \"(null)\".");
  // The header is read before the number is judged.
  EXPECT_EQ(handle.GetDatabaseParameter(static_cast<CZELTA::Parameter>(77), &value), systemCode(6));
}

TEST_F(ControlFile, KeepingLogFilesDeletesTheOtherForm) {
  makeShop();
  folder.write("shop.zll", "x");
  for (const char* name : {"shop.0003.zll", "shop.0004.zll", "shop.0005.zll", "shop.0006.zll"}) {
    folder.write(name, "x");
  }
  patch(28, words({0x00050004}));
  open();
  begin(CZELTA::TransactionExclusive);
  ASSERT_DONE(handle, set(1, 1));
  EXPECT_FALSE(folder.has("shop.zll"));
  EXPECT_TRUE(folder.has("shop.0004.zll"));
  EXPECT_EQ(word(28), 0u) << "the numbers begin anew";
  ASSERT_DONE(handle, handle.EndTransaction());
  ASSERT_DONE(handle, handle.CloseDatabase());

  patch(28, words({0x00050004}));
  folder.write("shop.zll", "x");
  open();
  begin(CZELTA::TransactionExclusive);
  ASSERT_DONE(handle, set(1, 0));
  EXPECT_TRUE(folder.has("shop.zll"));
  EXPECT_TRUE(folder.has("shop.0003.zll"));
  EXPECT_FALSE(folder.has("shop.0004.zll"));
  EXPECT_FALSE(folder.has("shop.0005.zll"));
  EXPECT_TRUE(folder.has("shop.0006.zll"));
  EXPECT_EQ(word(28), 0u);
}

TEST_F(ControlFile, DeletingNumberedLogsEndsForEveryPairOfNumbers) {
  makeShop();
  // (last + 1) & 0xFFF is 1 for 0x1000: the numbers have to come round.
  for (const std::uint32_t numbers : {0x1000'1000u, 0x0FFF'0FFFu, 0xFFFF'FFFFu, 0x0000'FFFFu}) {
    SCOPED_TRACE(numbers);
    patch(28, words({numbers}));
    open();
    begin(CZELTA::TransactionExclusive);
    ASSERT_DONE(handle, set(1, 0));
    EXPECT_EQ(word(28), 0u);
    ASSERT_DONE(handle, handle.CloseDatabase());
  }
}

// -- Damage ---------------------------------------------------------------------------------------

/// Uses a database in all ways that read its control file. Any answer will do, but one must come.
void useDatabase(const std::u16string& path) {
  CZELTA handle;
  const unsigned long long opened = handle.OpenDatabase(path.c_str());
  EXPECT_TRUE(opened == 0 || opened >> 32 == 1 || opened >> 32 == 2);
  if (opened != 0) return;
  long long value = 0;
  handle.GetDatabaseParameter(CZELTA::ParameterKeepLogFiles, &value);
  for (const CZELTA::Mode mode : {CZELTA::TransactionRead, CZELTA::TransactionShared,
                                  CZELTA::TransactionExclusiveRead, CZELTA::TransactionExclusive}) {
    if (handle.BeginTransaction(mode, 50) != 0) continue;
    unsigned int size = 0;
    if (handle.GetDatabaseMembers(nullptr, &size) == 0 && size < 1 << 20) {
      std::vector<char> buffer(size);
      handle.GetDatabaseMembers(reinterpret_cast<CZELTA::DatabaseMember*>(buffer.data()), &size);
    }
    handle.OpenTable(1);
    handle.EndTransaction();
  }
}

TEST_F(ControlFile, EveryFlippedByteOfTheHeaderIsSurvived) {
  makeShop();
  const std::string good = control();
  for (std::size_t i = 0; i < 76; ++i) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      SCOPED_TRACE("byte " + std::to_string(i) + " flip " + std::to_string(flip));
      std::string bad = good;
      bad[i] = static_cast<char>(bad[i] ^ flip);
      folder.write("shop.zlc", bad);
      useDatabase(path());
      ASSERT_LT(control().size(), 1u << 20) << "a wild position extends the file";
      ASSERT_GE(control().size(), good.size()) << "a wild position cuts the directory";
      ASSERT_EQ(control().substr(76, good.size() - 76), good.substr(76)) << "tables are lost";
    }
  }
}

TEST_F(ControlFile, DamageOfWhatCountsHasItsCode) {
  makeShop();
  const std::string good = control();
  const struct {
    std::size_t at;
    unsigned int code;
  } cases[] = {{0, 54}, {3, 54}, {4, 21}, {6, 21}, {8, 54}, {12, 54}, {16, 54}, {19, 54}, {49, 54}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.at);
    std::string bad = good;
    bad[one.at] = static_cast<char>(bad[one.at] ^ 0x40);
    folder.write("shop.zlc", bad);
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(one.code));
    EXPECT_EQ(control(), bad) << "a damaged file is left as it is";
  }
  folder.write("shop.zlc", good);
  patch(4, std::string("\2\0\7\0", 4));
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(21));
  EXPECT_EQ(messageOf(handle),
            "Control file version 2.7 is invalid.\nExpecting version 1.2 for this release.");
}

TEST_F(ControlFile, EveryFlippedByteOfTheDirectoryIsSurvived) {
  {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    makeTable(handle, u"goods");
    makeTable(handle, u"sales");
    ASSERT_DONE(handle, handle.CloseDatabase());
  }
  const std::string good = control();
  for (std::size_t i = 76; i < good.size(); ++i) {
    SCOPED_TRACE("byte " + std::to_string(i));
    std::string bad = good;
    bad[i] = static_cast<char>(~bad[i]);
    folder.write("shop.zlc", bad);
    useDatabase(path());
  }
}

TEST_F(ControlFile, ACutFileIsNoDatabase) {
  makeShop();
  const std::string good = control();
  for (std::size_t length = 0; length < good.size(); ++length) {
    SCOPED_TRACE(length);
    folder.write("shop.zlc", good.substr(0, length));
    const unsigned long long result = handle.OpenDatabase(path().c_str());
    EXPECT_EQ(result, length < 76 ? systemCode(38) : ownCode(54));
    EXPECT_EQ(control().size(), length);
  }
  folder.write("shop.zlc", "");
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), systemCode(38));
  EXPECT_EQ(messageOf(handle),
            "Unexpected end of file in \"shop.zlc\".\nPossible file corruption.");
}

TEST_F(ControlFile, ForeignFilesAreRefused) {
  for (const std::string& bytes :
       {std::string(4096, 'x'), std::string(76, '\0'), std::string("ZELT") + std::string(200, '\1'),
        std::string(100, '\xFF')}) {
    folder.write("shop.zlc", bytes);
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
    EXPECT_EQ(control(), bytes);
  }
}

TEST_F(ControlFile, AFolderIsNoDatabase) {
  std::filesystem::create_directory(folder.path() / "shop.zlc");
  EXPECT_EQ(handle.OpenDatabase(path().c_str()) >> 32, 2u);
}

// -- First opener ---------------------------------------------------------------------------------

TEST_F(ControlFile, TheFirstOpenerCutsMemoryFilesAndTheSecondDoesNot) {
  makeShop();
  folder.write("goods.zlm", std::string(500, 'x'));
  open();
  EXPECT_EQ(folder.bytes("goods.zlm"), "");
  folder.write("goods.zlm", std::string(500, 'x'));
  ChildProcess second([&](const ChildProcess::Line&) {
    CZELTA other;
    return other.OpenDatabase(path().c_str()) == 0 ? 0 : 1;
  });
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(folder.bytes("goods.zlm").size(), 500u);
  ASSERT_DONE(handle, handle.CloseDatabase());
  open();
  EXPECT_EQ(folder.bytes("goods.zlm"), "") << "whoever opens after the last closer is first again";
}

TEST_F(ControlFile, AMissingMemoryFileIsNotMade) {
  makeShop();
  open();
  EXPECT_FALSE(folder.has("goods.zlm"));
}

TEST_F(ControlFile, ALiveTransactionKeepsTheOpenerFromRepairing) {
  makeShop();
  open();
  begin(CZELTA::TransactionShared);
  folder.write("goods.zlm", std::string(500, 'x'));
  ASSERT_TRUE(folder.has("goods.zlm"));
  // Another process opens first by name, as a link makes it another database to the mutexes.
  std::filesystem::create_hard_link(folder.path() / "shop.zlc", folder.path() / "link.zlc");
  ChildProcess second([&](const ChildProcess::Line&) {
    CZELTA other;
    return other.OpenDatabase(folder.file("link.zlc").c_str()) == 0 ? 0 : 1;
  });
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(folder.bytes("goods.zlm").size(), 500u);
  EXPECT_EQ(RawControl(control()).slots.size(), 1u);
}

TEST_F(ControlFile, DeadSlotsAreClearedByTheFirstOpener) {
  makeShop();
  const std::string good = control();
  folder.write("shop.zlc", good + words({5, 1, 0, 0, 9, 1}) + "torn");
  open();
  EXPECT_EQ(control(), good);
}

TEST_F(ControlFile, ADeadExclusiveTransactionIsClearedByTheFirstOpener) {
  for (const std::uint32_t state : {1u, 3u, 77u}) {
    SCOPED_TRACE(state);
    if (!folder.has("shop.zlc")) makeShop();
    patch(36, words({state}));
    open();
    EXPECT_EQ(word(36), 0u);
    ASSERT_DONE(handle, handle.CloseDatabase());
  }
}

TEST_F(ControlFile, WithoutTablesTheNextBeginClearsTheDead) {
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.CloseDatabase());
  patch(36, words({1}));
  open();
  EXPECT_EQ(word(36), 1u);
  begin(CZELTA::TransactionShared);
  EXPECT_EQ(word(36), 0u);
}

}  // namespace
}  // namespace zelta::testing

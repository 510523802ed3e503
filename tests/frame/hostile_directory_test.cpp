// A directory that names tables outside of the database's folder, or one table twice.

#include "directory_fixture.h"

namespace zelta::testing {
namespace {

constexpr std::uint64_t kFirstName = 76 + 8;
constexpr const char* kNames[] = {"v/abc", "v\\abc", "../ab", "..\\ab", "/abcd", "ab/cd", "a:bcd"};

class HostileDirectory : public DirectoryChangeTest {
 protected:
  void SetUp() override {
    DirectoryChangeTest::SetUp();
    std::filesystem::create_directory(folder.path() / "v");
    for (const char* name : {"v/abc.zlt", "v/abc.zlm", "v/abc.zli"}) {
      folder.write(name, "ZEL" + std::string(1, static_cast<char>(std::toupper(name[8]))) +
                             std::string(200, 's'));
    }
  }
  static std::string wide(const std::string& text) {
    std::string out;
    for (const char c : text) out += {c, '\0'};
    return out;
  }
  /// Gives table 1, "goods", another name of as many characters.
  void rename(const std::string& name) const { patch(kFirstName, wide(name)); }
  void expectStrangersFilesWhole() const {
    for (const char* name : {"v/abc.zlt", "v/abc.zlm", "v/abc.zli"}) {
      EXPECT_EQ(folder.bytes(name).size(), 204u) << name;
    }
  }
};

TEST_F(HostileDirectory, IsRefusedByTheFirstOpener) {
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    rename(name);
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
    EXPECT_EQ(messageOf(handle), "Control file has become corrupted.");
    expectStrangersFilesWhole();
  }
  rename("goods");
  EXPECT_DONE(handle, handle.OpenDatabase(path().c_str()));
}

TEST_F(HostileDirectory, IsRefusedByWhoeverReadsIt) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  unsigned int size = 0;
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    rename(name);
    SmallSchema other(u"other");
    EXPECT_EQ(handle.OpenTable(1), ownCode(54));
    EXPECT_EQ(handle.OpenTable(2), ownCode(54));
    EXPECT_EQ(handle.RemoveTable(1, true), ownCode(54));
    EXPECT_EQ(handle.RemoveTable(1, false), ownCode(54));
    EXPECT_EQ(handle.CreateTable(&other.schema, nullptr), ownCode(54));
    EXPECT_EQ(handle.AddTable(u"goods", 0, nullptr, 0), ownCode(54));
    expectStrangersFilesWhole();
  }
  ASSERT_DONE(handle, handle.EndTransaction());
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionRead, 0));
  EXPECT_EQ(handle.OpenTable(1), ownCode(54));
  rename("goods");
  EXPECT_DONE(handle, handle.OpenTable(1));
  EXPECT_DONE(handle, handle.GetDatabaseMembers(nullptr, &size));
}

/// A removal of table 1 with its files, as a process leaves it that died before it was carried out.
std::string withRemoval(std::string control, const std::string& wideName) {
  const auto put = [&](std::uint64_t at, std::uint32_t value) {
    std::memcpy(control.data() + at, &value, sizeof value);
  };
  const auto oldEnd = numberAt<std::uint32_t>(control, 16);
  constexpr std::uint32_t kEntryUnits = 4 + 6 + 1;
  constexpr std::uint32_t kNewEnd = 76 + 2 * kEntryUnits + 8;
  std::string image = control.substr(76, oldEnd - 76);
  image.replace(8, wideName.size(), wideName);
  control.resize(oldEnd);
  put(36, 3);
  put(40, oldEnd);
  put(44, oldEnd + static_cast<std::uint32_t>(image.size()));
  put(48, kNewEnd);
  put(56, 36);  // remove and delete files
  put(60, 1);
  put(64, 1);
  put(68, kEntryUnits);
  put(72, kNewEnd);
  put(52, checksum(control.substr(56, 20)) ^ checksum(image));
  return control + image;
}

TEST_F(HostileDirectory, IsRefusedInAChangeThatWaits) {
  const std::string before = control();
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    folder.write("shop.zlc", withRemoval(before, wide(name)));
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
    expectStrangersFilesWhole();
  }
  folder.write("shop.zlc", withRemoval(before, wide("goods")));
  EXPECT_DONE(handle, handle.OpenDatabase(path().c_str()));
  EXPECT_FALSE(folder.has("goods.zlt"));
  EXPECT_EQ(tableNames(), std::vector<std::string>{"sales"});
}

/// Tables 1, "goods", and 2, "sales", stand one after the other.
constexpr std::uint64_t kSecondEntry = kFirstName + (5 + 1 + 1) * 2;
constexpr std::uint64_t kSecondRecord = kSecondEntry + kSecondEntry - 76 + 8;

/// Files that two open tables share would be cut by the one under the other.
TEST_F(HostileDirectory, OfTwoTablesWithOneNameIsRefused) {
  const std::string before = control();
  for (const char* name : {"goods", "GOODS", "gOods"}) {
    SCOPED_TRACE(name);
    patch(kSecondEntry + 8, wide(name));
    EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
  }
  folder.write("shop.zlc", before);
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.OpenTable(1));
  patch(kSecondEntry + 8, wide("goods"));
  EXPECT_EQ(handle.OpenTable(2), ownCode(54));
  EXPECT_EQ(handle.RemoveTable(2, false), ownCode(54));
}

/// As a system leaves it that orders letters in another way.
TEST_F(HostileDirectory, InAnotherOrderIsTaken) {
  patch(kSecondEntry + 8, wide("foods"));
  EXPECT_DONE(handle, handle.OpenDatabase(path().c_str()));
  EXPECT_EQ(tableNames(), (std::vector<std::string>{"goods", "foods"}));
}

TEST_F(HostileDirectory, OfTwoTablesWithOneIdIsRefused) {
  ASSERT_EQ(numberAt<std::uint32_t>(control(), kSecondEntry), 2u);
  ASSERT_EQ(numberAt<std::uint32_t>(control(), kSecondRecord), 2u);
  patch(kSecondEntry, std::string("\1", 1));
  patch(kSecondRecord, std::string("\1", 1));
  EXPECT_EQ(handle.OpenDatabase(path().c_str()), ownCode(54));
  EXPECT_EQ(messageOf(handle), "Control file has become corrupted.");
}

}  // namespace
}  // namespace zelta::testing

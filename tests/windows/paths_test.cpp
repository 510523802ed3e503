// Databases under paths of all kinds.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

class WindowsPaths : public DatabaseTest {
 protected:
  /// Makes, fills, reopens and checks a database.
  void expectUsable(const std::u16string& path) {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path.c_str()));
    makeTable(handle, u"goods", 1);
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.NewObject(1, &object, 0));
    ASSERT_DONE(handle, handle.AddObject(1, &object, 0));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.EndTransaction());
    ASSERT_DONE(handle, handle.CloseDatabase());
    ASSERT_DONE(handle, handle.OpenDatabase(path.c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionRead, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
    ASSERT_DONE(handle, handle.ReadObject(1, 1, static_cast<CZELTA::Mode>(0), &object));
    ASSERT_DONE(handle, handle.EndTransaction());
    ASSERT_DONE(handle, handle.CloseDatabase());
    expectClean(path);
  }
  unsigned long long creating(const std::u16string& path) {
    CZELTA handle;
    const unsigned long long result = handle.CreateDatabase(path.c_str());
    message = messageOf(handle);
    return result;
  }
  unsigned long long opening(const std::u16string& path) {
    CZELTA handle;
    const unsigned long long result = handle.OpenDatabase(path.c_str());
    message = messageOf(handle);
    return result;
  }
  std::string message;
};

TEST_F(WindowsPaths, HaveCharactersBeyondAscii) {
  expectUsable(folder.path().u16string() + u"\\\u00c4pfel \u4e2d\u6587\\\u0416\U0001F34E.zlc");
}

TEST_F(WindowsPaths, HaveSpacesAndDots) {
  expectUsable(folder.path().u16string() + u"\\a folder. of many\\ my shop .v2.zlc");
}

TEST_F(WindowsPaths, AreTakenInEitherCase) {
  expectUsable(folder.file("Shop.ZLC"));
  EXPECT_TRUE(folder.has("shop.zlc")) << "names differ in more than case";
  EXPECT_EQ(creating(folder.file("sHOP.zlc")), systemCode(code::kFileExists));
}

TEST_F(WindowsPaths, AreLongWithThePrefixOfTheSystem) {
  std::u16string path = u"\\\\?\\" + folder.path().u16string();
  for (int i = 0; i < 6; ++i) path += u"\\" + std::u16string(80, static_cast<char16_t>(u'a' + i));
  EXPECT_NE(creating(path + u"\\shop.zlc"), 0u) << "folders are not made behind this prefix";
  std::filesystem::create_directories(std::filesystem::path(path));
  expectUsable(path + u"\\shop.zlc");
}

TEST_F(WindowsPaths, ThatAreTooLongAreRefused) {
  const std::u16string path = folder.file("x") + std::u16string(40000, u'x');
  const unsigned long long created = creating(path);
  EXPECT_EQ(created >> 32, 2u);
  EXPECT_NE(created, systemCode(0));
  EXPECT_EQ(opening(path) >> 32, 2u);
  const unsigned long long component = creating(folder.file(std::string(300, 'x')));
  EXPECT_EQ(component >> 32, 2u);
}

TEST_F(WindowsPaths, OnAMissingDriveAreNotFound) {
  // Windows misses the path, Wine the file.
  const auto isMissing = [](unsigned long long result) {
    return result == systemCode(code::kPathNotFound) || result == systemCode(code::kFileNotFound);
  };
  EXPECT_TRUE(isMissing(creating(u"Q:\\shop.zlc"))) << message;
  EXPECT_TRUE(isMissing(creating(u"Q:\\some\\folder\\shop.zlc"))) << message;
  EXPECT_TRUE(isMissing(opening(u"Q:\\shop.zlc"))) << message;
}

TEST_F(WindowsPaths, OnOtherMachinesAreRefused) {
  for (const char16_t* path :
       {u"\\\\server\\share\\shop.zlc", u"\\\\server\\share\\a\\b\\shop",
        u"\\\\?\\UNC\\server\\share\\shop.zlc", u"\\??\\UNC\\server\\share\\shop.zlc",
        u"//server/share\\shop.zlc"}) {
    EXPECT_EQ(creating(path), ownCode(2)) << message;
  }
}

TEST_F(WindowsPaths, WithoutABackslashAreRefused) {
  for (const char16_t* path : {u"shop.zlc", u"C:shop.zlc", u"C:/folder/shop.zlc"}) {
    EXPECT_EQ(creating(path), ownCode(2)) << message;
  }
}

TEST_F(WindowsPaths, WithForbiddenCharactersAreRefused) {
  for (const char* name : {"a*b.zlc", "a?b.zlc", "a<b.zlc", "a|b.zlc"}) {
    const unsigned long long result = creating(folder.file(name));
    EXPECT_EQ(result >> 32, 2u) << name << ": " << message;
  }
}

TEST_F(WindowsPaths, OfMissingDatabasesAreNotFound) {
  EXPECT_EQ(opening(folder.file("none.zlc")), systemCode(code::kFileNotFound));
  EXPECT_EQ(opening(folder.file("none\\none.zlc")), systemCode(code::kPathNotFound));
}

}  // namespace
}  // namespace zelta::testing

// Files that bear the name of a table's file and are none.

#include "directory_fixture.h"

namespace zelta::testing {
namespace {

class NamesakeFile : public DirectoryChangeTest {
 protected:
  void SetUp() override {
    DirectoryChangeTest::SetUp();
    std::filesystem::create_directory(folder.path() / "keys");
    keys = folder.file("keys");
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    small.schema.tablePath = keys.c_str();
  }
  std::u16string keys;
  SmallSchema small{u"stock", 3, 3};
};

TEST_F(NamesakeFile, StaysWhenATableIsRemoved) {
  for (const std::string& content : {std::string("A stranger's notes."), std::string("Z"),
                                     std::string("ZELT, and more of it")}) {
    SCOPED_TRACE(content);
    ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
    folder.write("keys/stock.zli", content);
    EXPECT_DONE(handle, handle.RemoveTable(3, true));
    EXPECT_FALSE(folder.has("stock.zlt"));
    const bool begun = content == "Z";  // as an index file begins
    EXPECT_EQ(folder.bytes("keys/stock.zli"), begun ? "" : content);
    std::filesystem::remove(folder.path() / "keys" / "stock.zli");
  }
  ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
  folder.write("stock.zlt", "A stranger's notes.");
  EXPECT_DONE(handle, handle.RemoveTable(3, true));
  EXPECT_EQ(folder.bytes("stock.zlt"), "A stranger's notes.");
}

TEST_F(NamesakeFile, OfAnIndexGoesIfItIsOne) {
  for (const std::string& content :
       {std::string(), std::string("ZE"), std::string("ZELI and so on"), std::string(500, '\0')}) {
    ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
    folder.write("keys/stock.zli", content);
    EXPECT_DONE(handle, handle.RemoveTable(3, true));
    EXPECT_FALSE(folder.has("keys/stock.zli")) << content;
    folder.write("keys/stock.zli", content);
    ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
    EXPECT_EQ(folder.bytes("keys/stock.zli"), "") << content;
    EXPECT_DONE(handle, handle.RemoveTable(3, true));
  }
}

TEST_F(NamesakeFile, StandsInTheWayOfANewTable) {
  folder.write("keys/stock.zli", "A stranger's notes.");
  EXPECT_EQ(handle.CreateTable(&small.schema, nullptr), systemCode(80));
  EXPECT_EQ(messageOf(handle), "Unable to create \"" +
                                   (folder.path() / "keys" / "stock.zli").string() +
                                   "\",\nFile already exists.");
  EXPECT_EQ(folder.bytes("keys/stock.zli"), "A stranger's notes.");
  EXPECT_FALSE(folder.has("stock.zlt"));
  EXPECT_EQ(tableNames(), (std::vector<std::string>{"goods", "sales"}));
  // A table without indexes does not care.
  small.schema.indexCount = 0;
  EXPECT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
  EXPECT_EQ(folder.bytes("keys/stock.zli"), "A stranger's notes.");
}

TEST_F(NamesakeFile, StandsInTheWayOfAnEnteredTable) {
  ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
  ASSERT_DONE(handle, handle.RemoveTable(3, false));
  folder.write("keys/stock.zli", "A stranger's notes.");
  EXPECT_EQ(handle.AddTable(u"stock", 3, keys.c_str(), 3), systemCode(80));
  EXPECT_EQ(folder.bytes("keys/stock.zli"), "A stranger's notes.");
  EXPECT_TRUE(folder.has("stock.zlt"));
  EXPECT_EQ(tableNames(), (std::vector<std::string>{"goods", "sales"}));
  std::filesystem::remove(folder.path() / "keys" / "stock.zli");
  EXPECT_DONE(handle, handle.AddTable(u"stock", 3, keys.c_str(), 3));
}

}  // namespace
}  // namespace zelta::testing

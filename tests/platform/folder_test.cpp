// What lies in a folder, on every platform.

#include "platform/folder.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/storage_fixture.h"

namespace zelta::testing {
namespace {

std::vector<std::u16string> listed(const FreshFolder& folder) {
  std::vector<std::u16string> names = {u"from before"};
  const std::u16string path = folder.path().u16string() + platform::kSeparator;
  EXPECT_EQ(platform::listFolder(path.c_str(), u".zll", names), 0u);
  std::sort(names.begin(), names.end());
  return names;
}

TEST(Folder, GivesTheNamesOfAnEnding) {
  const FreshFolder folder;
  EXPECT_TRUE(listed(folder).empty());
  for (const char* name : {"a.zll", "B.0001.ZLL", "a.zllx", "a.zlt", "zll", ".zll"}) {
    folder.write(name, "");
  }
  std::filesystem::create_directory(folder.path() / "folder");
  EXPECT_EQ(listed(folder), (std::vector<std::u16string>{u".zll", u"B.0001.ZLL", u"a.zll"}));
}

TEST(Folder, GivesNamesOfAllScripts) {
  const FreshFolder folder;
  const std::u16string name = u"\u00e4\u4e2d\U0001F600.zll";
  std::filesystem::path path = folder.path() / std::filesystem::path(name);
  platform::File file = platform::File::none;
  ASSERT_EQ(platform::openFile(path.u16string().c_str(), platform::Disposition::createNew, &file),
            0u);
  platform::closeFile(file);
  EXPECT_EQ(listed(folder), std::vector<std::u16string>{name});
}

TEST(Folder, ThatIsMissingIs3) {
  const FreshFolder folder;
  const std::u16string path = folder.file("none") + platform::kSeparator;
  std::vector<std::u16string> names;
  EXPECT_EQ(platform::listFolder(path.c_str(), u".zll", names), code::kPathNotFound);
}

}  // namespace
}  // namespace zelta::testing

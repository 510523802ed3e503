// Reads that are served from memory to a handle that only reads.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "platform/faults.h"
#include "platform/file.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using platform::File;

constexpr std::uint64_t kWindow = 1u << 20;
constexpr int kManyReads = 100;

class ServedReads : public ::testing::Test {
 protected:
  void SetUp() override {
    folder.write("f", std::string(8192, 'a'));
    reader.emplace(folder.file("f"));
    writer.emplace(folder.file("f"));
    platform::serveReads(*reader, kWindow);
    for (int i = 0; i < kManyReads; ++i) ASSERT_EQ(read(4096, 1), "a");
  }
  [[nodiscard]] std::string read(std::uint64_t position, std::uint32_t length) {
    std::string bytes(length, '?');
    std::uint32_t count = 0;
    EXPECT_EQ(platform::readFile(*reader, position, bytes.data(), length, &count), 0u);
    bytes.resize(count);
    return bytes;
  }
  void write(std::uint64_t position, const std::string& bytes) {
    std::uint32_t count = 0;
    EXPECT_EQ(platform::writeFile(*writer, position, bytes.data(),
                                  static_cast<std::uint32_t>(bytes.size()), &count),
              0u);
  }
  [[nodiscard]] std::uint64_t size() const { return std::filesystem::file_size(folder.file("f")); }

  FreshFolder folder;
  std::optional<OpenedFile> reader;
  std::optional<OpenedFile> writer;
};

TEST_F(ServedReads, CostNoSystemCallOnceThereWereMany) {
  const std::uint64_t before = platform::faults::systemCalls();
  for (int i = 0; i < kManyReads; ++i) EXPECT_EQ(read(0, 10).size(), 10u);
  EXPECT_EQ(platform::faults::systemCalls(), before);
}

TEST_F(ServedReads, SeeWhatOthersWrite) {
  write(100, "new");
  EXPECT_EQ(read(99, 5), "anewa");
}

TEST_F(ServedReads, MayLookAtTheBytesThemselves) {
  const auto peek = [&](File file, std::uint64_t position, std::uint32_t length) {
    const char* bytes = nullptr;
    EXPECT_EQ(platform::peekFile(file, position, length, &bytes), 0u);
    return bytes;
  };
  const char* const bytes = peek(*reader, 8188, 4);
  ASSERT_NE(bytes, nullptr);
  write(8189, "new");
  EXPECT_EQ(std::string(bytes, 4), "anew");
  EXPECT_EQ(peek(*reader, 8188, 5), nullptr) << "the file ends before";
  EXPECT_EQ(peek(*reader, ~std::uint64_t{0}, 4), nullptr);
  EXPECT_EQ(peek(*writer, 8188, 4), nullptr) << "its reads are not served";
}

TEST_F(ServedReads, FollowTheFileAsItGrows) {
  write(8192, std::string(8192, 'b'));
  for (int i = 0; i < kManyReads; ++i) EXPECT_EQ(read(8190, 4), "aabb");
  const std::uint64_t before = platform::faults::systemCalls();
  EXPECT_EQ(read(16380, 4), "bbbb");
  EXPECT_EQ(platform::faults::systemCalls(), before);
}

TEST_F(ServedReads, EndAtTheEndOfTheFile) {
  EXPECT_EQ(read(8190, 10), "aa");
  EXPECT_EQ(read(8192, 10), "");
  EXPECT_EQ(read(kWindow + 5, 10), "");
}

TEST_F(ServedReads, GoBeyondTheWindow) {
  write(kWindow - 2, "wxyz");
  for (int i = 0; i < kManyReads; ++i) EXPECT_EQ(read(kWindow - 2, 4), "wxyz");
  EXPECT_EQ(read(kWindow, 4), "yz");
}

TEST_F(ServedReads, KeepTheFileAsLongAsItIs) {
  EXPECT_EQ(platform::setFileSize(*writer, 10), 0u);
  EXPECT_EQ(size(), 8192u);
  EXPECT_EQ(read(8000, 3), "aaa");
}

TEST_F(ServedReads, LetTheFileBeExtended) {
  EXPECT_EQ(platform::setFileSize(*writer, 9000), 0u);
  EXPECT_EQ(size(), 9000u);
}

TEST_F(ServedReads, LetTheFileBeCutWhenTheReaderHasGone) {
  reader.reset();
  EXPECT_EQ(platform::setFileSize(*writer, 10), 0u);
  EXPECT_EQ(size(), 10u);
}

TEST(ServedReadsThatAreFew, LeaveTheFileToBeCut) {
  FreshFolder folder;
  folder.write("f", std::string(8192, 'a'));
  const OpenedFile reader(folder.file("f"));
  const OpenedFile writer(folder.file("f"));
  platform::serveReads(reader, kWindow);
  char byte = 0;
  std::uint32_t count = 0;
  EXPECT_EQ(platform::readFile(reader, 8000, &byte, 1, &count), 0u);
  EXPECT_EQ(platform::setFileSize(writer, 10), 0u);
  EXPECT_EQ(std::filesystem::file_size(folder.file("f")), 10u);
  for (int i = 0; i < kManyReads; ++i) {
    EXPECT_EQ(platform::readFile(reader, 8000, &byte, 1, &count), 0u);
    EXPECT_EQ(count, 0u);
  }
}

TEST_F(ServedReads, AreGivenUpWithTheirProcess) {
  reader.reset();
  ChildProcess child([&](const ChildProcess::Line& line) {
    const OpenedFile other(folder.file("f"));
    platform::serveReads(other, kWindow);
    char byte = 0;
    std::uint32_t count = 0;
    for (int i = 0; i < kManyReads; ++i) {
      if (platform::readFile(other, 0, &byte, 1, &count) != 0) return 1;
    }
    line.say('r');
    line.hear();
    return 0;
  });
  ASSERT_TRUE(child.hears('r'));
  EXPECT_EQ(platform::setFileSize(*writer, 10), 0u);
  EXPECT_EQ(size(), 8192u);
  child.kill();
  EXPECT_EQ(platform::setFileSize(*writer, 10), 0u);
  EXPECT_EQ(size(), 10u);
}

}  // namespace
}  // namespace zelta::testing

// The stable time of a file: reads and writes from memory that is shared with the file, while
// nobody else cuts it, and what others did to the file between two such times.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

#include "platform/faults.h"
#include "platform/file.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using platform::File;
using Line = ChildProcess::Line;
using platform::faults::systemCalls;

constexpr std::uint64_t kWindow = 64 * 1024;

/// Reads up to `length` bytes; what was not there is cut off.
std::string got(File file, std::uint64_t position, std::uint32_t length) {
  std::string bytes(length, '?');
  std::uint32_t transferred = 0;
  EXPECT_EQ(platform::readFile(file, position, bytes.data(), length, &transferred), 0u);
  EXPECT_LE(transferred, length);
  bytes.resize(transferred);
  return bytes;
}
void put(File file, std::uint64_t position, const std::string& bytes) {
  std::uint32_t transferred = 0;
  EXPECT_EQ(platform::writeFile(file, position, bytes.data(),
                                static_cast<std::uint32_t>(bytes.size()), &transferred),
            0u);
  EXPECT_EQ(transferred, bytes.size());
}
std::uint64_t sizeOf(File file) {
  std::uint64_t size = 0;
  EXPECT_EQ(platform::fileSize(file, &size), 0u);
  return size;
}

class Stable : public ::testing::Test {
 protected:
  void fill(std::size_t size, char byte = 'a') { folder.write("f", std::string(size, byte)); }
  [[nodiscard]] std::u16string name() const { return folder.file("f"); }
  [[nodiscard]] std::string bytes() const { return folder.bytes("f"); }
  /// Lets another process work on the file.
  template <class Work>
  void elsewhere(Work work) {
    ChildProcess other([&](const Line&) {
      const OpenedFile file(name());
      work(file);
      return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(other.wait(), 0);
  }

  FreshFolder folder;
};

TEST_F(Stable, TimesSpareTheSystemCallsInsideTheWindow) {
  fill(1000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  const std::uint64_t before = systemCalls();
  put(file, 610, "hello");
  EXPECT_EQ(got(file, 608, 9), "aahelloaa");
  EXPECT_EQ(systemCalls(), before);
  EXPECT_EQ(bytes().substr(608, 9), "aahelloaa") << "what is written is in the file";
  platform::endStable(file);
  EXPECT_EQ(got(file, 608, 9), "aahelloaa");
  EXPECT_EQ(systemCalls(), before + 1) << "outside of a stable time it is asked for";
}

TEST_F(Stable, TimesWriteHeadersByTheSystemOrWordByWord) {
  fill(1000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  const std::uint64_t before = systemCalls();
  put(file, 16, "whole");
  EXPECT_EQ(systemCalls(), before + 1) << "a process that is killed leaves no part of a header";
  std::uint32_t done = 0;
  ASSERT_EQ(platform::writeInOrder(file, 32, "0123456789abcdefXYZ", 19, &done), 0u);
  EXPECT_EQ(done, 19u);
  ASSERT_EQ(platform::writeInOrder(file, 61, "odd place", 9, &done), 0u);
  EXPECT_EQ(systemCalls(), before + 1);
  EXPECT_EQ(bytes().substr(14, 9), "aawholeaa");
  EXPECT_EQ(bytes().substr(31, 21), "a0123456789abcdefXYZa");
  EXPECT_EQ(bytes().substr(60, 11), "aodd placea");
  ASSERT_EQ(platform::writeInOrder(file, 1000, "longer", 6, &done), 0u);
  EXPECT_EQ(sizeOf(file), 1006u);
  platform::endStable(file);
}

TEST_F(Stable, ReadsEndWhereTheFileEnds) {
  fill(100);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  EXPECT_EQ(got(file, 90, 20), std::string(10, 'a'));
  EXPECT_EQ(got(file, 100, 1), "");
  EXPECT_EQ(got(file, 5000, 1), "");
  EXPECT_EQ(got(file, kWindow + 1, 1), "");
}

TEST_F(Stable, WritesMayReachBeyondTheWindowAndTheEnd) {
  fill(kWindow - 2);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  put(file, kWindow - 4, "12345678");
  EXPECT_EQ(sizeOf(file), kWindow + 4);
  EXPECT_EQ(got(file, kWindow - 6, 20), "aa12345678");
  put(file, kWindow - 1, "XY");
  EXPECT_EQ(got(file, kWindow - 6, 20), "aa123XY678");
  EXPECT_EQ(bytes().substr(kWindow - 6), "aa123XY678");
  platform::endStable(file);
}

TEST_F(Stable, TimesFollowTheHandlesOwnCutsAndGrowth) {
  fill(5000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  ASSERT_EQ(platform::setFileSize(file, 10), 0u);
  EXPECT_EQ(sizeOf(file), 10u);
  EXPECT_EQ(got(file, 0, 100), std::string(10, 'a'));
  EXPECT_EQ(got(file, 4000, 8), "") << "these bytes are gone";
  put(file, 10, "bb");
  EXPECT_EQ(got(file, 8, 100), "aabb");
  put(file, 20, "cc");
  EXPECT_EQ(got(file, 8, 100), std::string("aabb\0\0\0\0\0\0\0\0cc", 14));
  ASSERT_EQ(platform::setFileSize(file, 9000), 0u);
  EXPECT_EQ(got(file, 20, 4), std::string("cc\0\0", 4));
  put(file, 8000, "dd");
  EXPECT_EQ(got(file, 7999, 4), std::string("\0dd\0", 4));
  ASSERT_EQ(platform::setFileSize(file, 0), 0u);
  EXPECT_EQ(sizeOf(file), 0u);
  EXPECT_EQ(got(file, 0, 10), "");
  put(file, 0, "ee");
  EXPECT_EQ(got(file, 0, 10), "ee");
  platform::endStable(file);
  EXPECT_EQ(bytes(), "ee");
}

TEST_F(Stable, FilesMayBeEmptyAtFirst) {
  fill(0);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  EXPECT_EQ(sizeOf(file), 0u);
  EXPECT_EQ(got(file, 0, 4), "");
  put(file, 0, "abcd");
  const std::uint64_t before = systemCalls();
  EXPECT_EQ(got(file, 1, 4), "bcd");
  EXPECT_EQ(got(file, 1, 2), "bc");
  put(file, 1, "xy");
  EXPECT_LE(systemCalls(), before + 2) << "the read over the end, and the write in the header";
  EXPECT_EQ(bytes(), "axyd");
}

TEST_F(Stable, HolesAreNotWrittenThroughMemory) {
  // Their pages have no place on the disk yet: on a full one, a write to memory would kill.
  fill(0);
  const OpenedFile file(name());
  ASSERT_EQ(platform::setFileSize(file, 40000), 0u);
  platform::beginStable(file, kWindow);
  std::uint64_t before = systemCalls();
  put(file, 20000, "x");
  EXPECT_EQ(systemCalls(), before + 1);
  EXPECT_EQ(got(file, 19999, 3), std::string("\0x\0", 3));
  platform::endStable(file);

  fill(100);
  platform::beginStable(file, kWindow);
  before = systemCalls();
  ASSERT_EQ(platform::setFileSize(file, 30000), 0u);
  put(file, 20000, "y");
  EXPECT_EQ(systemCalls(), before + 2) << "a hole that was made in this time";
  platform::endStable(file);
}

TEST_F(Stable, TimesSeeWhatOthersWroteBetweenThem) {
  fill(1000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  EXPECT_EQ(got(file, 500, 3), "aaa");
  platform::endStable(file);
  elsewhere([](File other) {
    put(other, 501, "b");
    put(other, 1000, std::string(9000, 'c'));
  });
  platform::beginStable(file, kWindow);
  EXPECT_EQ(got(file, 500, 3), "aba");
  EXPECT_EQ(sizeOf(file), 10000u);
  const std::uint64_t before = systemCalls();
  EXPECT_EQ(got(file, 9990, 10), std::string(10, 'c')) << "the growth of another process";
  EXPECT_EQ(systemCalls(), before);
}

TEST_F(Stable, TimesSurviveThatAnotherProcessCutTheFile) {
  fill(60000);
  const OpenedFile file(name());
  for (const std::uint64_t size : {30000u, 4097u, 4096u, 4095u, 1u, 0u}) {
    platform::beginStable(file, kWindow);
    static_cast<void>(got(file, 0, 60000));  // touches all pages
    platform::endStable(file);
    elsewhere([&](File other) { EXPECT_EQ(platform::setFileSize(other, size), 0u); });
    EXPECT_EQ(got(file, size, 8), "") << "between two times";
    platform::beginStable(file, kWindow);
    EXPECT_EQ(sizeOf(file), size);
    EXPECT_EQ(got(file, 0, 60000), std::string(size, 'a'));
    EXPECT_EQ(got(file, 50000, 8), "");
    put(file, size, "tail");
    EXPECT_EQ(got(file, size, 8), "tail");
    ASSERT_EQ(platform::setFileSize(file, size), 0u);
    platform::endStable(file);
  }
}

TEST_F(Stable, WritesReachOtherProcessesAtOnce) {
  fill(1000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow);
  put(file, 100, "fresh");
  put(file, 1000, "appended");
  elsewhere([](File other) {
    EXPECT_EQ(got(other, 100, 5), "fresh");
    EXPECT_EQ(got(other, 1000, 20), "appended");
    platform::beginStable(other, kWindow);
    EXPECT_EQ(got(other, 100, 5), "fresh");
    put(other, 100, "FRESH");
  });
  EXPECT_EQ(got(file, 100, 5), "FRESH");
}

TEST_F(Stable, WritesDieNotWithTheirProcess) {
  fill(1000);
  ChildProcess victim([this](const Line& line) {
    const OpenedFile file(name());
    platform::beginStable(file, kWindow);
    put(file, 7, "kept");
    line.say('y');
    line.hear();
    return 0;
  });
  ASSERT_TRUE(victim.hears('y'));
  victim.kill();
  EXPECT_EQ(bytes().substr(6, 6), "akepta");
}

TEST_F(Stable, TimesOfOneStateOfLengthsAskForTheLengthOnce) {
  fill(1000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow, 7);
  EXPECT_FALSE(platform::endStable(file));
  const std::uint64_t before = systemCalls();
  platform::beginStable(file, kWindow, 7);
  EXPECT_EQ(sizeOf(file), 1000u);
  EXPECT_EQ(got(file, 998, 8), "aa");
  EXPECT_EQ(systemCalls(), before + 1) << "the read beyond the end alone";
  platform::endStable(file);
  elsewhere([](File other) { put(other, 1000, "bb"); });
  platform::beginStable(file, kWindow, 8);
  EXPECT_EQ(sizeOf(file), 1002u);
  EXPECT_EQ(got(file, 998, 4), "aabb");
  EXPECT_FALSE(platform::endStable(file)) << "it was not this handle's change";
}

TEST_F(Stable, TimesTellOfTheHandlesOwnChangesOfLength) {
  fill(1000);
  const OpenedFile file(name());
  platform::beginStable(file, kWindow, 7);
  put(file, 0, "inside");
  EXPECT_FALSE(platform::endStable(file));
  platform::beginStable(file, kWindow, 7);
  put(file, 1000, "x");
  EXPECT_TRUE(platform::endStable(file));
  platform::beginStable(file, kWindow, 8);
  ASSERT_EQ(platform::setFileSize(file, 10), 0u);
  EXPECT_TRUE(platform::endStable(file));
  platform::beginStable(file, kWindow, 9);
  EXPECT_EQ(sizeOf(file), 10u);
  EXPECT_FALSE(platform::endStable(file));
  put(file, 10, "y");
  platform::beginStable(file, kWindow, 9);
  EXPECT_EQ(sizeOf(file), 11u) << "what was done between two times counts too";
  EXPECT_TRUE(platform::endStable(file));
}

TEST_F(Stable, FilesShowTheirBytesWhereTheyAre) {
  fill(1000);
  const OpenedFile file(name());
  const char* view = nullptr;
  EXPECT_EQ(platform::viewFile(file, 0, 4, &view), 0u);
  EXPECT_EQ(view, nullptr) << "not outside of a stable time";
  platform::beginStable(file, kWindow);
  ASSERT_EQ(platform::viewFile(file, 996, 4, &view), 0u);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(std::string(view, 4), "aaaa");
  put(file, 997, "bc");
  EXPECT_EQ(std::string(view, 4), "abca") << "they follow what is written";
  for (const std::uint64_t position : {std::uint64_t{997}, kWindow, ~std::uint64_t{0} - 1}) {
    EXPECT_EQ(platform::viewFile(file, position, 4, &view), 0u);
    EXPECT_EQ(view, nullptr) << "nothing behind the end: " << position;
  }
  ASSERT_EQ(platform::setFileSize(file, 998), 0u);
  EXPECT_EQ(platform::viewFile(file, 996, 4, &view), 0u);
  EXPECT_EQ(view, nullptr) << "nor what was cut off";
  platform::endStable(file);
  EXPECT_EQ(platform::viewFile(file, 0, 4, &view), 0u);
  EXPECT_EQ(view, nullptr);
  EXPECT_EQ(platform::viewFile(File::none, 0, 4, &view), code::kInvalidHandle);
}

TEST_F(Stable, ReadsOfLockedWordsAreStoppedAllTheSame) {
  fill(1000);
  const OpenedFile one(name());
  const OpenedFile two(name());
  platform::beginStable(one, kWindow);
  ASSERT_EQ(platform::lockWord(two, {24}), 0u);
  char bytes[4];
  std::uint32_t transferred = 0;
  EXPECT_EQ(platform::readLockable(one, {24}, 24, bytes, 4, &transferred), code::kLockViolation);
  ASSERT_EQ(platform::unlockWord(two, {24}), 0u);
  EXPECT_EQ(platform::readLockable(one, {24}, 24, bytes, 4, &transferred), 0u);
}

TEST_F(Stable, TimesMayRepeatAndNeedNoEnd) {
  fill(100);
  const OpenedFile file(name());
  platform::endStable(file);
  platform::beginStable(file, 4096);
  platform::beginStable(file, kWindow);
  EXPECT_EQ(got(file, 98, 9), "aa");
  platform::endStable(file);
  platform::endStable(file);
  platform::beginStable(file, 4096);
  EXPECT_EQ(got(file, 98, 9), "aa");
}

/// Two handles work on one file; either may cut it while no other has a stable time.
TEST_F(Stable, TimesAtRandomAgreeWithAModel) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  constexpr std::uint64_t kSmallWindow = 3 * 4096;
  constexpr std::uint32_t kLargest = 20000;
  fill(0);
  std::string model;
  const OpenedFile files[2] = {OpenedFile(name()), OpenedFile(name())};
  int stable = -1;  // one at a time, as under a mutex
  for (int step = 0; step < 20000; ++step) {
    const int h = stable >= 0 ? stable : static_cast<int>(random() % 2);
    const std::uint64_t position = random() % kLargest;
    const auto length = static_cast<std::uint32_t>(random() % 300);
    switch (random() % 12) {
      case 0:
        platform::beginStable(files[h], kSmallWindow);
        stable = h;
        break;
      case 1:
        platform::endStable(files[h]);
        stable = -1;
        break;
      case 2:
        ASSERT_EQ(platform::setFileSize(files[h], position), 0u);
        model.resize(position);
        break;
      case 3:
      case 4:
      case 5:
      case 6: {
        const std::string data(length, static_cast<char>('a' + step % 26));
        const std::uint64_t at = random() % 2 == 0 ? model.size() : position;
        put(files[h], at, data);
        if (length != 0 && model.size() < at + length) model.resize(at + length);
        if (length != 0) model.replace(at, length, data);
        break;
      }
      default:
        ASSERT_EQ(got(files[h], position, length),
                  position < model.size() ? model.substr(position, length) : "");
    }
    ASSERT_EQ(sizeOf(files[h]), model.size());
    if (step % 1000 == 0) {
      ASSERT_EQ(bytes(), model);
    }
  }
}

}  // namespace
}  // namespace zelta::testing

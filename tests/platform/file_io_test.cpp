#include "platform/file_io.h"

#include "support/storage_fixture.h"

namespace zelta {
namespace {

using testing::FreshFolder;
using testing::OpenedFile;

TEST(FileIo, ReadingPastTheEndWithoutACountIs38) {
  const FreshFolder folder;
  folder.write("f", "0123456789");
  const OpenedFile file(folder.file("f"));
  char bytes[16];
  EXPECT_EQ(readBuffer(file, 0, bytes, 10), 0u);
  EXPECT_EQ(readBuffer(file, 5, bytes, 6), 38u);
  EXPECT_EQ(readBuffer(file, 10, bytes, 1), 38u);
  EXPECT_EQ(readBuffer(file, ~std::uint64_t{0}, bytes, 1), 38u);
  EXPECT_EQ(readLargeBuffer(file, 5, bytes, 6), 38u);
}

TEST(FileIo, WithACountAShortReadPassesAndOnlyAnEmptyOneIs38) {
  const FreshFolder folder;
  folder.write("f", "0123456789");
  const OpenedFile file(folder.file("f"));
  char bytes[16];
  std::uint32_t count = 99;
  EXPECT_EQ(readBuffer(file, 7, bytes, 16, &count), 0u);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(readBuffer(file, 10, bytes, 16, &count), 38u);
  EXPECT_EQ(count, 0u);
}

TEST(FileIo, LengthsOfZeroAndLessMakeNoCall) {
  EXPECT_EQ(writeBuffer(platform::File::none, 0, "", 0), 0u);
  EXPECT_EQ(writeBuffer(platform::File::none, 0, "", -1), 0u);
  char byte;
  EXPECT_EQ(readLargeBuffer(platform::File::none, 0, &byte, 0), 0u);
  EXPECT_EQ(readLargeBuffer(platform::File::none, 0, &byte, -5), 0u);
  EXPECT_NE(writeBuffer(platform::File::none, 0, "x", 1), 0u);
}

TEST(FileIo, WritesAndCutsLandWhereTheyShould) {
  const FreshFolder folder;
  const OpenedFile file(folder.file("f"));
  ASSERT_EQ(writeBuffer(file, 4, "abcd", 4), 0u);
  EXPECT_EQ(folder.bytes("f"), std::string("\0\0\0\0abcd", 8));
  ASSERT_EQ(truncateFile(file, 6), 0u);
  EXPECT_EQ(folder.bytes("f"), std::string("\0\0\0\0ab", 6));
}

TEST(FileIo, AWriteThatFallsShortIs38) {
  const FreshFolder folder;
  const OpenedFile file(folder.file("f"));
  const testing::StopAfter stop(0, true);
  EXPECT_EQ(writeBuffer(file, 0, "abcd", 4), 38u);
}

/// Lets a truncation fail with one code a number of times.
class TruncateFails : public platform::faults::Hook {
 public:
  TruncateFails(int times, SystemCode failure) : left(times), failure_(failure) {
    platform::faults::install(this);
  }
  ~TruncateFails() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    if (event.call == platform::faults::Call::truncate && left > 0) {
      --left;
      verdict.code = failure_;
    }
    return verdict;
  }
  int left;

 private:
  SystemCode failure_;
};

TEST(FileIo, CuttingAMappedFileIsTriedTenMoreTimes) {
  const FreshFolder folder;
  const OpenedFile file(folder.file("f"));
  {
    const TruncateFails hook(10, code::kUserMappedFile);
    EXPECT_EQ(truncateFile(file, 5), 0u);
  }
  const TruncateFails hook(100, code::kUserMappedFile);
  EXPECT_EQ(truncateFile(file, 5), code::kUserMappedFile);
  EXPECT_EQ(hook.left, 89);
}

TEST(FileIo, AnotherFailureOfCuttingReturnsAtOnce) {
  const FreshFolder folder;
  const OpenedFile file(folder.file("f"));
  const TruncateFails hook(100, code::kAccessDenied);
  EXPECT_EQ(truncateFile(file, 5), code::kAccessDenied);
  EXPECT_EQ(hook.left, 99);
}

/// The definition: byte i goes into byte i mod 8.
std::uint64_t plainChecksum64(const std::string& bytes) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    sum ^= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * (i % 8));
  }
  return sum;
}

TEST(Checksums, A64BitSumIsTheSameWholeOrInPieces) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto random = [engine = std::mt19937(seed)]() mutable {
    return static_cast<std::uint32_t>(engine());
  };
  for (int round = 0; round < 500; ++round) {
    std::string bytes(random() % 300, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    std::uint64_t whole = 0;
    EXPECT_EQ(xorChecksum64(whole, bytes.data(), bytes.size()), bytes.size() % 8);
    ASSERT_EQ(whole, plainChecksum64(bytes));
    std::uint64_t pieces = 0;
    unsigned phase = 0;
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t some = std::min<std::size_t>(bytes.size() - at, 8 - phase + random() % 30);
      phase = xorChecksum64(pieces, bytes.data() + at, some, phase);
      at += some;
    }
    ASSERT_EQ(pieces, whole);
  }
}

TEST(Checksums, A32BitSumTakesItsTailAsALowNumber) {
  std::uint32_t sum = 0;
  xorChecksum32(sum, "\x01\x02\x03\x04\x10\x20\x30", 7);
  EXPECT_EQ(sum, 0x04030201u ^ 0x302010u);
  std::uint32_t pieces = 0;
  xorChecksum32(pieces, "\x01\x02\x03\x04", 4);
  xorChecksum32(pieces, "\x10\x20\x30", 3);
  EXPECT_EQ(pieces, sum);
}

}  // namespace
}  // namespace zelta

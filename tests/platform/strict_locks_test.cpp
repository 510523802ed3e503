// Locks as other systems have them: what is locked through one handle, no other reads or writes,
// by whatever way.

#include <gtest/gtest.h>

#include <string>

#include "platform/faults.h"
#include "platform/file.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using platform::File;
using platform::LockWord;

constexpr std::uint64_t kWindow = 1u << 16;

/// A range that begins or ends somewhere about the word at 1024.
struct Range {
  std::uint64_t position;
  std::uint32_t length;
  bool touches;
};
constexpr Range kRanges[] = {{1024, 4, true},  {1020, 5, true},    {1027, 1, true},
                             {0, 4096, true},  {1000, 24, false},  {1028, 100, false},
                             {1024, 0, false}, {1024, 8192, true}, {4096, 4, false}};

class StrictLocks : public ::testing::TestWithParam<LockWord> {
 protected:
  StrictLocks() { platform::faults::useStrictLocks(true); }
  ~StrictLocks() override { platform::faults::useStrictLocks(wereStrict); }
  void SetUp() override {
    folder.write("f", std::string(4096, 'a'));
    ASSERT_EQ(platform::lockWord(owner, GetParam()), 0u);
  }
  [[nodiscard]] SystemCode read(File file, Range range) const {
    std::string bytes(range.length, '?');
    std::uint32_t count = 77;
    const SystemCode result =
        platform::readFile(file, range.position, bytes.data(), range.length, &count);
    if (result != 0) {
      EXPECT_EQ(count, 0u);
      EXPECT_EQ(bytes, std::string(range.length, '?')) << "no byte of it";
    }
    return result;
  }
  [[nodiscard]] SystemCode view(File file, Range range) const {
    const char* bytes = nullptr;
    return platform::viewFile(file, range.position, range.length, &bytes);
  }
  void expectRefusals(File file) {
    for (const Range& range : kRanges) {
      EXPECT_EQ(read(file, range), range.touches ? code::kLockViolation : 0)
          << range.position << " " << range.length;
    }
  }

  const bool wereStrict = platform::faults::strictLocks();
  FreshFolder folder;
  OpenedFile owner{folder.file("f")};
  OpenedFile other{folder.file("f")};
};

INSTANTIATE_TEST_SUITE_P(, StrictLocks, ::testing::Values(LockWord{1024}, LockWord{1024, 85}),
                         [](const auto& kind) {
                           return kind.param.ordinal == 0 ? "plain" : "numbered";
                         });

TEST_P(StrictLocks, RefuseReadsThroughOtherHandles) {
  expectRefusals(other);
  ASSERT_EQ(platform::unlockWord(owner, GetParam()), 0u);
  for (const Range& range : kRanges) EXPECT_EQ(read(other, range), 0u);
}

TEST_P(StrictLocks, LetTheirOwnerReadAndWrite) {
  for (const Range& range : kRanges) EXPECT_EQ(read(owner, range), 0u);
  std::uint32_t count = 0;
  EXPECT_EQ(platform::writeFile(owner, 1000, "some bytes about the locked word", 32, &count), 0u);
}

TEST_P(StrictLocks, RefuseReadsThatAreServedFromMemory) {
  platform::serveReads(other, kWindow);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(read(other, {2048, 1, false}), 0u);
  expectRefusals(other);
}

TEST_P(StrictLocks, RefuseReadsWritesAndViewsInAStableTime) {
  platform::beginStable(other, kWindow);
  expectRefusals(other);
  EXPECT_EQ(view(other, {1000, 24, false}), 0u);
  EXPECT_EQ(view(other, {1000, 25, true}), code::kLockViolation);
  std::uint32_t count = 77;
  EXPECT_EQ(platform::writeInOrder(other, 1024, "word", 4, &count), code::kLockViolation);
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(platform::endStable(other));
  EXPECT_EQ(folder.bytes("f"), std::string(4096, 'a'));
}

TEST_P(StrictLocks, RefuseWritesThroughOtherHandles) {
  std::uint32_t count = 77;
  EXPECT_EQ(platform::writeFile(other, 1027, "x", 1, &count), code::kLockViolation);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(platform::writeFile(other, 1028, "x", 1, &count), 0u);
}

TEST_P(StrictLocks, LieOnTheVeryWords) {
  EXPECT_EQ(platform::lockWord(other, {1027, 3}), code::kLockViolation);
  EXPECT_EQ(platform::lockWord(other, {1028, 85}), 0u);
}

}  // namespace
}  // namespace zelta::testing

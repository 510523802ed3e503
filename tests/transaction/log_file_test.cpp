#include "transaction/log/log_file.h"

#include <set>

#include "transaction/log_fixture.h"

namespace zelta {
namespace {

using testing::FreshFolder;
using testing::LogTest;
using testing::numberAt;
using testing::RawLog;

class SingleLog : public LogTest {};

TEST_F(SingleLog, ANewFileHasItsHeader) {
  ASSERT_TRUE(prepare().ok());
  const std::string bytes = folder.bytes("shop.zll");
  std::string expected("ZELL\1\0\0\0", 8);
  expected.resize(112, '\0');
  expected[24] = 112;
  EXPECT_EQ(bytes, expected);
}

TEST_F(SingleLog, TheFirstEntryLandsAt432AndItsRootAt112) {
  ASSERT_TRUE(prepare().ok());
  ASSERT_EQ(append(5, 101), 432u);
  EXPECT_EQ(head.blockLength, 320u) << "a block must do for a node later";
  EXPECT_EQ(head.number, 5u);
  EXPECT_EQ(head.sectionCount, 0u);
  const std::string bytes = folder.bytes("shop.zll");
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 8), 112u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), 752u);
  EXPECT_EQ(bytes.size(), 752u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 112), 320u);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 120), 27753u);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 122), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 124), 5u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 224), 432u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 432), 320u);
  EXPECT_EQ(bytes.substr(440, 4), "ZELL");
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 444), 5u);
  EXPECT_EQ(bytes.substr(448, 16), std::string(16, '\0'));
}

TEST_F(SingleLog, ALengthIsRoundedUpToEight) {
  ASSERT_TRUE(prepare().ok());
  append(2, 1001);
  EXPECT_EQ(head.blockLength, 1008u);
}

TEST_F(SingleLog, RemovingTheLastEntryLeavesTheHeaderAlone) {
  ASSERT_TRUE(prepare().ok());
  append(5, 400);
  const std::uint64_t second = append(6, 4000);
  ASSERT_TRUE(removeLogEntry(metaData, 5, 432).ok());
  EXPECT_EQ(raw().entries.size(), 1u);
  ASSERT_TRUE(removeLogEntry(metaData, 6, second).ok());
  EXPECT_EQ(folder.bytes("shop.zll").size(), 112u);
  const RawLog log = raw();
  EXPECT_EQ(log.root, 0u);
  EXPECT_EQ(log.freeHead, 0u);
  EXPECT_EQ(log.end, 112u);
  EXPECT_EQ(append(7, 40), 432u);
}

TEST_F(SingleLog, AnAbsentEntryIs33) {
  ASSERT_TRUE(prepare().ok());
  EXPECT_TRUE(removeLogEntry(metaData, 5, 0).is(Own::logEntryNotFound)) << "an empty tree";
  append(5, 400);
  EXPECT_TRUE(removeLogEntry(metaData, 6, 0).is(Own::logEntryNotFound));
  EXPECT_TRUE(removeLogEntry(metaData, 5, 440).is(Own::logEntryNotFound));
  reopen();
  EXPECT_TRUE(removeLogEntry(metaData, 5, 0).is(Own::logEntryNotFound)) << "no file";
}

TEST_F(SingleLog, AppendingOneNumberTwiceKeepsBothAndALookUpFindsTheLater) {
  ASSERT_TRUE(prepare().ok());
  const std::uint64_t first = append(1, 100);
  const std::uint64_t second = append(1, 100);
  EXPECT_NE(first, second);
  EXPECT_EQ(find(1), second);
  ASSERT_TRUE(removeLogEntry(metaData, 1, first).ok());
  EXPECT_EQ(find(1), second);
  ASSERT_TRUE(removeLogEntry(metaData, 1, second).ok());
  EXPECT_EQ(find(1), 0u);
  EXPECT_TRUE(last.ok());
}

TEST_F(SingleLog, AFullLeafSplitsInto20And5AndAnInnerNodeInto19And5) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 25; ++i) append(10 + i, 320);
  EXPECT_EQ(raw().depth, 1);
  append(35, 320);
  std::string bytes = folder.bytes("shop.zll");
  std::uint64_t root = numberAt<std::uint64_t>(bytes, 8);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, root + 8), 28265u);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, root + 10), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, root + 12), 30u) << "the right leaf's first key";
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, root + 112), 112u);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 122), 20u);
  const std::uint64_t right = numberAt<std::uint64_t>(bytes, root + 120);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, right + 10), 6u);
  // entry, new leaf, new root: in this order
  EXPECT_EQ(right, 752u + 25 * 320);
  EXPECT_EQ(root, right + 320);
  std::uint32_t number = 36;
  while (raw().depth == 2) append(number++, 320);
  const RawLog log = raw();
  EXPECT_EQ(log.depth, 3);
  EXPECT_EQ(log.entries.size(), number - 10);
  bytes = folder.bytes("shop.zll");
  root = numberAt<std::uint64_t>(bytes, 8);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, numberAt<std::uint64_t>(bytes, root + 112) + 10), 19u);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, numberAt<std::uint64_t>(bytes, root + 120) + 10), 6u);
}

TEST_F(SingleLog, RandomWorkAgreesWithAListOfEntries) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto random = [engine = std::mt19937(seed)]() mutable {
    return static_cast<std::uint32_t>(engine());
  };
  ASSERT_TRUE(prepare().ok());
  std::multimap<std::uint32_t, std::uint64_t> model;
  for (int step = 0; step < 3000; ++step) {
    const bool grow = random() % 100 < (step / 700 % 2 == 0 ? 65u : 35u);
    if (grow || model.empty()) {
      const std::uint32_t number = 1 + random() % (step % 2 == 0 ? 8 : 300);
      const std::uint64_t position = append(number, 32 + random() % 900);
      ASSERT_NE(position, 0u) << last.code();
      model.emplace(number, position);
    } else {
      auto it = model.lower_bound(random() % 300);
      if (it == model.end()) it = model.begin();
      if (random() % 4 == 0) it = std::prev(model.upper_bound(it->first));
      ASSERT_TRUE(removeLogEntry(metaData, it->first, it->second).ok());
      model.erase(it);
    }
    if (step % 50 != 0) continue;
    RawLog log = raw();
    ASSERT_EQ(log.entries.size(), model.size());
    auto entries = log.entries;
    std::sort(entries.begin(), entries.end());
    std::vector<std::pair<std::uint32_t, std::uint64_t>> expected(model.begin(), model.end());
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(entries, expected);
    for (std::uint32_t number = 1; number < 301; number += 11) {
      ASSERT_EQ(find(number) != 0, model.count(number) != 0);
      ASSERT_TRUE(last.ok());
    }
    ASSERT_EQ(folder.bytes("shop.zll").size(), log.end);
  }
  while (!model.empty()) {
    ASSERT_TRUE(removeLogEntry(metaData, model.begin()->first, model.begin()->second).ok());
    model.erase(model.begin());
  }
  EXPECT_EQ(folder.bytes("shop.zll").size(), 112u);
}

TEST_F(SingleLog, TheLookUpGivesTheLastOfEqualNumbersAcrossLeaves) {
  ASSERT_TRUE(prepare().ok());
  std::vector<std::uint64_t> ones;
  for (int i = 0; i < 70; ++i) {
    ones.push_back(append(1, 40));
    append(static_cast<std::uint32_t>(100 + i), 40);
  }
  while (!ones.empty()) {
    ASSERT_EQ(find(1), ones.back());
    ASSERT_TRUE(removeLogEntry(metaData, 1, 0).ok()) << "position 0 takes the last";
    ones.pop_back();
    ASSERT_EQ(raw().entries.size(), ones.size() + 70);
  }
  EXPECT_EQ(find(1), 0u);
}

TEST_F(SingleLog, AMissingFileHasNoEntryAndIsNotMade) {
  EXPECT_EQ(find(1), 0u);
  EXPECT_TRUE(last.ok());
  EXPECT_FALSE(folder.has("shop.zll"));
}

TEST_F(SingleLog, AFileThatNeverGotItsHeaderHasNoEntryAndGetsItNow) {
  for (const std::size_t length : {0u, 50u, 112u}) {
    reopen();
    folder.write("shop.zll", std::string(length, '\0'));
    EXPECT_EQ(find(1), 0u);
    EXPECT_TRUE(last.ok());
    ASSERT_TRUE(prepare().ok());
    EXPECT_EQ(append(2, 40), 432u);
    raw();
  }
}

TEST_F(SingleLog, AFileThatLostItsNameIsDropped) {
  ASSERT_TRUE(prepare().ok());
  append(5, 40);
  std::filesystem::remove(folder.path() / "shop.zll");
  EXPECT_EQ(find(5), 0u);
  EXPECT_TRUE(last.ok());
  ASSERT_TRUE(prepare().ok());
  append(6, 40);
  EXPECT_EQ(raw().entries.size(), 1u);
  std::filesystem::remove(folder.path() / "shop.zll");
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(folder.bytes("shop.zll").size(), 112u);
}

TEST_F(SingleLog, ANumberedFileUnderThePlainNameIs56) {
  std::string bytes("ZELO\1\0\0\0", 8);
  bytes.resize(112, '\0');
  bytes[24] = 112;
  folder.write("shop.zll", bytes);
  EXPECT_TRUE(prepare().is(Own::logFile));
  EXPECT_EQ(metaData.logFile, platform::File::none);
}

TEST_F(SingleLog, AnotherVersionIs24) {
  ASSERT_TRUE(prepare().ok());
  for (const std::uint64_t offset : {4u, 5u}) {
    std::string bytes = folder.bytes("shop.zll");
    bytes[offset] = 9;
    folder.write("shop.zll", bytes);
    EXPECT_TRUE(readHeader().is(Own::logVersion));
    bytes[offset] = offset == 4 ? 1 : 0;
    folder.write("shop.zll", bytes);
  }
}

TEST_F(SingleLog, ANodeOfAnotherTypeIs56AndTheFileStays) {
  ASSERT_TRUE(prepare().ok());
  append(5, 40);
  std::string bytes = folder.bytes("shop.zll");
  bytes[120] = 'x';
  folder.write("shop.zll", bytes);
  EXPECT_EQ(append(6, 40), 0u);
  EXPECT_TRUE(last.is(Own::logFile));
  EXPECT_EQ(find(5), 0u);
  EXPECT_TRUE(last.is(Own::logFile));
  EXPECT_TRUE(removeLogEntry(metaData, 5, 0).is(Own::logFile));
  EXPECT_TRUE(folder.bytes("shop.zll") == bytes);
}

TEST_F(SingleLog, NodesThatLeadInACircleAre56) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 30; ++i) append(10 + i, 40);
  std::string bytes = folder.bytes("shop.zll");
  const auto root = numberAt<std::uint64_t>(bytes, 8);
  for (int child = 0; child < 2; ++child) {
    std::memcpy(bytes.data() + root + 112 + 8 * child, &root, 8);
  }
  folder.write("shop.zll", bytes);
  EXPECT_EQ(find(12), 0u);
  EXPECT_TRUE(last.is(Own::logFile));
}

TEST_F(SingleLog, EveryFlippedByteOfHeaderAndRootGivesACodeOrALog) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 4; ++i) append(10 + i, 40);
  const std::string good = folder.bytes("shop.zll");
  for (std::size_t at = 0; at < 432; ++at) {
    for (const int mask : {0x01, 0x80, 0xFF}) {
      std::string bytes = good;
      bytes[at] = static_cast<char>(bytes[at] ^ mask);
      reopen();
      folder.write("shop.zll", bytes);
      SCOPED_TRACE(at);
      find(12);
      const Result found = last;
      if (found.failed()) {
        EXPECT_TRUE(found.is(Own::logFile) || found.is(Own::logVersion) || found.isSystem(38))
            << found.code();
      }
      reopen();
      folder.write("shop.zll", bytes);
      if (prepare().failed()) continue;
      append(20, 40);
      EXPECT_LE(folder.bytes("shop.zll").size(), 10000u) << "no wild growth";
    }
  }
}

TEST_F(SingleLog, AShorterFileThanTheHeaderSaysIs56) {
  ASSERT_TRUE(prepare().ok());
  append(10, 40);
  folder.write("shop.zll", folder.bytes("shop.zll").substr(0, 500));
  EXPECT_EQ(append(11, 40), 0u);
  EXPECT_TRUE(last.is(Own::logFile));
}

TEST_F(SingleLog, AppendsAndRemovalsKeepToTheirFlushes) {
  ASSERT_TRUE(prepare().ok());
  const auto flushes = [](auto work) {
    const std::uint64_t before = platform::faults::flushes();
    work();
    return platform::faults::flushes() - before;
  };
  EXPECT_LE(flushes([&] { append(5, 40); }), 3u);
  EXPECT_EQ(flushes([&] { append(6, 40); }), 3u);
  EXPECT_EQ(flushes([&] { removeLogEntry(metaData, 6, 0).ignore(); }), 3u);
  EXPECT_LE(flushes([&] { removeLogEntry(metaData, 5, 0).ignore(); }), 3u);
}

TEST_F(SingleLog, TheLockOfAnEntryIsItsChecksumWord) {
  EXPECT_EQ(logEntryLock(432).position, 456u);
  EXPECT_EQ(logImageSize(8), 12u);
  EXPECT_EQ(logImageSize(9), 16u);
  EXPECT_EQ(logImageSize(12), 16u);
}

class ExpectedPosition : public LogTest {
 protected:
  ExpectedPosition() {
    header.logFlags = 1;
    EXPECT_TRUE(prepare().ok());
  }
};

TEST_F(ExpectedPosition, TheFirstMustBe432) {
  EXPECT_EQ(append(2, 40, 440), 0u);
  EXPECT_TRUE(last.is(Own::logPosition));
  EXPECT_EQ(append(2, 40, 432), 432u);
}

TEST_F(ExpectedPosition, AnotherPositionThanTheNextIs68AndChangesNothing) {
  append(2, 40);
  const std::string before = folder.bytes("shop.0000.zll");
  EXPECT_EQ(append(3, 40, 480), 0u);
  EXPECT_TRUE(last.is(Own::logPosition));
  EXPECT_EQ(append(3, 40, 0x100000000), 0u);
  EXPECT_TRUE(last.is(Own::logPosition));
  EXPECT_TRUE(folder.bytes("shop.0000.zll") == before);
  EXPECT_EQ(append(3, 40, 472), 472u);
}

TEST_F(ExpectedPosition, AnEntryThatStandsThereIncompleteIsTaken) {
  append(2, 48);
  append(3, 48);
  const std::string before = folder.bytes("shop.0000.zll");
  EXPECT_EQ(append(2, 48, 432), 432u);
  EXPECT_EQ(head.sectionCount, 0u);
  EXPECT_EQ(head.blockLength, 48u);
  EXPECT_EQ(append(2, 56, 432), 0u) << "of another length";
  EXPECT_TRUE(last.is(Own::logPosition));
  EXPECT_EQ(append(4, 48, 432), 0u) << "of another number";
  EXPECT_TRUE(folder.bytes("shop.0000.zll") == before);
}

TEST_F(ExpectedPosition, ACompleteEqualEntryIs38AndABrokenOneIsTaken) {
  const std::uint64_t position = appendComplete(2, "something done");
  const std::uint64_t length = head.blockLength;
  EXPECT_EQ(append(2, length, position), 0u);
  EXPECT_TRUE(last.is(Own::logEntryExists));
  ASSERT_EQ(writeBuffer(metaData.logFile, position + 33, "?", 1), 0u);
  EXPECT_EQ(append(2, length, position), position);
  EXPECT_EQ(head.sectionCount, 1u);
}

TEST_F(ExpectedPosition, AnEntryInTheMakingElsewhereIsCode33) {
  const std::uint64_t position = append(2, 40);
  const testing::OpenedFile other(folder.file("shop.0000.zll"));
  ASSERT_EQ(platform::lockWord(other, logEntryLock(position)), 0u);
  EXPECT_EQ(append(2, 40, position), 0u);
  EXPECT_TRUE(last.isLocked());
  platform::unlockWord(other, logEntryLock(position));
  EXPECT_EQ(append(2, 40, position), position);
}

}  // namespace
}  // namespace zelta

// Changes of a log file that are cut off at each of their writes and flushes.

#include <functional>

#include "transaction/log_fixture.h"

namespace zelta {
namespace {

using testing::LogTest;
using testing::numberAt;
using testing::RawLog;
using testing::StopAfter;

class LogCrash : public LogTest {
 protected:
  /// Runs `work` from the same bytes again and again, cut off one call later each time, and looks
  /// at the log after the next opener. Stops when the work comes through.
  void cutEverywhere(const std::function<void()>& work,
                     const std::function<void(const RawLog&)>& check) {
    const std::string before = folder.bytes("shop.zll");
    bool cameThrough = false;
    for (std::uint64_t calls = 0; !cameThrough; ++calls) {
      ASSERT_LT(calls, 100u);
      for (const bool cut : {false, true}) {
        SCOPED_TRACE("after " + std::to_string(calls) + (cut ? " calls, cut" : " calls"));
        reopen();
        folder.write("shop.zll", before);
        ASSERT_TRUE(prepare().ok());
        {
          const StopAfter stop(calls, cut);
          work();
          cameThrough = !stop.stopped;
        }
        repairAndCheck(check);
      }
    }
  }

  /// The repair is cut off at each of its calls as well.
  void repairAndCheck(const std::function<void(const RawLog&)>& check) {
    const std::string broken = folder.bytes("shop.zll");
    std::string repaired;
    bool cameThrough = false;
    for (std::uint64_t calls = 0; !cameThrough; ++calls) {
      ASSERT_LT(calls, 100u);
      reopen();
      folder.write("shop.zll", broken);
      ASSERT_TRUE(prepare().ok());
      {
        const StopAfter stop(calls);
        readHeader().ignore();
        cameThrough = !stop.stopped;
      }
      const Result result = readHeader();
      ASSERT_TRUE(result.ok()) << result.code();
      // Copies behind the log's end may stay when the death came just before they were cut off.
      std::string bytes = folder.bytes("shop.zll");
      ASSERT_GE(bytes.size(), logFile.header().endOfLog);
      bytes.resize(logFile.header().endOfLog);
      if (calls == 0) repaired = bytes;
      ASSERT_TRUE(bytes == repaired) << "a repair that was cut off ends elsewhere";
      check(raw());
    }
  }
};

TEST_F(LogCrash, TheFirstAppendIsThereOrNot) {
  ASSERT_TRUE(prepare().ok());
  cutEverywhere([&] { append(5, 400); },
                [&](const RawLog& log) {
                  ASSERT_LE(log.entries.size(), 1u);
                  ASSERT_EQ(log.end, log.entries.empty() ? 112u : 832u);
                  const std::uint64_t position = append(6, 40);
                  ASSERT_NE(position, 0u);
                  ASSERT_EQ(raw().entries.size(), log.entries.size() + 1);
                });
}

TEST_F(LogCrash, ALaterAppendIsThereOrNot) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 3; ++i) append(10 + i, 400);
  cutEverywhere([&] { append(5, 400); },
                [&](const RawLog& log) {
                  ASSERT_TRUE(log.entries.size() == 3 || log.entries.size() == 4);
                  ASSERT_EQ(find(5) != 0, log.entries.size() == 4);
                });
}

TEST_F(LogCrash, AnAppendThatSplitsLeafAndRootIsThereOrNot) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 25; ++i) append(10 + i, 400);
  removeLogEntry(metaData, 12, 0).ignore();
  append(60, 40);  // out of the hole
  cutEverywhere([&] { append(61, 400); },
                [&](const RawLog& log) {
                  ASSERT_TRUE(log.entries.size() == 25 || log.entries.size() == 26);
                  ASSERT_EQ(log.depth, log.entries.size() == 25 ? 1 : 2);
                });
}

TEST_F(LogCrash, AnAppendOutOfTheChainIsThereOrNot) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 3; ++i) append(10 + i, 2000);
  removeLogEntry(metaData, 11, 0).ignore();
  cutEverywhere([&] { append(5, 400); },
                [&](const RawLog& log) {
                  ASSERT_TRUE(log.entries.size() == 2 || log.entries.size() == 3);
                  ASSERT_NE(log.freeHead, 0u);
                });
}

TEST_F(LogCrash, ARemovalIsDoneOrNot) {
  ASSERT_TRUE(prepare().ok());
  for (std::uint32_t i = 0; i < 27; ++i) append(10 + i, 400);
  for (std::uint32_t i = 0; i < 19; ++i) removeLogEntry(metaData, 10 + i, 0).ignore();
  // The last one of the left leaf: leaf and root go with it.
  cutEverywhere([&] { removeLogEntry(metaData, 29, 0).ignore(); },
                [&](const RawLog& log) {
                  ASSERT_TRUE(log.entries.size() == 7 || log.entries.size() == 8);
                  ASSERT_EQ(log.depth, log.entries.size() == 7 ? 1 : 2);
                });
  // The one at the end of the file: the log becomes shorter than its old end.
  cutEverywhere([&] { removeLogEntry(metaData, 36, 0).ignore(); },
                [&](const RawLog& log) { ASSERT_EQ(find(36) != 0, log.entries.size() == 7); });
}

TEST_F(LogCrash, TheRemovalOfTheLastEntryIsDoneOrNot) {
  ASSERT_TRUE(prepare().ok());
  append(5, 400);
  cutEverywhere([&] { removeLogEntry(metaData, 5, 0).ignore(); },
                [&](const RawLog& log) { ASSERT_EQ(log.end, log.entries.empty() ? 112u : 832u); });
}

/// An intent that stands in the file with its copies, not carried out.
class PendingIntent : public LogCrash {
 protected:
  PendingIntent() {
    EXPECT_TRUE(prepare().ok());
    for (std::uint32_t i = 0; i < 3; ++i) append(10 + i, 400);
    before = folder.bytes("shop.zll");
    {
      const StopAfter stop(3);  // intent, copies, flush
      append(20, 400);
    }
    pending = folder.bytes("shop.zll");
    EXPECT_NE(numberAt<std::uint64_t>(pending, 48), 0u);
  }
  void load(const std::string& bytes) {
    reopen();
    folder.write("shop.zll", bytes);
    ASSERT_TRUE(prepare().ok());
  }
  std::string before;
  std::string pending;
};

TEST_F(PendingIntent, HasTheFormThatItShould) {
  const std::uint64_t oldEnd = 432 + 3 * 400;
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 24), oldEnd);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 32), oldEnd);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 40), oldEnd + 400 + 328);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 48), oldEnd + 400);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 64), 112u);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 72), 0u);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 80), oldEnd);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 88), 400u);
  EXPECT_EQ(numberAt<std::uint32_t>(pending, 96), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(pending, 100), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(pending, 104), 20u);
  std::uint64_t checksum = 0;
  xorChecksum64(checksum, pending.data() + 64, 48);
  xorChecksum64(checksum, pending.data() + oldEnd + 400, 328);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, 56), checksum);
  EXPECT_EQ(numberAt<std::uint64_t>(pending, oldEnd + 400), 112u) << "the leaf's position";
  EXPECT_EQ(numberAt<std::uint64_t>(pending, oldEnd + 408), 320u) << "and its image";
}

TEST_F(PendingIntent, IsFinishedByTheNextOne) {
  load(pending);
  EXPECT_EQ(find(20), 432u + 3 * 400);
  EXPECT_EQ(raw().entries.size(), 4u);
  EXPECT_EQ(folder.bytes("shop.zll").size(), 432u + 4 * 400);
}

TEST_F(PendingIntent, IsLeftAloneByAReader) {
  load(pending);
  metaData.access = Access::read;
  EXPECT_EQ(find(20), 0u);
  EXPECT_TRUE(last.is(Own::notWritable));
  EXPECT_TRUE(folder.bytes("shop.zll") == pending);
}

TEST_F(PendingIntent, IsRolledBackWhenTheCopiesWereCutOff) {
  for (const std::size_t less : {1u, 100u, 328u, 728u}) {
    load(pending.substr(0, pending.size() - less));
    EXPECT_EQ(find(20), 0u);
    EXPECT_TRUE(last.ok());
    EXPECT_TRUE(folder.bytes("shop.zll") == before);
  }
}

TEST_F(PendingIntent, IsRolledBackOrRefusedForEveryFlippedByte) {
  for (std::size_t at = 24; at < pending.size(); ++at) {
    if (at == 112) at = 432 + 3 * 400 + 400;  // the log itself is none of its business
    for (const int mask : {0x01, 0xFF}) {
      SCOPED_TRACE(at);
      std::string bytes = pending;
      bytes[at] = static_cast<char>(bytes[at] ^ mask);
      load(bytes);
      const bool found = find(20) != 0;
      const std::string after = folder.bytes("shop.zll");
      // Neither `endOfLog` nor the very old end matter when the rest is right.
      if (found) {
        EXPECT_LT(at, 40u) << "carried out in spite of the damage";
      }
      if (last.failed()) {
        EXPECT_TRUE(last.is(Own::logFile)) << last.code();
      }
      EXPECT_LE(after.size(), pending.size() + 8) << "no wild growth";
    }
  }
}

TEST_F(PendingIntent, InAnEmptyLogGoesBackToTheHeader) {
  // As a log that was begun by rotation has it when the very first append dies.
  std::string bytes = pending;
  const std::uint64_t zero = 0;
  for (const std::size_t at : {8u, 24u, 32u}) std::memcpy(bytes.data() + at, &zero, 8);
  load(bytes);
  ASSERT_TRUE(readHeader().ok());
  EXPECT_EQ(logFile.header().endOfLog, 0u);
  EXPECT_EQ(folder.bytes("shop.zll").size(), 112u);
  EXPECT_EQ(append(3, 40), 432u);
}

}  // namespace
}  // namespace zelta

// Numbered log files: names, sizes, rotation, retention, look-up.

#include <chrono>
#include <set>

#include "transaction/log/later_entries.h"
#include "transaction/log/log_form.h"
#include "transaction/log_fixture.h"

namespace zelta {
namespace {

using testing::LogTest;
using testing::numberAt;

class NumberedLog : public LogTest {
 protected:
  NumberedLog() {
    header.logFlags = 1;
    header.logFileMegabytes = 1;
  }
  static std::string name(int number) {
    char text[32];
    std::snprintf(text, sizeof(text), "shop.%04x.zll", static_cast<unsigned>(number) & 0xFFFF);
    return text;
  }
  /// Makes a numbered file of an age.
  void make(int number, int hoursOld) {
    std::string bytes("ZELO\1\0\0\0", 8);
    bytes[6] = static_cast<char>(number & 0xFF);
    bytes[7] = static_cast<char>(number >> 8 & 0xFF);
    bytes.resize(112, '\0');
    bytes[24] = 112;
    folder.write(name(number), bytes);
    std::filesystem::last_write_time(
        folder.path() / name(number),
        std::filesystem::file_time_type::clock::now() - std::chrono::hours(hoursOld));
  }
  /// Appends beyond the limit of 1 MiB, in the file of `header`.
  void fill() {
    ASSERT_TRUE(prepare().ok());
    ASSERT_NE(append(1, 1100000), 0u);
  }
};

TEST_F(NumberedLog, ANewFileHasNumberAndMagicInItsHeader) {
  header.firstLogFile = header.lastLogFile = 0x1234;
  ASSERT_TRUE(prepare().ok());
  std::string expected("ZELO\1\0\x34\x12", 8);
  expected.resize(112, '\0');
  expected[24] = 112;
  EXPECT_EQ(folder.bytes("shop.1234.zll"), expected);
}

TEST_F(NumberedLog, SmallEntriesKeepTheirSizes) {
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(append(2, 33), 432u);
  EXPECT_EQ(head.blockLength, 40u);
  EXPECT_EQ(append(3, 32), 472u);
  EXPECT_EQ(head.blockLength, 32u);
  EXPECT_EQ(raw(name(0), "ZELO").entries.size(), 2u);
}

TEST_F(NumberedLog, TheEntryThatPassesTheSizeStaysAndTheNextCommitRotates) {
  fill();
  EXPECT_FALSE(folder.has(name(1)));
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 1u);
  EXPECT_EQ(header.firstLogFile, 0u);
  EXPECT_EQ(logFile.header().fileNumber, 1u);
  const std::string bytes = folder.bytes(name(1));
  EXPECT_EQ(bytes.size(), 112u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), 0u) << "until its first entry";
  const std::string control = folder.bytes("shop.zlc");
  EXPECT_EQ(numberAt<std::uint16_t>(control, 28), 0u);
  EXPECT_EQ(numberAt<std::uint16_t>(control, 30), 1u);
  EXPECT_EQ(append(2, 40), 432u);
  EXPECT_EQ(raw(name(1), "ZELO").end, 472u);
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 1u);
}

TEST_F(NumberedLog, TheLimitIsPassedStrictly) {
  ASSERT_TRUE(prepare().ok());
  append(1, 0x100000 - 432);
  EXPECT_EQ(raw(name(0), "ZELO").end, 0x100000u);
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 0u);
  append(2, 32);
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 1u);
}

TEST_F(NumberedLog, SizesAreReckonedInASignedWord) {
  header.logFileMegabytes = 2048;  // negative: beyond every file
  fill();
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 0u);
  header.logFileMegabytes = 0;  // 32 MiB
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 0u);
  header.logFileMegabytes = 4096;  // nothing at all
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 1u);
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 1u) << "a file begun by rotation has no end yet";
  append(1, 40);
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 2u);
}

TEST_F(NumberedLog, OldFilesGoUpToTheFirstThatIsYoung) {
  for (const int number : {3, 4, 6}) make(number, 200);
  make(7, 100);
  make(8, 300);
  header.firstLogFile = 3;
  header.lastLogFile = 9;
  fill();
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.firstLogFile, 7u);
  EXPECT_EQ(header.lastLogFile, 10u);
  for (const int number : {3, 4, 6}) EXPECT_FALSE(folder.has(name(number)));
  for (const int number : {7, 8, 9, 10}) EXPECT_TRUE(folder.has(name(number)));
  EXPECT_EQ(numberAt<std::uint16_t>(folder.bytes("shop.zlc"), 28), 7u);
}

TEST_F(NumberedLog, TheRetentionIsTheDatabasesOwn) {
  make(0, 3);
  make(1, 3);
  header.logRetentionHours = 2;
  header.lastLogFile = 2;
  fill();
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.firstLogFile, 2u);
  EXPECT_FALSE(folder.has(name(1)));
  EXPECT_TRUE(folder.has(name(2))) << "the file just filled stays";
}

TEST_F(NumberedLog, NumbersGoRoundAndTheOldestGivesWay) {
  header.firstLogFile = 0;
  header.lastLogFile = 0xFFFF;
  make(0, 1);
  fill();
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 0u);
  EXPECT_EQ(header.firstLogFile, 1u);
  EXPECT_EQ(raw(name(0), "ZELO").entries.size(), 0u);
}

TEST_F(NumberedLog, ALeftOverFileOfTheNextNumberIsBegunAnew) {
  fill();
  folder.write(name(1), std::string(5000, 'x'));
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(append(5, 40), 432u);
  EXPECT_EQ(folder.bytes(name(1)).size(), 472u);
  EXPECT_EQ(raw(name(1), "ZELO").entries.size(), 1u);
}

TEST_F(NumberedLog, AFailingRotationKeepsTheNumbers) {
  fill();
  ASSERT_TRUE(prepare().ok() && header.lastLogFile == 1);
  append(1, 1100000);
  const std::string control = folder.bytes("shop.zlc");
  for (std::uint64_t calls = 0; calls < 3; ++calls) {
    {
      const testing::StopAfter stop(calls);
      EXPECT_TRUE(prepare().isSystem(code::kGeneralFailure));
    }
    EXPECT_EQ(header.lastLogFile, 1u);
    EXPECT_FALSE(folder.has(name(2)));
    EXPECT_EQ(folder.bytes("shop.zlc"), control);
  }
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 2u);
}

TEST_F(NumberedLog, AFileOfAnotherNumberOrFormIs56) {
  make(5, 0);
  std::filesystem::rename(folder.path() / name(5), folder.path() / name(0));
  EXPECT_TRUE(prepare().is(Own::logFile));
  folder.write(name(0), "ZELL" + folder.bytes(name(0)).substr(4));
  EXPECT_TRUE(prepare().is(Own::logFile));
  EXPECT_EQ(metaData.logFile, platform::File::none);
}

TEST_F(NumberedLog, AHandleOfAnotherFileIsDropped) {
  fill();
  const platform::File old = metaData.logFile;
  header.lastLogFile = 4;
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(logFile.header().fileNumber, 4u);
  static_cast<void>(old);
  header.logFlags = 0;
  ASSERT_TRUE(prepare().ok());
  EXPECT_TRUE(logFile.header().isSingle());
  // The same number again, but another file.
  header.logFlags = 1;
  ASSERT_TRUE(prepare().ok());
  std::filesystem::remove(folder.path() / name(4));
  ASSERT_TRUE(prepare().ok());
  EXPECT_TRUE(folder.has(name(4)));
}

TEST_F(NumberedLog, TheSingleFormNeverRotates) {
  header.logFlags = 0;
  fill();
  ASSERT_TRUE(prepare().ok());
  EXPECT_EQ(header.lastLogFile, 0u);
  EXPECT_EQ(append(2, 40), 1100432u);
}

TEST_F(NumberedLog, TheLookUpWalksFromTheLastFileToTheFirst) {
  header.firstLogFile = 0xFFFE;
  header.lastLogFile = 0xFFFE;
  ASSERT_TRUE(prepare().ok());
  append(7, 40);
  append(8, 40);
  header.lastLogFile = 1;  // 0xFFFF is missing, and 0
  ASSERT_TRUE(prepare().ok());
  append(8, 40);
  writeControl();
  LogFile found(metaData);
  std::uint64_t position = 0;
  ASSERT_TRUE(findLogEntry(&header, 8, found, &position).ok());
  EXPECT_EQ(position, 432u);
  EXPECT_EQ(found.header().fileNumber, 1u);
  EXPECT_NE(found.handle(), metaData.logFile) << "a handle of its own, which may be closed";
  ASSERT_TRUE(findLogEntry(nullptr, 7, found, &position).ok());
  EXPECT_EQ(position, 432u);
  EXPECT_EQ(found.header().fileNumber, 0xFFFEu);
  ASSERT_TRUE(findLogEntry(nullptr, 9, found, &position).ok());
  EXPECT_EQ(position, 0u);
  EXPECT_FALSE(found.isOpen());
}

/// Counts the tries to open or delete a log file, and lets folders be unreadable.
class Tries : public platform::faults::Hook {
 public:
  explicit Tries(bool unreadable) : unreadable_(unreadable) { platform::faults::install(this); }
  ~Tries() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    if (event.call == Call::open || event.call == Call::remove) ++count;
    platform::faults::Verdict verdict;
    if (unreadable_ && event.call == Call::list) verdict.code = code::kAccessDenied;
    return verdict;
  }
  int count = 0;

 private:
  bool unreadable_;
};

/// Numbers that go round nearly once, as damage may have it: only what is there costs anything.
class NearlyAllNumbers : public NumberedLog, public ::testing::WithParamInterface<bool> {
 protected:
  static constexpr int kFew = 8;
  void SetUp() override {
    header.firstLogFile = header.lastLogFile = 0xFFFE;
    ASSERT_TRUE(prepare().ok());
    append(7, 40);
    header.lastLogFile = 100;
    ASSERT_TRUE(prepare().ok());
    append(8, 40);
    header.firstLogFile = 200;
    make(150, 999);  // between the last and the first
    folder.write("other.0101.zll", "of another database");
    folder.write("shop.0x01.zll", "no number");
    writeControl();
  }
  void expectFew(const Tries& tries) const {
    if (GetParam()) {
      EXPECT_GT(tries.count, 65000) << "nothing else tells what is there";
    } else {
      EXPECT_LE(tries.count, kFew);
    }
  }
};

TEST_P(NearlyAllNumbers, TheLookUpOpensWhatIsThere) {
  const Tries tries(GetParam());
  EXPECT_EQ(find(7), 432u);
  EXPECT_EQ(logFile.header().fileNumber, 0xFFFEu);
  EXPECT_EQ(find(8), 432u);
  EXPECT_LE(tries.count, GetParam() ? 200 : kFew);
  EXPECT_EQ(find(9), 0u);
  expectFew(tries);
}

TEST_P(NearlyAllNumbers, TheRetentionOpensWhatIsThere) {
  make(0xFFFD, 999);
  header.logFileMegabytes = 4096;
  const Tries tries(GetParam());
  ASSERT_TRUE(prepare().ok());
  expectFew(tries);
  EXPECT_FALSE(folder.has(name(0xFFFD)));
  EXPECT_EQ(header.firstLogFile, 0xFFFEu) << "that one is young";
  EXPECT_EQ(header.lastLogFile, 101u);
  EXPECT_TRUE(folder.has(name(150)));
}

TEST_P(NearlyAllNumbers, GivingThemUpDeletesWhatIsThere) {
  platform::closeFile(metaData.logFile);  // not every system deletes a file that is open
  metaData.logFile = platform::File::none;
  const Tries tries(GetParam());
  ASSERT_TRUE(setLogForm(metaData, header, false).ok());
  expectFew(tries);
  EXPECT_FALSE(folder.has(name(0xFFFE)));
  EXPECT_FALSE(folder.has(name(100)));
  EXPECT_TRUE(folder.has(name(150)));
}

TEST_P(NearlyAllNumbers, LaterEntriesAreSoughtInWhatIsThere) {
  header.lastLogFile = 0xFFFD;
  writeControl();
  platform::File file = platform::File::none;
  ASSERT_EQ(platform::openFile(folder.file(name(0xFFFE)).c_str(),
                               platform::Disposition::openExisting, &file),
            0u);
  const FileGuard guard(file);
  LogFile searched(metaData, file);
  const LogEntry entry{432, {40, {'Z', 'E', 'L', 'L'}, 7, 0, 0, 0}};
  std::set<std::uint64_t> objects = {1};
  const Tries tries(GetParam());
  EXPECT_TRUE(dropKnownLater(searched, entry, 1, 4, objects).ok());
  EXPECT_EQ(objects.size(), 1u);
  expectFew(tries);
}

INSTANTIATE_TEST_SUITE_P(Folder, NearlyAllNumbers, ::testing::Bool(),
                         [](const auto& state) { return state.param ? "Closed" : "Open"; });

TEST_F(NumberedLog, AFirstAppendThatDiesLeavesAFileThatCanBeUsed) {
  fill();
  ASSERT_TRUE(prepare().ok());
  for (std::uint64_t calls = 0; calls < 3; ++calls) {
    {
      const testing::StopAfter stop(calls, true);
      append(2, 400);
    }
    reopen();
    header.lastLogFile = 1;
    ASSERT_TRUE(prepare().ok());
    ASSERT_TRUE(readHeader().ok());
  }
  EXPECT_EQ(append(2, 400), 432u);
  EXPECT_EQ(raw(name(1), "ZELO").entries.size(), 1u);
}

TEST_F(NumberedLog, AThousandEntriesOfOneNumberStayInTheirOrder) {
  ASSERT_TRUE(prepare().ok());
  std::vector<std::pair<std::uint32_t, std::uint64_t>> expected;
  for (int i = 0; i < 1000; ++i) expected.emplace_back(1, append(1, 32));
  EXPECT_EQ(raw(name(0), "ZELO").entries, expected);
  EXPECT_EQ(find(1), expected.back().second);
}

TEST_F(NumberedLog, TwoLogsOfOneHistoryHaveTheSameBytes) {
  header.logFileMegabytes = 0;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::string images[2];
  for (std::string& image : images) {
    auto random = [engine = std::mt19937(seed)]() mutable {
      return static_cast<std::uint32_t>(engine());
    };
    reopen();
    std::filesystem::remove(folder.path() / name(0));
    ASSERT_TRUE(prepare().ok());
    std::uint64_t expected = 0;
    for (int i = 0; i < 400; ++i) {
      const std::uint32_t number = random() % 3 == 0 ? 1 : random() % 500;
      expected = append(number, 32 + random() % 300);
      ASSERT_NE(expected, 0u);
    }
    image = folder.bytes(name(0));
    raw(name(0), "ZELO");
  }
  EXPECT_TRUE(images[0] == images[1]);
}

}  // namespace
}  // namespace zelta

// Ends and sizes that a damaged file tells: nothing is written behind them, so that no file grows.

#include "storage/free_space/free_block.h"
#include "storage/paged/paged_file.h"
#include "storage/table_file/table_file.h"
#include "support/edit_session.h"
#include "transaction/log_fixture.h"

namespace zelta {
namespace {

using testing::add;
using testing::adds;
using testing::EditSession;
using testing::erase;
using testing::FreshFolder;
using testing::LogTest;
using testing::numberAt;
using testing::rewrite;

constexpr std::uint64_t kFar = std::uint64_t{1} << 31;

std::uint64_t sizeOf(const FreshFolder& folder, const char* name) {
  return std::filesystem::file_size(folder.path() / name);
}

/// Changes bytes of a file that others may have open.
void patch(const FreshFolder& folder, const char* name, std::uint64_t position, const void* bytes,
           std::int64_t length) {
  platform::File file = platform::File::none;
  ASSERT_EQ(
      platform::openFile(folder.file(name).c_str(), platform::Disposition::openExisting, &file),
      0u);
  EXPECT_EQ(writeBuffer(file, position, bytes, length), 0u);
  platform::closeFile(file);
}

/// Where the farthest write ends. None goes far.
class Longest : public platform::faults::Hook {
 public:
  explicit Longest(std::uint64_t& end) : end_(end) { platform::faults::install(this); }
  ~Longest() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    if (event.call != platform::faults::Call::write) return verdict;
    end_ = std::max(end_, event.position + event.length);
    if (end_ > kFar / 64) verdict.code = code::kDiskFull;
    return verdict;
  }

 private:
  std::uint64_t& end_;
};

class FalseEnd : public ::testing::TestWithParam<testing::TableForm> {
 protected:
  void SetUp() override {
    EditSession session(folder, GetParam());
    session.makeTable();
    ASSERT_TRUE(session.enter().ok()) << session.error();
    ASSERT_TRUE(session.carryOut(adds(1, 20)).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.carryOut({erase(3), erase(4), erase(5)}).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  FreshFolder folder;
};

TEST_P(FalseEnd, OfATableIs55BeforeACommitIsDecided) {
  const std::uint64_t end = kFar;
  const std::uint64_t size = sizeOf(folder, "T.zlt");
  const std::string before = folder.bytes("T.zlt");
  patch(folder, "T.zlt", offsetof(TableHeader_tag, endOfFile), &end, 8);
  EditSession session(folder, GetParam());
  ASSERT_TRUE(session.enter().ok()) << session.error();
  ASSERT_TRUE(session.carryOut(adds(101, 130)).ok()) << session.error();
  EXPECT_TRUE(session.commit().is(Own::tableFile));
  EXPECT_EQ(session.error(), "Table T has become corrupted.");
  EXPECT_EQ(sizeOf(folder, "T.zlt"), size);
  // The transaction stands, and commits once the table is mended.
  patch(folder, "T.zlt", 0, before.data(), static_cast<std::int64_t>(before.size()));
  EXPECT_TRUE(session.commit().ok()) << session.error();
  std::string damage;
  EXPECT_EQ(session.readAll(&damage).size(), 17u + 30u);
  EXPECT_EQ(damage, "");
  EXPECT_TRUE(session.end().ok()) << session.error();
}

TEST_P(FalseEnd, OfAMemoryFileIs58) {
  EditSession session(folder, GetParam());
  ASSERT_TRUE(session.enter().ok()) << session.error();
  ASSERT_TRUE(session.carryOut(adds(101, 101)).ok()) << session.error();
  const std::string before = folder.bytes("T.zlm");
  const std::uint64_t end = kFar;
  const std::uint64_t size = sizeOf(folder, "T.zlm");
  patch(folder, "T.zlm", offsetof(MemoryFileHeader_tag, endOfFile), &end, 8);
  EXPECT_TRUE(session.add({999, ""}, 999).is(Own::memoryFile)) << session.error();
  EXPECT_EQ(sizeOf(folder, "T.zlm"), size);
  patch(folder, "T.zlm", 0, before.data(), static_cast<std::int64_t>(before.size()));
  EXPECT_TRUE(session.end().ok()) << session.error();
}

INSTANTIATE_TEST_SUITE_P(Forms, FalseEnd, ::testing::ValuesIn(testing::kForms),
                         [](const auto& state) {
                           std::string name = state.param.name;
                           std::replace(name.begin(), name.end(), ' ', '_');
                           return name;
                         });

TEST(FalseFreeBlock, OfATableLeavesTheFileAsLongAsItWas) {
  FreshFolder folder;
  const testing::TableForm& form = testing::kForms[4];
  {
    EditSession session(folder, form);
    session.makeTable();
    ASSERT_TRUE(session.enter().ok());
    ASSERT_TRUE(session.carryOut(adds(1, 20, 400)).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.carryOut({erase(3), erase(4)}).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  const auto head =
      numberAt<std::uint64_t>(folder.bytes("T.zlt"), offsetof(TableHeader_tag, freeHead));
  ASSERT_NE(head, 0u);
  const std::uint32_t size = 0x7FFFFFF0;
  patch(folder, "T.zlt", head, &size, 4);
  const std::uint64_t length = sizeOf(folder, "T.zlt");
  EditSession session(folder, form);
  ASSERT_TRUE(session.enter().ok()) << session.error();
  ASSERT_TRUE(session.carryOut({add(30, 30, 100)}).ok()) << session.error();
  EXPECT_TRUE(session.commit().ok()) << "it stands in the log";
  EXPECT_NE(session.error(), "");
  clearError(session.metaData);
  EXPECT_LE(sizeOf(folder, "T.zlt"), length + 4096);
  EXPECT_TRUE(session.end().ok());
}

/// One that is joined with a neighbour is no reason to cut off what lies behind it.
TEST(FalseFreeBlock, OfATableLeavesTheObjectsBehindIt) {
  FreshFolder folder;
  const testing::TableForm& form = testing::kForms[4];
  {
    EditSession session(folder, form);
    session.makeTable();
    ASSERT_TRUE(session.enter().ok());
    ASSERT_TRUE(session.carryOut(adds(1, 20, 400)).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.carryOut({erase(3), erase(4)}).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  const std::string before = folder.bytes("T.zlt");
  const auto head = numberAt<std::uint64_t>(before, offsetof(TableHeader_tag, freeHead));
  ASSERT_NE(head, 0u);
  const std::uint32_t size = 0x7FFFFFF0;
  patch(folder, "T.zlt", head, &size, 4);
  const std::uint64_t length = sizeOf(folder, "T.zlt");
  EditSession session(folder, form);
  ASSERT_TRUE(session.enter().ok()) << session.error();
  ASSERT_TRUE(session.carryOut({erase(2)}).ok()) << session.error();
  EXPECT_TRUE(session.commit().ok()) << "it stands in the log";
  EXPECT_NE(session.error(), "");
  clearError(session.metaData);
  EXPECT_EQ(sizeOf(folder, "T.zlt"), length);
  EXPECT_TRUE(session.end().ok());
  // Once the block is mended the commit is carried out.
  patch(folder, "T.zlt", head, before.data() + head, 4);
  ASSERT_TRUE(session.enter().ok()) << session.error();
  std::string damage;
  EXPECT_EQ(session.readAll(&damage).size(), 17u);
  EXPECT_EQ(damage, "");
  EXPECT_TRUE(session.end().ok()) << session.error();
}

/// A journal that stands in a file, with no entry but one of a free block that lies far behind all
/// there is, and a sum that is right. `header` tells of it already.
std::string withFarBlock(std::string bytes, PagedFileHeader& header, std::uint32_t roots) {
  const std::size_t live = bytes.size();
  FreeEntry_tag entry{};
  entry.position = kFar;
  entry.size = 64;
  entry.dirty = 1;
  bytes.append(reinterpret_cast<const char*>(&entry), sizeof entry);
  std::memcpy(bytes.data() + sizeof header, bytes.data() + sizeof header + 8 * roots, 8 * roots);
  constexpr std::size_t kSummed = 64;
  std::uint64_t sum = 0;
  xorChecksum64(sum, reinterpret_cast<const char*>(&header) + kSummed, sizeof header - kSummed);
  xorChecksum64(sum, bytes.data() + sizeof header, 8 * roots);
  xorChecksum64(sum, bytes.data() + live, sizeof entry);
  header.journalChecksum = sum;
  std::memcpy(bytes.data(), &header, sizeof header);
  return bytes;
}

TEST(FalseJournal, OfAnIndexFileIsRolledBack) {
  FreshFolder folder;
  const testing::TableForm& form = testing::kForms[0];
  {
    EditSession session(folder, form);
    session.makeTable();
    ASSERT_TRUE(session.enter().ok());
    ASSERT_TRUE(session.carryOut(adds(1, 20)).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  const std::string before = folder.bytes("T.zli");
  IndexFileHeader_tag header;
  std::memcpy(&header, before.data(), sizeof header);
  ASSERT_EQ(header.endOfFile, before.size());
  header.journalBase = header.endOfFile;
  header.newEndOfFile = header.endOfFile;
  header.journalEnd = header.endOfFile + sizeof(FreeEntry_tag);
  header.newFreeHead = kFar;
  header.freeEntryCount = 1;
  folder.write("T.zli", withFarBlock(before, header, 1));
  EditSession session(folder, form);
  ASSERT_TRUE(session.enter().ok()) << session.error();
  std::string damage;
  EXPECT_EQ(session.readAll(&damage).size(), 20u);
  EXPECT_EQ(damage, "");
  EXPECT_EQ(sizeOf(folder, "T.zli"), before.size());
  EXPECT_TRUE(folder.bytes("T.zli") == before);
  EXPECT_TRUE(session.end().ok()) << session.error();
}

TEST(FalseJournal, OfAMemoryFileIsDropped) {
  FreshFolder folder;
  const testing::TableForm& form = testing::kForms[0];
  EditSession session(folder, form);
  session.makeTable();
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.carryOut(adds(1, 20)).ok()) << session.error();
  ASSERT_TRUE(session.commit().ok()) << session.error();
  std::string before = folder.bytes("T.zlm");
  MemoryFileHeader_tag header;
  ASSERT_GE(before.size(), sizeof header);
  std::memcpy(&header, before.data(), sizeof header);
  ASSERT_GE(before.size(), header.endOfFile);
  before.resize(header.endOfFile);
  header.journalBase = header.endOfFile;
  header.newEndOfFile = header.endOfFile;
  header.journalEnd = header.endOfFile + sizeof(FreeEntry_tag);
  header.newFreeHead = kFar;
  header.freeEntryCount = 1;
  const std::string spoilt = withFarBlock(before, header, 2);
  patch(folder, "T.zlm", 0, spoilt.data(), static_cast<std::int64_t>(spoilt.size()));
  ASSERT_TRUE(session.carryOut({add(101, 101)}).ok()) << session.error();
  EXPECT_LT(sizeOf(folder, "T.zlm"), kFar);
  ASSERT_TRUE(session.commit().ok()) << session.error();
  std::string damage;
  EXPECT_EQ(session.readAll(&damage).size(), 21u);
  EXPECT_EQ(damage, "");
  EXPECT_TRUE(session.end().ok()) << session.error();
}

/// Entries of a log in the single form, of which the one in the middle was removed.
class FalseLog : public LogTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(prepare().ok());
    for (const std::uint32_t number : {7u, 8u, 9u}) ASSERT_NE(append(number, 400), 0u);
  }
};

TEST_F(FalseLog, FreeBlockIs56) {
  ASSERT_TRUE(removeLogEntry(metaData, 8, 0).ok());
  const auto free = numberAt<std::uint64_t>(folder.bytes("shop.zll"), 16);
  ASSERT_NE(free, 0u);
  const std::uint64_t size = kFar;
  patch(folder, "shop.zll", free, &size, 8);
  const std::uint64_t length = sizeOf(folder, "shop.zll");
  EXPECT_EQ(append(10, 400), 0u);
  EXPECT_TRUE(last.is(Own::logFile));
  EXPECT_EQ(sizeOf(folder, "shop.zll"), length);
}

TEST_F(FalseLog, FreeBlockOfAnIntentIsRolledBack) {
  const std::string before = folder.bytes("shop.zll");
  {
    const testing::StopAfter stop(3);  // behind intent, copies and flush
    ASSERT_TRUE(removeLogEntry(metaData, 8, 0).failed());
  }
  const std::string pending = folder.bytes("shop.zll");
  LogHeader_tag intent;
  std::memcpy(&intent, pending.data(), sizeof intent);
  ASSERT_NE(intent.intentStart, 0u);
  ASSERT_EQ(intent.freeCount, 1u);
  const std::uint64_t block =
      std::max(intent.intentStart, intent.oldEnd) + std::uint64_t{intent.nodeCount} * 328;
  const auto position = numberAt<std::uint64_t>(pending, block);
  patch(folder, "shop.zll", block, &kFar, 8);
  const std::uint64_t sum = intent.intentChecksum ^ position ^ kFar;
  patch(folder, "shop.zll", offsetof(LogHeader_tag, intentChecksum), &sum, 8);
  std::uint64_t longest = 0;
  {
    const Longest hook(longest);
    reopen();
    ASSERT_TRUE(prepare().ok());
    ASSERT_TRUE(readHeader().ok());
  }
  EXPECT_LE(longest, pending.size());
  EXPECT_EQ(raw().entries.size(), 3u) << "as before the removal";
  EXPECT_EQ(folder.bytes("shop.zll"), before);
}

// -- Blocks that overlap --------------------------------------------------------------------------

/// New objects come to lie over the head of a record that keeps its block in the same commit.
TEST(OverlappingBlocks, AreWrittenInTheSizesThatThePlanHasSeen) {
  constexpr std::uint32_t kBlock = 48;  // of an object with 20 letters
  const FreshFolder folder;
  EditSession session(folder, testing::kForms[4]);
  session.makeTable();
  ASSERT_TRUE(session.enter().ok()) << session.error();
  ASSERT_TRUE(session.carryOut(adds(1, 5)).ok()) << session.error();
  ASSERT_TRUE(session.commit().ok()) << session.error();
  ASSERT_TRUE(session.carryOut({erase(2)}).ok()) << session.error();
  ASSERT_TRUE(session.commit().ok()) << session.error();
  const std::string bytes = folder.bytes("T.zlt");
  const auto freeBlock = numberAt<std::uint64_t>(bytes, offsetof(TableHeader_tag, freeHead));
  ASSERT_EQ(numberAt<std::uint32_t>(bytes, freeBlock), kBlock);
  // Its end is given to one object, and the other takes the 64 bytes that are left.
  const std::uint32_t covering = kBlock + 64;
  patch(folder, "T.zlt", freeBlock, &covering, sizeof covering);
  const std::vector<testing::EditStep> steps = {rewrite(3, 3), add(2, 2), add(6, 6), add(7, 7)};
  ASSERT_TRUE(session.carryOut(steps).ok()) << session.error();
  std::uint64_t longest = 0;
  {
    const Longest hook(longest);
    EXPECT_TRUE(session.commit().ok()) << session.error();
  }
  EXPECT_LT(longest, 10'000u);
  EXPECT_EQ(sizeOf(folder, "T.zlt"), bytes.size() + kBlock) << "one object went behind the end";
  EXPECT_TRUE(session.end().ok()) << session.error();
}

}  // namespace
}  // namespace zelta

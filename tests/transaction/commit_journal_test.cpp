// The journal of a table's commit: its bytes, where it stands, and what follows it.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "transaction/commit_bench.h"

namespace zelta::testing {
namespace {

/// Keeps the table file as it is when the intent has been written, and notes the calls behind that.
class TableWatch : public platform::faults::Hook {
 public:
  struct Change {
    platform::faults::Call call;
    std::uint64_t position;
    std::string bytes;
  };
  explicit TableWatch(const FreshFolder& folder) : folder_(folder) {
    platform::faults::install(this);
  }
  ~TableWatch() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    if (event.name.find(".zlt") == std::string::npos) return {};
    if (event.call != Call::write && event.call != Call::flush && event.call != Call::truncate) {
      return {};
    }
    const bool writes = event.call == Call::write;
    if (intentWritten_) {
      if (!atIntent) atIntent = folder_.bytes("T.zlt");
      std::string bytes;
      if (writes) bytes.assign(static_cast<const char*>(event.data), event.length);
      changes.push_back({event.call, event.position, bytes});
    }
    if (writes && event.position == 72) {
      EXPECT_EQ(event.length, 96u) << "the intent is one write";
      intentWritten_ = true;
    }
    return {};
  }
  std::optional<std::string> atIntent;
  std::vector<Change> changes;

 private:
  const FreshFolder& folder_;
  bool intentWritten_ = false;
};

struct JournalEntry {
  std::uint32_t kind;
  std::uint32_t newBlockSize;
  std::uint64_t objectID;
  std::uint64_t nextFreeID;
  std::uint64_t newPosition;
  std::uint64_t oldPosition;
};
static_assert(sizeof(JournalEntry) == 40);

/// The header of a table file with an intent, and its journal.
class Journal {
 public:
  explicit Journal(const std::string& bytes) : bytes_(bytes) {
    const std::size_t count = number32(112) + number32(104);
    start = number(80) - 40 * count;
    for (std::size_t i = 0; i < number32(112); ++i) {
      JournalEntry entry{};
      std::memcpy(&entry, bytes.data() + start + 40 * i, sizeof entry);
      entries.push_back(entry);
    }
    for (std::size_t i = number32(112); i < count; ++i) {
      const std::uint64_t at = start + 40 * i;
      freeBlocks[number(at)] = number(at + 16);
      EXPECT_EQ(number32(at + 32), 0u);
      EXPECT_EQ(number32(at + 36), 1u) << "dirty, and three bytes of zero";
    }
  }
  [[nodiscard]] std::uint64_t number(std::uint64_t at) const {
    return numberAt<std::uint64_t>(bytes_, at);
  }
  [[nodiscard]] std::uint32_t number32(std::uint64_t at) const {
    return numberAt<std::uint32_t>(bytes_, at);
  }
  [[nodiscard]] std::uint32_t checksum() const {
    std::uint32_t sum = 0;
    for (std::uint64_t at = 104; at < 168; at += 4) sum ^= number32(at);
    for (std::uint64_t at = start; at < number(80); at += 4) sum ^= number32(at);
    return sum;
  }
  [[nodiscard]] std::vector<JournalEntry> of(std::uint32_t kind) const {
    std::vector<JournalEntry> out;
    for (const JournalEntry& entry : entries) {
      if (entry.kind == kind) out.push_back(entry);
    }
    return out;
  }
  [[nodiscard]] JournalEntry only(std::uint32_t kind, std::uint64_t id) const {
    std::optional<JournalEntry> found;
    for (const JournalEntry& entry : entries) {
      if (entry.kind != kind || entry.objectID != id) continue;
      EXPECT_FALSE(found) << "two entries for object " << id;
      found = entry;
    }
    EXPECT_TRUE(found) << "no entry for object " << id;
    return found.value_or(JournalEntry{});
  }

  std::uint64_t start = 0;
  std::vector<JournalEntry> entries;
  std::map<std::uint64_t, std::uint64_t> freeBlocks;

 private:
  const std::string& bytes_;
};

/// 50 objects, and a transaction that makes the array of slots longer, with all kinds of edits.
const std::vector<EditStep> kEdits = {
    erase(20), erase(1), rewrite(30, 130, 200), rewrite(31, 131, 21), add(51, 51), add(60, 60)};

class CommitJournal : public ::testing::TestWithParam<TableForm> {
 protected:
  void SetUp() override {
    bench.emplace(GetParam());
    bench->commit(adds(1, 50));
    fileBefore = bench->folder.bytes("T.zlt");
    before.emplace(fileBefore, GetParam());
    EditSession session(bench->folder, GetParam());
    ASSERT_TRUE(session.enter().ok()) << session.error();
    ASSERT_TRUE(session.carryOut(kEdits).ok()) << session.error();
    transaction = session.metaData.transactionWord;
    {
      TableWatch watch(bench->folder);
      ASSERT_TRUE(session.commit().ok()) << session.error();
      ASSERT_TRUE(watch.atIntent);
      file = *watch.atIntent;
      changes = watch.changes;
    }
    ASSERT_TRUE(session.end().ok());
    journal.emplace(file);
    fileAfter = bench->folder.bytes("T.zlt");
    after.emplace(fileAfter, GetParam());
    EXPECT_EQ(after->damage, "");
  }
  /// The size that an entry names for a block of the variable table.
  [[nodiscard]] std::uint32_t block(std::uint32_t size) const {
    return GetParam().fixed ? 0 : size;
  }

  std::optional<Bench> bench;
  std::optional<RawTable> before;
  std::optional<RawTable> after;
  std::optional<Journal> journal;
  std::string fileBefore;
  std::string file;  ///< when the intent stands
  std::string fileAfter;
  std::vector<TableWatch::Change> changes;  ///< behind the intent
  std::uint32_t transaction = 0;
};

TEST_P(CommitJournal, Stands_behind_everything_with_an_intent_that_tells_what_will_be) {
  EXPECT_EQ(journal->number(72), before->end);
  EXPECT_EQ(journal->number(80), file.size());
  EXPECT_EQ(journal->number(88), after->end);
  EXPECT_EQ(journal->number32(96), journal->checksum());
  EXPECT_EQ(journal->number32(100), transaction);
  EXPECT_EQ(journal->number32(108), 0u);
  EXPECT_EQ(journal->number32(116), 0u);
  EXPECT_EQ(journal->number(120), after->areaStart);
  EXPECT_EQ(journal->number(128), after->freeHead);
  EXPECT_EQ(journal->number(136), 51u);
  EXPECT_EQ(journal->number(144), 60u);
  EXPECT_EQ(journal->number(152), 1u);
  EXPECT_EQ(journal->number(160), 0u);
  EXPECT_GE(journal->start, before->end);
  EXPECT_GE(journal->start, after->end);
}

TEST_P(CommitJournal, Comes_before_any_change_but_the_marks_of_what_goes) {
  std::string expected = fileBefore;
  for (const std::uint64_t id : {1u, 20u, 30u, 31u}) {
    std::memcpy(expected.data() + before->slotBase + 12 * id + 8, &transaction, 4);
  }
  EXPECT_EQ(file.substr(0, 72), expected.substr(0, 72));
  EXPECT_TRUE(file.substr(168, before->end - 168) == expected.substr(168, before->end - 168));
}

TEST_P(CommitJournal, Names_the_moves_first) {
  const std::vector<JournalEntry> moves = journal->of(9);
  // The slots take the first 14 records of the variable table, and all of the fixed one.
  EXPECT_EQ(moves.size(), GetParam().fixed ? 50u - 4 : 14u - 1);
  for (std::size_t i = 0; i < journal->entries.size(); ++i) {
    EXPECT_EQ(journal->entries[i].kind == 9, i < moves.size()) << i;
  }
  for (const JournalEntry& move : moves) {
    EXPECT_EQ(move.oldPosition, before->positions.at(move.objectID));
    EXPECT_EQ(move.newPosition, after->positions.at(move.objectID));
    EXPECT_EQ(move.newBlockSize, block(48));
    EXPECT_EQ(move.nextFreeID, 0u);
  }
}

TEST_P(CommitJournal, Names_every_edit_once) {
  EXPECT_EQ(journal->entries.size(), journal->of(9).size() + 6);
  EXPECT_EQ(journal->only(11, 1).nextFreeID, 20u);
  EXPECT_EQ(journal->of(11).size(), 2u);
  const JournalEntry next = journal->only(13, 51);
  EXPECT_EQ(next.newPosition, after->positions.at(51));
  EXPECT_EQ(next.newBlockSize, block(48));
  EXPECT_EQ(next.nextFreeID, 0u);
  EXPECT_EQ(next.oldPosition, 0u);
  const JournalEntry far = journal->only(13, 60);
  EXPECT_EQ(far.newPosition, after->positions.at(60));
  EXPECT_EQ(far.nextFreeID, 52u) << "the gap";
  EXPECT_EQ(far.oldPosition, 20u) << "the free ID ahead of it";
  const JournalEntry larger = journal->only(10, 30);
  EXPECT_EQ(larger.oldPosition, before->positions.at(30));
  EXPECT_EQ(larger.newPosition, after->positions.at(30));
  EXPECT_EQ(larger.newBlockSize, block(224));
  const JournalEntry kept = journal->only(10, 31);
  EXPECT_EQ(kept.oldPosition, before->positions.at(31));
  EXPECT_EQ(kept.newPosition, GetParam().fixed ? after->positions.at(31) : 0u);
  EXPECT_EQ(kept.newBlockSize, 0u);
  EXPECT_EQ(journal->freeBlocks, after->freeBlocks);
}

/// Behind that the moves must not be done again: slots lie where the records were.
TEST_P(CommitJournal, Is_followed_by_the_moves_and_the_mark_that_they_are_done) {
  using platform::faults::Call;
  ASSERT_EQ(changes.front().call, Call::flush) << "nothing is changed before the intent lasts";
  std::size_t i = 1;
  for (; changes.at(i).position != 32; ++i) {
    const std::uint64_t position = changes[i].position;
    const bool isMove =
        changes[i].call == Call::write && (position >= before->end || changes[i].bytes.size() == 8);
    const bool isFlush = changes[i].call == Call::flush && changes[i + 1].position == 32;
    EXPECT_TRUE(isMove || isFlush) << "at " << position;
  }
  EXPECT_EQ(changes[i - 1].call, Call::flush);
  Packed expected;
  for (const std::uint64_t number :
       {std::uint64_t{60}, std::uint64_t{1}, after->areaStart, after->freeHead, after->end}) {
    expected.number(number);
  }
  EXPECT_EQ(changes[i].bytes, expected.number(std::uint64_t{0}).str());
  EXPECT_EQ(changes.at(i + 1).call, Call::flush);
}

/// The contents last before the intent goes, and that before the file is cut.
TEST_P(CommitJournal, Ends_with_the_header_and_a_cut) {
  using platform::faults::Call;
  const std::size_t last = changes.size() - 1;
  ASSERT_GE(last, 3u);
  EXPECT_EQ(changes[last].call, Call::truncate);
  EXPECT_EQ(changes[last].position, after->end);
  EXPECT_EQ(changes[last - 1].call, Call::flush);
  EXPECT_EQ(changes[last - 2].position, 32u);
  EXPECT_EQ(changes[last - 2].bytes, fileAfter.substr(32, 136));
  EXPECT_EQ(changes[last - 3].call, Call::flush);
}

INSTANTIATE_TEST_SUITE_P(Forms, CommitJournal, ::testing::Values(kFixed, kVariable),
                         [](const ::testing::TestParamInfo<TableForm>& form) {
                           return std::string(form.param.name);
                         });

}  // namespace
}  // namespace zelta::testing

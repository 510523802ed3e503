// Headers of table files: their checks, and commits that were cut off. The files are made here byte
// by byte.

#include "storage/table_file/table_file.h"

#include <algorithm>
#include <utility>

#include "support/storage_fixture.h"

namespace zelta::testing {
namespace {

/// Appends and places little-endian numbers.
template <class Number>
void put(std::string& bytes, std::size_t at, Number value) {
  if (bytes.size() < at + sizeof value) bytes.resize(at + sizeof value, '\0');
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

std::uint32_t sumOf(const std::string& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4) sum ^= numberAt<std::uint32_t>(bytes, i);
  return sum;
}

constexpr std::uint32_t kSchemaSize = 20;
constexpr std::uint32_t kSlotBase = 176;  // (20 + 171 without its two low bits) - 12
constexpr std::uint64_t kArea = 788;      // room for 50 slots
constexpr std::uint32_t kBlock = 48;
constexpr std::uint64_t kFree = std::uint64_t{1} << 63;

/// A table of variable records with objects 1, 2, 3, and a commit of transaction 9 that rewrites 1
/// in place, deletes 2, moves 3 into its place and adds 6.
class TableFileTest : public ::testing::Test {
 protected:
  static std::uint64_t place(std::uint32_t i) { return kArea + std::uint64_t{kBlock} * i; }
  static std::size_t slot(std::uint64_t id) { return kSlotBase + 12 * id; }

  static void putRecord(std::string& bytes, std::uint64_t at, std::uint32_t id) {
    put(bytes, at, kBlock);
    put(bytes, at + 4, std::uint32_t{20});
    put(bytes, at + 8, std::uint16_t{1});
    put(bytes, at + 10, id);
    for (unsigned i = 0; i < 14; ++i) bytes[at + 14 + i] = static_cast<char>('a' + id);
    put(bytes, at + kBlock - 4, kBlock);
  }

  static std::string atRest() {
    std::string bytes(place(3), '\0');
    bytes.replace(0, 4, "ZELT");
    put(bytes, 4, std::uint16_t{1});
    put(bytes, 6, std::uint16_t{4});
    put(bytes, 8, kSlotBase);
    put(bytes, 12, kSchemaSize);
    put(bytes, 16, std::uint32_t{6});
    put(bytes, 20, std::uint32_t{10});
    put(bytes, 24, std::uint32_t{14});
    put(bytes, 28, kBlock);
    put(bytes, 32, std::uint64_t{3});
    put(bytes, 48, kArea);
    put(bytes, 64, place(3));
    for (std::uint32_t id = 1; id <= 3; ++id) {
      put(bytes, slot(id), place(id - 1));
      putRecord(bytes, place(id - 1), id);
    }
    return bytes;
  }

  static std::string entry(std::uint32_t kind, std::uint32_t size, std::uint64_t id,
                           std::uint64_t link, std::uint64_t to, std::uint64_t from) {
    std::string out;
    put(out, 0, kind);
    put(out, 4, size);
    put(out, 8, id);
    put(out, 16, link);
    put(out, 24, to);
    put(out, 32, from);
    return out;
  }

  static std::string journal() {
    std::string block;  // the free block that object 3 leaves
    put(block, 0, place(2));
    put(block, 8, std::uint64_t{0});
    put(block, 16, std::uint64_t{kBlock});
    put(block, 24, std::uint64_t{0});
    put(block, 32, std::uint64_t{1} << 32);
    return entry(9, kBlock, 3, 0, place(1), place(2)) + entry(10, 0, 1, 0, 0, place(0)) +
           entry(11, 0, 2, 0, 0, 0) + entry(13, kBlock, 6, 4, place(3), 2) + block;
  }

  /// The intent, with its checksum.
  static std::string committing(std::string bytes, const std::string& entries) {
    put(bytes, 72, place(3));
    put(bytes, 80, place(4) + entries.size());
    put(bytes, 88, place(4));
    put(bytes, 100, std::uint32_t{9});
    put(bytes, 104, std::uint32_t{1});
    put(bytes, 112, static_cast<std::uint32_t>(entries.size() / 40 - 1));
    put(bytes, 120, kArea);
    put(bytes, 128, place(2));
    put(bytes, 136, std::uint64_t{4});
    put(bytes, 144, std::uint64_t{6});
    put(bytes, 152, std::uint64_t{2});
    put(bytes, 96, sumOf(bytes.substr(104, 64)) ^ sumOf(entries));
    bytes.resize(place(4), '\0');
    return bytes + entries;
  }
  static std::string committing() { return committing(atRest(), journal()); }

  static std::string committed() {
    std::string bytes = atRest();
    put(bytes, 32, std::uint64_t{6});
    put(bytes, 40, std::uint64_t{2});
    put(bytes, 56, place(2));
    put(bytes, 64, place(4));
    put(bytes, slot(1) + 8, std::uint32_t{9});
    put(bytes, slot(2), kFree | 4);
    put(bytes, slot(3), place(1));
    put(bytes, slot(4), kFree | 5);
    put(bytes, slot(5), kFree);
    put(bytes, slot(6), place(3));
    put(bytes, slot(6) + 8, std::uint32_t{9});
    put(bytes, place(0) + 4, std::uint32_t{0});
    put(bytes, place(0) + 8, std::uint16_t{0xFFFF});
    bytes.replace(place(1), kBlock, bytes.substr(place(2), kBlock));
    put(bytes, place(2) + 4, 0xFFFFFFFFu);
    put(bytes, place(2) + 8, std::uint64_t{0});
    bytes.resize(place(4), '\0');
    put(bytes, place(3), kBlock);
    put(bytes, place(3) + 8, std::uint16_t{0xFFFF});
    put(bytes, place(3) + 10, std::uint32_t{6});
    put(bytes, place(4) - 4, kBlock);
    return bytes;
  }

  Result read(const std::string& bytes, bool mayRecover = true) {
    folder.write("T.zlt", bytes);
    const OpenedFile file(folder.file("T.zlt"));
    return readTableHeader(metaData, u"T", file, header, mayRecover);
  }
  [[nodiscard]] std::string bytes() const { return folder.bytes("T.zlt"); }

  FreshFolder folder;
  MetaData metaData;
  TableHeader_tag header{};
};

TEST_F(TableFileTest, AHeaderAtRestIsReadAndLeftAlone) {
  ASSERT_TRUE(read(atRest()).ok());
  EXPECT_EQ(header.highestID, 3u);
  EXPECT_EQ(header.endOfFile, place(3));
  EXPECT_TRUE(bytes() == atRest());
}

TEST_F(TableFileTest, OtherFilesAndVersionsAreRefused) {
  std::string other = atRest();
  other[3] = 'I';
  EXPECT_TRUE(read(other).is(Own::tableFile));
  for (const std::size_t at : {4u, 6u}) {
    other = atRest();
    ++other[at];
    EXPECT_TRUE(read(other).is(Own::tableVersion));
  }
  EXPECT_TRUE(read(atRest().substr(0, 167)).isSystem(code::kEndOfFile));
  EXPECT_TRUE(read("").isSystem(code::kEndOfFile));
}

TEST_F(TableFileTest, AnObjectAreaThatBeginsInTheSlotsIsDamage) {
  std::string low = atRest();
  put(low, 48, std::uint64_t{kSchemaSize + 12 * (3 + 14)});
  EXPECT_TRUE(read(low).ok());
  put(low, 48, std::uint64_t{kSchemaSize + 12 * (3 + 14) - 1});
  EXPECT_TRUE(read(low).is(Own::tableFile));
}

TEST_F(TableFileTest, NoFlippedByteOfAHeaderAtRestCostsAnObject) {
  const std::string good = atRest();
  for (std::size_t i = 0; i < 168; ++i) {
    for (const int flip : {0x01, 0x02, 0x10, 0x80, 0xFF}) {
      std::string bad = good;
      bad[i] = static_cast<char>(bad[i] ^ flip);
      read(bad).ignore();
      ASSERT_TRUE(bytes() == bad) << "byte " << i << " flip " << flip;
    }
  }
}

// -- Commits cut off ------------------------------------------------------------------------------

TEST_F(TableFileTest, ACompleteJournalIsCarriedOutWithPlaceholders) {
  ASSERT_TRUE(read(committing()).ok());
  EXPECT_TRUE(bytes() == committed());
  EXPECT_EQ(header.highestID, 6u);
  EXPECT_EQ(header.commitEnd, 0u);
}

TEST_F(TableFileTest, ARepairThatDiesAnywhereIsRepairedByTheNext) {
  for (const bool cut : {false, true}) {
    bool stopped = true;
    for (std::uint64_t calls = 0; stopped; ++calls) {
      ASSERT_LT(calls, 100u);
      {
        StopAfter stop(calls, cut);
        read(committing()).ignore();
        stopped = stop.stopped;
      }
      const OpenedFile file(folder.file("T.zlt"));
      ASSERT_TRUE(readTableHeader(metaData, u"T", file, header, true).ok()) << calls;
      // A file that was not cut any more ends behind the table; the next commit cuts it. Behind a
      // header that was written in part, the rest of the intent means nothing.
      std::string after = bytes().substr(0, place(4));
      if (cut) std::fill_n(after.begin() + 96, 168 - 96, '\0');
      ASSERT_TRUE(after == committed()) << calls << (cut ? " cut" : "");
    }
  }
}

TEST_F(TableFileTest, AJournalWithoutAnIntentIsNothing) {
  std::string early = atRest();
  early.resize(place(4), '\0');
  early += journal();
  for (const bool mayRecover : {true, false}) {
    ASSERT_TRUE(read(early, mayRecover).ok());
    EXPECT_TRUE(bytes() == early);
    EXPECT_EQ(header.endOfFile, place(3));
  }
}

/// Objects 1, 2, 3 of a table of fixed records with wide IDs, and a commit that rewrites 1, deletes
/// 2, moves 3 into its place and adds 6, where 3 was.
TEST_F(TableFileTest, PlaceholdersOfFixedRecordsAreVersionAndIDAlone) {
  constexpr std::uint64_t kRecord = 14;
  const auto record = [&](std::string& bytes, std::uint64_t i, std::uint16_t version,
                          std::uint64_t id, std::uint32_t value) {
    put(bytes, kArea + kRecord * i, version);
    put(bytes, kArea + kRecord * i + 2, id);
    put(bytes, kArea + kRecord * i + 10, value);
  };
  std::string sound = atRest().substr(0, kArea);
  for (const auto& [at, value] : {std::pair{16, 10u}, {20, 14u}, {24, 14u}, {28, 14u}}) {
    put(sound, static_cast<std::size_t>(at), value);
  }
  for (std::uint64_t id = 1; id <= 3; ++id) {
    record(sound, id - 1, 5, id, static_cast<std::uint32_t>(id * 11));
    put(sound, slot(id), kArea + kRecord * (id - 1));
  }
  put(sound, 64, kArea + 3 * kRecord);
  std::string intended = sound;
  const std::string entries = entry(9, 0, 3, 0, kArea + kRecord, kArea + 2 * kRecord) +
                              entry(10, 0, 1, 0, 0, kArea) + entry(11, 0, 2, 4, 0, 0) +
                              entry(13, 0, 6, 4, kArea + 2 * kRecord, 2);
  put(intended, 72, kArea + 3 * kRecord);
  put(intended, 80, kArea + 3 * kRecord + entries.size());
  put(intended, 88, kArea + 3 * kRecord);
  put(intended, 100, std::uint32_t{9});
  put(intended, 112, std::uint32_t{4});
  put(intended, 120, kArea);
  put(intended, 136, std::uint64_t{4});
  put(intended, 144, std::uint64_t{6});
  put(intended, 152, std::uint64_t{2});
  put(intended, 96, sumOf(intended.substr(104, 64)) ^ sumOf(entries));
  ASSERT_TRUE(read(intended + entries).ok());

  std::string expected = sound;
  put(expected, 32, std::uint64_t{6});
  put(expected, 40, std::uint64_t{2});
  for (const std::uint64_t id : {1u, 6u}) put(expected, slot(id) + 8, std::uint32_t{9});
  put(expected, slot(2), kFree | 4);
  put(expected, slot(3), kArea + kRecord);
  put(expected, slot(4), kFree | 5);
  put(expected, slot(5), kFree);
  put(expected, slot(6), kArea + 2 * kRecord);
  record(expected, 0, 0xFFFF, 1, 11);
  record(expected, 1, 5, 3, 33);
  record(expected, 2, 0xFFFF, 6, 33);  // the rest is what was there
  EXPECT_TRUE(bytes() == expected);
}

TEST_F(TableFileTest, AnIncompleteJournalIsForgotten) {
  const std::string whole = committing();
  for (const std::size_t size : {whole.size() - 1, whole.size() - 40, std::size_t{place(4)}}) {
    ASSERT_TRUE(read(whole.substr(0, size)).ok()) << size;
    ASSERT_TRUE(bytes() == atRest()) << size;
  }
}

TEST_F(TableFileTest, AJournalWithAWrongChecksumIsForgotten) {
  for (std::size_t i = place(4); i < committing().size(); ++i) {
    std::string bad = committing();
    bad[i] = static_cast<char>(bad[i] ^ 0x20);
    ASSERT_TRUE(read(bad).ok()) << i;
    ASSERT_TRUE(bytes() == atRest()) << i;
  }
}

TEST_F(TableFileTest, OnceTheMovesAreDoneAWrongChecksumIsDamage) {
  std::string bad = committing();
  put(bad, 72, std::uint64_t{0});
  bad[place(4) + 50] ^= 1;
  EXPECT_TRUE(read(bad).is(Own::tableFile));
  EXPECT_TRUE(bytes() == bad);
}

TEST_F(TableFileTest, EntriesThatReachBeyondTheTableAreDamage) {
  const std::string free = journal().substr(160);
  const std::vector<std::string> wrong = {
      entry(9, kBlock, 3, 0, 100, place(2)),            // over the schema
      entry(9, kBlock, 3, 0, place(4) - 40, place(2)),  // over the journal
      entry(9, kBlock, 7, 0, place(1), place(2)),       // an ID above the highest
      entry(10, 0, 1, 0, 0, 0),                         // over the header
      entry(10, 200, 1, 0, place(3), place(0)),
      entry(11, 0, 2, 7, 0, 0),
      entry(11, 0, 0, 0, 0, 0),
      entry(13, kBlock, 6, 7, place(3), 2),
      entry(13, kBlock, 6, 4, place(3), 7),
      entry(13, 16, 6, 4, place(3), 2),
  };
  for (const std::string& one : wrong) {
    std::string bad = committing(atRest(), one + free);
    EXPECT_TRUE(read(bad).is(Own::tableFile));
    EXPECT_EQ(bytes().substr(kArea), bad.substr(kArea));
  }
  EXPECT_TRUE(read(committing(atRest(), entry(12, 0, 1, 0, 0, 0) + free)).is(Own::unclassified));
  std::string wild = free;
  put(wild, 0, std::uint64_t{1} << 40);
  EXPECT_TRUE(read(committing(atRest(), entry(11, 0, 2, 0, 0, 0) + wild)).is(Own::tableFile));
}

TEST_F(TableFileTest, NoFlippedByteOfACommitUnderWayCostsAnObjectThatItLeavesAlone) {
  // Object 3 is moved: it must be found at one place or the other.
  const std::string object = atRest().substr(place(2) + 4, 24);
  for (const bool moved : {false, true}) {
    for (std::size_t i = 0; i < 168; ++i) {
      for (const int flip : {0x01, 0x10, 0x80, 0xFF}) {
        std::string bad = committing();
        if (moved) {
          bad.replace(place(1), kBlock, bad.substr(place(2), kBlock));
          put(bad, 72, std::uint64_t{0});
        }
        bad[i] = static_cast<char>(bad[i] ^ flip);
        const Result result = read(bad);
        const std::string after = bytes();
        ASSERT_LE(after.size(), bad.size());
        ASSERT_GE(after.size(), place(3)) << "byte " << i << " flip " << flip;
        ASSERT_TRUE(after.compare(place(1) + 4, 24, object) == 0 ||
                    after.compare(place(2) + 4, 24, object) == 0)
            << "byte " << i << " flip " << flip << " result " << result.word();
      }
    }
  }
}

TEST_F(TableFileTest, WithoutTheRightToRepairACommitUnderWayIsAnError) {
  EXPECT_TRUE(read(committing(), false).is(Own::notWritable));
  EXPECT_TRUE(bytes() == committing());
}

}  // namespace
}  // namespace zelta::testing

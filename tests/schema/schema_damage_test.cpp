// Damaged schema blocks: whatever stands in a table file, opening it gives a stated code or a table
// that can be used, and never a crash or more memory than the file is worth.

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include <random>

#include "block_packer.h"
#include "schema/stored_schema.h"
#include "schema_fixture.h"

namespace zelta::testing {

namespace {

/// A table with fields, rows and indexes of many kinds.
const Fields kFields = {{9}, {17}, {31}, {33}, {37, 5}, {2, 20}, {12, 44}, {10, 60, {{3}, {2, 8}}}};
const Indexes kIndexes = {{{{1, 1}}},
                          {{{5, 0x24}, {-1, 0}}},
                          {{{8, 0}, {-2, 0}}},
                          {{{2, 0}, {2, 0}}, CZELTA::TemporalTree},
                          {{{4, 0}, {5, 0x10}}, CZELTA::AsciiList},
                          {{}}};

/// The most memory that the process ever had, in KiB; 0 where that is not known.
long peakMemory() {
#ifdef _WIN32
  return 0;
#else
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
#endif
}

/// A block in memory of just its size, so that a step beyond its end is noticed.
class ExactBlock {
 public:
  explicit ExactBlock(const std::string& bytes) : bytes_(bytes.begin(), bytes.end()) {
    bytes_.shrink_to_fit();
  }
  /// Whether it is taken; a copy must be whole then, and validation must bear it.
  bool expand() {
    SchemaCopy copy;
    if (!expandStoredSchema(bytes_.data(), static_cast<std::uint32_t>(bytes_.size()), copy)) {
      return false;
    }
    EXPECT_LE(copy.bytes, 56 + bytes_.size() * 2) << "a copy is larger than what it is made of";
    MetaData metaData;
    ObjectSizes sizes;
    validateSchema(metaData, *copy.schema, sizes).ignore();
    static_cast<void>(storedSchema(*copy.schema));
    clearError(metaData);
    return true;
  }

 private:
  std::vector<char> bytes_;
};

}  // namespace

class SchemaDamage : public SchemaTest {
 protected:
  void SetUp() override {
    SchemaTest::SetUp();
    SchemaRecords records(kFields, kIndexes, 0);
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
    block = BlockPacker(records.schema).tableBlock();
    good = folder.bytes("T.zlt");
    ASSERT_EQ(good.substr(168, block.size()), block);
  }

  /// The ways into a table file.
  static constexpr CZELTA::Mode kModes[] = {CZELTA::TransactionRead, CZELTA::TransactionShared,
                                            CZELTA::TransactionExclusive,
                                            CZELTA::TransactionExclusiveRead};

  /// Opens the table as it lies, in one mode, and looks at it.
  unsigned long long open(CZELTA::Mode mode) {
    EXPECT_DONE(handle, handle.BeginTransaction(mode, 1000));
    const unsigned long long result = handle.OpenTable(1);
    text = messageOf(handle);
    if (result == 0) {
      unsigned int size = 0;
      EXPECT_DONE(handle, handle.GetTableSchema(1, nullptr, &size));
      std::vector<char> buffer(size);
      EXPECT_DONE(handle, handle.GetTableSchema(1, reinterpret_cast<CZELTA::Schema*>(buffer.data()),
                                                nullptr));
    }
    EXPECT_DONE(handle, handle.EndTransaction());
    return result;
  }
  /// Puts a file in the table's place and expects one of the codes, the same on every road.
  unsigned long long expectCode(const std::string& file,
                                std::initializer_list<unsigned long long> codes) {
    folder.write("T.zlt", file);
    const unsigned long long first = open(CZELTA::TransactionExclusive);
    EXPECT_NE(std::find(codes.begin(), codes.end(), first), codes.end())
        << std::hex << first << " " << text;
    for (const CZELTA::Mode mode : kModes) EXPECT_EQ(open(mode), first);
    EXPECT_TRUE(folder.bytes("T.zlt") == file) << "a file is changed by opening it";
    return first;
  }

  std::string block;
  std::string good;
  std::string text;  ///< of the last opening
};

TEST_F(SchemaDamage, EveryFlippedByteOfTheBlockIsFoundOrBorne) {
  const long before = peakMemory();
  std::size_t found = 0;
  for (std::size_t i = 0; i < block.size(); ++i) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      SCOPED_TRACE("byte " + std::to_string(i) + " flip " + std::to_string(flip));
      std::string bad = good;
      bad[168 + i] = static_cast<char>(bad[168 + i] ^ flip);
      folder.write("T.zlt", bad);
      const unsigned long long result = open(CZELTA::TransactionExclusive);
      ASSERT_TRUE(result == 0 || result == ownCode(55)) << std::hex << result;
      ASSERT_EQ(open(CZELTA::TransactionRead), result);
      if (result == 0) continue;
      ++found;
      EXPECT_EQ(text, "Table T has become corrupted.");
    }
  }
  EXPECT_GT(found, block.size() * 3 / 2);
  EXPECT_LT(peakMemory() - before, 256 * 1024);
  EXPECT_EQ(expectCode(good, {0}), 0u);
}

TEST_F(SchemaDamage, WhatIsDerivedMustAgree) {
  // Offset in the block, and what stands there.
  const struct {
    std::size_t at;
    const char* what;
  } cases[] = {{4, "table ID"},
               {2, "count of indexes"},
               {12, "count of fields"},
               {20, "zeros"},
               {24, "zeros"},
               {28, "position of fields"},
               {32, "position of indexes"},
               {36, "type"},
               {40, "offset"},
               {44, "size of a fixed field"},
               {48, "count of sub-fields"},
               {52, "position of a name"},
               {56, "position of sub-fields"},
               {36 + 24 + 4, "offset"},
               {36 + 7 * 24 + 12, "count of rows' sub-fields"},
               {36 + 7 * 24 + 20, "position of rows' sub-fields"},
               {36 + 8 * 24 + 4, "offset in a row"},
               {36 + 10 * 24, "flags of an index"},
               {36 + 10 * 24 + 2, "count of segments"},
               {36 + 10 * 24 + 4, "length of a key"},
               {36 + 10 * 24 + 8, "position of segments"},
               {36 + 10 * 24 + 4 * 12 + 4, "length of a prefix"}};
  for (const auto& one : cases) {
    SCOPED_TRACE(one.what);
    for (const int flip : {1, 4}) {
      std::string bad = good;
      bad[168 + one.at] = static_cast<char>(bad[168 + one.at] ^ flip);
      expectCode(bad, {ownCode(55)});
    }
  }
}

TEST_F(SchemaDamage, WhatNothingFollowsFromMayBeAnything) {
  // The caller's lock order, unknown flags, the lock index beyond the indexes: stored, not judged.
  for (const std::size_t at : {std::size_t{8}, std::size_t{11}, std::size_t{17}, std::size_t{1}}) {
    SCOPED_TRACE(at);
    std::string other = good;
    other[168 + at] = 0x55;
    EXPECT_EQ(expectCode(other, {0}), 0u);
  }
}

TEST_F(SchemaDamage, ACutFileEndsInItsSchema) {
  const std::size_t end = 168 + block.size();
  for (std::size_t length = 0; length < end; ++length) {
    SCOPED_TRACE(length);
    folder.write("T.zlt", good.substr(0, length));
    ASSERT_EQ(open(CZELTA::TransactionExclusive), systemCode(38));
    EXPECT_EQ(text, "Unexpected end of file in \"T.zlt\".\nPossible file corruption.");
    ASSERT_EQ(folder.bytes("T.zlt").size(), length);
  }
  for (const std::size_t length : {std::size_t{0}, std::size_t{167}, end - 1}) {
    expectCode(good.substr(0, length), {systemCode(38)});
  }
}

TEST_F(SchemaDamage, AWildSizeOfTheSchemaTakesNoMemory) {
  const long before = peakMemory();
  for (const std::uint32_t size : {0u, 1u, 35u, 36u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu,
                                   static_cast<std::uint32_t>(block.size() - 1),
                                   static_cast<std::uint32_t>(block.size() + 1)}) {
    SCOPED_TRACE(size);
    std::string bad = good;
    bad.replace(12, 4, reinterpret_cast<const char*>(&size), 4);
    expectCode(bad, {ownCode(55), systemCode(38)});
    // With the slot base that belongs to it.
    const std::uint32_t base =
        static_cast<std::uint32_t>(((std::uint64_t{size} + 171) & ~3ull) - 12);
    bad.replace(8, 4, reinterpret_cast<const char*>(&base), 4);
    expectCode(bad, {ownCode(55), systemCode(38)});
  }
  EXPECT_LT(peakMemory() - before, 256 * 1024);
}

TEST_F(SchemaDamage, AFileOfDamageIsNotEntered) {
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.RemoveTable(1, false));
  const std::string directory = control();
  for (std::size_t i = 0; i < 168 + block.size(); i += 3) {
    SCOPED_TRACE(i);
    std::string bad = good;
    bad[i] = static_cast<char>(~bad[i]);
    folder.write("T.zlt", bad);
    const unsigned long long result = handle.AddTable(u"T", 0, nullptr, 0);
    if (result == 0) {
      ASSERT_DONE(handle, handle.RemoveTable(1, false));
      continue;
    }
    EXPECT_TRUE(result == ownCode(55) || result == ownCode(22) || result == systemCode(38))
        << std::hex << result << messageOf(handle);
    EXPECT_EQ(control(), directory) << "a refused table changes the directory";
  }
  folder.write("T.zlt", good);
  EXPECT_DONE(handle, handle.AddTable(u"T", 0, nullptr, 0));
}

// -- The block alone ------------------------------------------------------------------------------

TEST_F(SchemaDamage, ABlockCutAnywhereIsRefused) {
  for (std::size_t length = 0; length < block.size(); ++length) {
    SCOPED_TRACE(length);
    ASSERT_FALSE(ExactBlock(block.substr(0, length)).expand());
  }
  EXPECT_TRUE(ExactBlock(block).expand());
}

TEST_F(SchemaDamage, WildNumbersAnywhereAreBorne) {
  const auto size = static_cast<std::uint32_t>(block.size());
  const std::uint32_t wild[] = {0,
                                1,
                                2,
                                17,
                                18,
                                19,
                                size / 2,
                                size / 2 - 1,
                                size / 2 + 1,
                                size,
                                0x7FFFFFFF,
                                0x80000000,
                                0x80000012,
                                0xFFFF,
                                0xFFFF0000,
                                0xFFFFFFFE,
                                0xFFFFFFFF};
  for (std::size_t at = 0; at + 4 <= block.size(); at += 2) {
    for (const std::uint32_t number : wild) {
      SCOPED_TRACE(std::to_string(number) + " at " + std::to_string(at));
      std::string bad = block;
      bad.replace(at, 4, reinterpret_cast<const char*>(&number), 4);
      ExactBlock(bad).expand();
      ASSERT_FALSE(HasFailure());
    }
  }
}

TEST_F(SchemaDamage, ANameWithoutAnEndIsRefused) {
  std::string bad = block;
  bad[block.size() - 2] = 'x';
  EXPECT_FALSE(ExactBlock(bad).expand());
  // The last name's position behind its terminator, at it, and at the end of the block.
  const std::size_t at = 36 + 9 * 24 + 16;  // the last sub-field's
  for (const std::size_t from : {block.size() - 2, block.size(), block.size() + 2}) {
    const auto position = static_cast<std::uint32_t>(from / 2);
    bad = block;
    bad.replace(at, 4, reinterpret_cast<const char*>(&position), 4);
    EXPECT_FALSE(ExactBlock(bad).expand());
  }
}

TEST_F(SchemaDamage, FieldsThatShareTheirPartsDoNotMultiplyThem) {
  // Many fields that all name one array of sub-fields, and one long name: a copy of each would be
  // a thousand times as large.
  constexpr std::uint32_t kMany = 1000;
  Packed bytes;
  const std::uint32_t names = 36 + 24 * 2 * kMany;
  bytes.number(0u).zeros(8).number(kMany).zeros(12).number(18u).number(0u);
  for (std::uint32_t f = 0; f < kMany; ++f) {
    bytes.number(10u).number(0u).number(0u).number(kMany).number(names / 2);
    bytes.number((36 + 24 * kMany) / 2);
  }
  for (std::uint32_t s = 0; s < kMany; ++s) {
    bytes.number(3u).number(s).number(1u).number(0u).number(names / 2).number(0u);
  }
  bytes.wide(std::u16string(kMany, u'n'));
  const long before = peakMemory();
  EXPECT_FALSE(ExactBlock(bytes).expand());
  EXPECT_LT(peakMemory() - before, 64 * 1024);
  // Plain fields that share one long name.
  Packed plain;
  plain.number(0u).zeros(8).number(kMany).zeros(12).number(18u).number(0u);
  for (std::uint32_t f = 0; f < kMany; ++f) {
    plain.number(3u).number(f).number(1u).number(0u).number((36 + 24 * kMany) / 2).number(0u);
  }
  plain.wide(std::u16string(20 * kMany, u'n'));
  EXPECT_FALSE(ExactBlock(plain).expand());
}

TEST_F(SchemaDamage, RandomDamageIsBorne) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 20000; ++round) {
    std::string bad = block;
    for (std::uint32_t changes = random() % 4 + 1; changes != 0; --changes) {
      bad[random() % bad.size()] = static_cast<char>(random() % 3 == 0 ? random() : 0);
    }
    if (random() % 8 == 0) bad.resize(random() % bad.size());
    ExactBlock(bad).expand();
    ASSERT_FALSE(HasFailure()) << round;
  }
}

}  // namespace zelta::testing

#include "transaction/commit/version_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "objects/read/read_version.h"
#include "support/read_bench.h"

namespace zelta::testing {
namespace {

class Versions : public ::testing::TestWithParam<bool> {
 protected:
  Versions() : bench_(ReadForm{false, GetParam(), false, false}) {
    bench_.write({{1, {10, "one"}}, {2, {20, "two"}}});
    ReadHandle& handle = bench_.first();
    handle.begin(CZELTA::TransactionShared);
    handle.pend(2, {21, "second"}, false);
    handle.pend(3, {30, "three"}, true);
  }
  ~Versions() override { clearError(bench_.first().metaData); }

  [[nodiscard]] std::string encoded(std::uint64_t id, std::uint16_t version, const Row& row) const {
    return ReadHandle::encode(bench_.form, id, version, row);
  }
  static std::string bytes(const ObjectBytes& object) {
    return object.data == nullptr ? std::string() : std::string(object.data, object.length);
  }
  ReadBench bench_;
};

TEST_P(Versions, ReadsTheCommittedAndThePendingOne) {
  ReadHandle& handle = bench_.first();
  AtomicManager manager(*handle.table);
  TableHeader_tag header;
  MemoryFileHeader_tag memory;
  ASSERT_TRUE(readTableHeader(handle.metaData, u"T", handle.table->tableFile, header, true).ok());
  ASSERT_TRUE(readMemoryFileHeader(manager, memory, true).ok());
  manager.attach(platform::File::none, nullptr, handle.table->memoryFile, &memory);
  ImageReader images(handle.metaData, handle.table->memoryFile, u"T", extension::kMemory,
                     handle.metaData.scratchFor(Scratch::record));
  VersionReader versions(manager, header, images);
  ObjectBytes before;
  ObjectBytes after;
  ASSERT_TRUE(versions.readBefore(2, &before).ok());
  ASSERT_TRUE(versions.readAfter(2, &after).ok());
  EXPECT_EQ(bytes(before), encoded(2, 7, {20, "two"}));
  EXPECT_EQ(bytes(after), encoded(2, 1, {21, "second"}));
  ASSERT_TRUE(versions.readAfter(3, &after).ok());
  EXPECT_EQ(bytes(after), encoded(3, 1, {30, "three"}));
  EXPECT_TRUE(versions.readAfter(1, &after).is(Own::objectNotFound));
  EXPECT_EQ(bytes(after), "");
}

TEST_P(Versions, APlaceholderIsNoVersion) {
  ReadHandle& handle = bench_.first();
  // It counts no bytes where records state their length.
  const std::uint32_t length = 0;
  const std::uint16_t placeholder = kPlaceholderVersion;
  if (GetParam()) bench_.patch(bench_.areaStart + 4, &length, sizeof length);
  bench_.patch(bench_.areaStart + (GetParam() ? 8u : 0u), &placeholder, sizeof placeholder);
  TableHeader_tag header;
  ASSERT_TRUE(readTableHeader(handle.metaData, u"T", handle.table->tableFile, header, true).ok());
  ObjectBytes object;
  // Records stand in descending order of ID.
  ASSERT_TRUE(readCommittedVersion(*handle.table, header, 2, &object).ok());
  EXPECT_EQ(bytes(object), "");
  ASSERT_TRUE(readCommittedVersion(*handle.table, header, 1, &object).ok());
  EXPECT_EQ(bytes(object), encoded(1, 7, {10, "one"}));
}

/// A version word that no object has is believed before the length beside it.
TEST_P(Versions, APlaceholderIsNoVersionWhateverLengthItStates) {
  ReadHandle& handle = bench_.first();
  const std::uint16_t placeholder = kPlaceholderVersion;
  bench_.patch(bench_.areaStart + (GetParam() ? 8u : 0u), &placeholder, sizeof placeholder);
  TableHeader_tag header;
  ASSERT_TRUE(readTableHeader(handle.metaData, u"T", handle.table->tableFile, header, true).ok());
  ObjectBytes object;
  ASSERT_TRUE(readCommittedVersion(*handle.table, header, 2, &object).ok());
  EXPECT_EQ(bytes(object), "");
  EXPECT_TRUE(readCommittedAside(*handle.table, 2, bench_.areaStart, &object).is(Own::tableFile));
  EXPECT_EQ(bytes(object), "");
}

INSTANTIATE_TEST_SUITE_P(Forms, Versions, ::testing::Bool(), [](const auto& tested) {
  return std::string(tested.param ? "variable" : "fixed");
});

TEST(CommittedVersion, WithoutLengthIsDamagedUnlessItIsAPlaceholder) {
  ReadBench bench;
  bench.write({{1, {10, "one"}}});
  ReadHandle& handle = bench.first();
  handle.begin(CZELTA::TransactionShared);
  const std::uint32_t length = 0;
  bench.patch(bench.areaStart + 4, &length, sizeof length);
  TableHeader_tag header;
  ASSERT_TRUE(readTableHeader(handle.metaData, u"T", handle.table->tableFile, header, true).ok());
  ObjectBytes object;
  EXPECT_TRUE(readCommittedVersion(*handle.table, header, 1, &object).is(Own::tableFile));
  EXPECT_EQ(object.data, nullptr);
  clearError(handle.metaData);
}

}  // namespace
}  // namespace zelta::testing

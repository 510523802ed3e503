// Lengths that stand in a file: none becomes memory before the file is known to have as much.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/object_handle.h"

namespace zelta::testing {
namespace {

using namespace std::string_literals;

/// More than anything here needs, and less than what the files claim.
constexpr std::uint64_t kMuch = 1024 * 1024;
constexpr std::uint64_t kFarEnd = 0x2'0000'0000;

class BelievedLength : public ObjectTest {
 protected:
  static constexpr std::uint64_t kHighestID = 32;
  static constexpr std::uint64_t kAreaStart = 48;
  static constexpr std::uint64_t kTableEnd = 64;

  template <class Number>
  static void put(std::string& bytes, std::uint64_t at, Number value) {
    ASSERT_LE(at + sizeof value, bytes.size());
    std::memcpy(bytes.data() + at, &value, sizeof value);
  }
  static std::uint64_t slot(const std::string& bytes, std::uint64_t id) {
    return numberAt<std::uint32_t>(bytes, 8) + 12 * id;
  }
  /// Damages the table file while nobody has it open.
  template <class Change>
  void damageTable(const Change& change) {
    one.reset();
    std::string bytes = folder.bytes("T.zlt");
    change(bytes);
    folder.write("T.zlt", bytes);
    one = join();
  }
  void expectLittleMemory() const {
    EXPECT_LT(one->table().objectBuffer.size(), kMuch);
    EXPECT_LT(one->metaData.scratchFor(Scratch::object).size(), kMuch);
  }
  /// A table whose objects take half a gigabyte each, and a file that claims to have one.
  void makeVast(const Indexes& indexes) {
    make({{CZELTA::TypeUInt32}, {CZELTA::TypeCharArray, 0x20000000}}, indexes);
    damageTable([](std::string& bytes) {
      put(bytes, kHighestID, std::uint64_t{1});
      put(bytes, kTableEnd, kFarEnd);
      put(bytes, slot(bytes, 1), numberAt<std::uint64_t>(bytes, kAreaStart));
    });
  }
};

TEST_F(BelievedLength, OfACommittedObject) {
  make({{CZELTA::TypeText}}, {});
  one->added("text\0"s);
  one->commit();
  damageTable([](std::string& bytes) {
    put(bytes, kTableEnd, kFarEnd);
    put(bytes, numberAt<std::uint64_t>(bytes, slot(bytes, 1)) + 4, 0xF0000000u);
  });
  for (const auto mode : {CZELTA::Mode{}, CZELTA::ReadNoLock}) {
    EXPECT_EQ(one->read(1, mode).word(), Result::system(code::kEndOfFile).word());
    expectLittleMemory();
  }
  EXPECT_EQ(one->erase(1).word(), Result::system(code::kEndOfFile).word());
  expectLittleMemory();
}

TEST_F(BelievedLength, OfACommittedObjectOfFixedSize) {
  makeVast({});
  EXPECT_EQ(one->read(1).word(), Result::system(code::kEndOfFile).word());
  expectLittleMemory();
}

TEST_F(BelievedLength, OfAnObjectForTheIndex) {
  makeVast(kNumberIndex);
  EXPECT_EQ(one->findNumber(1).word(), Result::system(code::kEndOfFile).word());
  expectLittleMemory();
}

TEST_F(BelievedLength, OfAnObjectForTheIndexWithVariableFields) {
  make({{CZELTA::TypeUInt32}, {CZELTA::TypeText}}, kNumberIndex);
  one->added(number(1) + "text\0"s);
  one->commit();
  damageTable([&](std::string& bytes) {
    put(bytes, kTableEnd, kFarEnd);
    const auto record = numberAt<std::uint64_t>(bytes, slot(bytes, 1));
    put(bytes, record, 900'000u);
    put(bytes, record + 4, 800'000u);
    std::filesystem::remove(folder.path() / "T.zli");
  });
  const std::uint64_t before = one->metaData.scratchFor(Scratch::object).size();
  EXPECT_EQ(one->findNumber(1).word(), ownWord(Own::tableFile));
  EXPECT_LT(one->metaData.scratchFor(Scratch::object).size(), before + 100'000);
}

TEST_F(BelievedLength, OfAPendingObject) {
  make({{CZELTA::TypeText}}, {});
  one->added("text\0"s);
  std::string bytes = folder.bytes("T.zlm");
  const MemoryImage image = pending();
  ASSERT_EQ(image.damage, "");
  const auto leaf = numberAt<std::uint64_t>(bytes, 88);
  ASSERT_EQ(numberAt<std::uint16_t>(bytes, leaf + 6), 1u);
  constexpr std::uint64_t kLengths = 1032;
  ASSERT_EQ(numberAt<std::uint32_t>(bytes, leaf + kLengths), one->table().objectLength);
  const std::string sound = bytes;
  put(bytes, leaf + kLengths, 0xF0000000u);
  put(bytes, 24, kFarEnd);
  folder.write("T.zlm", bytes);
  EXPECT_EQ(one->read(1).word(), Result::system(code::kEndOfFile).word());
  expectLittleMemory();
  folder.write("T.zlm", sound);  // the end of the transaction writes it
}

TEST_F(BelievedLength, OfAPendingObjectThatCannotBeLeavesTheObjectInTheBuffer) {
  make({{CZELTA::TypeText}}, {});
  one->added("text\0"s);
  const std::string sound = folder.bytes("T.zlm");
  std::string bytes = sound;
  put(bytes, numberAt<std::uint64_t>(bytes, 88) + 1032, 0xF0000000u);
  folder.write("T.zlm", bytes);
  const Table& table = one->table();
  const std::string before(table.objectData, table.objectLength);
  EXPECT_EQ(one->read(1).word(), ownWord(Own::memoryFile));
  ASSERT_NE(table.objectData, nullptr);
  EXPECT_EQ(std::string(table.objectData, table.objectLength), before);
  folder.write("T.zlm", sound);
}

}  // namespace
}  // namespace zelta::testing

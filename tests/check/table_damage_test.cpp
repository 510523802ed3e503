// Damaged table files: each invariant that the checker proves, broken once.

#include "check/damage_fixture.h"

namespace zelta::testing {
namespace {

constexpr std::uint64_t kFreeBit = std::uint64_t{1} << 63;

/// A table with places that the tests name.
class TableDamage : public Damage {
 protected:
  void makeTable(const TableForm& form) {
    make(form, 60);
    slotBase = word(kFile, 8, 4);
    area = word(kFile, 48);
    end = word(kFile, 64);
  }
  [[nodiscard]] std::uint64_t slot(std::uint64_t id) const { return slotBase + 12 * id; }
  [[nodiscard]] std::uint64_t record(std::uint64_t id) const { return word(kFile, slot(id)); }

  static constexpr const char* kFile = "T.zlt";
  std::uint64_t slotBase = 0;
  std::uint64_t area = 0;
  std::uint64_t end = 0;
};

TEST_F(TableDamage, OfTheHeader) {
  makeTable(kForms[2]);
  expectFound(kFile, 0, 'z');
  expectFound(kFile, 4, std::uint16_t{2});
  expectFound(kFile, 6, std::uint16_t{3}, 4);
  expectFound(kFile, 8, static_cast<std::uint32_t>(slotBase + 12));
  expectFound(kFile, 12, std::uint32_t{0xFFFFFF00});
  expectFound(kFile, 16, std::uint32_t{10});
  expectFound(kFile, 20, std::uint32_t{14});
  expectFound(kFile, 24, std::uint32_t{12});
  expectFound(kFile, 28, std::uint32_t{16});
  expectFound(kFile, 32, std::uint64_t{100000});
  expectFound(kFile, 32, std::uint64_t{59}, slot(60));  // the slot of 60 is above the highest then
  expectFound(kFile, 40, std::uint64_t{0});
  expectFound(kFile, 40, std::uint64_t{14});
  expectFound(kFile, 40, std::uint64_t{60});
  expectFound(kFile, 48, end + 16);
  expectFound(kFile, 48, area - 16, area - 16);  // no block begins there
  expectFound(kFile, 56, std::uint64_t{0});
  expectFound(kFile, 64, end + 1000);
  expectFound(kFile, 64, end - 16, record(60));  // the last record is cut
}

TEST_F(TableDamage, OfACommitThatWasCutOffIsPendingWork) {
  makeTable(kForms[2]);
  expectFound(kFile, 88, end, kThere, kPending);
  expectFound(kFile, 104, std::uint32_t{1}, kThere, kRemains);
}

TEST_F(TableDamage, OfTheSchema) {
  makeTable(kForms[2]);
  expectFound(kFile, 168 + 2, std::uint16_t{9}, 168);                     // count of indexes
  expectFound(kFile, 168 + 12, std::uint32_t{70000}, 168);                // count of fields
  expectFound(kFile, 168 + 36, std::uint32_t{555}, 168);                  // type of a field
  expectFound(kFile, 168 + 40, std::uint32_t{4});                         // its offset
  expectFound(kFile, 168 + 36 + 24 + 8, std::uint32_t{0xFFFFFFFF}, 268);  // a key follows it
  const std::uint64_t size = word(kFile, 12, 4);
  if (slot(1) > 168 + size) expectFound(kFile, 168 + size, '\1');
}

TEST_F(TableDamage, OfSlots) {
  makeTable(kForms[2]);
  expectFound(kFile, slot(5), std::uint64_t{0});
  expectFound(kFile, slot(5), end);
  expectFound(kFile, slot(5), record(6));
  expectFound(kFile, slot(5), record(5) + 16);
  expectFound(kFile, slot(5) + 8, std::uint32_t{3}, kThere, kRemains);
  expectFound(kFile, slot(61), std::uint64_t{1});
  // A record whose slot does not lead to it.
  expectFound(kFile, slot(5), record(6), record(5) + 8 + 2);
}

TEST_F(TableDamage, OfTheListOfFreeIDs) {
  makeTable(kForms[2]);
  ASSERT_EQ(word(kFile, 40), 7u);
  ASSERT_EQ(word(kFile, slot(7)), kFreeBit | 14);
  expectFound(kFile, slot(7), kFreeBit | 21);
  expectFound(kFile, slot(7), kFreeBit | 7);
  expectFound(kFile, slot(7), kFreeBit);
  expectFound(kFile, slot(7), record(8), 40);   // in use, although the list leads there
  expectFound(kFile, slot(5), kFreeBit, 40);    // free, and not on the list
  expectFound(kFile, slot(56), kFreeBit | 60);  // behind the last
  expectFound(kFile, slot(60), kFreeBit);
  expectFound(kFile, slot(7) + 8, std::uint32_t{3});
}

TEST_F(TableDamage, OfTheFramesOfRecords) {
  makeTable(kForms[2]);
  const std::uint64_t at = record(5);
  const auto size = static_cast<std::uint32_t>(word(kFile, at, 4));
  expectFound(kFile, at, size + 16, at + size + 12);  // another block's bytes are no tail
  expectFound(kFile, at, std::uint32_t{16});
  expectFound(kFile, at, std::uint32_t{0xFFFFFFF0});
  expectFound(kFile, at + 4, size - 11);
  expectFound(kFile, at + 4, std::uint32_t{0xFFFFFFFF}, 56);  // a free block out of the chain
  expectFound(kFile, at + size - 4, size + 1);
}

TEST_F(TableDamage, OfFreeBlocks) {
  makeTable(kForms[2]);
  const std::uint64_t at = word(kFile, 56);
  ASSERT_NE(at, 0u);
  const std::uint64_t next = word(kFile, at + 8);
  ASSERT_NE(next, 0u);
  expectFound(kFile, at + 4, std::uint32_t{5}, 56);  // no marker: it counts as a record then
  expectFound(kFile, at + 8, std::uint64_t{0});
  expectFound(kFile, at + 8, at);
  expectFound(kFile, at + 8, next + 16);
  expectFound(kFile, at, static_cast<std::uint32_t>(word(kFile, at, 4) + 16),
              at + word(kFile, at, 4) + 12);
}

TEST_F(TableDamage, OfObjects) {
  makeTable(kForms[2]);
  const std::uint64_t object = record(5) + 8;
  expectFound(kFile, object, std::uint16_t{0});
  expectFound(kFile, object, std::uint16_t{0xFFFF});  // whose content nothing brings
  expectFound(kFile, object + 2, std::uint32_t{6});
  expectFound(kFile, object + 2, std::uint32_t{0});
  expectFound(kFile, object + 2, std::uint32_t{61});
  const std::uint64_t length = word(kFile, record(5) + 4, 4);
  expectFound(kFile, object + length - 1, 'x', object + 10);  // a text without its end
  expectFound(kFile, object + length - 3, '\0', object + length - 2);
  expectFound(kFile, record(5) + 4, static_cast<std::uint32_t>(9), object);
  expectFound(kFile, record(5) + 4, static_cast<std::uint32_t>(0), record(5) + 4);
}

TEST_F(TableDamage, OfKeysIsSeenFromBothSides) {
  makeTable(kForms[2]);
  const std::string index = "T.zli";
  const std::uint64_t number = record(5) + 8 + 6;
  expectFound(kFile, number, std::uint32_t{70000}, record(5));  // the new key is in no index
  const std::string sound = folder.bytes(kFile);
  put(kFile, number, std::uint32_t{70000});
  const std::string both = findings();
  EXPECT_NE(both.find("no such key"), std::string::npos) << both;
  EXPECT_NE(both.find("index 0: key of object 5 is missing"), std::string::npos) << both;
  EXPECT_EQ(both.find("index 1"), std::string::npos) << both;
  folder.write(kFile, sound);
  EXPECT_EQ(findings(), "");
}

TEST_F(TableDamage, OfFixedRecords) {
  makeTable(kForms[0]);
  expectFound(kFile, 56, area);
  expectFound(kFile, 64, end - 1);
  expectFound(kFile, 64, end - 10, slot(word(kFile, end - 8, 4)));
  expectFound(kFile, slot(5), record(6));
  expectFound(kFile, slot(5), record(5) + 1);
  expectFound(kFile, record(5), std::uint16_t{0});
  expectFound(kFile, record(5), std::uint16_t{0xFFFF});  // whose content nothing brings
  expectFound(kFile, record(5) + 2, std::uint32_t{6});
}

TEST_F(TableDamage, OfWideIDs) {
  makeTable(kForms[3]);
  const std::uint64_t object = record(5) + 8;
  expectFound(kFile, object + 2, std::uint64_t{6});
  expectFound(kFile, object + 2, (std::uint64_t{1} << 32) | 5);
  expectFound(kFile, 32, std::uint64_t{1} << 40);
}

TEST_F(TableDamage, OfAFileThatIsGoneOrCut) {
  makeTable(kForms[2]);
  const std::string sound = folder.bytes(kFile);
  for (const std::size_t length : {std::size_t{0}, std::size_t{100}, std::size_t{168}}) {
    folder.write(kFile, sound.substr(0, length));
    EXPECT_NE(findings(), "") << length;
  }
  folder.write(kFile, sound.substr(0, sound.size() - 1));
  EXPECT_TRUE(has(kFile, 64, CheckKind::damage));
  folder.write(kFile, sound + "more");
  EXPECT_TRUE(has(kFile, sound.size(), kRemains));
  std::filesystem::remove(folder.path() / kFile);
  EXPECT_TRUE(has(kFile, 0, CheckKind::damage));
}

}  // namespace
}  // namespace zelta::testing

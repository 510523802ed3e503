// Damaged control files, and transactions that left something in them.

#include "check/market.h"

namespace zelta::testing {
namespace {

class ControlDamage : public Market {
 protected:
  void SetUp() override {
    makeTables();
    ASSERT_EQ(findings().size(), 0u);
    const std::string bytes = control();
    entries = 76 + 2 * word(12);
    // Names ascend: bare, fixed, texts, wide; each entry is two words, a name and an empty path.
    constexpr std::uint64_t kAroundName = 8 + 2 + 2;
    bare = 76;
    fixed = bare + kAroundName + 2 * 4;
    ASSERT_EQ(bytes[bare + 8], 'b');
    ASSERT_EQ(bytes[fixed + 8], 'f');
  }
  void expectFound(std::uint64_t offset, const std::string& bytes, std::uint64_t found,
                   CheckKind kind = CheckKind::damage) {
    const std::string sound = control();
    patch(offset, bytes);
    const auto all = findings();
    const CheckFinding* finding = findingAt(all, "shop.zlc", found);
    folder.write("shop.zlc", sound);
    ASSERT_NE(finding, nullptr) << offset << " " << found;
    EXPECT_EQ(finding->kind, kind) << describe(*finding);
  }

  std::uint64_t entries = 0;
  std::uint64_t bare = 0;
  std::uint64_t fixed = 0;
};

TEST_F(ControlDamage, OfTheHeader) {
  expectFound(0, "z", 0);
  expectFound(4, std::string("\2\0", 2), 4);
  expectFound(6, std::string("\3\0", 2), 4);
  expectFound(6, std::string("\1\0", 2), 6, CheckKind::pendingWork);
  expectFound(8, words({3}), 8);
  expectFound(8, words({0x20000000}), 8);
  expectFound(12, words({1}), 8);
  expectFound(16, words({1000}), 8);
  expectFound(20, words({2}), 20);
  expectFound(28, words({1}), 28);
  expectFound(32, words({0}), 32);
}

TEST_F(ControlDamage, OfADirectoryBehindTheFile) {
  folder.write("shop.zlc", control().substr(0, entries));
  const auto all = findings();
  EXPECT_NE(findingAt(all, "shop.zlc", 16), nullptr);
}

TEST_F(ControlDamage, OfWhatATransactionLeftIsPendingWork) {
  expectFound(36, words({1}), 36, CheckKind::pendingWork);
  expectFound(36, words({3}), 36, CheckKind::pendingWork);
  expectFound(48, words({200}), 48, CheckKind::pendingWork);
  expectFound(52, words({1}), 52, CheckKind::remains);
  const std::uint64_t end = control().size();
  expectFound(end, words({7, 1}), end, CheckKind::pendingWork);
  expectFound(end, words({0, 0, 7, 1}), end + 8, CheckKind::pendingWork);
  expectFound(end, words({0, 0}), end, CheckKind::remains);
  expectFound(end, "abc", end, CheckKind::remains);
}

TEST_F(ControlDamage, OfSlots) {
  const std::uint64_t end = control().size();
  expectFound(end, words({0, 1}), end + 4);
  expectFound(end, words({7, 2}), end + 4);
}

TEST_F(ControlDamage, OfEntries) {
  expectFound(bare, words({0}), bare);
  expectFound(bare, words({2}), fixed);          // ID of another
  expectFound(bare + 4, words({2}), fixed + 4);  // lock order of another
  expectFound(bare + 4, words({0}), bare + 4);
  expectFound(bare + 8, "z", fixed + 8);  // names do not ascend
  expectFound(bare + 8, std::string("\0\0", 2), bare + 8);
  expectFound(bare + 8, "/", bare + 8);
}

TEST_F(ControlDamage, OfRecords) {
  expectFound(entries, words({2}), entries);
  expectFound(entries + 4, words({1}), entries + 4);
  expectFound(entries + 8, words({1}), entries + 8);
}

TEST_F(ControlDamage, OfAFileShorterThanItsHeader) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{10}, std::size_t{75}}) {
    folder.write("shop.zlc", control().substr(0, length));
    const auto all = findings();
    EXPECT_NE(findingAt(all, "shop.zlc", 0), nullptr) << length;
    folder.write("shop.zlc", std::string(100, '\0'));
  }
}

TEST_F(ControlDamage, EndsTheListAtItsLimit) {
  fill(50);
  std::string bytes = folder.bytes("fixed.zlt");
  std::fill(bytes.begin() + 600, bytes.end(), '\x7F');
  folder.write("fixed.zlt", bytes);
  CheckOptions options;
  options.maximumFindings = 5;
  EXPECT_EQ(checkDatabase(path(), options).size(), 5u);
}

}  // namespace
}  // namespace zelta::testing

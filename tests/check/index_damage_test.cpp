// Damaged index files: header, nodes, order, links, free space, and keys without their objects.

#include "check/damage_fixture.h"

namespace zelta::testing {
namespace {

constexpr const char* kFile = "T.zli";
constexpr std::uint16_t kBranch = 0x6E69;

/// Where the parts of a tree of two levels stand.
class IndexDamage : public Damage {
 protected:
  void makeIndex(const TableForm& form) {
    make(form, 1200);
    indexes = word(kFile, 8, 4);
    end = word(kFile, 24);
    live = 80 + 8 * indexes;
  }
  [[nodiscard]] std::uint64_t root(std::uint64_t index) const {
    return word(kFile, live + 8 * index);
  }
  [[nodiscard]] std::uint64_t bytes(std::uint64_t node) const { return word(kFile, node, 4); }
  [[nodiscard]] std::uint64_t count(std::uint64_t node) const { return word(kFile, node + 6, 2); }
  [[nodiscard]] std::uint64_t childPlace(std::uint64_t node, std::uint64_t i) const {
    return node + bytes(node) - 8 * (i + 1);
  }
  [[nodiscard]] std::uint64_t child(std::uint64_t node, std::uint64_t i) const {
    return word(kFile, childPlace(node, i));
  }

  std::uint64_t indexes = 0;
  std::uint64_t end = 0;
  std::uint64_t live = 0;
};

TEST_F(IndexDamage, OfTheHeader) {
  makeIndex(kForms[2]);
  expectFound(kFile, 0, 'z');
  expectFound(kFile, 4, std::uint16_t{2});
  expectFound(kFile, 8, std::uint32_t{3});
  expectFound(kFile, 12, std::uint32_t{4096});
  expectFound(kFile, 16, end);
  expectFound(kFile, 24, end + 1024);
  expectFound(kFile, 24, std::uint64_t{128});
  expectFound(kFile, 32, std::uint64_t{1}, kThere, kRemains);
  expectFound(kFile, 48, end, kThere, kPending);
  expectFound(kFile, 80, std::uint64_t{1}, kThere, kRemains);
  expectFound(kFile, live, end);
  expectFound(kFile, live, root(1), root(1));  // a node of both trees
  expectFound(kFile, live, std::uint64_t{0});  // no key is there
  expectFound(kFile, live + 8 * indexes, '\1');
}

TEST_F(IndexDamage, OfFixedNodes) {
  makeIndex(kForms[2]);
  const std::uint64_t top = root(0);
  ASSERT_EQ(word(kFile, top + 4, 2), kBranch);
  ASSERT_GE(count(top), 3u);
  const std::uint64_t leaf = child(top, 1);
  expectFound(kFile, leaf, std::uint32_t{0});
  expectFound(kFile, leaf, static_cast<std::uint32_t>(2 * bytes(leaf)));
  expectFound(kFile, leaf, std::uint32_t{0xFFFFFFFC});
  expectFound(kFile, leaf + 4, std::uint16_t{7});
  expectFound(kFile, leaf + 6, std::uint16_t{0xFFFF});
  expectFound(kFile, leaf + 6, std::uint16_t{0});
  expectFound(kFile, leaf + 8, leaf);
  expectFound(kFile, leaf + 16, std::uint64_t{0});
  expectFound(kFile, leaf + 24 + 4, std::uint32_t{0});  // the second key is below the first
  expectFound(kFile, leaf + 24, std::uint32_t{0});      // below its separator
  expectFound(kFile, leaf + 24 + 4 * (count(leaf) - 1), std::uint32_t{0xFFFFFFFF});
  const std::uint64_t room = leaf + 24 + 4 * count(leaf);
  ASSERT_LT(room, leaf + bytes(leaf) - 4 * count(leaf));
  expectFound(kFile, room + 1, '\1');
}

TEST_F(IndexDamage, OfBranches) {
  makeIndex(kForms[2]);
  const std::uint64_t top = root(0);
  expectFound(kFile, top + 8, word(kFile, top + 12, 4), top + 12);  // two equal separators
  expectFound(kFile, top + 8, static_cast<std::uint32_t>(word(kFile, top + 8, 4) + 1),
              child(top, 1) + 24);
  expectFound(kFile, childPlace(top, 1), child(top, 2), childPlace(top, 2));
  expectFound(kFile, childPlace(top, 1), top);
  expectFound(kFile, childPlace(top, 1), end);
  expectFound(kFile, childPlace(top, 1), std::uint64_t{0});
  // Leaves in another order than their keys.
  const std::uint64_t last = childPlace(top, count(top));
  expectFound(kFile, child(top, count(top)) + 16, child(top, 0));
  expectFound(kFile, last, child(top, 0));
}

TEST_F(IndexDamage, OfVariableNodes) {
  makeIndex(kForms[2]);
  const std::uint64_t top = root(1);
  ASSERT_EQ(word(kFile, top + 4, 2), kBranch);
  expectFound(kFile, top + 8, static_cast<std::uint32_t>(word(kFile, top + 8, 4) - 1));
  expectFound(kFile, top + 12, std::uint32_t{0});
  const std::uint64_t leaf = child(top, 0);
  expectFound(kFile, leaf + 24, std::uint32_t{0});
  expectFound(kFile, leaf + 28, std::uint32_t{1});
  expectFound(kFile, leaf + 28, std::uint32_t{0x40000001});
  expectFound(kFile, leaf + 28 + 4, std::uint32_t{0xFFFFFFFF}, leaf + 28);
  expectFound(kFile, leaf, static_cast<std::uint32_t>(bytes(leaf) + 4));
}

TEST_F(IndexDamage, OfAnObjectIDIsSeenFromBothSides) {
  makeIndex(kForms[2]);
  const std::uint64_t leaf = child(root(0), 0);
  const std::uint64_t place = leaf + bytes(leaf) - 4;
  const std::uint64_t id = word(kFile, place, 4);
  expectFound(kFile, place, static_cast<std::uint32_t>(id + 1), leaf + 24);
  const std::uint64_t slot = word("T.zlt", 8, 4) + 12 * id;
  expectFoundIn("T.zlt", kFile, place, static_cast<std::uint32_t>(id + 1), word("T.zlt", slot));
}

TEST_F(IndexDamage, OfAKeyIsSeenFromBothSides) {
  makeIndex(kForms[2]);
  const std::uint64_t top = root(0);
  const std::uint64_t leaf = child(top, count(top));
  const std::uint64_t key = leaf + 24 + 4 * (count(leaf) - 1);
  expectFound(kFile, key, std::uint32_t{5000});
  const std::uint64_t slot = word("T.zlt", 8, 4) + 12 * 1200;
  expectFoundIn("T.zlt", kFile, key, std::uint32_t{5000}, word("T.zlt", slot));
}

TEST_F(IndexDamage, OfFreeBlocks) {
  makeIndex(kForms[2]);
  std::uint64_t block = word(kFile, 16);
  if (block == 0) {
    // Give up the keys of a run of objects, so that nodes are freed.
    EditSession session(folder, kForms[2]);
    ASSERT_TRUE(session.enter().ok());
    for (std::uint32_t i = 1; i <= 900; ++i) {
      if (i % 7 == 0) continue;
      ASSERT_TRUE(session.erase(i).ok());
    }
    ASSERT_TRUE(session.commit().ok());
    ASSERT_TRUE(session.end().ok());
    block = word(kFile, 16);
  }
  ASSERT_NE(block, 0u);
  ASSERT_EQ(findings(), "");
  expectFound(kFile, 16, std::uint64_t{0}, block);  // belongs to nothing then
  expectFound(kFile, 16, block + 16, block + 16 + 4);
  expectFound(kFile, block, static_cast<std::uint32_t>(8));
  expectFound(kFile, block, static_cast<std::uint32_t>(word(kFile, block, 4) - 16),
              block + word(kFile, block, 4) - 16);
  expectFound(kFile, block + 4, std::uint32_t{0});
  expectFound(kFile, block + 8, block);
}

TEST_F(IndexDamage, OfATreeOfZerosOrOtherBytes) {
  makeIndex(kForms[3]);
  const std::string sound = folder.bytes(kFile);
  for (const char fill : {'\0', '\xFF', '\x69'}) {
    std::string bytes = sound;
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(live + 16), bytes.end(), fill);
    folder.write(kFile, bytes);
    EXPECT_NE(findings(), "");
  }
}

TEST_F(IndexDamage, OfAFileThatIsGoneEmptyOrCut) {
  makeIndex(kForms[2]);
  const std::string sound = folder.bytes(kFile);
  folder.write(kFile, "");
  EXPECT_EQ(findings(), "");  // it is built when it is needed
  folder.write(kFile, sound.substr(0, 90));
  EXPECT_TRUE(has(kFile, 0, CheckKind::damage));
  folder.write(kFile, sound.substr(0, sound.size() - 1));
  EXPECT_TRUE(has(kFile, 24, CheckKind::damage));
  folder.write(kFile, sound + "more");
  EXPECT_TRUE(has(kFile, sound.size(), kRemains));
  std::filesystem::remove(folder.path() / kFile);
  EXPECT_EQ(findings(), "");
}

}  // namespace
}  // namespace zelta::testing

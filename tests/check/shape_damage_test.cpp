// Damaged trees of boxes, spans and points: nodes, bounds, and entries without their objects.

#include <algorithm>

#include "check/shape_database.h"

namespace zelta::testing {
namespace {

constexpr std::uint16_t kBranch = 0x6E69;

class ShapeDamage : public ShapeDatabase, public ::testing::WithParamInterface<std::uint32_t> {
 protected:
  struct Node {
    std::uint64_t at;
    std::uint64_t size;
    std::uint64_t count;
    bool leaf;
    std::uint64_t key;    ///< bytes
    std::uint64_t value;  ///< bytes
    [[nodiscard]] std::uint64_t keyPlace(std::uint64_t i) const { return at + 8 + key * i; }
    [[nodiscard]] std::uint64_t valuePlace(std::uint64_t i) const {
      return at + size - value * (i + 1);
    }
  };

  void SetUp() override {
    make(220, GetParam());
    sound = folder.bytes(kIndexFile);
  }
  [[nodiscard]] std::uint64_t word(std::uint64_t offset, unsigned width = 8) const {
    std::uint64_t value = 0;
    std::memcpy(&value, sound.data() + offset, width);
    return value;
  }
  [[nodiscard]] std::uint64_t idBytes() const { return GetParam() == 0 ? 4 : 8; }
  [[nodiscard]] Node node(Index index, std::uint64_t at) const {
    static constexpr std::uint64_t kEntries[] = {0, 0, 16, 16, 12, 16, 12};
    static constexpr std::uint64_t kBounds[] = {0, 0, 16, 16, 24, 16, 16};
    const bool leaf = word(at + 4, 2) != kBranch;
    return {at,
            word(at, 4),
            word(at + 6, 2),
            leaf,
            leaf ? kEntries[index] : kBounds[index],
            leaf ? idBytes() : 8};
  }
  [[nodiscard]] Node root(Index index) const {
    return node(index, word(80 + 8 * kIndexes + 8 * (index - 1)));
  }
  [[nodiscard]] Node leaf(Index index) const {
    Node at = root(index);
    while (!at.leaf) at = node(index, word(at.valuePlace(at.count - 1)));
    return at;
  }
  /// Whether a change makes the checker find something at a place of the index file.
  template <class Number>
  void expectFound(std::uint64_t offset, Number value, std::uint64_t found) const {
    std::string bytes = sound;
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    folder.write(kIndexFile, bytes);
    const auto all = checkDatabase(path());
    EXPECT_TRUE(std::any_of(all.begin(), all.end(),
                            [&](const CheckFinding& finding) {
                              return finding.kind == CheckKind::damage && finding.offset == found &&
                                     finding.file.ends_with(kIndexFile);
                            }))
        << "change of " << offset << ", expected at " << found << "; found:\n"
        << findingsOf(path()).substr(0, 1500);
    folder.write(kIndexFile, sound);
  }
  template <class Number>
  void expectFound(std::uint64_t offset, Number value) const {
    expectFound(offset, value, offset);
  }

  std::string sound;
};

constexpr unsigned kBoundTrees[] = {2, 3, 4, 5, 6};

TEST_P(ShapeDamage, OfNodes) {
  for (const unsigned number : kBoundTrees) {
    SCOPED_TRACE("index " + std::to_string(number));
    const auto index = static_cast<Index>(number);
    const Node top = root(index);
    ASSERT_FALSE(top.leaf);
    for (const Node& at : {top, leaf(index)}) {
      expectFound(at.at, std::uint32_t{0});
      expectFound(at.at, std::uint32_t{0xFFFFFFFC});
      expectFound(at.at, static_cast<std::uint32_t>(at.size / 2));
      expectFound(at.at + 4, std::uint16_t{0x6269});
      expectFound(at.at + 6, std::uint16_t{0xFFFF});
      expectFound(at.at + 6, std::uint16_t{0});
    }
    const Node low = leaf(index);
    const std::uint64_t room = low.keyPlace(low.count);
    if (room < low.valuePlace(low.count - 1)) expectFound(room, '\1');
  }
}

TEST_P(ShapeDamage, OfLinks) {
  for (const unsigned number : kBoundTrees) {
    SCOPED_TRACE("index " + std::to_string(number));
    const Node top = root(static_cast<Index>(number));
    ASSERT_GE(top.count, 2u);
    expectFound(top.valuePlace(1), top.at);                   // a circle
    expectFound(top.valuePlace(1), word(top.valuePlace(0)));  // one child of two branches
    expectFound(top.valuePlace(1), std::uint64_t{sound.size()});
    expectFound(top.valuePlace(1), std::uint64_t{0});
    const std::uint64_t inside = leaf(kBoxes).at + 4;
    expectFound(top.valuePlace(1), inside, inside);
  }
}

TEST_P(ShapeDamage, OfBounds) {
  for (const unsigned number : kBoundTrees) {
    SCOPED_TRACE("index " + std::to_string(number));
    const Node top = root(static_cast<Index>(number));
    const std::uint64_t half = top.key / 2;
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(top.count, 3); ++i) {
      const std::uint64_t lower = top.keyPlace(i);
      expectFound(lower, static_cast<std::uint32_t>(word(lower, 4) + 1), lower);
      expectFound(lower, static_cast<std::uint32_t>(word(lower, 4) - 1), lower);
      expectFound(lower + half, static_cast<std::uint32_t>(word(lower + half, 4) + 1), lower);
    }
  }
  const Node box = leaf(kBoxes);
  expectFound(box.keyPlace(0), std::int32_t{INT32_MAX});  // inside out
}

/// An entry that no object has, and an object whose entry is missing.
TEST_P(ShapeDamage, OfEntriesIsSeenFromBothSides) {
  for (const unsigned number : kBoundTrees) {
    SCOPED_TRACE("index " + std::to_string(number));
    const Node low = leaf(static_cast<Index>(number));
    const std::uint64_t last = low.keyPlace(low.count - 1);
    const std::uint64_t id = low.valuePlace(low.count - 1);
    expectFound(id, static_cast<std::uint32_t>(word(id, 4) + 2), last);
    expectFound(id, std::uint32_t{7}, last);  // deleted
    expectFound(last + 4, static_cast<std::uint32_t>(word(last + 4, 4) + 1), last);
    std::string bytes = sound;
    bytes[id] = static_cast<char>(bytes[id] + 2);
    folder.write(kIndexFile, bytes);
    EXPECT_NE(findingsOf(path()).find("is missing"), std::string::npos);
    folder.write(kIndexFile, sound);
  }
}

/// The same point in another row is another entry.
TEST_P(ShapeDamage, OfRowNumbersIsSeen) {
  const Node low = leaf(kRowPoints);
  const std::uint64_t row = low.keyPlace(0) + 8;
  expectFound(row, static_cast<std::uint32_t>(word(row, 4) + 7), low.keyPlace(0));
}

/// A point that an object has twice stands in the tree twice.
TEST_P(ShapeDamage, OfTheNumberOfEqualEntriesIsSeen) {
  for (const unsigned number : {unsigned{kPoints}, unsigned{kRowPoints}}) {
    const Node low = leaf(static_cast<Index>(number));
    const auto isLikeTheFirst = [&](std::uint64_t i) {
      return sound.compare(low.keyPlace(i), low.key, sound, low.keyPlace(0), low.key) == 0 &&
             word(low.valuePlace(i), 4) == word(low.valuePlace(0), 4);
    };
    std::uint64_t other = 1;
    while (other < low.count && isLikeTheFirst(other)) ++other;
    ASSERT_LT(other, low.count);
    // One entry more of one point, one less of another.
    std::string bytes = sound;
    bytes.replace(low.keyPlace(0), low.key, sound, low.keyPlace(other), low.key);
    bytes.replace(low.valuePlace(0), low.value, sound, low.valuePlace(other), low.value);
    folder.write(kIndexFile, bytes);
    const std::string all = findingsOf(path());
    EXPECT_NE(all.find("has no such key"), std::string::npos) << all;
    EXPECT_NE(all.find("is missing"), std::string::npos) << all;
    folder.write(kIndexFile, sound);
  }
}

TEST_P(ShapeDamage, OfATreeThatIsGoneIsSeen) {
  for (unsigned index = kBoxes; index <= kIndexes; ++index) {
    expectFound(80 + 8 * kIndexes + 8 * (index - 1), std::uint64_t{0});
  }
}

INSTANTIATE_TEST_SUITE_P(Forms, ShapeDamage, ::testing::Values(0u, CZELTA::SchemaWideObjectIds),
                         [](const auto& form) { return form.param == 0 ? "narrow" : "wide"; });

}  // namespace
}  // namespace zelta::testing

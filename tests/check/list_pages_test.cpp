// Lists of words whose pages are laid out by hand, sound ones and each with one thing wrong.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "check/check_list.h"
#include "support/storage_fixture.h"

namespace zelta::testing {
namespace {

using check::TreeEntry;

constexpr std::uint64_t kStart = 128;  ///< of the pages
constexpr std::uint32_t kUnit = 256;
constexpr std::uint64_t kRootPlace = 120;
constexpr std::uint64_t kStop = ~std::uint64_t{0};
constexpr std::uint64_t single(std::uint64_t id) { return id | std::uint64_t{1} << 63; }

/// Of lists of words in characters of type `Unit`.
template <typename Unit>
class ListPages : public ::testing::Test {
 protected:
  struct Word {
    std::string prefix;
    std::string text;
    std::uint64_t value = 0;
  };
  using Words = std::vector<Word>;
  struct Seen {
    std::vector<TreeEntry> entries;
    std::vector<check::Extent> extents;
    std::vector<CheckFinding> findings;
    bool complete = false;
  };

  static constexpr std::uint64_t page(unsigned number) { return kStart + number * kUnit; }

  template <class Number>
  void put(std::uint64_t offset, Number value) {
    if (bytes.size() < offset + sizeof value) bytes.resize(offset + sizeof value);
    std::memcpy(bytes.data() + offset, &value, sizeof value);
  }
  [[nodiscard]] std::string key(const Word& word) const {
    std::string out = word.prefix;
    for (const char c : word.text + '\0') {
      const auto unit = static_cast<Unit>(static_cast<unsigned char>(c));
      out.append(reinterpret_cast<const char*>(&unit), sizeof unit);
    }
    return out;
  }
  void head(std::uint64_t at, std::uint32_t size, std::uint16_t tag, std::size_t count) {
    bytes.resize(std::max<std::size_t>(bytes.size(), at + size));
    put(at, size);
    put(at + 4, tag);
    put(at + 6, static_cast<std::uint16_t>(count));
  }
  /// Gives the offsets of the keys.
  std::vector<std::uint64_t> keys(std::uint64_t at, std::uint32_t free, const Words& words,
                                  std::uint64_t end) {
    std::vector<std::uint64_t> places;
    std::uint64_t next = free + 4;
    for (const Word& word : words) {
      const std::string all = key(word);
      places.push_back(at + next);
      bytes.replace(at + next, all.size(), all);
      next += all.size();
    }
    put(at + free, static_cast<std::uint32_t>(end - next));
    return places;
  }
  std::vector<std::uint64_t> leaf(std::uint64_t at, std::uint32_t size, std::uint64_t previous,
                                  std::uint64_t next, const Words& words) {
    head(at, size, 0x6C69, words.size());
    put(at + 8, previous);
    put(at + 16, next);
    for (std::size_t i = 0; i < words.size(); ++i) put(at + size - 8 * (i + 1), words[i].value);
    return keys(at, 24, words, size - 8 * words.size());
  }
  std::vector<std::uint64_t> branch(std::uint64_t at, std::uint32_t size, const Words& words,
                                    const std::vector<std::uint64_t>& children) {
    head(at, size, 0x6E69, words.size());
    for (std::size_t i = 0; i < children.size(); ++i) put(at + size - 8 * (i + 1), children[i]);
    return keys(at, 8, words, size - 8 * children.size());
  }
  void chain(std::uint64_t at, std::uint64_t next, const std::vector<std::uint64_t>& ids) {
    head(at, kUnit, 0x6269, ids.size());
    put(at + 8, next);
    for (std::size_t i = 0; i < ids.size(); ++i) {
      const std::uint64_t place = at + 16 + place_.idBytes * i;
      if (place_.idBytes == 8) {
        put(place, ids[i]);
      } else {
        put(place, static_cast<std::uint32_t>(ids[i]));
      }
    }
  }

  /// Two levels, a leaf of two units, a chain of two pages, a stop word, prefixes of three bytes.
  void makeSound(std::uint32_t idBytes = 4) {
    bytes.assign(kStart, '\0');
    place_.idBytes = idBytes;
    place_.prefixBytes = 3;
    place_.mostObjectsPower = 4;
    leafKeys = leaf(page(0), kUnit, 0, page(1),
                    {{"aaa", "apple", single(5)}, {"aaa", "tea", page(4)}, {"aab", "ant", kStop}});
    farKeys = leaf(page(1), 2 * kUnit, page(0), 0,
                   {{"aab", "ape", single(2)}, {std::string("b\0c", 3), "\xE4rmel", single(9)}});
    chain(page(4), page(5), {7, 3, 11});
    chain(page(5), 0, {4});
    branchKeys = branch(page(3), kUnit, {{"aab", "ape"}}, {page(0), page(1)});
    root = page(3);
  }
  [[nodiscard]] Seen walk() {
    Seen seen;
    put(kRootPlace, root);
    folder.write("list", bytes);
    check::CheckFile file(folder.file("list"));
    const CheckOptions options;
    check::Findings findings(options);
    place_.root = root;
    place_.rootOffset = kRootPlace;
    place_.from = kStart;
    place_.to = bytes.size();
    place_.pageSize = kUnit;
    const check::EntryVisitor visit = [&](const TreeEntry& entry) {
      seen.entries.push_back(entry);
    };
    const check::WalkContext context = {findings, file, place_, seen.extents, visit};
    seen.complete =
        sizeof(Unit) == 1 ? check::checkAsciiList(context) : check::checkWideList(context);
    seen.findings = findings.list;
    return seen;
  }
  template <class Number>
  void expectFound(std::uint64_t offset, Number value, std::uint64_t found) {
    const std::string sound = bytes;
    put(offset, value);
    const Seen seen = walk();
    EXPECT_TRUE(std::any_of(seen.findings.begin(), seen.findings.end(),
                            [&](const CheckFinding& finding) { return finding.offset == found; }))
        << "change of " << offset << ", expected at " << found
        << "; found: " << (seen.findings.empty() ? "nothing" : describe(seen.findings[0]));
    bytes = sound;
  }
  template <class Number>
  void expectFound(std::uint64_t offset, Number value) {
    expectFound(offset, value, offset);
  }
  [[nodiscard]] std::uint64_t word(std::uint64_t offset) const {
    return numberAt<std::uint64_t>(bytes, offset);
  }

  FreshFolder folder;
  std::string bytes;
  std::uint64_t root = 0;
  check::TreePlace place_;
  std::vector<std::uint64_t> leafKeys;
  std::vector<std::uint64_t> farKeys;
  std::vector<std::uint64_t> branchKeys;
};

using Units = ::testing::Types<char, char16_t>;
TYPED_TEST_SUITE(ListPages, Units);

TYPED_TEST(ListPages, AreWalkedInFull) {
  for (const std::uint32_t idBytes : {4u, 8u}) {
    this->makeSound(idBytes);
    const auto seen = this->walk();
    EXPECT_TRUE(seen.complete);
    EXPECT_TRUE(seen.findings.empty()) << describe(seen.findings[0]);
    const std::vector<std::uint64_t> ids = {5, 7, 3, 11, 4, 0, 2, 9};
    ASSERT_EQ(seen.entries.size(), ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
      EXPECT_EQ(seen.entries[i].objectID, ids[i]);
      EXPECT_EQ(seen.entries[i].ofAnyObject, i == 5);
    }
    const std::string tea = this->key({"aaa", "tea"});
    EXPECT_EQ(seen.entries[1].hash, check::hashKey(tea.data(), tea.size() - sizeof(TypeParam)));
    EXPECT_EQ(seen.entries[1].hash, seen.entries[4].hash);
    EXPECT_EQ(seen.extents.size(), 5u);
  }
}

TYPED_TEST(ListPages, WithoutATreeAreNothing) {
  this->makeSound();
  this->root = 0;
  EXPECT_TRUE(this->walk().complete);
  EXPECT_TRUE(this->walk().extents.empty());
}

TYPED_TEST(ListPages, WithDamagedHeadsAreFound) {
  this->makeSound();
  for (const unsigned number : {0u, 1u, 3u}) {
    const std::uint64_t at = this->page(number);
    this->expectFound(at, std::uint32_t{0});
    this->expectFound(at, std::uint32_t{kUnit + 4});
    this->expectFound(at, std::uint32_t{0xFFFFFF00});
    this->expectFound(at + 4, std::uint16_t{0x6269});
    this->expectFound(at + 6, std::uint16_t{0xFFFF});
    const std::uint64_t free = at + (number == 3 ? 8 : 24);
    this->expectFound(free, static_cast<std::uint32_t>(this->word(free) + 1));
  }
  this->expectFound(this->page(0) + 6, std::uint16_t{0});
  this->expectFound(this->page(0) + 6, std::uint16_t{2}, this->page(0) + 24);
}

TYPED_TEST(ListPages, WithDamagedKeysAreFound) {
  this->makeSound();
  const std::uint64_t second = this->leafKeys[1];
  this->expectFound(second, 'A');                         // below the first
  this->expectFound(second + 1, 'z', this->leafKeys[1]);  // behind the separator
  this->expectFound(this->farKeys[0] + 1, 'A', this->farKeys[0]);
  this->expectFound(second + 3, TypeParam{0}, second);  // no character
  this->expectFound(this->branchKeys[0] + 2, 'c', this->farKeys[0]);
  this->expectFound(this->branchKeys[0], 'a' - 1, this->leafKeys[0]);
  // A word that does not end.
  for (std::uint64_t at = this->farKeys[1]; at < this->page(3) - 16; ++at) this->bytes[at] = 'x';
  const auto seen = this->walk();
  ASSERT_FALSE(seen.findings.empty());
  EXPECT_EQ(seen.findings[0].offset, this->farKeys[1]);
  EXPECT_FALSE(seen.complete);
}

/// Characters count as unsigned numbers; the shorter word is the lower one.
TYPED_TEST(ListPages, StandInTheOrderOfTheirCharacters) {
  const auto isInOrder = [&](const char* second, const char* third) {
    this->bytes.assign(kStart, '\0');
    this->root = this->page(0);
    this->leaf(this->page(0), kUnit, 0, 0,
               {{"", "a", single(1)}, {"", second, single(2)}, {"", third, single(3)}});
    return this->walk().findings.empty();
  };
  EXPECT_TRUE(isInOrder("aa", "a\x80"));
  EXPECT_FALSE(isInOrder("a\x80", "aa"));
  EXPECT_FALSE(isInOrder("aa", "aa"));
}

TYPED_TEST(ListPages, WithDamagedLinksAreFound) {
  this->makeSound();
  this->expectFound(this->page(0) + 8, this->page(1));
  this->expectFound(this->page(0) + 16, std::uint64_t{0});
  this->expectFound(this->page(1) + 8, std::uint64_t{0});
  this->expectFound(this->page(1) + 16, this->page(0));
  const std::uint64_t child = this->page(4) - 16;
  for (const std::uint64_t value :
       {this->page(0), this->page(3), std::uint64_t{0}, std::uint64_t{8}, this->page(6)}) {
    this->expectFound(child, value);
  }
  this->expectFound(child, this->page(4));  // a page of a chain
  this->expectFound(child, this->page(1) + 4, this->page(1) + 4);
}

TYPED_TEST(ListPages, WithDamagedChainsAreFound) {
  for (const std::uint32_t idBytes : {4u, 8u}) {
    this->makeSound(idBytes);
    const std::uint64_t first = this->page(4);
    const std::uint64_t last = this->page(5);
    for (const std::uint64_t at : {first, last}) {
      this->expectFound(at, std::uint32_t{2 * kUnit});
      this->expectFound(at + 4, std::uint16_t{0x6C69});
      this->expectFound(at + 6, static_cast<std::uint16_t>((kUnit - 16) / idBytes + 1));
      this->expectFound(at + kUnit - 1, '\1');
      this->expectFound(at + 16, std::uint32_t{0});  // no object
    }
    this->expectFound(first + 6, std::uint16_t{0});
    this->expectFound(first + 8, first);
    this->expectFound(first + 8, this->page(0));
    this->expectFound(first + 8, this->bytes.size());
    this->expectFound(last + 8, first);
    this->expectFound(last + 16, std::uint32_t{11});  // twice in the chain
    this->expectFound(first + 16, std::uint32_t{11}, first + 16 + 2 * idBytes);
    // Another word has the same chain.
    const std::uint64_t value = this->page(1) - 8;
    this->expectFound(value, first, this->page(1) - 16);
    this->expectFound(value, std::uint64_t{0});
    this->expectFound(value, single(0));
    if (idBytes == 4) this->expectFound(value, single(0x100000000));
  }
}

/// A page within a chain may be left without objects; a chain may have one object.
TYPED_TEST(ListPages, MayHaveShortChains) {
  this->makeSound();
  this->chain(this->page(4), this->page(5), {7});
  this->put(this->page(4) + 20, std::uint64_t{0});
  this->chain(this->page(5), 0, {});
  this->put(this->page(5) + 16, std::uint32_t{0});
  const auto seen = this->walk();
  EXPECT_TRUE(seen.findings.empty()) << describe(seen.findings[0]);
}

TYPED_TEST(ListPages, HaveStopWordsOnlyIfTheyMay) {
  this->makeSound();
  this->place_.mostObjectsPower = 0;
  const auto seen = this->walk();
  ASSERT_EQ(seen.findings.size(), 1u);
  EXPECT_EQ(seen.findings[0].offset, this->page(1) - 24);
}

/// Each byte in turn: the walk ends, and whatever leads it astray is found.
TYPED_TEST(ListPages, WithAnyByteChangedEndTheWalk) {
  this->makeSound();
  const std::string sound = this->bytes;
  for (std::size_t i = kStart; i < sound.size(); ++i) {
    this->bytes = sound;
    this->bytes[i] = static_cast<char>(sound[i] ^ (i % 2 == 0 ? 0xFF : 0x01));
    const auto seen = this->walk();
    EXPECT_LE(seen.entries.size(), sound.size());
    EXPECT_TRUE(seen.complete || !seen.findings.empty());
  }
}

}  // namespace
}  // namespace zelta::testing

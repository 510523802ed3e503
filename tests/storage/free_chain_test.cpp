#include "storage/free_space/free_chain.h"

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

#include "platform/file_io.h"
#include "storage/free_space/free_journal.h"
#include "storage/paged/atomic_manager_writer.h"
#include "support/storage_fixture.h"

namespace zelta {
namespace {

using testing::FreshFolder;
using testing::numberAt;
using testing::OpenedFile;

using Block = FileSpan;
using Blocks = std::vector<Block>;

/// A file with a chain of free blocks, and a user of it.
template <class Form>
class FreeSpaceOf : public ::testing::Test {
 protected:
  static constexpr bool kWide = std::is_same_v<Form, LogBlocks>;

  /// Writes a chain to the file.
  void lay(const Blocks& blocks, std::uint64_t minimum = 32) {
    std::string bytes(4096, '\xEE');
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const std::uint64_t next = i + 1 < blocks.size() ? blocks[i + 1].position : 0;
      const std::uint32_t marker = 0xFFFFFFFF;
      if (blocks[i].position >= bytes.size()) continue;  // a link to nowhere
      char* at = bytes.data() + blocks[i].position;
      std::memcpy(at, &blocks[i].size, kWide ? 8 : 4);
      std::memcpy(at + (kWide ? 16 : 4), &marker, 4);
      std::memcpy(at + 8, &next, 8);
    }
    ASSERT_EQ(writeBuffer(file, 0, bytes.data(), static_cast<std::int64_t>(bytes.size())), 0u);
    start(blocks.empty() ? 0 : blocks[0].position, minimum);
  }
  void start(std::uint64_t head, std::uint64_t minimum = 32) {
    chain.emplace(metaData, file, head, minimum);
  }

  void add(std::uint64_t position, std::uint64_t size) {
    ASSERT_TRUE(chain->release({position, size}).ok());
  }
  Block allocate(std::uint64_t size, std::uint64_t lowest = 0) {
    Block block{1, 1};
    EXPECT_TRUE(chain->allocate(size, &block, lowest).ok());
    return block;
  }
  Result merge(const Blocks& released, std::uint64_t end, std::uint64_t* newEnd) {
    for (const Block& block : released) chain->deferred().add(block);
    const Result result = chain->merge(end, newEnd);
    if (result.ok()) journalCount = chain->sumEntries(&checksum);
    return result;
  }
  /// Writes the journal's entries and returns where they end.
  std::uint64_t writeJournal(std::uint64_t position) {
    ScratchBuffer buffer;
    GatheredWriter writer(file, buffer, 0);
    EXPECT_EQ(chain->writeEntries(writer, position), 0u);
    EXPECT_EQ(writer.finish(), 0u);
    return position;
  }
  /// Applies the changes, drops the list and reads the chain with a reader of its own.
  Blocks applied() {
    EXPECT_TRUE(chain->apply().ok());
    chain->drop();
    Blocks blocks;
    const std::string bytes = folder.bytes("f");
    for (std::uint64_t at = chain->head(); at != 0; at = numberAt<std::uint64_t>(bytes, at + 8)) {
      EXPECT_EQ(numberAt<std::uint32_t>(bytes, at + 4), 0xFFFFFFFFu);
      blocks.push_back({at, numberAt<std::uint32_t>(bytes, at)});
      if (Form::kTailTag != 0) {
        EXPECT_EQ(numberAt<std::uint32_t>(bytes, blocks.back().end() - 4), blocks.back().size);
      }
      if (blocks.size() > 1000) {
        ADD_FAILURE() << "the chain runs in a circle";
        break;
      }
    }
    return blocks;
  }

  FreshFolder folder;
  OpenedFile file{folder.file("f")};
  MetaData metaData;
  std::optional<FreeChain<Form>> chain{std::in_place, metaData, file, 0, 32};
  std::uint32_t journalCount = 0;
  std::uint64_t checksum = 0;
};

using FreeSpace = FreeSpaceOf<PageBlocks>;
using FreeSpaceOfTable = FreeSpaceOf<TableBlocks>;
using WideFreeSpace = FreeSpaceOf<LogBlocks>;

TEST_F(FreeSpace, ReleasingBetweenTwoNeighboursLeavesOneBlock) {
  lay({{100, 100}, {300, 100}, {1000, 50}});
  add(200, 100);
  ASSERT_NE(chain->first(), nullptr);
  EXPECT_EQ(chain->first()->next, 1000u) << "the right neighbour's link";
  EXPECT_EQ(applied(), (Blocks{{100, 300}, {1000, 50}}));
}

TEST_F(FreeSpace, ReleasingBeforeTheHeadMakesTheNewPositionTheHead) {
  lay({{400, 64}});
  add(100, 32);
  EXPECT_EQ(chain->head(), 100u);
  add(368, 32);
  EXPECT_EQ(applied(), (Blocks{{100, 32}, {368, 96}}));
  lay({{400, 64}});
  add(352, 48);
  EXPECT_EQ(chain->head(), 352u) << "touching the head moves it down";
  EXPECT_EQ(applied(), (Blocks{{352, 112}}));
}

TEST_F(FreeSpace, ReleasingIntoAnEmptyChainReadsNothing) {
  lay({});
  add(100, 48);
  EXPECT_EQ(applied(), (Blocks{{100, 48}}));
}

TEST_F(FreeSpace, ReleasingBehindTheLastAppends) {
  lay({{100, 32}, {200, 32}});
  add(1000, 32);
  add(232, 32);
  EXPECT_EQ(applied(), (Blocks{{100, 32}, {200, 64}, {1000, 32}}));
}

TEST_F(FreeSpace, ReleasingWhatIsFreeAlreadyIs48) {
  lay({{100, 100}});
  for (const Block block : {Block{150, 10}, Block{90, 20}, Block{199, 4}, Block{100, 100}}) {
    start(100);
    EXPECT_TRUE(chain->release(block).is(Own::freeList));
    EXPECT_EQ(chain->head(), 100u);
  }
}

TEST_F(FreeSpace, AllocationSplitsFromTheTail) {
  lay({{100, 160}, {400, 96}});
  EXPECT_EQ(allocate(40), (Block{212, 48}));
  EXPECT_EQ(allocate(40), (Block{164, 48}));
  EXPECT_EQ(chain->head(), 100u);
  EXPECT_EQ(applied(), (Blocks{{100, 64}, {400, 96}}));
}

TEST_F(FreeSpace, ARemainderBelowTheMinimumGoesWithTheBlock) {
  lay({{100, 79}, {400, 80}, {600, 96}});
  EXPECT_EQ(allocate(48), (Block{100, 79})) << "whole, more than the need";
  EXPECT_EQ(chain->head(), 400u);
  EXPECT_EQ(allocate(48), (Block{432, 48})) << "just the minimum stays";
  EXPECT_EQ(applied(), (Blocks{{400, 32}, {600, 96}}));
}

TEST_F(FreeSpace, TheThresholdTakesTheRawMinimum) {
  lay({{100, 69}}, 21);
  EXPECT_EQ(allocate(48), (Block{121, 48}));
}

TEST_F(FreeSpace, TakingABlockInTheMiddleRelinksTheOneBefore) {
  lay({{100, 32}, {400, 64}, {600, 32}});
  EXPECT_EQ(allocate(64), (Block{400, 64}));
  EXPECT_EQ(applied(), (Blocks{{100, 32}, {600, 32}}));
}

TEST_F(FreeSpace, SmallRequestsTakeTheMinimumRoundedUp) {
  lay({{96, 320}}, 40);
  EXPECT_EQ(allocate(1), (Block{368, 48}));
  EXPECT_EQ(chain->need(1), 48u);
  EXPECT_EQ(blockNeed<PageBlocks>(0xFFFFFFFF, 32), 0x100000000u);
}

TEST_F(FreeSpace, SpaceBelowTheLowestPositionIsPassedOver) {
  lay({{100, 320}, {500, 320}});
  EXPECT_EQ(allocate(64, 2000).position, 0u);
  EXPECT_EQ(allocate(64, 500), (Block{756, 64}));
}

/// Counts the reads of the platform.
class CountReads : public platform::faults::Hook {
 public:
  CountReads() { platform::faults::install(this); }
  ~CountReads() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    reads += event.call == platform::faults::Call::read ? 1 : 0;
    return {};
  }
  int reads = 0;
};

TEST_F(FreeSpace, AnEmptyChainGivesNothingWithoutARead) {
  const CountReads hook;
  EXPECT_EQ(allocate(64), (Block{0, 0}));
  EXPECT_EQ(hook.reads, 0);
}

TEST_F(FreeSpace, OnlyTheNeededPartOfTheChainIsRead) {
  lay({{100, 320}, {500, 320}, {900, 320}});
  const CountReads hook;
  allocate(64);
  EXPECT_EQ(hook.reads, 1);
  add(450, 20);
  EXPECT_EQ(hook.reads, 1) << "the block behind does not touch";
}

TEST_F(FreeSpace, ABadMarkerIs48) {
  lay({{100, 32}, {500, 320}});
  ASSERT_EQ(writeBuffer(file, 504, "\0", 1), 0u);
  Block block{7, 7};
  EXPECT_TRUE(chain->allocate(64, &block).is(Own::freeList));
  EXPECT_EQ(block, (Block{0, 0}));
}

TEST_F(FreeSpace, AChainThatRunsBackOrOverlapsIs48) {
  for (const std::uint64_t next : {100u, 96u, 120u, 131u}) {
    lay({{100, 32}, {500, 320}});
    ASSERT_EQ(writeBuffer(file, 108, &next, 8), 0u);
    Block block{7, 7};
    EXPECT_TRUE(chain->allocate(3000, &block).is(Own::freeList));
    EXPECT_EQ(block, (Block{0, 0}));
  }
}

TEST_F(FreeSpace, ALinkBehindTheEndOfTheFileIs38) {
  lay({{100, 32}, {5000, 0}});
  Block block{7, 7};
  EXPECT_TRUE(chain->allocate(64, &block).isSystem(38));
}

TEST_F(FreeSpace, MergingFoldsExtentsInOnePass) {
  lay({{100, 50}, {300, 100}, {1000, 50}, {2000, 32}});
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({{150, 150}, {500, 32}, {532, 32}, {968, 32}}, 4000, &end).ok());
  EXPECT_EQ(end, 4000u);
  EXPECT_EQ(journalCount, 3u);
  EXPECT_EQ(applied(), (Blocks{{100, 300}, {500, 64}, {968, 82}, {2000, 32}}));
}

TEST_F(FreeSpace, NeighboursBehindTheWalkedPartMergeToo) {
  lay({{100, 500}, {1000, 100}});
  allocate(48);
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({{1100, 100}}, 4000, &end).ok());
  EXPECT_EQ(applied(), (Blocks{{100, 452}, {1000, 200}}));
}

TEST_F(FreeSpace, ABlockAtTheEndVanishesAndTheFileShrinks) {
  lay({{100, 50}, {300, 100}});
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({{400, 64}}, 464, &end).ok());
  EXPECT_EQ(end, 300u);
  EXPECT_EQ(journalCount, 1u);
  EXPECT_EQ(applied(), (Blocks{{100, 50}}));
  ASSERT_TRUE(merge({{150, 150}}, 300, &end).ok());
  EXPECT_EQ(end, 100u);
  EXPECT_EQ(chain->head(), 0u);
  EXPECT_EQ(chain->first(), nullptr);
}

TEST_F(FreeSpace, ExtentsThatAreFreeAlreadyAre48) {
  std::uint64_t end = 0;
  lay({{100, 50}, {300, 100}});
  EXPECT_TRUE(merge({{140, 20}}, 4000, &end).is(Own::freeList));
  lay({{100, 50}, {300, 100}});
  EXPECT_TRUE(merge({{280, 32}}, 4000, &end).is(Own::freeList));
}

TEST_F(FreeSpace, JournalEntriesHaveTheirFormAndChecksum) {
  lay({{100, 50}, {300, 100}});
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({{150, 10}, {600, 48}}, 4000, &end).ok());
  ASSERT_EQ(journalCount, 3u);
  EXPECT_EQ(writeJournal(3000), 3120u);
  const std::string bytes = folder.bytes("f");
  std::uint64_t sum = 0;
  xorChecksum64(sum, bytes.data() + 3000, 120);
  EXPECT_EQ(sum, checksum);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 3000), 100u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 3008), 300u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 3016), 60u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 3024), 50u) << "size as read";
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 3032), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 3036), 1u) << "dirty, then three zeros";
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 3080 + 24), 0u) << "made in memory";
  char copy[120];
  EXPECT_EQ(chain->copyEntries(copy), copy + 120);
  EXPECT_EQ(std::string(copy, 120), bytes.substr(3000, 120));
}

TEST_F(FreeSpaceOfTable, TailTagsStandInEveryDirtyBlock) {
  lay({{300, 100}});
  add(236, 64);   // grows the block down
  allocate(100);  // and is split to its old size at another place
  add(600, 20);   // head and tag touch
  EXPECT_EQ(applied(), (Blocks{{236, 52}, {600, 20}}));
}

TEST_F(FreeSpaceOfTable, ApplyingAJournalTwiceLeavesTheSameBytes) {
  lay({{100, 64}, {300, 100}, {700, 200}});
  add(500, 40);
  allocate(48);
  const std::uint64_t end = writeJournal(3000);
  const auto entries = static_cast<std::uint32_t>((end - 3000) / kFreeEntrySize);
  EXPECT_EQ(entries, chain->sumEntries());
  ASSERT_TRUE(chain->apply().ok());
  const std::string once = folder.bytes("f");
  for (int round = 0; round < 2; ++round) {
    TableFreeJournal journal(metaData, file);
    ASSERT_TRUE(journal.read(3000, entries).ok());
    ASSERT_TRUE(journal.apply().ok());
    EXPECT_EQ(folder.bytes("f"), once);
  }
}

TEST_F(FreeSpace, AJournalOfManyEntriesIsReadInPieces) {
  lay({});
  for (std::uint32_t i = 0; i < 100; ++i) add(64 + i * 32, 16);
  const std::uint64_t end = writeJournal(4096);
  PageFreeJournal journal(metaData, file);
  const CountReads hook;
  ASSERT_TRUE(journal.read(4096, 100).ok());
  EXPECT_EQ(hook.reads, 3);
  ASSERT_EQ(journal.entries().size(), 100u);
  EXPECT_EQ(journal.entries()[0].position, 64u);
  EXPECT_EQ(journal.entries()[99].position, 64u + 99 * 32);
  EXPECT_TRUE(journal.liesWithin(64, 64 + 99 * 32 + 16));
  EXPECT_FALSE(journal.liesWithin(65, 4096));
  EXPECT_FALSE(journal.liesWithin(64, 64 + 99 * 32 + 15));
  EXPECT_FALSE(journal.read(end, 0xFFFFFFFF).ok());
  EXPECT_EQ(journal.entries().size(), 100u);
}

/// A journal that stands in the file, of one entry.
class OneEntry : public FreeSpace {
 protected:
  template <class Form>
  Result apply(std::uint64_t position, std::uint64_t size) {
    const FreeEntry_tag entry{position, 0, size, 0, 0, 1, {}};
    EXPECT_EQ(writeBuffer(file, 0, &entry, sizeof entry), 0u);
    FreeJournal<Form> journal(metaData, file);
    EXPECT_TRUE(journal.read(0, 1).ok());
    return journal.apply();
  }
};

TEST_F(OneEntry, WithAWildSizeOrPositionIsRefused) {
  for (const std::uint64_t size : {std::uint64_t{8}, std::uint64_t{1} << 33}) {
    EXPECT_TRUE(apply<PageBlocks>(100, size).is(Own::freeList));
  }
  EXPECT_TRUE(apply<PageBlocks>(~std::uint64_t{0} - 8, 64).is(Own::freeList));
  EXPECT_TRUE(apply<LogBlocks>(100, std::uint64_t{1} << 62).is(Own::freeList));
}

TEST_F(OneEntry, OfTheLeastSizeOfItsFormIsApplied) {
  EXPECT_TRUE(apply<PageBlocks>(100, 16).ok());
  EXPECT_TRUE(apply<TableBlocks>(100, 19).is(Own::freeList));
  EXPECT_TRUE(apply<TableBlocks>(100, 20).ok());
  EXPECT_TRUE(apply<LogBlocks>(100, 19).is(Own::freeList));
  EXPECT_TRUE(apply<LogBlocks>(100, 20).ok());
}

TEST_F(FreeSpace, BlocksWhoseSumHasMoreThan32BitsStayApart) {
  lay({});
  add(16, 0xFFFFFF00);
  add(16 + 0xFFFFFF00ull, 0x200);
  ASSERT_NE(chain->first(), nullptr);
  EXPECT_EQ(chain->first()->size, 0xFFFFFF00u);
  ASSERT_NE(chain->first()->nextNode, nullptr);
  EXPECT_EQ(chain->first()->nextNode->size, 0x200u);
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({}, 16 + 0xFFFFFF00ull + 0x200, &end).ok());
  EXPECT_EQ(end, 16u) << "both reach the end together";
  EXPECT_EQ(chain->head(), 0u);
}

/// Random work against a map of the file.
class FreeSpaceModel : public FreeSpaceOfTable {
 protected:
  void check(std::uint64_t end) {
    Blocks expected;
    for (const auto& [position, size] : freeBlocks) expected.push_back({position, size});
    ASSERT_EQ(applied(), expected);
    std::uint64_t covered = 16;
    auto freeBlock = freeBlocks.begin();
    auto used = usedBlocks.begin();
    while (freeBlock != freeBlocks.end() || used != usedBlocks.end()) {
      const bool takeFree = used == usedBlocks.end() ||
                            (freeBlock != freeBlocks.end() && freeBlock->first < used->first);
      auto& it = takeFree ? freeBlock : used;
      ASSERT_EQ(it->first, covered);
      covered += it->second;
      ++it;
    }
    ASSERT_EQ(covered, end);
  }
  void release(std::uint64_t position) {
    std::uint64_t size = usedBlocks.at(position);
    usedBlocks.erase(position);
    auto next = freeBlocks.lower_bound(position);
    if (next != freeBlocks.end() && next->first == position + size) {
      size += next->second;
      next = freeBlocks.erase(next);
    }
    if (next != freeBlocks.begin() &&
        std::prev(next)->first + std::prev(next)->second == position) {
      std::prev(next)->second += size;
    } else {
      freeBlocks[position] = size;
    }
  }
  /// First fit, as the map sees it. Position 0: nothing fits.
  Block take(std::uint64_t size, std::uint64_t minimum) {
    const std::uint64_t need = (std::max(size, minimum) + 15) / 16 * 16;
    for (auto it = freeBlocks.begin(); it != freeBlocks.end(); ++it) {
      if (it->second < need) continue;
      Block block{it->first, it->second};
      if (block.size >= need + minimum) {
        it->second -= need;
        block = {it->first + it->second, need};
      } else {
        freeBlocks.erase(it);
      }
      return block;
    }
    return {0, 0};
  }
  std::map<std::uint64_t, std::uint64_t> freeBlocks;
  std::map<std::uint64_t, std::uint64_t> usedBlocks;
};

TEST_F(FreeSpaceModel, RandomWorkAgreesWithAMapOfTheFile) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto random = [engine = std::mt19937(seed)]() mutable {
    return static_cast<std::uint32_t>(engine());
  };
  lay({});
  std::uint64_t end = 16;
  for (int commit = 0; commit < 300; ++commit) {
    for (unsigned i = random() % 10; i-- > 0;) {
      const std::uint32_t size = 1 + random() % 300;
      const Block expected = take(size, 32);
      Block got = allocate(size);
      ASSERT_EQ(got.position, expected.position);
      if (got.position == 0) {
        got = {end, chain->need(size)};
        end += got.size;
      } else {
        ASSERT_EQ(got, expected);
      }
      usedBlocks[got.position] = got.size;
    }
    Blocks released;
    for (unsigned i = random() % 10; i-- > 0 && !usedBlocks.empty();) {
      auto it = usedBlocks.lower_bound(random() % end);
      if (it == usedBlocks.end()) it = usedBlocks.begin();
      const Block block{it->first, it->second};
      release(block.position);
      if (random() % 2 == 0) {
        released.push_back(block);
      } else {
        add(block.position, block.size);
      }
    }
    checksum = 0;
    ASSERT_TRUE(merge(released, end, &end).ok());
    if (!freeBlocks.empty() && freeBlocks.rbegin()->first >= end) {
      freeBlocks.erase(std::prev(freeBlocks.end()));
    }
    std::vector<char> journal(journalCount * std::size_t{kFreeEntrySize});
    ASSERT_EQ(chain->copyEntries(journal.data()), journal.data() + journal.size());
    std::uint64_t sum = 0;
    xorChecksum64(sum, journal.data(), journal.size());
    ASSERT_EQ(sum, checksum);
    check(end);
    const std::string once = folder.bytes("f");
    for (std::size_t at = 0; at < journal.size(); at += kFreeEntrySize) {
      FreeEntry_tag entry;
      std::memcpy(&entry, journal.data() + at, sizeof entry);
      ASSERT_EQ(writeFreeBlock<TableBlocks>(file, entry), 0u);
    }
    ASSERT_EQ(folder.bytes("f"), once);
  }
}

TEST_F(WideFreeSpace, BlocksHaveTheirFormAndAGranuleOfEight) {
  lay({{120, 400}});
  EXPECT_EQ(allocate(37), (Block{480, 40}));
  ASSERT_TRUE(chain->apply().ok());
  const std::string bytes = folder.bytes("f");
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 120), 360u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 128), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 136), 0xFFFFFFFFu);
  EXPECT_EQ(bytes[140], '\xEE') << "20 bytes and no more";
}

TEST_F(WideFreeSpace, ABlockTakenWholeAndTheMergeOfExtents) {
  lay({{120, 340}, {800, 40}}, 320);
  EXPECT_EQ(allocate(100), (Block{120, 340}));
  EXPECT_EQ(chain->head(), 800u);
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({{840, 24}}, 4000, &end).ok());
  EXPECT_EQ(journalCount, 1u);
  EXPECT_EQ(chain->first()->size, 64u);
  writeJournal(3000);
  LogFreeJournal journal(metaData, file);
  ASSERT_TRUE(journal.read(3000, 1).ok());
  ASSERT_TRUE(journal.apply().ok());
  EXPECT_EQ(numberAt<std::uint64_t>(folder.bytes("f"), 800), 64u);
}

TEST_F(FreeSpace, AChainMayBeginAtALaterBlockWithASpanInFrontOfIt) {
  lay({{100, 320}, {500, 320}});
  const CountReads hook;
  chain->startAt(500);
  chain->releaseInFront({400, 20});
  EXPECT_EQ(hook.reads, 0);
  EXPECT_EQ(chain->head(), 400u);
  EXPECT_EQ(applied(), (Blocks{{400, 20}, {500, 320}}));
}

TEST_F(FreeSpace, DroppingForgetsListAndDeferredSpansAndKeepsTheHead) {
  lay({{400, 64}});
  add(100, 32);
  chain->deferred().add({200, 32});
  chain->drop();
  EXPECT_EQ(chain->first(), nullptr);
  EXPECT_TRUE(chain->deferred().empty());
  EXPECT_EQ(chain->head(), 100u);
  chain->attach(file, 400);
  EXPECT_EQ(allocate(64), (Block{400, 64}));
}

}  // namespace
}  // namespace zelta

#include "storage/free_space.h"

#include <algorithm>
#include <map>
#include <vector>

#include "platform/file_io.h"
#include "support/storage_fixture.h"

namespace zelta {
namespace {

using testing::FreshFolder;
using testing::numberAt;
using testing::OpenedFile;

struct Block {
  std::uint64_t position;
  std::uint64_t size;
  bool operator==(const Block&) const = default;
};

/// A file with a chain of free blocks, and the list and head that a user of it has.
class FreeSpace : public ::testing::Test {
 protected:
  ~FreeSpace() override { drop(); }

  /// Writes a chain to the file, narrow or wide.
  void lay(const std::vector<Block>& blocks, bool wide = false) {
    drop();
    std::string bytes(4096, '\xEE');
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const std::uint64_t next = i + 1 < blocks.size() ? blocks[i + 1].position : 0;
      const std::uint32_t marker = 0xFFFFFFFF;
      if (blocks[i].position >= bytes.size()) continue;  // a link to nowhere
      char* at = bytes.data() + blocks[i].position;
      std::memcpy(at, &blocks[i].size, wide ? 8 : 4);
      std::memcpy(at + (wide ? 16 : 4), &marker, 4);
      std::memcpy(at + 8, &next, 8);
    }
    ASSERT_EQ(writeBuffer(file, 0, bytes.data(), static_cast<std::int64_t>(bytes.size())), 0u);
    head = blocks.empty() ? 0 : blocks[0].position;
  }
  void drop() { dropFreeList(list); }

  void add(std::uint64_t position, std::uint32_t size) {
    ASSERT_TRUE(addFreeBlock(metaData, file, list, head, position, size).ok());
  }
  Block allocate(std::uint32_t size, std::uint32_t minimum = 32, std::uint64_t lowest = 0) {
    std::uint64_t position = 1;
    std::uint32_t given = 1;
    EXPECT_TRUE(
        allocateBlock(metaData, file, list, head, size, &position, &given, minimum, lowest).ok());
    return {position, given};
  }
  Result merge(const std::vector<Block>& released, std::uint64_t end, std::uint64_t* newEnd) {
    FreeExtentNode* extents = nullptr;
    for (const Block& block : released) {
      auto* node = new FreeExtentNode;
      node->position = block.position;
      node->size = block.size;
      insert(node, extents);
    }
    const Result result = mergeFreeExtents(metaData, file, head, end, extents, list, newEnd,
                                           &journalCount, &checksum);
    destroyAll(extents);
    return result;
  }
  /// Applies the changes, drops the list and reads the chain with a reader of its own.
  std::vector<Block> applied(bool tailTags = false) {
    EXPECT_TRUE(applyFreeBlocks(metaData, file, list, tailTags).ok());
    drop();
    std::vector<Block> blocks;
    const std::string bytes = folder.bytes("f");
    for (std::uint64_t at = head; at != 0; at = numberAt<std::uint64_t>(bytes, at + 8)) {
      EXPECT_EQ(numberAt<std::uint32_t>(bytes, at + 4), 0xFFFFFFFFu);
      blocks.push_back({at, numberAt<std::uint32_t>(bytes, at)});
      if (tailTags) {
        EXPECT_EQ(numberAt<std::uint32_t>(bytes, at + blocks.back().size - 4), blocks.back().size);
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
  FreeBlock* list = nullptr;
  std::uint64_t head = 0;
  std::uint32_t journalCount = 0;
  std::uint64_t checksum = 0;
};

using Blocks = std::vector<Block>;

TEST_F(FreeSpace, ReleasingBetweenTwoNeighboursLeavesOneBlock) {
  lay({{100, 100}, {300, 100}, {1000, 50}});
  add(200, 100);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->next, 1000u) << "the right neighbour's link";
  EXPECT_EQ(applied(), (Blocks{{100, 300}, {1000, 50}}));
}

TEST_F(FreeSpace, ReleasingBeforeTheHeadMakesTheNewPositionTheHead) {
  lay({{400, 64}});
  add(100, 32);
  EXPECT_EQ(head, 100u);
  add(368, 32);
  EXPECT_EQ(applied(), (Blocks{{100, 32}, {368, 96}}));
  lay({{400, 64}});
  add(352, 48);
  EXPECT_EQ(head, 352u) << "touching the head moves it down";
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
    drop();
    std::uint64_t sameHead = 100;
    EXPECT_TRUE(addFreeBlock(metaData, file, list, sameHead, block.position,
                             static_cast<std::uint32_t>(block.size))
                    .is(Own::freeList));
    EXPECT_EQ(sameHead, 100u);
  }
}

TEST_F(FreeSpace, AllocationSplitsFromTheTail) {
  lay({{100, 160}, {400, 96}});
  EXPECT_EQ(allocate(40), (Block{212, 48}));
  EXPECT_EQ(allocate(40), (Block{164, 48}));
  EXPECT_EQ(head, 100u);
  EXPECT_EQ(applied(), (Blocks{{100, 64}, {400, 96}}));
}

TEST_F(FreeSpace, ARemainderBelowTheMinimumGoesWithTheBlock) {
  lay({{100, 79}, {400, 80}, {600, 96}});
  EXPECT_EQ(allocate(48), (Block{100, 79})) << "whole, more than the need";
  EXPECT_EQ(head, 400u);
  EXPECT_EQ(allocate(48), (Block{432, 48})) << "just the minimum stays";
  EXPECT_EQ(applied(), (Blocks{{400, 32}, {600, 96}}));
}

TEST_F(FreeSpace, TheThresholdTakesTheRawMinimum) {
  lay({{100, 69}});
  EXPECT_EQ(allocate(48, 21), (Block{121, 48}));
}

TEST_F(FreeSpace, TakingABlockInTheMiddleRelinksTheOneBefore) {
  lay({{100, 32}, {400, 64}, {600, 32}});
  EXPECT_EQ(allocate(64), (Block{400, 64}));
  EXPECT_EQ(applied(), (Blocks{{100, 32}, {600, 32}}));
}

TEST_F(FreeSpace, SmallRequestsTakeTheMinimumRoundedUp) {
  lay({{96, 320}});
  EXPECT_EQ(allocate(1, 40), (Block{368, 48}));
  EXPECT_EQ(blockNeed(1, 40), 48u);
  EXPECT_EQ(blockNeed(0xFFFFFFFF, 32), 0x100000000u);
}

TEST_F(FreeSpace, SpaceBelowTheLowestPositionIsPassedOver) {
  lay({{100, 320}, {500, 320}});
  EXPECT_EQ(allocate(64, 32, 2000).position, 0u);
  EXPECT_EQ(allocate(64, 32, 500), (Block{756, 64}));
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
  std::uint64_t position = 7;
  std::uint32_t size = 0;
  const Result result = allocateBlock(metaData, file, list, head, 64, &position, &size, 32, 0);
  EXPECT_TRUE(result.is(Own::freeList));
  EXPECT_EQ(position, 0u);
}

TEST_F(FreeSpace, AChainThatRunsBackOrOverlapsIs48) {
  for (const std::uint64_t next : {100u, 96u, 120u, 131u}) {
    lay({{100, 32}, {500, 320}});
    ASSERT_EQ(writeBuffer(file, 108, &next, 8), 0u);
    std::uint64_t position = 7;
    std::uint32_t size = 0;
    EXPECT_TRUE(
        allocateBlock(metaData, file, list, head, 3000, &position, &size, 32, 0).is(Own::freeList));
    EXPECT_EQ(position, 0u);
  }
}

TEST_F(FreeSpace, ALinkBehindTheEndOfTheFileIs38) {
  lay({{100, 32}, {5000, 0}});
  std::uint64_t position = 7;
  std::uint32_t size = 0;
  EXPECT_TRUE(allocateBlock(metaData, file, list, head, 64, &position, &size, 32, 0).isSystem(38));
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
  EXPECT_EQ(head, 0u);
  EXPECT_EQ(list, nullptr);
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
  std::uint64_t at = 3000;
  ASSERT_TRUE(writeFreeBlockJournal(metaData, file, at, list).ok());
  EXPECT_EQ(at, 3120u);
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
  EXPECT_EQ(copyFreeBlockJournal(copy, list), copy + 120);
  EXPECT_EQ(std::string(copy, 120), bytes.substr(3000, 120));
}

TEST_F(FreeSpace, TailTagsStandInEveryDirtyBlock) {
  lay({{300, 100}});
  add(236, 64);   // grows the block down
  allocate(100);  // and is split to its old size at another place
  add(600, 20);   // head and tag touch
  EXPECT_EQ(applied(true), (Blocks{{236, 52}, {600, 20}}));
}

TEST_F(FreeSpace, ApplyingAJournalTwiceLeavesTheSameBytes) {
  lay({{100, 64}, {300, 100}, {700, 200}});
  add(500, 40);
  allocate(48);
  std::uint64_t at = 3000;
  ASSERT_TRUE(writeFreeBlockJournal(metaData, file, at, list).ok());
  const auto entries = static_cast<std::uint32_t>((at - 3000) / kFreeEntrySize);
  ASSERT_TRUE(applyFreeBlocks(metaData, file, list, true).ok());
  const std::string once = folder.bytes("f");
  for (int round = 0; round < 2; ++round) {
    FreeBlockChunk* chunks = nullptr;
    ASSERT_TRUE(readFreeBlockJournal(metaData, file, 3000, entries, chunks).ok());
    ASSERT_TRUE(applyFreeBlockChunks(metaData, file, chunks, true).ok());
    dropFreeChunks(chunks);
    EXPECT_EQ(folder.bytes("f"), once);
  }
}

TEST_F(FreeSpace, AJournalOfManyEntriesIsReadInChunks) {
  lay({});
  for (std::uint32_t i = 0; i < 100; ++i) add(64 + i * 32, 16);
  std::uint64_t at = 4096;
  ASSERT_TRUE(writeFreeBlockJournal(metaData, file, at, list).ok());
  FreeBlockChunk* chunks = nullptr;
  ASSERT_TRUE(readFreeBlockJournal(metaData, file, 4096, 100, chunks).ok());
  EXPECT_EQ(chunks->used, 40u);
  EXPECT_EQ(chunks->nextChunk->nextChunk->used, 20u);
  EXPECT_EQ(chunks->nextChunk->nextChunk->entries[19].position, 64u + 99 * 32);
  EXPECT_FALSE(readFreeBlockJournal(metaData, file, at, 0xFFFFFFFF, chunks).ok());
  dropFreeChunks(chunks);
}

TEST_F(FreeSpace, AJournalEntryWithAWildSizeIsRefused) {
  FreeBlockChunk chunk;
  chunk.used = 1;
  for (const std::uint64_t size : {std::uint64_t{8}, std::uint64_t{1} << 33}) {
    chunk.entries[0] = {100, 0, size, 0, 0, 1, {}};
    EXPECT_TRUE(applyFreeBlockChunks(metaData, file, &chunk, false).is(Own::freeList));
  }
  chunk.entries[0] = {~std::uint64_t{0} - 8, 0, 64, 0, 0, 1, {}};
  EXPECT_TRUE(applyFreeBlockChunks(metaData, file, &chunk, false).is(Own::freeList));
}

TEST_F(FreeSpace, BlocksWhoseSumHasMoreThan32BitsStayApart) {
  lay({});
  add(16, 0xFFFFFF00);
  add(16 + 0xFFFFFF00ull, 0x200);
  EXPECT_EQ(list->size, 0xFFFFFF00u);
  ASSERT_NE(list->nextNode, nullptr);
  EXPECT_EQ(list->nextNode->size, 0x200u);
  std::uint64_t end = 0;
  ASSERT_TRUE(merge({}, 16 + 0xFFFFFF00ull + 0x200, &end).ok());
  EXPECT_EQ(end, 16u) << "both reach the end together";
  EXPECT_EQ(head, 0u);
}

/// Random work against a map of the file.
class FreeSpaceModel : public FreeSpace {
 protected:
  void check(std::uint64_t end) {
    Blocks expected;
    for (const auto& [position, size] : freeBlocks) expected.push_back({position, size});
    ASSERT_EQ(applied(true), expected);
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
        got = {end, blockNeed(size, 32)};
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
        add(block.position, static_cast<std::uint32_t>(block.size));
      }
    }
    checksum = 0;
    journalCount = 0;
    ASSERT_TRUE(merge(released, end, &end).ok());
    if (!freeBlocks.empty() && freeBlocks.rbegin()->first >= end) {
      freeBlocks.erase(std::prev(freeBlocks.end()));
    }
    std::vector<char> journal(journalCount * std::size_t{kFreeEntrySize});
    ASSERT_EQ(copyFreeBlockJournal(journal.data(), list), journal.data() + journal.size());
    std::uint64_t sum = 0;
    xorChecksum64(sum, journal.data(), journal.size());
    ASSERT_EQ(sum, checksum);
    check(end);
    const std::string once = folder.bytes("f");
    FreeBlockChunk chunk;
    for (std::size_t at = 0; at < journal.size(); at += kFreeEntrySize) {
      std::memcpy(&chunk.entries[0], journal.data() + at, kFreeEntrySize);
      chunk.used = 1;
      ASSERT_TRUE(applyFreeBlockChunks(metaData, file, &chunk, true).ok());
    }
    ASSERT_EQ(folder.bytes("f"), once);
  }
}

class WideFreeSpace : public FreeSpace {};

TEST_F(WideFreeSpace, BlocksHaveTheirFormAndAGranuleOfEight) {
  lay({{120, 400}}, true);
  std::uint64_t position = 0;
  std::uint64_t size = 0;
  ASSERT_TRUE(allocateWideBlock(metaData, file, list, head, 37, &position, &size, 32).ok());
  EXPECT_EQ(position, 480u);
  EXPECT_EQ(size, 40u);
  ASSERT_TRUE(applyWideBlocks(metaData, file, list).ok());
  const std::string bytes = folder.bytes("f");
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 120), 360u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 128), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 136), 0xFFFFFFFFu);
  EXPECT_EQ(bytes[140], '\xEE') << "20 bytes and no more";
}

TEST_F(WideFreeSpace, ABlockTakenWholeAndTheMergeOfExtents) {
  lay({{120, 340}, {800, 40}}, true);
  std::uint64_t position = 0;
  std::uint64_t size = 0;
  ASSERT_TRUE(allocateWideBlock(metaData, file, list, head, 100, &position, &size, 320).ok());
  EXPECT_EQ(position, 120u);
  EXPECT_EQ(size, 340u);
  EXPECT_EQ(head, 800u);
  FreeExtentNode* extents = nullptr;
  auto* node = new FreeExtentNode;
  node->position = 840;
  node->size = 24;
  insert(node, extents);
  std::uint64_t end = 0;
  ASSERT_TRUE(
      mergeWideExtents(metaData, file, head, 4000, extents, list, &end, &journalCount, &checksum)
          .ok());
  destroyAll(extents);
  EXPECT_EQ(journalCount, 1u);
  EXPECT_EQ(list->size, 64u);
  std::uint64_t at = 3000;
  ASSERT_TRUE(writeFreeBlockJournal(metaData, file, at, list).ok());
  FreeBlockChunk* chunks = nullptr;
  ASSERT_TRUE(readFreeBlockJournal(metaData, file, 3000, 1, chunks).ok());
  ASSERT_TRUE(applyWideBlockChunks(metaData, file, chunks).ok());
  dropFreeChunks(chunks);
  EXPECT_EQ(numberAt<std::uint64_t>(folder.bytes("f"), 800), 64u);
}

TEST(FreeExtents, FindCountFlattenAndRemove) {
  FreeExtentNode* root = nullptr;
  for (std::uint64_t i = 0; i < 50; ++i) {
    auto* node = new FreeExtentNode;
    node->position = i * 37 % 50;
    insert(node, root);
  }
  EXPECT_EQ(count(root), 50u);
  FreeExtentNode* flat[50];
  EXPECT_EQ(flatten(root, flat), flat + 50);
  for (std::uint64_t i = 0; i < 50; ++i) EXPECT_EQ(flat[i]->position, i);
  FreeExtentNode* node = find(root, 20);
  remove(node, root);
  delete node;
  EXPECT_EQ(find(root, 20), nullptr);
  destroyAll(root);
  EXPECT_EQ(root, nullptr);
}

}  // namespace
}  // namespace zelta

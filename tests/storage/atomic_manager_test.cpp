#include "platform/file_io.h"
#include "storage/memory_file/memory_file.h"
#include "support/paged_table.h"

namespace zelta::testing {
namespace {

constexpr std::uint32_t kPage = 256;

/// A page with its size in the first word and a filling behind it.
std::string page(std::uint32_t size, char filling) {
  std::string bytes(size, filling);
  std::memcpy(bytes.data(), &size, sizeof(size));
  return bytes;
}
std::string text(const char* bytes) {
  std::uint32_t size = 0;
  std::memcpy(&size, bytes, sizeof(size));
  return {bytes, size};
}

/// A manager on an index file of so many pages ('a', 'b', ...) and a memory file.
class Pages : public ::testing::Test {
 protected:
  Pages() : manager(*owner.table) {
    std::string bytes(1024, '\0');
    for (char filling = 'a'; filling < 'a' + 10; ++filling) bytes += page(kPage, filling);
    owner.folder.write("T.zli", bytes);
    indexHeader.endOfFile = bytes.size();
    indexHeader.pageSize = kPage;
    EXPECT_EQ(platform::openFile(owner.folder.file("T.zli").c_str(),
                                 platform::Disposition::openExisting, &owner.table->indexFile),
              0u);
  }
  void attach(bool memory) {
    if (memory) {
      ASSERT_TRUE(readMemoryFileHeader(manager, memoryHeader, true).ok());
    }
    manager.attach(owner.table->indexFile, &indexHeader,
                   memory ? owner.table->memoryFile : platform::File::none,
                   memory ? &memoryHeader : nullptr);
  }
  std::string read(PageFile file, std::uint64_t position) {
    char* bytes = nullptr;
    EXPECT_TRUE(manager.readPage(file, position, &bytes, scratch).ok());
    return bytes == nullptr ? "" : text(bytes);
  }
  std::string inFile(std::uint64_t position) {
    return owner.folder.bytes("T.zli").substr(position, kPage);
  }
  static std::uint64_t at(std::uint64_t number) { return 1024 + kPage * number; }

  PagedTable owner;
  IndexFileHeader_tag indexHeader{};
  MemoryFileHeader_tag memoryHeader{};
  AtomicManager manager;
  ScratchBuffer scratch;
};

TEST_F(Pages, Without_a_memory_file_an_index_page_goes_straight_into_the_index_file) {
  attach(false);
  ASSERT_TRUE(manager.writePage(PageFile::index, at(3), page(kPage, 'X').data()).ok());
  EXPECT_EQ(inFile(at(3)), page(kPage, 'X'));
  EXPECT_EQ(manager.shadowPages.size(), 0u);
}

TEST_F(Pages, With_a_memory_file_an_index_page_waits_in_its_shadow) {
  attach(true);
  ASSERT_TRUE(manager.writePage(PageFile::index, at(3), page(kPage, 'X').data()).ok());
  ASSERT_TRUE(manager.writePage(PageFile::index, at(1), page(kPage, 'Y').data()).ok());
  ASSERT_TRUE(manager.writePage(PageFile::index, at(3), page(kPage, 'Z').data()).ok());
  EXPECT_EQ(inFile(at(3)), page(kPage, 'd'));
  EXPECT_EQ(read(PageFile::index, at(3)), page(kPage, 'Z'));
  EXPECT_EQ(read(PageFile::index, at(1)), page(kPage, 'Y'));
  EXPECT_EQ(read(PageFile::index, at(2)), page(kPage, 'c'));
  EXPECT_EQ(manager.shadowPages.size(), 2u);
  const std::string memory = owner.folder.bytes("T.zlm");
  EXPECT_EQ(memory.substr(112, kPage), page(kPage, 'Z'));
  EXPECT_EQ(memory.substr(112 + kPage, kPage), page(kPage, 'Y'));
}

TEST_F(Pages, A_file_that_is_not_open_gives_no_page_and_no_failure) {
  manager.attach(platform::File::none, nullptr, platform::File::none, nullptr);
  EXPECT_EQ(read(PageFile::index, at(1)), "");
  EXPECT_EQ(read(PageFile::memory, 112), "");
}

TEST_F(Pages, A_page_is_read_in_one_call) {
  attach(false);
  const std::uint64_t before = platform::faults::systemCalls();
  ASSERT_EQ(read(PageFile::index, at(2)), page(kPage, 'c'));
  EXPECT_EQ(platform::faults::systemCalls() - before, 1u);
}

TEST_F(Pages, Pages_longer_and_shorter_than_the_unit_are_read_whole) {
  std::string bytes = owner.folder.bytes("T.zli");
  const std::string longPage = page(5 * kPage, 'L');
  bytes.replace(at(2), longPage.size(), longPage);
  bytes.replace(at(9), 16, page(16, 'S'));
  owner.folder.write("T.zli", bytes);
  attach(false);
  EXPECT_EQ(read(PageFile::index, at(2)), longPage);
  EXPECT_EQ(read(PageFile::index, at(9)), page(16, 'S'));
}

TEST_F(Pages, Sizes_that_no_page_has_are_reported) {
  for (const std::uint32_t size : {0u, 1u, 4u, 11 * kPage, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    std::string bytes = owner.folder.bytes("T.zli");
    std::memcpy(bytes.data() + at(2), &size, sizeof(size));
    owner.folder.write("T.zli", bytes);
    attach(false);
    char* out = nullptr;
    EXPECT_TRUE(manager.readPage(PageFile::index, at(2), &out, scratch).is(Own::indexFile));
    EXPECT_EQ(owner.error(), u"Index file has become corrupted.");
  }
}

TEST_F(Pages, Positions_outside_the_file_are_reported) {
  attach(true);
  for (const std::uint64_t position : {std::uint64_t{0}, std::uint64_t{95}, at(10), at(11),
                                       ~std::uint64_t{0}, std::uint64_t{1} << 63}) {
    char* out = nullptr;
    EXPECT_TRUE(manager.readPage(PageFile::index, position, &out, scratch).is(Own::indexFile));
    EXPECT_TRUE(manager.readPage(PageFile::memory, position, &out, scratch).is(Own::memoryFile));
    EXPECT_TRUE(manager.freePage(PageFile::index, position, kPage).failed());
  }
  // An end that the header only claims to have does not make memory be taken.
  indexHeader.endOfFile = std::uint64_t{1} << 60;
  const std::uint32_t size = 0xFFFFFFF0;
  std::string bytes = owner.folder.bytes("T.zli");
  std::memcpy(bytes.data() + at(2), &size, sizeof(size));
  owner.folder.write("T.zli", bytes);
  attach(false);
  char* out = nullptr;
  EXPECT_TRUE(manager.readPage(PageFile::index, at(2), &out, scratch).is(Own::indexFile));
  EXPECT_LT(scratch.size(), 1u << 20);
}

TEST_F(Pages, A_page_that_was_only_read_is_the_caller_s_own_copy) {
  attach(true);
  char* held = nullptr;
  std::uint64_t position = 0;
  ASSERT_TRUE(manager.allocatePage(PageFile::memory, kPage, &held, &position, scratch).ok());
  std::memset(held + 4, 'm', kPage - 4);
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, false).ok());
  char* copy = nullptr;
  ASSERT_TRUE(manager.readPage(PageFile::memory, position, &copy, scratch).ok());
  std::memset(copy + 4, 'x', kPage - 4);
  EXPECT_EQ(read(PageFile::memory, position), page(kPage, 'm'));
  // Put, it is held: from then on everybody has the same bytes.
  ASSERT_TRUE(manager.writePage(PageFile::memory, position, page(kPage, 'n').data(), &held).ok());
  EXPECT_EQ(manager.pageCount, 1u);
  ASSERT_TRUE(manager.readPage(PageFile::memory, position, &copy, scratch).ok());
  EXPECT_EQ(copy, held);
  copy[4] = 'o';
  ASSERT_TRUE(manager.writePage(PageFile::memory, position, copy).ok());
  EXPECT_EQ(manager.pageCount, 1u);
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, false).ok());
  EXPECT_EQ(read(PageFile::memory, position)[4], 'o');
}

TEST_F(Pages, What_a_whole_free_block_has_too_much_is_given_back) {
  attach(true);
  char* out = nullptr;
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  // 2040 bytes take 2048; the free block has 2064.
  ASSERT_TRUE(manager.allocatePage(PageFile::memory, 2064, &out, &first, scratch).ok());
  ASSERT_TRUE(manager.allocatePage(PageFile::memory, 64, &out, &second, scratch).ok());
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, false).ok());
  ASSERT_TRUE(manager.freePage(PageFile::memory, first, 2064).ok());
  std::uint64_t again = 0;
  ASSERT_TRUE(manager.allocatePage(PageFile::memory, 2040, &out, &again, scratch).ok());
  EXPECT_EQ(again, first);
  ASSERT_NE(manager.memoryFreeSpace.first(), nullptr);
  EXPECT_EQ(manager.memoryFreeSpace.first()->position, first + 2048);
  EXPECT_EQ(manager.memoryFreeSpace.first()->size, 16u);
  ASSERT_TRUE(manager.freePage(PageFile::memory, again, 2040).ok());
  EXPECT_EQ(manager.memoryFreeSpace.first()->position, first);
  EXPECT_EQ(manager.memoryFreeSpace.first()->size, 2064u);
}

TEST_F(Pages, Freed_pages_at_the_end_give_the_file_back) {
  attach(true);
  char* out = nullptr;
  std::uint64_t positions[3] = {};
  for (auto& position : positions) {
    ASSERT_TRUE(manager.allocatePage(PageFile::memory, kPage, &out, &position, scratch).ok());
  }
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, false).ok());
  EXPECT_EQ(memoryHeader.endOfFile, 112u + 3 * kPage);
  for (const auto position : positions) {
    ASSERT_TRUE(manager.freePage(PageFile::memory, position, kPage).ok());
  }
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, true).ok());
  EXPECT_EQ(memoryHeader.endOfFile, 112u);
  EXPECT_EQ(owner.folder.bytes("T.zlm").size(), 112u);
}

TEST_F(Pages, Held_index_pages_stay_within_bounds_and_keep_their_content) {
  attach(true);
  manager.heldIndexLimit = 4 * kPage;
  manager.holdIndexPages();
  for (int round = 0; round < 3; ++round) {
    for (std::uint64_t i = 0; i < 10; ++i) {
      const auto filling = static_cast<char>('A' + i + 10 * static_cast<std::uint64_t>(round));
      ASSERT_TRUE(manager.writePage(PageFile::index, at(i), page(kPage, filling).data()).ok());
    }
    for (std::uint64_t i = 0; i < 10; ++i) {
      const auto filling = static_cast<char>('A' + i + 10 * static_cast<std::uint64_t>(round));
      ASSERT_EQ(read(PageFile::index, at(i)), page(kPage, filling)) << i << " in " << round;
      ASSERT_EQ(inFile(at(i)), page(kPage, static_cast<char>('a' + i)));
    }
  }
  EXPECT_EQ(manager.shadowPages.size(), 10u);
  // Each page has one shadow, however often it moved out.
  EXPECT_LE(owner.folder.bytes("T.zlm").size(), 112u + 10 * kPage);
}

TEST_F(Pages, Index_pages_that_fit_are_not_written_before_the_commit) {
  attach(true);
  manager.holdIndexPages();
  ASSERT_EQ(read(PageFile::index, at(1)), page(kPage, 'b'));
  const std::uint64_t before = platform::faults::systemCalls();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(read(PageFile::index, at(1))[4], i == 0 ? 'b' : 'Q');
    ASSERT_TRUE(manager.writePage(PageFile::index, at(1), page(kPage, 'Q').data()).ok());
  }
  EXPECT_EQ(platform::faults::systemCalls(), before);
}

TEST_F(Pages, Without_a_memory_file_held_pages_move_to_their_places) {
  attach(false);
  manager.heldIndexLimit = 3 * kPage;
  manager.holdIndexPages();
  for (std::uint64_t i = 0; i < 10; ++i) {
    ASSERT_TRUE(
        manager.writePage(PageFile::index, at(i), page(kPage, static_cast<char>('A' + i)).data())
            .ok());
  }
  for (std::uint64_t i = 0; i < 10; ++i) {
    ASSERT_EQ(read(PageFile::index, at(i)), page(kPage, static_cast<char>('A' + i)));
  }
  ASSERT_TRUE(manager.writeHeldIndexPages().ok());
  for (std::uint64_t i = 0; i < 10; ++i) {
    EXPECT_EQ(inFile(at(i)), page(kPage, static_cast<char>('A' + i)));
  }
}

TEST_F(Pages, A_memory_page_taken_while_shadows_exist_lies_behind_them) {
  attach(true);
  for (std::uint64_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(manager.writePage(PageFile::index, at(i), page(kPage, 'S').data()).ok());
  }
  char* out = nullptr;
  std::uint64_t position = 0;
  ASSERT_TRUE(manager.allocatePage(PageFile::memory, kPage, &out, &position, scratch).ok());
  EXPECT_EQ(position, 112u + 3 * kPage);
  ASSERT_TRUE(manager.writePage(PageFile::index, at(4), page(kPage, 'T').data()).ok());
  for (std::uint64_t i = 0; i < 3; ++i) {
    EXPECT_EQ(read(PageFile::index, at(i)), page(kPage, 'S'));
  }
  EXPECT_EQ(read(PageFile::index, at(4)), page(kPage, 'T'));
  manager.dropIndexChanges();
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, true).ok());
  EXPECT_EQ(memoryHeader.freeHead, 112u);
  EXPECT_EQ(memoryHeader.endOfFile, position + kPage);
}

TEST_F(Pages, Releases_that_wait_are_merged_by_the_flush) {
  attach(true);
  char* out = nullptr;
  std::uint64_t positions[8] = {};
  for (auto& position : positions) {
    ASSERT_TRUE(manager.allocatePage(PageFile::memory, kPage, &out, &position, scratch).ok());
  }
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, false).ok());
  manager.deferMemoryReleases();
  for (const int i : {1, 2, 5, 4, 7}) {
    ASSERT_TRUE(manager.freePage(PageFile::memory, positions[i], kPage).ok());
  }
  ASSERT_TRUE(flushMemoryPages(manager, memoryHeader, nullptr, true).ok());
  const std::string bytes = owner.folder.bytes("T.zlm");
  EXPECT_EQ(memoryHeader.endOfFile, positions[7]);
  EXPECT_EQ(memoryHeader.freeHead, positions[1]);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, positions[1]), 2 * kPage);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, positions[1] + 8), positions[4]);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, positions[4]), 2 * kPage);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, positions[4] + 8), 0u);
}

}  // namespace
}  // namespace zelta::testing

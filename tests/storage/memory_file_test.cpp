#include <random>

#include "storage/memory_file/memory_file_map.h"
#include "support/paged_table.h"

namespace zelta::testing {
namespace {

std::string object(std::uint64_t id, std::size_t length) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<char>((id * 31 + i * 7) & 0xFF);
  }
  return bytes;
}

TEST(MemoryFile, A_new_file_is_a_header_of_zeros_with_identity_and_page_size) {
  PagedTable owner(1);
  MemorySession session(owner);
  ASSERT_TRUE(session.result.ok());
  const std::string bytes = owner.folder.bytes("T.zlm");
  ASSERT_EQ(bytes.size(), 112u);
  EXPECT_EQ(bytes.substr(0, 4), "ZELM");
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 4), 1);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 6), 1);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 8), 1u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 12), 256u);  // ((1 + 2) * 100 + 20) / 2 = 160
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 16), 0u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), 112u);
  EXPECT_EQ(bytes.substr(32), std::string(80, '\0'));
}

TEST(MemoryFile, The_page_size_follows_the_number_of_indexes_and_their_keys) {
  const auto pageSize = [](std::uint16_t indexes, std::uint32_t words) {
    PagedTable owner(indexes);
    for (std::uint16_t i = 0; i < indexes; ++i) owner.definition(i).keyWords = words;
    MemorySession session(owner);
    EXPECT_TRUE(session.result.ok());
    return session.header.pageSize;
  };
  EXPECT_EQ(pageSize(0, 0), 256u);    // (2 * 100 + 20) / 1 = 220
  EXPECT_EQ(pageSize(3, 1), 256u);    // 16 * 4 + 80 = 144
  EXPECT_EQ(pageSize(1, 20), 2048u);  // (22 * 100 + 20) / 2 = 1110
  EXPECT_EQ(pageSize(60, 1), 2048u);  // 16 * 61 + 80 = 1056
}

TEST(MemoryFile, A_file_that_ends_inside_its_header_is_made_anew) {
  for (const std::size_t length : {0u, 1u, 7u, 40u, 79u, 80u, 111u}) {
    PagedTable owner(1);
    {
      MemorySession session(owner);
      ASSERT_TRUE(session.store(1, "abc").ok());
    }
    owner.folder.write("T.zlm", owner.folder.bytes("T.zlm").substr(0, length));
    MemorySession refused(owner, false);
    EXPECT_TRUE(refused.result.isSystem(code::kAccessDenied)) << length;
    MemorySession session(owner);
    ASSERT_TRUE(session.result.ok()) << length;
    const MemoryImage image = readMemoryImage(owner);
    EXPECT_EQ(image.damage, "") << length;
    EXPECT_TRUE(image.objects.empty());
    EXPECT_EQ(image.endOfFile, 112u);
  }
}

TEST(MemoryFile, A_missing_file_is_made_only_with_leave_to_recover) {
  PagedTable owner;
  MemorySession refused(owner, false);
  EXPECT_TRUE(refused.result.isSystem(code::kAccessDenied));
  EXPECT_FALSE(owner.folder.has("T.zlm"));
  MemorySession session(owner);
  EXPECT_TRUE(session.result.ok());
}

TEST(MemoryFile, Wrong_magic_and_version_are_reported) {
  for (const std::size_t offset : {0u, 3u, 4u, 5u, 6u, 7u}) {
    PagedTable owner;
    ASSERT_TRUE(MemorySession(owner).result.ok());
    std::string bytes = owner.folder.bytes("T.zlm");
    bytes[offset] = static_cast<char>(bytes[offset] ^ 0x10);
    owner.folder.write("T.zlm", bytes);
    MemorySession session(owner);
    EXPECT_TRUE(session.result.is(Own::memoryFile)) << offset;
    EXPECT_EQ(owner.error(), u"Memory file has become corrupted.");
  }
}

TEST(MemoryFile, The_first_object_brings_a_leaf_and_a_record) {
  PagedTable owner(0);
  MemorySession session(owner);
  ASSERT_TRUE(session.store(5, "hello").ok());
  const std::string bytes = owner.folder.bytes("T.zlm");
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), 96u + 2048 + 32);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 88), 96u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 96), 2040u);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 100), 27753);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 102), 1);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 96 + 24), 5u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 96 + 696), 7u);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 96 + 1032), 5u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 96 + 1368), 96u + 2048);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 96 + 2048), 32u);
  EXPECT_EQ(bytes.substr(96 + 2048 + 4, 5), "hello");
  EXPECT_EQ(bytes.substr(32, 56), std::string(56, '\0'));  // no journal left
  EXPECT_EQ(readMemoryImage(owner).damage, "");
}

TEST(MemoryFile, Eighty_five_ascending_adds_make_leaves_of_63_and_22_under_a_new_root) {
  PagedTable owner;
  for (std::uint64_t id = 1; id <= 84; ++id) {
    ASSERT_TRUE(MemorySession(owner).store(id, object(id, 20)).ok());
  }
  EXPECT_EQ(readMemoryImage(owner).leafCounts, (std::vector<std::uint64_t>{84}));
  ASSERT_TRUE(MemorySession(owner).store(85, object(85, 20)).ok());
  const MemoryImage image = readMemoryImage(owner);
  EXPECT_EQ(image.damage, "");
  EXPECT_EQ(image.leafCounts, (std::vector<std::uint64_t>{63, 22}));
  EXPECT_EQ(image.depth, 2u);
  EXPECT_EQ(image.objects.size(), 85u);
}

TEST(MemoryFile, An_object_keeps_its_block_between_half_and_all_of_its_size) {
  PagedTable owner;
  MemorySession session(owner);
  ASSERT_TRUE(session.store(1, object(1, 100)).ok());  // request 104, block 112
  PendingObject entry;
  bool found = false;
  ASSERT_TRUE(findPendingObject(session.manager, 1, &entry, &found).ok());
  const std::uint64_t first = entry.position;
  for (const std::size_t length : {108u, 53u, 60u}) {  // requests 112, 60, 64
    MemorySession again(owner);
    ASSERT_TRUE(again.store(1, object(1, length)).ok());
    ASSERT_TRUE(findPendingObject(again.manager, 1, &entry, &found).ok());
    EXPECT_EQ(entry.position, first) << length;
    EXPECT_EQ(readMemoryImage(owner).damage, "");
  }
  for (const std::size_t length : {49u, 200u}) {  // requests 56 and 204: the block is given back
    MemorySession again(owner);
    ASSERT_TRUE(again.store(1, object(1, length)).ok());
    const MemoryImage image = readMemoryImage(owner);
    EXPECT_EQ(image.damage, "") << length;
    EXPECT_EQ(image.objects.at(1).object, object(1, length));
  }
}

TEST(MemoryFile, The_pending_byte_count_follows_every_change) {
  PagedTable owner;
  const auto count = [](std::uint64_t length) { return (length + 7) / 4 * 4; };
  ASSERT_TRUE(MemorySession(owner).store(1, object(1, 9)).ok());
  EXPECT_EQ(owner.table->pendingBytes, count(9));
  ASSERT_TRUE(MemorySession(owner).store(2, object(2, 1)).ok());
  EXPECT_EQ(owner.table->pendingBytes, count(9) + count(1));
  ASSERT_TRUE(MemorySession(owner).store(1, object(1, 1000)).ok());
  EXPECT_EQ(owner.table->pendingBytes, count(1000) + count(1));
  ASSERT_TRUE(MemorySession(owner).store(1, object(1, 12)).ok());
  EXPECT_EQ(owner.table->pendingBytes, count(12) + count(1));
  ASSERT_TRUE(MemorySession(owner).remove(1).ok());
  EXPECT_EQ(owner.table->pendingBytes, count(1));
  ASSERT_TRUE(MemorySession(owner).remove(2).ok());
  EXPECT_EQ(owner.table->pendingBytes, 0u);
}

TEST(MemoryFile, An_entry_of_another_transaction_is_not_replaced) {
  PagedTable owner;
  ASSERT_TRUE(MemorySession(owner).store(1, "mine").ok());
  owner.metaData.transactionWord = 8;
  EXPECT_TRUE(MemorySession(owner).store(1, "theirs").is(Own::unclassified));
  EXPECT_EQ(readMemoryImage(owner).objects.at(1).object, "mine");
}

TEST(MemoryFile, Removing_an_object_that_is_not_there_names_it) {
  PagedTable owner;
  EXPECT_TRUE(MemorySession(owner).remove(7).is(Own::objectNotFound));
  EXPECT_EQ(owner.error(), u"Unable to find object 7 in table T.zlm.");
  ASSERT_TRUE(MemorySession(owner).store(1, "a").ok());
  EXPECT_TRUE(MemorySession(owner).remove(7).is(Own::objectNotFound));
}

TEST(MemoryFile, The_last_removal_leaves_an_empty_map_and_no_space_in_use) {
  PagedTable owner;
  ASSERT_TRUE(MemorySession(owner).store(1, "a").ok());
  ASSERT_TRUE(MemorySession(owner).remove(1).ok());
  const std::string bytes = owner.folder.bytes("T.zlm");
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), 112u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 96), 0u);
  EXPECT_EQ(readMemoryImage(owner).damage, "");
}

TEST(MemoryFile, Entries_of_others_survive_the_removal_of_a_transaction_on_the_same_leaf) {
  PagedTable owner;
  for (std::uint64_t id = 1; id <= 20; ++id) {
    owner.metaData.transactionWord = id % 2 == 0 ? 7 : 8;
    ASSERT_TRUE(MemorySession(owner).store(id, object(id, id * 3)).ok());
  }
  UInt64AVLTree* ids = nullptr;
  ASSERT_TRUE(MemorySession(owner).removeAll(7, &ids).ok());
  EXPECT_EQ(count(ids), 10u);
  EXPECT_EQ(find(ids, 3), nullptr);
  EXPECT_NE(find(ids, 4), nullptr);
  destroyAll(ids);
  MemoryImage image = readMemoryImage(owner);
  EXPECT_EQ(image.damage, "");
  EXPECT_EQ(image.objects.size(), 10u);
  EXPECT_EQ(image.objects.at(3).object, object(3, 9));
  EXPECT_EQ(owner.folder.bytes("T.zlm").size(), image.endOfFile);
  ASSERT_TRUE(MemorySession(owner).removeAll(8).ok());
  image = readMemoryImage(owner);
  EXPECT_EQ(image.endOfFile, 112u);
  EXPECT_EQ(owner.folder.bytes("T.zlm").size(), 112u);
}

TEST(MemoryFile, Look_ups_find_entries_and_the_greatest_ID) {
  PagedTable owner;
  std::uint64_t last = 1;
  {
    MemorySession session(owner);
    ASSERT_TRUE(lastPendingID(session.manager, &last).ok());
    EXPECT_EQ(last, 0u);
  }
  for (std::uint64_t id = 2; id <= 2000; id += 2) {
    ASSERT_TRUE(MemorySession(owner).store(id, object(id, 5)).ok());
  }
  MemorySession session(owner);
  ASSERT_TRUE(lastPendingID(session.manager, &last).ok());
  EXPECT_EQ(last, 2000u);
  for (std::uint64_t id = 1; id <= 2001; ++id) {
    PendingObject entry;
    bool found = false;
    ASSERT_TRUE(findPendingObject(session.manager, id, &entry, &found).ok());
    ASSERT_EQ(found, id % 2 == 0) << id;
    if (!found) continue;
    EXPECT_EQ(entry.objectID, id);
    EXPECT_EQ(entry.transaction, 7u);
    EXPECT_EQ(entry.length, 5u);
  }
  PendingObjectWalk walk(session.manager);
  PendingObject entry;
  bool found = false;
  for (std::uint64_t id = 2; id <= 2000; id += 2) {
    ASSERT_TRUE(walk.next(&entry, &found).ok());
    ASSERT_TRUE(found);
    EXPECT_EQ(entry.objectID, id);
  }
  ASSERT_TRUE(walk.next(&entry, &found).ok());
  EXPECT_FALSE(found);
}

/// The map beside a std::map.
class Model {
 public:
  explicit Model(PagedTable& owner) : owner_(owner) {}

  void store(std::uint64_t id, std::uint32_t transaction, std::size_t length) {
    owner_.metaData.transactionWord = transaction;
    const bool foreign = objects.contains(id) && objects[id].transaction != transaction;
    const Result result = MemorySession(owner_).store(id, object(id, length));
    ASSERT_EQ(result.is(Own::unclassified), foreign);
    ASSERT_EQ(result.ok(), !foreign);
    if (!foreign) objects[id] = {transaction, object(id, length)};
  }
  void remove(std::uint64_t id) {
    const Result result = MemorySession(owner_).remove(id);
    ASSERT_TRUE(result.ok()) << result.word() << " "
                             << std::string(owner_.error().begin(), owner_.error().end());
    objects.erase(id);
  }
  void removeAll(std::uint32_t transaction) {
    UInt64AVLTree* ids = nullptr;
    ASSERT_TRUE(MemorySession(owner_).removeAll(transaction, &ids).ok());
    const std::size_t removed = std::erase_if(
        objects, [&](const auto& entry) { return entry.second.transaction == transaction; });
    EXPECT_EQ(count(ids), removed);
    destroyAll(ids);
  }
  void check() const {
    const MemoryImage image = readMemoryImage(owner_);
    ASSERT_EQ(image.damage, "");
    ASSERT_EQ(image.objects.size(), objects.size());
    ASSERT_TRUE(image.objects == objects);
  }
  std::map<std::uint64_t, MemoryImage::Entry> objects;

 private:
  PagedTable& owner_;
};

/// Links between inner pages that lead to pages above them, or to one page twice: a page may then
/// be merged with one that the way up still needs.
TEST(MemoryFile, Damaged_links_between_inner_pages_are_survived) {
  constexpr std::uint64_t kRootPlace = 88;
  constexpr std::uint64_t kObjects = 400;
  PagedTable whole(0);
  for (std::uint64_t id = 1; id <= kObjects; ++id) {
    ASSERT_TRUE(MemorySession(whole).store(id, "x").ok());
  }
  const std::string good = whole.folder.bytes("T.zlm");
  const auto end = numberAt<std::uint64_t>(good, 24);
  const auto root = numberAt<std::uint64_t>(good, kRootPlace);
  MapInner_tag full{};
  std::memcpy(&full, good.data() + root, sizeof full);
  int refusals = 0;
  for (unsigned seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    // Three levels of inner pages, each with one key, above the old root's leaves.
    constexpr std::size_t kPages = 5;
    std::string bytes = good.substr(0, end);
    std::vector<std::uint64_t> places = {root};
    for (std::size_t i = 0; i < kPages; ++i) places.push_back(end + i * sizeof(MapInner_tag));
    for (std::size_t i = 0; i < kPages; ++i) {
      MapInner_tag page{kMapPageSize, kMapInnerKind, 0, {}, {}, {}};
      page.count = static_cast<std::uint16_t>(1 + random() % 3);
      std::uint64_t key = 0;
      for (std::uint32_t k = 0; k < page.count; ++k) {
        key += random() % 2 == 0 ? 1 : kObjects + 1;
        page.keys[k] = key;
      }
      for (std::uint32_t k = 0; k <= page.count; ++k) {
        page.children[k] = places[random() % 3 == 0 ? random() % places.size() : (i == 0 ? 0 : i)];
      }
      bytes.append(reinterpret_cast<const char*>(&page), sizeof page);
    }
    const std::uint64_t newEnd = bytes.size();
    std::memcpy(bytes.data() + 24, &newEnd, sizeof newEnd);
    std::memcpy(bytes.data() + kRootPlace, &places.back(), sizeof places.back());
    PagedTable owner(0);
    owner.folder.write("T.zlm", bytes);
    bool refused = false;
    for (std::uint64_t id = 1; id <= kObjects && !refused; ++id) {
      const Result result = MemorySession(owner).remove(id);
      refused = result.failed() && !result.is(Own::objectNotFound);
      if (refused) {
        const bool known = result.is(Own::memoryFile) || result.is(Own::freeList);
        EXPECT_TRUE(known || (result.word() >> 32) == 2) << result.word();
      }
    }
    refusals += refused ? 1 : 0;
  }
  EXPECT_GT(refusals, 50);
}

TEST(MemoryFile, Random_changes_by_several_transactions_agree_with_a_map) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  PagedTable owner(2);
  Model model(owner);
  for (int step = 0; step < 6000; ++step) {
    const std::uint64_t id = 1 + random() % 1500;
    const auto transaction = static_cast<std::uint32_t>(7 + random() % 3);
    const bool growing = step / 1000 % 2 == 0;
    if (random() % 1000 == 0) {
      model.removeAll(transaction);
    } else if (random() % 10 < (growing ? 8u : 3u) || model.objects.empty()) {
      model.store(id, transaction, 1 + random() % 150);
    } else {
      auto at = model.objects.lower_bound(id);
      model.remove(at == model.objects.end() ? model.objects.begin()->first : at->first);
    }
    if (step % 50 == 0) model.check();
    if (HasFatalFailure() || HasNonfatalFailure()) FAIL() << "step " << step;
  }
  for (std::uint32_t transaction = 7; transaction < 10; ++transaction) {
    model.removeAll(transaction);
    model.check();
  }
  EXPECT_EQ(owner.folder.bytes("T.zlm").size(), 128u);
}

TEST(MemoryFile, A_map_of_three_levels_grows_shrinks_and_vanishes) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  PagedTable owner;
  Model model(owner);
  constexpr std::uint64_t kObjects = 9000;
  for (std::uint64_t id = 1; id <= kObjects; ++id) model.store(id, 7, 1);
  model.check();
  EXPECT_EQ(readMemoryImage(owner).depth, 3u);
  std::vector<std::uint64_t> order;
  for (const auto& [id, entry] : model.objects) order.push_back(id);
  // The low end first, so that inner pages get thin beside full ones, then at random.
  std::shuffle(order.begin() + 5000, order.end(), random);
  for (std::size_t i = 0; i < order.size(); ++i) {
    model.remove(order[i]);
    if (i % 500 == 0 || i + 100 > order.size()) model.check();
    if (HasFatalFailure()) FAIL() << "removal " << i;
  }
  EXPECT_EQ(readMemoryImage(owner).endOfFile, 112u);
}

TEST(MemoryFile, Descending_and_scattered_adds_keep_the_order) {
  PagedTable owner;
  Model model(owner);
  for (std::uint64_t id = 4000; id > 0; --id) model.store(id * 7919 % 4001, 7, 3);
  model.check();
  for (std::uint64_t id = 9000; id > 5000; --id) model.store(id, 8, 3);
  model.check();
  model.removeAll(8);
  model.check();
}

TEST(MemoryFile, A_store_without_a_split_takes_six_writes) {
  PagedTable owner;
  for (std::uint64_t id = 1; id <= 10; ++id) {
    ASSERT_TRUE(MemorySession(owner).store(id, object(id, 60)).ok());
  }
  MemorySession session(owner);
  struct Counter : platform::faults::Hook {
    platform::faults::Verdict before(const platform::faults::Event& event) override {
      ++calls;
      if (event.call == platform::faults::Call::write) ++writes;
      return {};
    }
    int writes = 0;
    int calls = 0;
  } counter;
  platform::faults::install(&counter);
  // Choosing the ID and storing it share the read of the leaf.
  std::uint64_t last = 0;
  const Result looked = lastPendingID(session.manager, &last);
  const Result stored = session.store(11, object(11, 60));
  platform::faults::install(nullptr);
  ASSERT_TRUE(looked.ok());
  ASSERT_TRUE(stored.ok());
  // Journal, its description, the word that it stands, record, leaf, description cleared.
  EXPECT_EQ(counter.writes, 6);
  EXPECT_EQ(counter.calls, 7);
}

}  // namespace
}  // namespace zelta::testing

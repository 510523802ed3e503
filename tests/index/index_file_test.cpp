#include "index/file/index_file.h"

#include <functional>
#include <random>

#include "index/btree/btree.h"
#include "index/btree/cursor.h"
#include "index/file/index_commit.h"
#include "index/keys/keys.h"
#include "index/kinds.h"
#include "platform/file_io.h"
#include "storage/memory_file/memory_file.h"
#include "storage/memory_file/memory_file_remove.h"
#include "storage/memory_file/memory_file_store.h"
#include "support/paged_table.h"

namespace zelta::testing {
namespace {

using Keys = std::map<std::uint32_t, std::uint64_t>;

constexpr std::uint32_t kSlotBase = 400;
constexpr std::uint32_t kObjectSize = 10;

/// A table file of fixed objects, laid out by hand: version 1, ID, number.
class IndexedTable : public PagedTable {
 public:
  explicit IndexedTable(std::uint16_t indexes = 1) : PagedTable(indexes) {}

  void place(const std::map<std::uint64_t, std::uint32_t>& objects, std::uint64_t highest) {
    header.slotBase = kSlotBase;
    header.highestID = highest;
    header.objectAreaStart = kSlotBase + 12 * (highest + 1);
    header.endOfFile = header.objectAreaStart + kObjectSize * objects.size();
    std::string bytes(header.endOfFile, '\0');
    std::uint64_t position = header.objectAreaStart;
    for (std::uint64_t id = 1; id <= highest; ++id) {
      const auto at = objects.find(id);
      const std::uint64_t slot = at == objects.end() ? std::uint64_t{1} << 63 : position;
      std::memcpy(bytes.data() + kSlotBase + 12 * id, &slot, sizeof(slot));
      if (at == objects.end()) continue;
      const std::uint16_t version = 1;
      const auto narrow = static_cast<std::uint32_t>(id);
      std::memcpy(bytes.data() + position, &version, 2);
      std::memcpy(bytes.data() + position + 2, &narrow, 4);
      std::memcpy(bytes.data() + position + 6, &at->second, 4);
      position += kObjectSize;
    }
    folder.write("T.zlt", bytes);
    openTable();
  }
  void openTable() {
    table->slotBase = kSlotBase;
    ASSERT_EQ(platform::openFile(folder.file("T.zlt").c_str(), platform::Disposition::openExisting,
                                 &table->tableFile),
              0u);
  }
  /// As another process would see the files.
  void anew() {
    reopen();
    openTable();
  }
  TableHeader_tag header{};
};

/// Indexes with keys ask for no version of an object.
struct NoVersions final : VersionSource {
  Result readBefore(std::uint64_t objectID, ObjectBytes* object) override {
    return readAfter(objectID, object);
  }
  Result readAfter(std::uint64_t, ObjectBytes*) override {
    ADD_FAILURE() << "a version is read";
    return Result::own(Own::unclassified);
  }
};

/// One call of an operation on both files.
class IndexSession {
 public:
  explicit IndexSession(IndexedTable& owner, bool exclusive = true, bool mustExist = true)
      : owner_(owner), manager(*owner.table) {
    result = openIndexFile(manager, header, &owner.header, exclusive, mustExist);
    if (result.ok() && exclusive) {
      result = readMemoryFileHeader(manager, memoryHeader, true);
    }
    if (result.ok()) {
      manager.attach(owner.table->indexFile, &header,
                     exclusive ? owner.table->memoryFile : platform::File::none,
                     exclusive ? &memoryHeader : nullptr);
    }
  }
  [[nodiscard]] IndexTree committed(std::uint32_t index) {
    return {manager, PageFile::index, index};
  }
  [[nodiscard]] IndexTree pending(std::uint32_t index) {
    return {manager, PageFile::memory, index};
  }

  /// Adds an object with its keys as an add does.
  Result add(std::uint64_t objectID, std::uint32_t number) {
    for (std::uint32_t i = 0; i < owner_.table->indexCount; ++i) {
      ZELTA_TRY(insertEntry(pending(i), &number, objectID));
    }
    std::string bytes = "size" + std::string(kObjectSize, 'o');
    return storeObject(manager, memoryHeader, bytes.data() + 4, kObjectSize, objectID);
  }
  Result commit(UInt64AVLTree* objects) {
    ZELTA_TRY(commitIndexes(manager, header, {objects, nullptr, nullptr}, noVersions, true));
    return removeTransaction(manager, memoryHeader, owner_.metaData.transactionWord, nullptr);
  }
  Keys keys(std::uint32_t index) {
    Keys found;
    BPlusCursor cursor(committed(index), PageRole::node);
    EXPECT_TRUE(cursor.seek(CZELTA::ReadFirst, nullptr).ok());
    while (cursor.valid()) {
      found[*cursor.key()] = cursor.objectID();
      if (cursor.next(true).failed()) {
        ADD_FAILURE() << "walk";
        break;
      }
    }
    return found;
  }

 private:
  IndexedTable& owner_;

 public:
  NoVersions noVersions;
  AtomicManager manager;
  IndexFileHeader_tag header{};
  MemoryFileHeader_tag memoryHeader{};
  Result result;
};

class IdTree {
 public:
  ~IdTree() { destroyAll(root); }
  void add(std::uint64_t id) { new UInt64AVLTree(root, id); }
  UInt64AVLTree* root = nullptr;
};

std::map<std::uint64_t, std::uint32_t> someObjects(std::uint64_t count) {
  std::map<std::uint64_t, std::uint32_t> objects;
  for (std::uint64_t id = 1; id <= count; ++id) {
    if (id % 7 != 0) objects[id] = static_cast<std::uint32_t>(id * 7919 % 100003);
  }
  return objects;
}
Keys keysOf(const std::map<std::uint64_t, std::uint32_t>& objects) {
  Keys keys;
  for (const auto& [id, number] : objects) keys[number] = id;
  return keys;
}

TEST(IndexFile, Page_size_and_first_page_follow_the_indexes) {
  std::uint64_t first = 0;
  IndexedTable one(1);
  EXPECT_EQ(indexPageSize(*one.table, &first), 1024u);
  EXPECT_EQ(first, 1024u);
  IndexedTable eleven(11);  // (13 * 200 + 20) / 11 = 238, 16 * 11 + 80 = 256
  EXPECT_EQ(indexPageSize(*eleven.table, &first), 256u);
  EXPECT_EQ(first, 512u);
  one.table->schema->schemaFlags = CZELTA::SchemaWideObjectIds;
  EXPECT_EQ(indexPageSize(*one.table, &first), 2048u);
  one.definition(0).keyWords = 50u << 16 | 8;
  EXPECT_EQ(indexPageSize(*one.table, &first), 1u << 31);
  one.definition(0).keyWords = 0xFFFFFFFF;
  EXPECT_EQ(indexPageSize(*one.table, &first), 0u);
  IndexedTable lists(8);  // the sum alone has more than 32 bits
  for (std::uint16_t i = 0; i < 8; ++i) lists.definition(i).keyWords = 50u << 16 | 8;
  EXPECT_EQ(indexPageSize(*lists.table, &first), 1u << 30);
}

TEST(IndexFile, A_table_without_indexes_has_no_file) {
  IndexedTable owner(0);
  owner.place({{1, 5}}, 1);
  IndexSession session(owner);
  EXPECT_TRUE(session.result.ok());
  EXPECT_EQ(session.header.pageSize, 0u);
  EXPECT_FALSE(owner.folder.has("T.zli"));
}

TEST(IndexFile, The_first_exclusive_user_builds_the_file) {
  IndexedTable owner(2);
  owner.place({{1, 30}, {2, 10}, {4, 20}}, 4);
  {
    IndexSession session(owner);
    ASSERT_TRUE(session.result.ok());
    EXPECT_EQ(session.keys(0), (Keys{{10, 2}, {20, 4}, {30, 1}}));
    EXPECT_EQ(session.keys(1), session.keys(0));
  }
  const std::string bytes = owner.folder.bytes("T.zli");
  EXPECT_EQ(bytes.substr(0, 4), "ZELI");
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 4), 1);
  EXPECT_EQ(numberAt<std::uint16_t>(bytes, 6), 0);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 8), 2u);
  const auto pageSize = numberAt<std::uint32_t>(bytes, 12);
  EXPECT_EQ(pageSize, 512u);  // (4 * 200 + 20) / 2 = 410
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 16), 0u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), bytes.size());
  EXPECT_EQ(bytes.substr(32, 48 + 16), std::string(64, '\0'));
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 96), 512u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 104), 1024u);
  EXPECT_EQ(bytes.substr(112, 512 - 112), std::string(400, '\0'));
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 512), pageSize);
}

TEST(IndexFile, An_empty_table_gets_a_file_without_roots) {
  IndexedTable owner(1);
  owner.place({}, 0);
  ASSERT_TRUE(IndexSession(owner).result.ok());
  const std::string bytes = owner.folder.bytes("T.zli");
  EXPECT_EQ(bytes.size(), 1024u);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), 1024u);
  EXPECT_EQ(bytes.substr(32), std::string(1024 - 32, '\0'));
}

TEST(IndexFile, A_large_build_gives_every_key) {
  IndexedTable owner(1);
  const auto objects = someObjects(20000);
  owner.place(objects, 20000);
  ASSERT_TRUE(IndexSession(owner).result.ok());
  owner.anew();
  IndexSession session(owner);
  ASSERT_TRUE(session.result.ok());
  EXPECT_TRUE(session.keys(0) == keysOf(objects));
}

TEST(IndexFile, Who_may_not_build_is_told_so) {
  IndexedTable owner(1);
  owner.place({{1, 30}}, 1);
  EXPECT_TRUE(IndexSession(owner, false, true).result.isSystem(code::kFileNotFound));
  EXPECT_NE(owner.error().find(u"T.zli"), std::u16string::npos);
  EXPECT_TRUE(IndexSession(owner, false, false).result.ok());
  EXPECT_TRUE(IndexSession(owner, true, false).result.ok());
  EXPECT_FALSE(owner.folder.has("T.zli"));
  owner.folder.write("T.zli", "");
  EXPECT_TRUE(IndexSession(owner, false, true).result.is(Own::notExclusive));
  EXPECT_TRUE(IndexSession(owner, false, false).result.ok());
  EXPECT_EQ(owner.table->indexFile, platform::File::none);
  EXPECT_TRUE(IndexSession(owner, true, false).result.ok());
  EXPECT_EQ(owner.folder.bytes("T.zli"), "");
  EXPECT_TRUE(IndexSession(owner, true, true).result.ok());
}

TEST(IndexFile, A_file_emptied_by_another_handle_is_built_again) {
  IndexedTable owner(1);
  owner.place({{1, 30}}, 1);
  ASSERT_TRUE(IndexSession(owner).result.ok());
  ASSERT_NE(owner.table->indexFile, platform::File::none);
  ASSERT_EQ(truncateFile(owner.table->indexFile, 0), 0u);
  IndexSession session(owner);
  ASSERT_TRUE(session.result.ok());
  EXPECT_EQ(session.keys(0), (Keys{{30, 1}}));
}

TEST(IndexFile, Foreign_headers_are_reported) {
  IndexedTable owner(1);
  owner.place({{1, 30}}, 1);
  ASSERT_TRUE(IndexSession(owner).result.ok());
  const std::string good = owner.folder.bytes("T.zli");
  const auto with = [&](std::size_t at, char value) {
    std::string bytes = good;
    bytes[at] = value;
    owner.folder.write("T.zli", bytes);
    owner.anew();
    return IndexSession(owner).result;
  };
  EXPECT_TRUE(with(0, 'X').is(Own::indexFile));
  EXPECT_TRUE(with(8, 2).is(Own::indexFile));
  EXPECT_TRUE(with(4, 2).is(Own::indexVersion));
  EXPECT_EQ(owner.error(),
            u"Index file version 2.0 is invalid.\nExpecting version 1.0 for this release.");
  EXPECT_TRUE(with(6, 1).is(Own::indexVersion));
  EXPECT_TRUE(with(89, 0x7F).is(Own::indexFile));  // a root behind the end
  owner.folder.write("T.zli", good.substr(0, 90));
  owner.anew();
  EXPECT_TRUE(IndexSession(owner).result.isSystem(code::kEndOfFile));
}

TEST(IndexFile, A_record_of_another_ID_stops_the_build) {
  IndexedTable owner(1);
  owner.place({{1, 30}, {2, 40}}, 2);
  std::string bytes = owner.folder.bytes("T.zlt");
  bytes[owner.header.objectAreaStart + kObjectSize + 2] = 9;
  owner.folder.write("T.zlt", bytes);
  EXPECT_TRUE(IndexSession(owner).result.is(Own::tableFile));
  EXPECT_EQ(owner.folder.bytes("T.zli"), "");
  EXPECT_EQ(owner.table->indexFile, platform::File::none);
}

TEST(IndexFile, A_record_whose_content_is_still_to_come_stops_the_build_with_33) {
  IndexedTable owner(1);
  owner.place({{1, 30}, {2, 40}}, 2);
  const std::string good = owner.folder.bytes("T.zlt");
  std::string bytes = good;
  bytes[owner.header.objectAreaStart] = '\xFF';
  bytes[owner.header.objectAreaStart + 1] = '\xFF';
  owner.folder.write("T.zlt", bytes);
  EXPECT_TRUE(IndexSession(owner).result.isLocked());
  EXPECT_EQ(owner.folder.bytes("T.zli"), "");
  owner.folder.write("T.zlt", good);
  owner.anew();
  EXPECT_TRUE(IndexSession(owner).result.ok());
}

TEST(IndexFile, An_index_of_an_unknown_kind_is_refused_before_anything_changes) {
  IndexedTable owner(1);
  owner.definition(0).indexKind = 6;
  owner.place({{1, 30}}, 1);
  EXPECT_TRUE(IndexSession(owner).result.is(Own::indexKind));
  EXPECT_EQ(owner.folder.bytes("T.zli"), "");
}

TEST(IndexFile, A_build_that_died_anywhere_is_done_again) {
  IndexedTable owner(2);
  const auto objects = someObjects(300);
  owner.place(objects, 300);
  for (const bool cut : {false, true}) {
    bool stopped = true;
    for (std::uint64_t calls = 0; stopped; ++calls) {
      owner.anew();  // an open file cannot be removed everywhere
      std::filesystem::remove(owner.folder.path() / "T.zli");
      {
        StopAfter stop(calls, cut);
        AtomicManager manager(*owner.table);
        IndexFileHeader_tag header{};
        openIndexFile(manager, header, &owner.header, true, true).ignore();
        stopped = stop.stopped;
      }
      owner.anew();
      if (owner.folder.has("T.zli") && owner.folder.bytes("T.zli").size() >= 80 &&
          numberAt<std::uint64_t>(owner.folder.bytes("T.zli"), 48) != 0) {
        EXPECT_TRUE(IndexSession(owner, false, true).result.is(Own::notWritable));
      }
      IndexSession session(owner);
      ASSERT_TRUE(session.result.ok()) << "call " << calls << (cut ? " cut" : "");
      ASSERT_EQ(session.keys(0), keysOf(objects)) << "call " << calls;
    }
  }
}

// -- Commit ---------------------------------------------------------------------------------------

/// A committed table of objects 1 to `count` with keys 10, 20, ...
void commitTens(IndexedTable& owner, std::uint64_t count) {
  owner.place({}, 0);
  IdTree ids;
  for (std::uint64_t id = 1; id <= count; ++id) {
    ASSERT_TRUE(IndexSession(owner).add(id, static_cast<std::uint32_t>(id * 10)).ok());
    ids.add(id);
  }
  ASSERT_TRUE(IndexSession(owner).commit(ids.root).ok());
}

TEST(IndexCommit, Pending_keys_reach_the_index_file_and_leave_the_memory_file_empty) {
  IndexedTable owner(2);
  commitTens(owner, 500);
  owner.anew();
  IndexSession session(owner);
  ASSERT_TRUE(session.result.ok());
  Keys expected;
  for (std::uint64_t id = 1; id <= 500; ++id) expected[static_cast<std::uint32_t>(id * 10)] = id;
  EXPECT_TRUE(session.keys(0) == expected);
  EXPECT_TRUE(session.keys(1) == expected);
  EXPECT_EQ(owner.folder.bytes("T.zlm").size(), 96u + 32);
  const std::string bytes = owner.folder.bytes("T.zli");
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 24), bytes.size());
  EXPECT_EQ(bytes.substr(32, 64), std::string(64, '\0'));
}

TEST(IndexCommit, Only_the_objects_named_are_committed) {
  IndexedTable owner(1);
  owner.place({}, 0);
  IdTree mine;
  for (std::uint64_t id = 1; id <= 40; ++id) {
    owner.metaData.transactionWord = id % 2 == 0 ? 8 : 7;
    ASSERT_TRUE(IndexSession(owner).add(id, static_cast<std::uint32_t>(id)).ok());
    if (id % 2 != 0) mine.add(id);
  }
  owner.metaData.transactionWord = 7;
  ASSERT_TRUE(IndexSession(owner).commit(mine.root).ok());
  const MemoryImage image = readMemoryImage(owner);
  EXPECT_EQ(image.objects.size(), 20u);
  for (const auto& [id, entry] : image.objects) EXPECT_EQ(entry.transaction, 8u);
  IndexSession session(owner);
  EXPECT_EQ(session.keys(0).size(), 20u);
  std::uint64_t id = 0;
  const std::uint32_t foreign = 8;
  EXPECT_TRUE(bplusFind(session.pending(0), &foreign, &id).ok());
  EXPECT_EQ(id, 8u);
}

/// Puts a key into one of the cursor's trees.
void remember(Table& table, ObjectKeyNode*& tree, std::uint32_t key, std::uint64_t objectID,
              std::uint64_t extra) {
  ObjectKeyNode* node = table.nodePool.take();
  node->key = table.indexStates[0].keyPool.takeFixed(1);
  *node->key = key;
  node->objectID = objectID;
  node->extra = extra;
  insert(node, tree, table.keyShape(0));
}

TEST(IndexCommit, Removed_keys_go_and_replaced_keys_get_another_object) {
  IndexedTable owner(1);
  commitTens(owner, 50);
  IndexCursor& cursor = owner.table->indexStates[0];
  remember(*owner.table, cursor.removedKeys, 20, 2, 0);
  remember(*owner.table, cursor.removedKeys, 30, 3, 0);
  remember(*owner.table, cursor.replacedKeys, 40, 99, 4);
  IdTree none;
  ASSERT_TRUE(IndexSession(owner).commit(none.root).ok());
  IndexSession session(owner);
  const Keys keys = session.keys(0);
  EXPECT_EQ(keys.size(), 48u);
  EXPECT_FALSE(keys.contains(20));
  EXPECT_EQ(keys.at(40), 99u);
  owner.table->releaseAllKeys();
}

TEST(IndexCommit, Without_flush_nothing_reaches_the_index_file) {
  IndexedTable owner(1);
  owner.place({}, 0);
  IdTree ids;
  ASSERT_TRUE(IndexSession(owner).add(1, 5).ok());
  ids.add(1);
  const std::string before = owner.folder.bytes("T.zli");
  IndexSession session(owner);
  ASSERT_TRUE(commitIndexes(session.manager, session.header, {ids.root, nullptr, nullptr},
                            session.noVersions, false)
                  .ok());
  EXPECT_EQ(owner.folder.bytes("T.zli"), before);
  ASSERT_TRUE(flushIndexFile(session.manager, session.header).ok());
  EXPECT_EQ(IndexSession(owner).keys(0), (Keys{{5, 1}}));
}

TEST(IndexCommit, A_commit_with_nothing_to_change_writes_nothing) {
  IndexedTable owner(1);
  commitTens(owner, 5);
  IndexSession session(owner);
  const std::uint64_t before = platform::faults::systemCalls();
  ASSERT_TRUE(commitIndexes(session.manager, session.header, {}, session.noVersions, true).ok());
  EXPECT_EQ(platform::faults::systemCalls(), before);
}

TEST(IndexCommit, Pages_that_find_no_room_in_memory_go_by_way_of_shadows) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  IndexedTable owner(2);
  owner.place({}, 0);
  Keys expected;
  std::uint64_t id = 0;
  for (int round = 0; round < 4; ++round) {
    IdTree ids;
    for (int i = 0; i < 700; ++i) {
      const auto number = static_cast<std::uint32_t>(random());
      if (expected.contains(number)) continue;
      ASSERT_TRUE(IndexSession(owner).add(++id, number).ok());
      ids.add(id);
      expected[number] = id;
    }
    {
      IndexSession session(owner);
      session.manager.heldIndexLimit = 5 * session.header.pageSize;
      ASSERT_TRUE(session.commit(ids.root).ok());
    }
    owner.anew();
    ASSERT_TRUE(IndexSession(owner).keys(0) == expected) << round;
    ASSERT_TRUE(IndexSession(owner).keys(1) == expected) << round;
    ASSERT_EQ(owner.folder.bytes("T.zlm").size(), 128u);
  }
}

TEST(IndexCommit, The_writes_of_a_commit_do_not_grow_with_its_keys) {
  IndexedTable owner(1);
  owner.place({}, 0);
  IdTree ids;
  for (std::uint64_t id = 1; id <= 5000; ++id) {
    ASSERT_TRUE(IndexSession(owner).add(id, static_cast<std::uint32_t>(id * 3)).ok());
    ids.add(id);
  }
  IndexSession session(owner);
  struct Counter : platform::faults::Hook {
    platform::faults::Verdict before(const platform::faults::Event& event) override {
      if (event.call == platform::faults::Call::write) ++writes;
      if (event.call == platform::faults::Call::flush) ++flushes;
      return {};
    }
    int writes = 0;
    int flushes = 0;
  } counter;
  platform::faults::install(&counter);
  const Result result = session.commit(ids.root);
  platform::faults::install(nullptr);
  ASSERT_TRUE(result.ok());
  EXPECT_EQ(counter.flushes, 3);
  EXPECT_LT(counter.writes, 20);
}

/// A commit that changes, adds, removes and frees pages, on a prepared pair of files.
class CommitScene {
 public:
  CommitScene() {
    commitTens(owner, 400);
    for (std::uint64_t id = 401; id <= 500; ++id) {
      EXPECT_TRUE(IndexSession(owner).add(id, static_cast<std::uint32_t>(id * 10 - 3000 + 5)).ok());
      added.add(id);
    }
    index_ = owner.folder.bytes("T.zli");
    memory_ = owner.folder.bytes("T.zlm");
    before = IndexSession(owner).keys(0);
  }
  void restore() {
    owner.anew();
    owner.folder.write("T.zli", index_);
    owner.folder.write("T.zlm", memory_);
  }
  Result commitIndexOnly(std::uint64_t heldLimit) {
    IndexSession session(owner);
    if (session.result.failed()) return session.result;
    session.manager.heldIndexLimit = heldLimit;
    IndexCursor& cursor = owner.table->indexStates[0];
    for (std::uint32_t id = 100; id < 300; ++id) {
      remember(*owner.table, cursor.removedKeys, id * 10, id, 0);
    }
    return commitIndexes(session.manager, session.header, {added.root, nullptr, nullptr},
                         session.noVersions, true);
  }
  IndexedTable owner{1};
  IdTree added;
  Keys before;

 private:
  std::string index_;
  std::string memory_;
};

TEST(IndexCommit, A_commit_cut_off_anywhere_is_done_or_undone_as_a_whole) {
  CommitScene scene;
  scene.restore();
  ASSERT_TRUE(scene.commitIndexOnly(1 << 20).ok());
  const Keys after = IndexSession(scene.owner).keys(0);
  ASSERT_EQ(after.size(), 300u);
  const std::string whole = scene.owner.folder.bytes("T.zli");
  EXPECT_EQ(numberAt<std::uint64_t>(whole, 24), whole.size());
  for (const std::uint64_t heldLimit : {std::uint64_t{1} << 20, std::uint64_t{4096}}) {
    for (const bool cut : {false, true}) {
      bool sawBefore = false;
      bool sawAfter = false;
      bool stopped = true;
      for (std::uint64_t calls = 0; stopped; ++calls) {
        SCOPED_TRACE("call " + std::to_string(calls) + (cut ? " cut" : ""));
        scene.restore();
        {
          StopAfter stop(calls, cut);
          scene.commitIndexOnly(heldLimit).ignore();
          stopped = stop.stopped;
        }
        scene.owner.anew();
        const bool pending = numberAt<std::uint64_t>(scene.owner.folder.bytes("T.zli"), 48) != 0;
        if (pending) {
          EXPECT_TRUE(IndexSession(scene.owner, false, true).result.is(Own::notWritable));
        }
        IndexSession session(scene.owner);
        ASSERT_TRUE(session.result.ok());
        const Keys found = session.keys(0);
        ASSERT_TRUE(found == scene.before || found == after);
        sawBefore = sawBefore || found == scene.before;
        sawAfter = sawAfter || (stopped && found == after);
        const std::string bytes = scene.owner.folder.bytes("T.zli");
        // Cut back, or left longer only by what lies behind the end.
        ASSERT_GE(bytes.size(), numberAt<std::uint64_t>(bytes, 24));
      }
      EXPECT_TRUE(sawBefore);
      EXPECT_TRUE(sawAfter);
    }
  }
}

TEST(IndexCommit, A_repair_cut_off_anywhere_is_repeated_to_the_same_bytes) {
  CommitScene scene;
  scene.restore();
  ASSERT_TRUE(scene.commitIndexOnly(1 << 20).ok());
  const std::string whole = scene.owner.folder.bytes("T.zli");
  // Stop once the commit stands in the header.
  std::string standing;
  for (std::uint64_t calls = 1; standing.empty(); ++calls) {
    scene.restore();
    {
      StopAfter stop(calls);
      scene.commitIndexOnly(1 << 20).ignore();
      ASSERT_TRUE(stop.stopped);
    }
    const std::string bytes = scene.owner.folder.bytes("T.zli");
    if (numberAt<std::uint64_t>(bytes, 48) != 0) standing = bytes;
  }
  for (const bool cut : {false, true}) {
    bool stopped = true;
    for (std::uint64_t calls = 0; stopped; ++calls) {
      scene.owner.anew();
      scene.owner.folder.write("T.zli", standing);
      {
        StopAfter stop(calls, cut);
        IndexSession session(scene.owner);
        stopped = stop.stopped;
      }
      scene.owner.anew();
      ASSERT_TRUE(IndexSession(scene.owner).result.ok()) << calls;
      const std::string bytes = scene.owner.folder.bytes("T.zli");
      const auto end = numberAt<std::uint64_t>(bytes, 24);
      ASSERT_EQ(end, whole.size()) << calls;
      ASSERT_TRUE(bytes.substr(0, 32) == whole.substr(0, 32)) << calls;
      ASSERT_TRUE(bytes.substr(88, end - 88) == whole.substr(88)) << calls;
    }
  }
  // A journal that is damaged or cut short is undone.
  for (const std::uint64_t at : {standing.size() - 1, standing.size() - 500}) {
    std::string bytes = standing;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
    scene.owner.anew();
    scene.owner.folder.write("T.zli", bytes);
    EXPECT_TRUE(IndexSession(scene.owner).keys(0) == scene.before);
  }
  scene.owner.anew();
  scene.owner.folder.write("T.zli", standing.substr(0, standing.size() - 1));
  EXPECT_TRUE(IndexSession(scene.owner).keys(0) == scene.before);
}

TEST(IndexDamage, A_flipped_byte_in_the_header_never_crashes_or_hangs) {
  CommitScene scene;
  scene.restore();
  std::string standing;
  {
    StopAfter stop(3);
    scene.commitIndexOnly(1 << 20).ignore();
  }
  standing = scene.owner.folder.bytes("T.zli");
  scene.restore();
  const std::string rest = scene.owner.folder.bytes("T.zli");
  for (const std::string& good : {standing, rest}) {
    for (std::uint64_t at = 0; at < 96; ++at) {
      for (const int flip : {0xFF, 0x01, 0x80}) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ flip);
        scene.restore();
        scene.owner.folder.write("T.zli", bytes);
        for (const bool exclusive : {false, true}) {
          IndexSession session(scene.owner, exclusive, true);
          if (session.result.failed()) continue;
          std::uint64_t id = 0;
          for (std::uint32_t key = 0; key < 400; key += 7) {
            bplusFind(session.committed(0), &key, &id).ignore();
          }
        }
        scene.commitIndexOnly(1 << 20).ignore();
        ASSERT_LT(std::filesystem::file_size(scene.owner.folder.path() / "T.zli"), 1u << 20)
            << "byte " << at;
      }
    }
  }
}

TEST(SizedPage, A_page_is_read_by_the_length_that_it_states) {
  FreshFolder folder;
  MetaData metaData;
  std::string bytes(3000, 'p');
  const std::uint32_t size = 2500;
  std::memcpy(bytes.data() + 100, &size, 4);
  folder.write("pages", bytes);
  OpenedFile file(folder.file("pages"));
  for (const std::uint32_t atLeast : {0u, 4u, 100u, 2500u, 2900u}) {
    ScratchBuffer page;
    ASSERT_TRUE(readSizedPage(metaData, file, 100, atLeast, page).ok()) << atLeast;
    ASSERT_GE(page.size(), size);
    EXPECT_EQ(std::string(page.data(), size), bytes.substr(100, size)) << atLeast;
  }
  ScratchBuffer page;
  EXPECT_TRUE(readSizedPage(metaData, file, 3000, 64, page).isSystem(code::kEndOfFile));
  EXPECT_TRUE(readSizedPage(metaData, file, 2000, 64, page).is(Own::indexFile));
  clearError(metaData);
}

}  // namespace
}  // namespace zelta::testing

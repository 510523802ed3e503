#include <functional>

#include "storage/memory_file/memory_file_map.h"
#include "support/child_process.h"
#include "support/paged_table.h"

namespace zelta::testing {
namespace {

using Objects = std::map<std::uint64_t, MemoryImage::Entry>;

/// A change that is to be cut off, on a file prepared for it.
struct Scene {
  const char* name;
  std::function<void(PagedTable&)> prepare;
  std::function<Result(PagedTable&)> change;
};

std::string object(std::uint64_t id, std::size_t length) {
  return std::string(length, static_cast<char>('a' + id % 26));
}
void fill(PagedTable& owner, std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t id = from; id <= to; ++id) {
    ASSERT_TRUE(MemorySession(owner).store(id, object(id, 40)).ok());
  }
}

std::vector<Scene> scenes() {
  return {
      {"first object", [](PagedTable&) {},
       [](PagedTable& owner) { return MemorySession(owner).store(1, "first"); }},
      {"another object", [](PagedTable& owner) { fill(owner, 1, 10); },
       [](PagedTable& owner) { return MemorySession(owner).store(11, object(11, 90)); }},
      {"longer object", [](PagedTable& owner) { fill(owner, 1, 10); },
       [](PagedTable& owner) { return MemorySession(owner).store(5, object(9, 900)); }},
      {"shorter object", [](PagedTable& owner) { fill(owner, 1, 10); },
       [](PagedTable& owner) { return MemorySession(owner).store(5, "x"); }},
      {"root split", [](PagedTable& owner) { fill(owner, 1, 84); },
       [](PagedTable& owner) { return MemorySession(owner).store(85, object(85, 10)); }},
      {"removal", [](PagedTable& owner) { fill(owner, 1, 10); },
       [](PagedTable& owner) { return MemorySession(owner).remove(4); }},
      {"merge",
       [](PagedTable& owner) {
         fill(owner, 1, 85);
         for (std::uint64_t id = 20; id < 38; ++id) {
           ASSERT_TRUE(MemorySession(owner).remove(id).ok());
         }
       },
       [](PagedTable& owner) { return MemorySession(owner).remove(70); }},
      {"a transaction beside another",
       [](PagedTable& owner) {
         for (std::uint64_t id = 1; id <= 200; ++id) {
           owner.metaData.transactionWord = id % 3 == 0 ? 8 : 7;
           ASSERT_TRUE(MemorySession(owner).store(id, object(id, id)).ok());
         }
       },
       [](PagedTable& owner) { return MemorySession(owner).removeAll(7); }},
      {"a transaction alone", [](PagedTable& owner) { fill(owner, 1, 100); },
       [](PagedTable& owner) { return MemorySession(owner).removeAll(7); }},
  };
}

Objects contents(PagedTable& owner, const std::string& context) {
  owner.reopen();
  EXPECT_TRUE(MemorySession(owner).result.ok()) << context;
  const MemoryImage image = readMemoryImage(owner);
  EXPECT_EQ(image.damage, "") << context;
  return image.objects;
}

TEST(MemoryFileCrash, A_change_cut_off_anywhere_is_done_or_undone_as_a_whole) {
  for (const Scene& scene : scenes()) {
    PagedTable owner;
    scene.prepare(owner);
    const std::string prepared = owner.folder.has("T.zlm") ? owner.folder.bytes("T.zlm") : "";
    const Objects before = contents(owner, scene.name);
    ASSERT_TRUE(scene.change(owner).ok()) << scene.name;
    const Objects after = contents(owner, scene.name);
    bool sawBefore = false;
    bool sawAfter = false;
    for (const bool cut : {false, true}) {
      bool stopped = true;
      for (std::uint64_t calls = 0; stopped; ++calls) {
        const std::string context =
            std::string(scene.name) + ", call " + std::to_string(calls) + (cut ? " cut" : "");
        owner.folder.write("T.zlm", prepared);
        owner.reopen();
        {
          StopAfter stop(calls, cut);
          scene.change(owner).ignore();
          stopped = stop.stopped;
        }
        const Objects found = contents(owner, context);
        EXPECT_TRUE(found == before || found == after) << context;
        sawBefore = sawBefore || found == before;
        sawAfter = sawAfter || (stopped && found == after);
        ASSERT_FALSE(HasFailure()) << context;
      }
    }
    EXPECT_TRUE(sawBefore) << scene.name;
    EXPECT_TRUE(sawAfter) << scene.name;
  }
}

/// The bytes that count: without those of a journal that is given up, and what lies behind the end.
std::string inUse(const std::string& bytes) {
  return bytes.substr(0, 32) + bytes.substr(96, numberAt<std::uint64_t>(bytes, 24) - 96);
}

TEST(MemoryFileCrash, A_journal_read_twice_gives_the_same_bytes) {
  for (const Scene& scene : scenes()) {
    PagedTable owner;
    scene.prepare(owner);
    const std::string prepared = owner.folder.has("T.zlm") ? owner.folder.bytes("T.zlm") : "";
    owner.reopen();
    // Stop once the journal is complete, before it is applied.
    std::string standing;
    for (std::uint64_t calls = 1; standing.empty(); ++calls) {
      owner.folder.write("T.zlm", prepared);
      owner.reopen();
      {
        StopAfter stop(calls);
        scene.change(owner).ignore();
        ASSERT_TRUE(stop.stopped) << scene.name;
      }
      const std::string bytes = owner.folder.bytes("T.zlm");
      if (bytes.size() >= 112 && numberAt<std::uint64_t>(bytes, 48) != 0 &&
          numberAt<std::uint64_t>(bytes, 40) <= bytes.size()) {
        standing = bytes;
      }
    }
    owner.reopen();
    ASSERT_TRUE(MemorySession(owner).result.ok());
    const std::string whole = owner.folder.bytes("T.zlm");
    for (const bool cut : {false, true}) {
      bool stopped = true;
      for (std::uint64_t calls = 0; stopped; ++calls) {
        owner.folder.write("T.zlm", standing);
        owner.reopen();
        {
          StopAfter stop(calls, cut);
          MemorySession session(owner);
          stopped = stop.stopped;
        }
        owner.reopen();
        ASSERT_TRUE(MemorySession(owner).result.ok()) << scene.name << " call " << calls;
        ASSERT_TRUE(inUse(owner.folder.bytes("T.zlm")) == inUse(whole))
            << scene.name << " call " << calls;
      }
    }
  }
}

/// A file with a standing journal: the change was stopped right behind it.
std::string standingJournal(PagedTable& owner) {
  fill(owner, 1, 10);
  owner.reopen();
  {
    StopAfter stop(3);
    MemorySession(owner).store(11, object(11, 40)).ignore();
  }
  owner.reopen();
  return owner.folder.bytes("T.zlm");
}

TEST(MemoryFileCrash, A_standing_journal_needs_leave_to_recover) {
  PagedTable owner;
  standingJournal(owner);
  EXPECT_TRUE(MemorySession(owner, false).result.isSystem(code::kAccessDenied));
  EXPECT_TRUE(MemorySession(owner, true).result.ok());
}

TEST(MemoryFileCrash, A_journal_with_a_wrong_sum_is_dropped_and_the_file_cut) {
  PagedTable owner;
  const std::string standing = standingJournal(owner);
  const auto base = numberAt<std::uint64_t>(standing, 32);
  const auto end = numberAt<std::uint64_t>(standing, 40);
  const auto newEnd = numberAt<std::uint64_t>(standing, 48);
  ASSERT_GT(newEnd, base);
  ASSERT_EQ(end, standing.size());
  for (std::uint64_t at = newEnd; at < end; ++at) {
    std::string bytes = standing;
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
    owner.folder.write("T.zlm", bytes);
    owner.reopen();
    ASSERT_TRUE(MemorySession(owner).result.ok());
    ASSERT_EQ(owner.folder.bytes("T.zlm").size(), base);
    ASSERT_EQ(readMemoryImage(owner).objects.size(), 10u);
  }
  for (const std::uint64_t length : {end - 1, newEnd, base}) {
    owner.folder.write("T.zlm", standing.substr(0, length));
    owner.reopen();
    ASSERT_TRUE(MemorySession(owner).result.ok());
    ASSERT_EQ(owner.folder.bytes("T.zlm").size(), base);
    ASSERT_EQ(readMemoryImage(owner).damage, "");
  }
}

TEST(MemoryFileCrash, A_process_killed_at_any_write_leaves_a_sound_file) {
  PagedTable owner;
  fill(owner, 1, 84);
  owner.reopen();
  const std::string prepared = owner.folder.bytes("T.zlm");
  for (int at = 0; at < 12; ++at) {
    owner.folder.write("T.zlm", prepared);
    owner.reopen();  // a child may not use the handles of its parent
    const int ended = inProcess([&] {
      struct Killer : platform::faults::Hook {
        platform::faults::Verdict before(const platform::faults::Event& event) override {
          platform::faults::Verdict verdict;
          if (event.call == platform::faults::Call::write && left-- == 0) {
            verdict.cutTo = event.length / 3;
            verdict.die = true;
          }
          return verdict;
        }
        int left = 0;
      } killer;
      killer.left = at;
      platform::faults::install(&killer);
      MemorySession(owner).store(85, object(85, 40)).ignore();
      endProcess(0);
      return 0;
    });
    if (ended == 0) {
      EXPECT_GT(at, 5);
      break;
    }
    const Objects found = contents(owner, "write " + std::to_string(at));
    EXPECT_TRUE(found.size() == 84 || found.size() == 85) << at;
  }
}

/// Uses a file that may be damaged in any way; only sane ends are asked for.
void useEverything(PagedTable& owner) {
  owner.reopen();
  {
    MemorySession session(owner);
    if (session.result.failed()) return;
    PendingObject entry;
    bool found = false;
    std::uint64_t last = 0;
    findPendingObject(session.manager, 50, &entry, &found).ignore();
    lastPendingID(session.manager, &last).ignore();
    PendingObjectWalk walk(session.manager);
    std::uint64_t steps = 0;
    while (walk.next(&entry, &found).ok() && found) ASSERT_LT(++steps, 10000u);
  }
  MemorySession(owner).store(300, object(1, 50)).ignore();
  MemorySession(owner).store(40, object(1, 500)).ignore();
  MemorySession(owner).remove(20).ignore();
  MemorySession(owner).removeAll(8).ignore();
  MemorySession(owner).removeAll(7).ignore();
  ASSERT_LT(std::filesystem::file_size(owner.folder.path() / "T.zlm"), 1u << 20);
}

TEST(MemoryFileDamage, A_flipped_byte_in_header_or_pages_never_crashes_or_hangs) {
  PagedTable owner;
  for (std::uint64_t id = 1; id <= 100; ++id) {
    owner.metaData.transactionWord = id % 4 == 0 ? 8 : 7;
    ASSERT_TRUE(MemorySession(owner).store(id, object(id, 30)).ok());
  }
  ASSERT_TRUE(MemorySession(owner).remove(60).ok());
  const std::string good = owner.folder.bytes("T.zlm");
  const auto root = numberAt<std::uint64_t>(good, 96);
  const auto leaf = numberAt<std::uint64_t>(good, root + 1024);
  std::vector<std::uint64_t> places;
  for (std::uint64_t at = 0; at < 112; ++at) places.push_back(at);
  for (std::uint64_t at = 0; at < 40; ++at) places.push_back(root + at);
  for (std::uint64_t at = 1024; at < 1048; ++at) places.push_back(root + at);
  for (std::uint64_t at = 0; at < 2040; at += at < 40 ? 1 : 5) places.push_back(leaf + at);
  for (const std::uint64_t at : places) {
    for (const int flip : {0xFF, 0x01, 0x80}) {
      std::string bytes = good;
      bytes[at] = static_cast<char>(bytes[at] ^ flip);
      owner.folder.write("T.zlm", bytes);
      useEverything(owner);
      ASSERT_FALSE(HasFatalFailure()) << "byte " << at;
    }
  }
}

TEST(MemoryFileDamage, A_flipped_byte_in_the_header_of_a_standing_journal_is_borne) {
  PagedTable owner;
  const std::string standing = standingJournal(owner);
  for (std::uint64_t at = 0; at < 112; ++at) {
    for (const int flip : {0xFF, 0x01, 0x80}) {
      std::string bytes = standing;
      bytes[at] = static_cast<char>(bytes[at] ^ flip);
      owner.folder.write("T.zlm", bytes);
      useEverything(owner);
      ASSERT_FALSE(HasFatalFailure()) << "byte " << at;
    }
  }
}

TEST(MemoryFileDamage, Pages_that_lead_in_circles_are_reported) {
  PagedTable owner;
  fill(owner, 1, 200);
  const std::string good = owner.folder.bytes("T.zlm");
  const auto root = numberAt<std::uint64_t>(good, 96);
  std::string bytes = good;
  // All children of the root are the root.
  for (int i = 0; i < 4; ++i) std::memcpy(bytes.data() + root + 1024 + 8 * i, &root, 8);
  owner.folder.write("T.zlm", bytes);
  owner.reopen();
  EXPECT_TRUE(MemorySession(owner).store(5, "x").is(Own::memoryFile));
  EXPECT_TRUE(MemorySession(owner).remove(5).is(Own::memoryFile));
  EXPECT_TRUE(MemorySession(owner).removeAll(7).is(Own::memoryFile));
  // A leaf's next is itself.
  bytes = good;
  const auto leaf = numberAt<std::uint64_t>(good, root + 1024);
  std::memcpy(bytes.data() + leaf + 16, &leaf, 8);
  owner.folder.write("T.zlm", bytes);
  owner.reopen();
  EXPECT_TRUE(MemorySession(owner).removeAll(7).is(Own::memoryFile));
}

}  // namespace
}  // namespace zelta::testing

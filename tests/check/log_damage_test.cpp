// Damaged log and memory files.

#include "check/damage_fixture.h"
#include "platform/file_io.h"
#include "transaction/log/log_file.h"

namespace zelta::testing {
namespace {

class LogDamage : public Damage {
 protected:
  /// A numbered log with more entries than one node holds.
  void makeLog() {
    make(kForms[2], 10, true);
    EditSession session(folder, kForms[2]);
    ASSERT_TRUE(session.enter().ok());
    for (std::uint32_t i = 100; i < 140; ++i) {
      ASSERT_TRUE(session.add({i, "text"}).ok()) << session.error();
      ASSERT_TRUE(session.commit().ok());
    }
    ASSERT_TRUE(session.end().ok());
    ASSERT_EQ(findings(), "");
    root = word(kFile, 8);
    end = word(kFile, 24);
    ASSERT_EQ(word(kFile, root + 8, 2), 28265u);
    leaf = word(kFile, root + 112);
    secondLeaf = word(kFile, root + 120);
    entry = word(kFile, leaf + 112);
    last = word(kFile, secondLeaf + 112 + 8 * (word(kFile, secondLeaf + 10, 2) - 1));
  }

  static constexpr const char* kFile = "db.0000.zll";
  std::uint64_t root = 0;
  std::uint64_t end = 0;
  std::uint64_t leaf = 0;
  std::uint64_t secondLeaf = 0;
  std::uint64_t entry = 0;
  std::uint64_t last = 0;  ///< the last entry
};

TEST_F(LogDamage, OfTheHeader) {
  makeLog();
  expectFound(kFile, 0, 'z');
  expectFound(kFile, 3, 'L', 0);
  expectFound(kFile, 4, '\2');
  expectFound(kFile, 6, std::uint16_t{1});
  expectFound(kFile, 8, std::uint64_t{0}, std::uint64_t{112});  // what was the root is nothing now
  expectFound(kFile, 8, end);
  expectFound(kFile, 16, end);
  expectFound(kFile, 24, std::uint64_t{0});
  expectFound(kFile, 24, end + 8);
  expectFound(kFile, 24, end - 8, last);
}

TEST_F(LogDamage, OfAChangeUnderWayIsPendingWork) {
  makeLog();
  expectFound(kFile, 48, end, kThere, kPending);
  expectFound(kFile, 56, '\1', kThere, kRemains);
}

/// Counts the files that are opened, or tried.
class OpenCalls : public platform::faults::Hook {
 public:
  OpenCalls() { platform::faults::install(this); }
  ~OpenCalls() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    if (event.call == platform::faults::Call::open) ++count;
    return {};
  }
  int count = 0;
};

/// Of 65536 numbers the files that there are.
TEST_F(LogDamage, OfTheNumbersInTheControlFileCostsNoSearch) {
  constexpr std::uint64_t kFirst = 28;
  constexpr std::uint64_t kLast = 30;
  makeLog();
  folder.write("db.0fA3.zll", folder.bytes(kFile));  // another number stands in it
  folder.write("db.fff.zll", "");
  folder.write("db.xfff.zll", "");
  for (const std::uint16_t first : {std::uint16_t{0}, std::uint16_t{0x0FA3}}) {
    put("db.zlc", kFirst, first);
    put("db.zlc", kLast, static_cast<std::uint16_t>(first - 1));
    const OpenCalls calls;
    EXPECT_EQ(findings().find("db.0000.zll"), std::string::npos);
    EXPECT_LT(calls.count, 10);
  }
  put("db.zlc", kFirst, std::uint16_t{0x0FA0});
  put("db.zlc", kLast, std::uint16_t{0x0FFF});
  folder.write("db.0fa3.zll", folder.bytes(kFile));
  EXPECT_NE(findings().find("db.0fa3.zll at 6"), std::string::npos) << findings();
}

TEST_F(LogDamage, OfNodes) {
  makeLog();
  expectFound(kFile, root, std::uint64_t{300});
  expectFound(kFile, root + 8, std::uint16_t{1});
  expectFound(kFile, root + 10, std::uint16_t{26});
  expectFound(kFile, root + 12, std::uint32_t{0xFFFFFFFF}, secondLeaf + 12);
  expectFound(kFile, root + 112, root);
  expectFound(kFile, root + 112, end);
  expectFound(kFile, leaf + 12, std::uint32_t{0xFFFFFFFF});
  expectFound(kFile, leaf + 112, std::uint64_t{8});
  expectFound(kFile, leaf + 10, std::uint16_t{0});
}

TEST_F(LogDamage, OfEntries) {
  makeLog();
  const std::uint64_t length = word(kFile, entry);
  expectFound(kFile, entry, length + 4);
  expectFound(kFile, entry, end);
  expectFound(kFile, entry, length + 8, entry + length);  // lies over the next block
  expectFound(kFile, entry + 8, 'z');
  expectFound(kFile, entry + 12, std::uint32_t{99999});
  expectFound(kFile, entry + 16, std::uint32_t{0}, kThere, kRemains);
  expectFound(kFile, entry + 20, '\1');
  expectFound(kFile, entry + 40, '\1', entry + 24, kRemains);
}

/// A change of a body that its checksum covers.
class LogBodyDamage : public LogDamage {
 protected:
  template <class Number>
  void expectFoundInBody(std::uint64_t offset, Number value, std::uint64_t found) {
    const std::string sound = folder.bytes(kFile);
    put(kFile, offset, value);
    std::uint64_t sum = 0;
    const std::string bytes = folder.bytes(kFile);
    xorChecksum64(sum, bytes.data() + last + 32, numberAt<std::uint64_t>(bytes, last) - 32);
    put(kFile, last + 24, sum);
    EXPECT_TRUE(has(kFile, found, CheckKind::damage)) << offset << "\n" << findings();
    folder.write(kFile, sound);
  }
};

TEST_F(LogBodyDamage, OfSections) {
  makeLog();
  expectFoundInBody(last + 16, std::uint32_t{2}, last + 76);
  expectFoundInBody(last + 32, 'z', last + 32);
  expectFoundInBody(last + 40, std::uint64_t{1} << 60, last + 40);
  expectFoundInBody(last + 48, std::uint64_t{3}, last + 40);
  const std::uint64_t length = word(kFile, last);
  expectFoundInBody(last + length - 1, '\1', last + length - 1);
}

TEST_F(LogDamage, OfTheSingleForm) {
  make(kForms[0], 10);
  EXPECT_EQ(word("db.zll", 8), 0u);
  expectFound("db.zll", 24, std::uint64_t{0});
  expectFound("db.zll", 16, std::uint64_t{112});
  folder.write("db.zll", folder.bytes("db.zll").substr(0, 50));
  EXPECT_TRUE(has("db.zll", 0, kRemains));
  std::filesystem::remove(folder.path() / "db.zll");
  EXPECT_EQ(findings(), "");
}

TEST_F(LogDamage, AnEntryLeftInTheSingleFormIsPendingWork) {
  makeLog();
  std::string bytes = folder.bytes(kFile);
  bytes[3] = 'L';
  folder.write("db.zll", bytes);
  std::filesystem::remove(folder.path() / kFile);
  put("db.zlc", 20, std::uint32_t{0});
  EXPECT_TRUE(has("db.zll", entry, kPending)) << findings();
}

class MemoryDamage : public Damage {};

TEST_F(MemoryDamage, OfTheHeader) {
  make(kForms[2], 10);
  const std::string file = "T.zlm";
  const std::uint64_t end = word(file, 24);
  ASSERT_EQ(end, 80u + 16 * 3);
  expectFound(file, 0, 'z');
  expectFound(file, 4, std::uint16_t{2});
  expectFound(file, 8, std::uint32_t{1});
  expectFound(file, 12, std::uint32_t{100});
  expectFound(file, 16, end);
  expectFound(file, 24, end - 8);
  expectFound(file, 24, end + 100000);
  expectFound(file, 48, end, kThere, kPending);
  expectFound(file, 32, '\1', kThere, kRemains);
  expectFound(file, 80 + 24, end);
  expectFound(file, 80 + 32, end);
  folder.write(file, "");
  EXPECT_EQ(findings(), "");
}

TEST_F(MemoryDamage, OfAnOpenTransactionsPages) {
  make(kForms[2], 10);
  const std::string file = "T.zlm";
  EditSession session(folder, kForms[2]);
  ASSERT_TRUE(session.enter().ok());
  for (std::uint32_t i = 1000; i < 1300; ++i) ASSERT_TRUE(session.add({i, "pending"}).ok());
  const std::string sound = folder.bytes(file);
  const std::uint64_t roots = 80 + 24;
  EXPECT_TRUE(has(file, roots, kPending));
  const std::uint64_t map = word(file, roots);
  ASSERT_EQ(word(file, map + 4, 2), 28265u);
  const std::uint64_t leaf = word(file, map + 1024 + 8);
  expectFound(file, map, std::uint32_t{2048});
  expectFound(file, map + 4, std::uint16_t{1});
  expectFound(file, map + 6, std::uint16_t{127});
  expectFound(file, map + 1024, map);
  expectFound(file, map + 1024, word(file, 24));
  expectFound(file, leaf + 8, leaf);
  expectFound(file, leaf + 16, leaf, leaf + 16);
  expectFound(file, leaf + 24 + 8, std::uint64_t{1});
  expectFound(file, leaf + 696, std::uint32_t{0});
  expectFound(file, leaf + 1032, std::uint32_t{5000}, word(file, leaf + 1368));
  expectFound(file, leaf + 1368, std::uint64_t{7});
  const std::uint64_t keys = word(file, roots + 8);
  expectFound(file, keys + 4, std::uint16_t{7});
  ASSERT_TRUE(session.abort().ok()) << session.error();
  ASSERT_TRUE(session.end().ok());
  EXPECT_EQ(findingsOf(this->folder.file("db.zlc")), "");
}

}  // namespace
}  // namespace zelta::testing

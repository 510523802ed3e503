// Files with one byte changed: the checker must come back, whatever the byte steers, and see the
// damage wherever something else confirms what the byte says.

#include <ctime>
#include <set>

#include "check/damage_fixture.h"
#include "check/market.h"

namespace zelta::testing {
namespace {

/// Far more time of the processor than the check of such small files takes.
constexpr std::clock_t kLongest = 20 * CLOCKS_PER_SEC;

/// In the midst of zeros one byte is like the next: only some of those are tried.
bool isWorthATry(const std::string& bytes, std::size_t i) {
  constexpr std::size_t kNear = 16;
  constexpr std::size_t kSome = 61;
  const std::size_t from = i < kNear ? 0 : i - kNear;
  return i % kSome == 0 || bytes.substr(from, 2 * kNear).find_first_not_of('\0') != bytes.npos;
}

/// Changes each byte in turn; gives the offsets of those that were not noticed.
std::set<std::uint64_t> unnoticed(const FreshFolder& folder, const std::string& control,
                                  const std::string& file, int mask) {
  CheckOptions options;
  options.remains = true;
  const std::string sound = folder.bytes(file);
  std::set<std::uint64_t> out;
  for (std::size_t i = 0; i < sound.size(); ++i) {
    if (!isWorthATry(sound, i)) continue;
    std::string bytes = sound;
    bytes[i] = static_cast<char>(bytes[i] ^ mask);
    folder.write(file, bytes);
    const std::clock_t start = std::clock();
    if (checkDatabase(folder.file(control), options).empty()) out.insert(i);
    EXPECT_LT(std::clock() - start, kLongest) << file << " " << i;
  }
  folder.write(file, sound);
  return out;
}

std::string ranges(const std::set<std::uint64_t>& offsets) {
  std::string out;
  for (auto at = offsets.begin(); at != offsets.end();) {
    const std::uint64_t first = *at;
    std::uint64_t last = first;
    for (++at; at != offsets.end() && *at == last + 1; ++at) last = *at;
    out += std::to_string(first) + "-" + std::to_string(last) + " ";
  }
  return out;
}

class FlippedBytes : public Damage, public ::testing::WithParamInterface<int> {
 protected:
  static constexpr std::uint32_t kObjects = 8;
  std::set<std::uint64_t> unnoticedIn(const std::string& file) {
    return unnoticed(folder, "db.zlc", file, GetParam());
  }
  /// Bytes of a table file that nothing else confirms.
  [[nodiscard]] std::set<std::uint64_t> free(const TableForm& form) const {
    const std::string bytes = folder.bytes("T.zlt");
    std::set<std::uint64_t> out;
    const auto add = [&](std::uint64_t from, std::uint64_t to) {
      for (; from < to; ++from) out.insert(from);
    };
    add(168, 170);  // index that orders locks
    add(176, 180);  // lock order: the directory's counts
    add(184, 188);  // flags of the schema without a meaning
    const std::uint64_t names = 168 + 36 + (form.fixed ? 24 + 12 + 8 : 48 + 24 + 24);
    add(names, 168 + word("T.zlt", 12, 4));
    const RawTable raw(bytes, form);
    EXPECT_EQ(raw.damage, "");
    for (const auto& [id, position] : raw.positions) {
      const std::uint64_t object = position + (form.fixed ? 0 : 8);
      add(object, object + 2);  // version
      if (form.fixed) continue;
      const std::uint64_t end = object + numberAt<std::uint32_t>(bytes, position + 4);
      add(end, position + numberAt<std::uint32_t>(bytes, position) - 4);
    }
    if (raw.freeHead != 0) {
      add(raw.freeHead + 16, raw.freeHead + numberAt<std::uint32_t>(bytes, raw.freeHead) - 4);
    }
    return out;
  }
  void checkTable(const TableForm& form) {
    make(form, kObjects);
    if (HasFatalFailure()) return;
    std::set<std::uint64_t> left = unnoticedIn("T.zlt");
    for (const std::uint64_t offset : free(form)) left.erase(offset);
    EXPECT_EQ(ranges(left), "");
    EXPECT_EQ(ranges(unnoticedIn("T.zli")), "");
    EXPECT_EQ(ranges(unnoticedIn("T.zlm")), "");
    EXPECT_EQ(ranges(unnoticedIn("db.zll")), "");
  }
};

TEST_P(FlippedBytes, OfAFixedTableAreNoticed) { checkTable(kForms[0]); }

TEST_P(FlippedBytes, OfAVariableTableAreNoticed) { checkTable(kForms[2]); }

TEST_P(FlippedBytes, OfAWideTableAreNoticed) { checkTable(kForms[3]); }

TEST_P(FlippedBytes, OfAControlFileAreNoticed) {
  make(kForms[0], kObjects);
  std::set<std::uint64_t> left = unnoticedIn("db.zlc");
  left.erase(20);  // no numbered log file needs to exist
  for (const std::uint64_t setting : {24u, 25u, 26u, 27u}) left.erase(setting);
  for (const std::uint64_t number : {32u, 33u, 34u, 35u}) left.erase(number);  // of a transaction
  for (const std::uint64_t order : {80u, 81u, 82u, 83u}) left.erase(order);    // any will do
  EXPECT_EQ(ranges(left), "");
}

TEST_P(FlippedBytes, OfANumberedLogAreNoticed) {
  make(kForms[2], kObjects, true);
  std::set<std::uint64_t> left = unnoticedIn("db.0000.zll");
  // The root has two entries: what is behind their keys and positions is not in use.
  for (std::uint64_t at = 112 + 12 + 2 * 4; at < 112 + 112; ++at) left.erase(at);
  for (std::uint64_t at = 112 + 112 + 2 * 8; at < 432; ++at) left.erase(at);
  EXPECT_EQ(ranges(left), "");
}

TEST_P(FlippedBytes, OfAnOpenTransactionsMemoryFileDoNoHarm) {
  make(kForms[2], kObjects);
  EditSession session(folder, kForms[2]);
  ASSERT_TRUE(session.enter().ok());
  for (std::uint32_t i = 100; i < 103; ++i) ASSERT_TRUE(session.add({i, "pending"}).ok());
  EXPECT_EQ(ranges(unnoticedIn("T.zlm")), "");  // pending work, if nothing else
  ASSERT_TRUE(session.abort().ok());
  ASSERT_TRUE(session.end().ok());
}

INSTANTIATE_TEST_SUITE_P(Masks, FlippedBytes, ::testing::Values(0xFF, 0x01),
                         [](const ::testing::TestParamInfo<int>& mask) {
                           return "Mask" + std::to_string(mask.param);
                         });

/// Rows, keys of rows and texts of all modes.
TEST_F(Market, SurvivesFlippedBytesInRows) {
  makeTables();
  fill(6);
  for (const int mask : {0xFF, 0x80}) unnoticed(folder, "shop.zlc", "texts.zlt", mask);
  EXPECT_TRUE(findings().empty());
}

TEST_F(Market, SurvivesFilesOfNoise) {
  makeTables();
  fill(6);
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (const char* file : {"texts.zlt", "texts.zli", "texts.zlm", "shop.zll", "shop.zlc"}) {
    const std::string sound = folder.bytes(file);
    for (unsigned i = 0; i < 200; ++i) {
      std::string bytes = sound;
      const std::size_t keep = random() % 300;
      for (std::size_t at = keep; at < bytes.size(); ++at) {
        if (random() % (1 + i % 20) == 0) bytes[at] = static_cast<char>(random());
      }
      bytes.resize(random() % 5 == 0 ? random() % bytes.size() : bytes.size());
      folder.write(file, bytes);
      static_cast<void>(findings());
    }
    folder.write(file, sound);
  }
  EXPECT_TRUE(findings().empty());
}

}  // namespace
}  // namespace zelta::testing

// Mutated index and memory files, and all that can be done with a table whose files they are: every
// call ends in time with an answer or a code that says what is damaged, files do not grow without
// measure, and the checker comes back. ZELTA_MUTATIONS sets how many files are mutated.

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "check/shape_database.h"

namespace zelta::testing {
namespace {

constexpr std::uint64_t kHeader = 80;
constexpr std::uint16_t kPostingTag = 0x6269;
constexpr std::uint16_t kTags[] = {0x6E69, 0x6C69, kPostingTag, 0};

/// Changes an index file or a memory file here and there.
class Mutation {
 public:
  Mutation(std::string& bytes, std::mt19937& random, std::uint64_t unit)
      : bytes_(bytes), random_(random), unit_(unit) {}

  void run() {
    for (std::uint32_t i = 1 + below(3); i != 0; --i) mutateOnce();
  }

 private:
  [[nodiscard]] std::uint32_t below(std::uint64_t n) {
    return static_cast<std::uint32_t>(random_() % n);
  }
  [[nodiscard]] std::uint64_t somePage() { return below(bytes_.size() / unit_) * unit_; }
  [[nodiscard]] std::uint64_t word(std::uint64_t at, unsigned width) const {
    std::uint64_t value = 0;
    std::memcpy(&value, bytes_.data() + at, width);
    return value;
  }
  void put(std::uint64_t at, std::uint64_t value, unsigned width) {
    if (at + width <= bytes_.size()) std::memcpy(bytes_.data() + at, &value, width);
  }
  [[nodiscard]] std::uint64_t someNumber(std::uint64_t old) {
    constexpr std::uint64_t kSpecial[] = {0,      1,      2,          7,          8,
                                          0x7FFF, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    switch (below(6)) {
      case 0:
        return kSpecial[below(10)];
      case 1:
        return old + 1 + below(4);
      case 2:
        return old - 1 - below(4);
      case 3:
        return old ^ (std::uint64_t{1} << below(32));
      case 4:
        return std::uint64_t{below(2)} << 63 | below(bytes_.size());
      default:
        return somePage();
    }
  }
  void change(std::uint64_t at, unsigned width) {
    if (at + width <= bytes_.size()) put(at, someNumber(word(at, width)), width);
  }
  void mutateOnce() {
    const std::uint64_t page = somePage();
    const std::uint64_t size = std::max<std::uint64_t>(word(page, 4) % 0x10000, 32);
    const std::uint64_t behind = page + size;
    switch (below(15)) {
      case 0:
        return change(page, 4);
      case 1:
        return put(page + 4, kTags[below(4)], 2);
      case 2:
      case 3:
        return change(page + 6, 2);
      case 4:
        return change(page + 8 + 8 * below(3), 8);
      case 5:
      case 6:
        return put(behind - 8 * (1 + below(4)), somePage(), 8);  // a circle, or a shared child
      case 7:
        return change(behind - 4 * (1 + below(12)), 4);
      case 8:
        return change(page + 8 + 4 * below(16), 4);
      case 9:
        return change(8 + 4 * below((kHeader - 8) / 4 + 40), 4);  // the header and the roots
      case 10:
        return put(kHeader + 8 * below(24), somePage(), 8);
      case 11:
        return copyPage(page);
      case 12:
        return fillPage(page);
      case 13:
        return put(behind - 8 * (1 + below(12)), ~std::uint64_t{0}, 8);  // a stop word
      default:
        bytes_[below(bytes_.size())] ^= static_cast<char>(1 << below(8));
    }
  }
  void copyPage(std::uint64_t page) {
    const std::uint64_t from = somePage();
    const std::uint64_t most = bytes_.size() - std::max(from, page);
    std::memmove(bytes_.data() + page, bytes_.data() + from, std::min(unit_, most));
  }
  void fillPage(std::uint64_t page) {
    const std::uint64_t most = std::min(unit_, bytes_.size() - page);
    for (std::uint64_t i = below(8); i < most; ++i) {
      bytes_[page + i] = static_cast<char>(page % 3 == 0 ? 0 : random_());
    }
  }

  std::string& bytes_;
  std::mt19937& random_;
  const std::uint64_t unit_;
};

class DamagedIndexes : public ShapeDatabase {
 protected:
  static constexpr std::uint32_t kObjects = 220;
  static constexpr std::clock_t kLongest = 20 * CLOCKS_PER_SEC;
  static constexpr std::size_t kGrowth = std::size_t{16} << 20;

  void SetUp() override {
    make(kObjects);
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      const std::string name = entry.path().filename().string();
      if (entry.is_regular_file() && name != "shop.zlk") sound[name] = folder.bytes(name);
    }
    const char* given = std::getenv("ZELTA_SEED");
    seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                            : std::random_device{}();
    const char* wanted = std::getenv("ZELTA_MUTATIONS");
    runs = wanted != nullptr ? std::atoi(wanted) : 40;
  }
  void restore() const {
    for (const auto& [name, bytes] : sound) folder.write(name, bytes);
    for (const char* name : {"T.zlm", kIndexFile}) {
      if (sound.count(name) == 0) std::filesystem::remove(folder.path() / name);
    }
  }
  std::uint32_t below(std::uint64_t n) { return static_cast<std::uint32_t>(random() % n); }
  void mutate(const std::string& name, std::uint64_t unit) {
    std::string bytes = folder.bytes(name);
    if (bytes.size() < 2 * unit) return;
    Mutation(bytes, random, unit).run();
    // The file that a handle has open is written over, not replaced.
    std::fstream file(folder.path() / name, std::ios::binary | std::ios::in | std::ios::out);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  /// From how many objects on, as a power of two, a list may let a word go; 0: never. The pages of
  /// the index file stay as small as they are unless it is built anew.
  void setObjectPower(Index list, std::uint16_t power) {
    constexpr std::uint64_t kSchema = 168;
    constexpr std::uint64_t kIndexRecord = 12;
    std::string bytes = folder.bytes("T.zlt");
    const std::uint64_t records = kSchema + 2 * numberAt<std::uint32_t>(bytes, kSchema + 32);
    std::memcpy(bytes.data() + records + (list - 1) * kIndexRecord + 6, &power, sizeof power);
    folder.write("T.zlt", bytes);
  }
  /// The outcome of one call: nothing, or a code that a damaged table may answer with.
  unsigned long long expectSense(CZELTA& handle, unsigned long long word) {
    ++outcomes[word];
    EXPECT_TRUE(word == 0 || word >> 32 == 1 || word >> 32 == 2) << std::hex << word;
    if (word != 0) messageOf(handle);
    return word;
  }

  void readAll(CZELTA& handle, unsigned index) {
    CZELTA::Object object{};
    // An object that is gone counts as locked: nobody waits for it.
    const CZELTA::Mode flags = CZELTA::ReadNoLock | CZELTA::ReadNoWait;
    CZELTA::Mode mode = below(2) == 0 ? CZELTA::ReadFirst : CZELTA::ReadLast;
    const CZELTA::Mode next = mode == CZELTA::ReadFirst ? CZELTA::ReadNext : CZELTA::ReadPrevious;
    for (int i = 0; i < 400; ++i, mode = next) {
      if (expectSense(handle, handle.ReadObject(kTable, mode | flags, &object, index, nullptr,
                                                nullptr)) != 0) {
        return;
      }
    }
  }
  void search(CZELTA& handle, unsigned index) {
    const std::uint32_t number = below(kObjects);
    std::string key;
    const char* expression = "all and not (some3 or own)";
    const std::u16string wide = u"ALL or own1";
    const auto* words =
        index == kWideWords ? reinterpret_cast<const char*>(wide.c_str()) : expression;
    const bool isPattern = index == kPoints || index == kRowPoints;
    if (isPattern) {
      key = points(number, 2, index == kPoints ? 3 : 2);
    } else if (index == kSpans) {
      key = Packed().number(std::uint64_t{0}).number(std::uint64_t{4000});
    } else {
      for (const std::int32_t c : {-300, -300, 300, 300}) key = Packed().raw(key).number(c);
    }
    if (index == kWideWords) key = Packed().number(static_cast<std::uint16_t>(number % 3)).zeros(8);
    long long count = 0;
    const CZELTA::Mode mode = below(4) == 0 ? CZELTA::SearchKeepResults : CZELTA::Mode{};
    const auto word = isPattern
                          ? handle.SearchIndex(kTable, index, key.data(), 20u, mode, &count)
                          : handle.SearchIndex(kTable, index, key.data(), words, mode, &count);
    if (expectSense(handle, word) == 0) readAll(handle, index);
  }
  void lookAround(CZELTA& handle) {
    for (unsigned index = kNumbers; index <= kIndexes; ++index) {
      if (below(3) == 0) continue;
      if (index == kNumbers) {
        readAll(handle, index);
      } else {
        search(handle, index);
      }
    }
  }
  void change(CZELTA& handle) {
    for (int i = 0; i < 12; ++i) {
      const auto id = static_cast<long long>(1 + below(kObjects));
      switch (below(3)) {
        case 0:
          expectSense(handle, add(handle, 1000 + below(500)));
          break;
        case 1:
          expectSense(handle, rewrite(handle, id, 2000 + below(500)));
          break;
        default:
          expectSense(handle, handle.DeleteObject(kTable, id, nullptr));
      }
    }
  }
  void finish(CZELTA& handle) {
    expectSense(handle, below(4) == 0 ? handle.AbortTransaction(below(2) == 0)
                                      : handle.CommitTransaction(below(2) == 0));
  }
  /// Works on the table; `between` is called while objects are pending.
  template <class Between>
  void work(Between between) {
    CZELTA handle;
    if (expectSense(handle, handle.OpenDatabase(path().c_str())) != 0) return;
    const CZELTA::Mode mode =
        below(4) == 0 ? CZELTA::TransactionExclusive : CZELTA::TransactionShared;
    if (expectSense(handle, handle.BeginTransaction(mode, 1000)) != 0) return;
    if (expectSense(handle, handle.OpenTable(kTable)) != 0) return;
    for (int round = 0; round < 2; ++round) {
      lookAround(handle);
      change(handle);
      between();
      lookAround(handle);
      finish(handle);
    }
    expectSense(handle, handle.EndTransaction());
    expectSense(handle, handle.CloseDatabase());
  }
  void expectBounded(std::clock_t start, int run) const {
    EXPECT_LT(std::clock() - start, kLongest) << "run " << run;
    for (const auto& [name, bytes] : sound) {
      if (!folder.has(name)) continue;
      EXPECT_LT(std::filesystem::file_size(folder.path() / name), bytes.size() + kGrowth)
          << name << ", run " << run;
    }
  }
  template <class Before, class Between>
  void repeat(Before before, Between between, bool stopWords = false) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (int run = 0; run < runs && !HasFailure(); ++run) {
      random.seed(seed + static_cast<unsigned>(run));
      restore();
      const std::clock_t start = std::clock();
      before();
      static_cast<void>(findings());
      const Index list = run % 2 == 0 ? kWords : kWideWords;
      if (stopWords) setObjectPower(list, 1);
      work(between);
      if (stopWords) setObjectPower(list, 0);
      static_cast<void>(findings());
      expectBounded(start, run);
    }
    restore();
  }

  std::map<std::string, std::string> sound;
  std::map<unsigned long long, std::uint64_t> outcomes;
  std::mt19937 random;
  unsigned seed = 0;
  int runs = 0;
};

TEST_F(DamagedIndexes, OfCommittedTreesAnswerWithACode) {
  const std::uint64_t unit = numberAt<std::uint32_t>(sound[kIndexFile], 12);
  repeat([&] { mutate(kIndexFile, unit); }, [] {});
  // Most calls come through, and some meet the damage.
  EXPECT_GT(outcomes[0], 0u);
  EXPECT_GT(outcomes.size(), 2u);
}

/// Words have as many objects as a page has room for: one more makes a stop word of them. The header
/// is sound, as a file that is built anew for lists with stop words has very large pages.
TEST_F(DamagedIndexes, OfListsWithStopWordsAnswerWithACode) {
  const std::string& index = sound[kIndexFile];
  const std::uint64_t unit = numberAt<std::uint32_t>(index, 12);
  const auto full = static_cast<std::uint16_t>((unit - 16) / 4);
  runs = (runs + 1) / 2;
  repeat(
      [&] {
        mutate(kIndexFile, unit);
        std::string bytes = folder.bytes(kIndexFile);
        bytes.replace(0, unit, index, 0, unit);
        for (std::uint64_t page = unit; page + unit <= bytes.size(); page += unit) {
          const bool postings = numberAt<std::uint16_t>(bytes, page + 4) == kPostingTag;
          if (postings && below(2) == 0) std::memcpy(bytes.data() + page + 6, &full, sizeof full);
        }
        folder.write(kIndexFile, bytes);
      },
      [] {}, true);
  EXPECT_GT(outcomes[0], 0u);
}

/// Nobody changes a memory file behind the back of a transaction; a disk may.
TEST_F(DamagedIndexes, OfPendingTreesAnswerWithACode) {
  constexpr std::uint64_t kMemoryUnit = 64;
  repeat([] {}, [&] { mutate("T.zlm", kMemoryUnit); });
  EXPECT_GT(outcomes[0], 0u);
}

TEST_F(DamagedIndexes, OfBothFilesAnswerWithACode) {
  const std::uint64_t unit = numberAt<std::uint32_t>(sound[kIndexFile], 12);
  repeat([] {},
         [&] {
           mutate(kIndexFile, unit);
           mutate("T.zlm", unit);
         });
  EXPECT_GT(outcomes[0], 0u);
}

}  // namespace
}  // namespace zelta::testing

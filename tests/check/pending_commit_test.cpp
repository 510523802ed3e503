// Databases whose last user died in a commit: what is still to be carried out is pending work, at
// whatever point he died, and damage beside it is found all the same.

#include <algorithm>

#include "check/damage_fixture.h"
#include "check/market.h"
#include "crash/commit_trial.h"
#include "process/die_between.h"

namespace zelta::testing {
namespace {

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// How many findings of a file have a text in them.
std::ptrdiff_t countOf(const std::vector<CheckFinding>& findings, const std::string& file,
                       const std::string& what) {
  return std::count_if(findings.begin(), findings.end(), [&](const CheckFinding& finding) {
    return endsWith(finding.file, file) && finding.what.find(what) != std::string::npos;
  });
}

std::ptrdiff_t damageIn(const std::vector<CheckFinding>& findings) {
  return std::count_if(findings.begin(), findings.end(), [](const CheckFinding& finding) {
    return finding.kind == CheckKind::damage;
  });
}

/// Flips bytes in turn; those that are not called damage.
std::string missed(const FreshFolder& folder, const std::string& control, const std::string& file,
                   const std::vector<std::uint64_t>& offsets, int mask) {
  const std::string sound = folder.bytes(file);
  std::string out;
  for (const std::uint64_t at : offsets) {
    std::string bytes = sound;
    bytes[at] = static_cast<char>(bytes[at] ^ mask);
    folder.write(file, bytes);
    if (damageIn(checkDatabase(folder.file(control))) == 0) out += std::to_string(at) + " ";
  }
  folder.write(file, sound);
  return out;
}

/// Bytes of an index file's pages, with the zeros that lie next to others.
std::vector<std::uint64_t> pagesOf(const FreshFolder& folder, const std::string& file,
                                   std::uint64_t step = 1) {
  const std::string bytes = folder.bytes(file);
  std::vector<std::uint64_t> out;
  for (std::uint64_t i = 1024; i < numberAt<std::uint64_t>(bytes, 24); i += step) {
    if (bytes.substr(i - 4, 8).find_first_not_of('\0') != std::string::npos) out.push_back(i);
  }
  return out;
}

// -- Deaths at every call -------------------------------------------------------------------------

/// States that a sweep has to come by.
struct Seen {
  int keysAhead = 0;
  int indexJournals = 0;
  int tableJournals = 0;
  int changedLogs = 0;

  void note(const std::vector<CheckFinding>& findings, const std::string& context) {
    for (const CheckFinding& finding : findings) {
      EXPECT_NE(finding.kind, CheckKind::damage) << describe(finding) << context;
    }
    if (countOf(findings, ".zli", "keys are changed") != 0) ++keysAhead;
    if (countOf(findings, ".zli", "cut off") != 0) ++indexJournals;
    if (countOf(findings, ".zlt", "cut off") != 0) ++tableJournals;
    if (countOf(findings, ".zll", "under way") != 0) ++changedLogs;
  }
};

/// With a parameter, the form of the table.
class DeathInCommit : public ::testing::TestWithParam<std::size_t> {
 protected:
  static std::vector<Scene> someScenes() {
    std::vector<Scene> all = scenes();
    if (std::getenv("ZELTA_THOROUGH") != nullptr) return all;
    return {all[4], all[8]};
  }
};

TEST_P(DeathInCommit, IsPendingWorkAtEveryCall) {
  const TableForm& form = kForms[GetParam()];
  Seen seen;
  for (const Scene& scene : someScenes()) {
    const Trial trial(form, scene);
    for (const auto kind : {Misfortune::Kind::death, Misfortune::Kind::deathInWrite}) {
      int code = 1;
      for (std::uint64_t call = 0; code != 0 && !HasFailure(); ++call) {
        FreshFolder folder;
        copyFiles(trial.start(), folder);
        code = trial.commitIn(folder, call, kind);
        seen.note(checkDatabase(folder.file("db.zlc")), contextOf(form, scene, call));
      }
    }
  }
  EXPECT_TRUE(seen.keysAhead != 0 || !form.indexed);
  EXPECT_TRUE(seen.indexJournals != 0 || !form.indexed);
  EXPECT_GT(seen.tableJournals, 0);
}

TEST_P(DeathInCommit, IsPendingWorkWhereverItsRepairersDie) {
  const TableForm& form = kForms[GetParam()];
  const Scene scene = scenes()[4];
  const Trial trial(form, scene);
  Seen seen;
  int codes[2] = {1, 1};
  for (std::uint64_t call = 30; codes[0] != 0 && !HasFailure(); call += 3) {
    FreshFolder dead;
    copyFiles(trial.start(), dead);
    codes[0] = trial.commitIn(dead, call, Misfortune::Kind::death);
    codes[1] = 1;
    for (std::uint64_t repair = 0; codes[1] != 0 && !HasFailure(); repair += 3) {
      FreshFolder folder;
      copyFiles(dead, folder);
      codes[1] = trial.repairIn(folder, repair, Misfortune::Kind::death);
      seen.note(checkDatabase(folder.file("db.zlc")), contextOf(form, scene, call));
    }
  }
  EXPECT_GT(seen.tableJournals, 0);
}

INSTANTIATE_TEST_SUITE_P(Forms, DeathInCommit, ::testing::Values(1, 2),
                         [](const auto& form) { return form.param == 1 ? "fixed" : "variable"; });

// -- Several tables -------------------------------------------------------------------------------

class MarketAfterDeath : public Market {
 protected:
  void SetUp() override {
    Market::SetUp();
    makeTables();
    fill(9);
  }
  /// Adds to all tables, takes an object out of each and rewrites one.
  static bool work(CZELTA& handle) {
    for (unsigned table = kBare; table <= kWide; ++table) {
      CZELTA::Object object{};
      if (handle.OpenTable(table) != 0) return false;
      add(handle, table, 20000 + table);
      add(handle, table, 30000 + table);
      if (handle.DeleteObject(table, 3, &object) != 0) return false;
      if (handle.ReadObject(table, 5, &object) != 0) return false;
      *static_cast<char*>(object.data) = 77;
      if (handle.RewriteObject(table, nullptr) != 0) return false;
    }
    return true;
  }
  /// Does the work in a process that a hook may kill in the commit.
  template <class Hook, class... Arguments>
  static int commitIn(const FreshFolder& where, const Arguments&... arguments) {
    ChildProcess victim([&](const ChildProcess::Line&) {
      CZELTA handle;
      if (handle.OpenDatabase(where.file("shop.zlc").c_str()) != 0) return 1;
      if (handle.BeginTransaction(CZELTA::TransactionShared, 10000) != 0) return 2;
      if (!work(handle)) return 3;
      const Hook hook(arguments...);
      return handle.CommitTransaction(true) == 0 && handle.EndTransaction() == 0 ? 0 : 4;
    });
    return victim.wait();
  }
};

TEST_F(MarketAfterDeath, HasPendingWorkAtEveryCall) {
  Seen seen;
  int code = 1;
  std::uint64_t calls = 0;
  for (; code != 0 && !HasFailure(); ++calls) {
    FreshFolder copy;
    copyFiles(folder, copy);
    code = commitIn<Misfortune>(copy, calls, Misfortune::Kind::death);
    ASSERT_TRUE(code == 0 || code == kKilled) << code;
    seen.note(checkDatabase(copy.file("shop.zlc")), ", call " + std::to_string(calls));
  }
  EXPECT_GT(calls, 60u);
  EXPECT_GT(seen.keysAhead, 3);
  EXPECT_GT(seen.indexJournals, 3);
  EXPECT_GT(seen.tableJournals, 3);
}

TEST_F(MarketAfterDeath, HasItsDamageFoundWhenHalfOfTheTablesAreDone) {
  const std::vector<std::string> order = {"fixed.zlt", "texts.zli", "texts.zlt"};
  ASSERT_EQ(commitIn<DieBetween>(folder, order), kKilled);
  const std::vector<CheckFinding> sound = findings();
  EXPECT_EQ(damageIn(sound), 0);
  EXPECT_EQ(countOf(sound, "fixed.zli", "keys are changed"), 0);
  EXPECT_GT(countOf(sound, "texts.zli", "keys are changed"), 0);
  EXPECT_EQ(countOf(sound, "wide.zli", "keys are changed"), 0);
  for (const char* file : {"fixed.zli", "texts.zli", "wide.zli"}) {
    EXPECT_EQ(missed(folder, "shop.zlc", file, pagesOf(folder, file, 11), 0x01), "") << file;
  }
}

// -- Damage beside pending work -------------------------------------------------------------------

class PendingCommit : public Damage {
 protected:
  static constexpr std::uint32_t kObjects = 12;

  /// Adds, rewrites and deletes objects, and dies behind the writes.
  void dieBetween(const TableForm& form, const std::vector<std::string>& files,
                  bool keepLogs = false) {
    make(form, kObjects, keepLogs);
    ChildProcess victim([&](const ChildProcess::Line&) {
      EditSession session(folder, form);
      const std::string text(40, 'x');
      const std::vector<EditStep> steps = {add(13, 13, 0),    add(14, 14, 0), rewrite(2, 400),
                                           rewrite(3, 3, 40), erase(4),       erase(12)};
      if (session.enter().failed() || session.carryOut(steps).failed()) return 1;
      const DieBetween death(files);
      static_cast<void>(session.commit());
      return 2;
    });
    ASSERT_EQ(victim.wait(), kKilled);
    ASSERT_EQ(damageIn(checkDatabase(control())), 0) << findings();
  }
  [[nodiscard]] std::u16string control() const { return folder.file("db.zlc"); }
  [[nodiscard]] bool isAhead() const {
    return countOf(checkDatabase(control()), ".zli", "keys are changed") != 0;
  }
  void expectAllFlipsFound() const {
    for (const int mask : {0xFF, 0x01}) {
      EXPECT_EQ(missed(folder, "db.zlc", "T.zli", pagesOf(folder, "T.zli"), mask), "");
    }
    std::vector<std::uint64_t> numbers;
    const std::string bytes = folder.bytes("T.zlt");
    const auto slots = numberAt<std::uint32_t>(bytes, 8);
    for (std::uint64_t id = 1; id <= kObjects; ++id) {
      const auto position = numberAt<std::uint64_t>(bytes, slots + 12 * id);
      // What the index has given up already, and the commit replaces, does not count any more.
      const bool marked = numberAt<std::uint32_t>(bytes, slots + 12 * id + 8) != 0;
      if ((position >> 63) == 0 && !(marked && isAhead())) numbers.push_back(position + lead);
    }
    EXPECT_EQ(numbers.size(), isAhead() ? 7u : 11u);
    EXPECT_EQ(missed(folder, "db.zlc", "T.zlt", numbers, 0x01), "");
  }
  /// Cuts the entry of the dead transaction off from its checksum.
  void spoilEntry() const {
    const std::uint64_t root = word("db.zll", 8);
    const std::uint64_t entry = word("db.zll", root + 112);
    put("db.zll", entry + 24, word("db.zll", entry + 24) + 1);
  }
  std::uint64_t lead = 6;  ///< from a record to the number in it
};

TEST_F(PendingCommit, ThatIsDecidedAloneHidesNoDamage) {
  dieBetween(kForms[0], {".zli"});
  EXPECT_FALSE(isAhead());
  expectAllFlipsFound();
}

TEST_F(PendingCommit, WhoseKeysAreThereHidesNoDamage) {
  dieBetween(kForms[0], {".zli", ".zlt"});
  EXPECT_TRUE(isAhead());
  expectAllFlipsFound();
}

TEST_F(PendingCommit, OfAVariableTableHidesNoDamage) {
  lead = 14;
  dieBetween(kForms[2], {".zli", ".zlt"});
  EXPECT_TRUE(isAhead());
  expectAllFlipsFound();
}

TEST_F(PendingCommit, IsNoneWithoutItsEntry) {
  dieBetween(kForms[0], {".zli", ".zlt"});
  spoilEntry();
  // Keys of 2, 4 and 12 are gone, keys of 2, 13 and 14 have come.
  const auto found = checkDatabase(control());
  EXPECT_EQ(countOf(found, ".zlt", "is missing"), 3);
  EXPECT_EQ(countOf(found, ".zli", "has no such key"), 3);
}

TEST_F(PendingCommit, IsNoneOfAnotherTransaction) {
  dieBetween(kForms[0], {".zli", ".zlt"});
  const std::uint64_t slot = word("db.zlc", 16, 4);
  put("db.zlc", slot, static_cast<std::uint32_t>(word("db.zlc", slot, 4) + 1));
  EXPECT_GT(damageIn(checkDatabase(control())), 0);
}

TEST_F(PendingCommit, IsNoneOfAnObjectWithoutItsMark) {
  dieBetween(kForms[0], {".zli", ".zlt"});
  const std::uint64_t mark = word("T.zlt", 8, 4) + 12 * 4 + 8;
  ASSERT_NE(word("T.zlt", mark, 4), 0u);
  put("T.zlt", mark, std::uint32_t{0});
  EXPECT_EQ(countOf(checkDatabase(control()), ".zlt", "key of object 4 is missing"), 1);
}

TEST_F(PendingCommit, ChangesAllKeysOrNone) {
  dieBetween(kForms[0], {".zli", ".zlt"});
  // The greatest key, that of the rewritten object 2, is the last in the only leaf.
  constexpr std::uint64_t kLeaf = 1024;
  constexpr std::uint64_t kKeys = kLeaf + 24;
  const std::uint64_t count = word("T.zli", kLeaf + 6, 2);
  ASSERT_EQ(word("T.zli", kKeys + 4 * (count - 1), 4), 400u);
  ASSERT_EQ(word("T.zli", kLeaf + 1024 - 4 * count, 4), 2u);
  put("T.zli", kLeaf + 6, static_cast<std::uint16_t>(count - 1));
  put("T.zli", kKeys + 4 * (count - 1), std::uint32_t{0});
  put("T.zli", kLeaf + 1024 - 4 * count, std::uint32_t{0});
  const auto found = checkDatabase(control());
  EXPECT_EQ(damageIn(found), 1);
  EXPECT_EQ(countOf(found, ".zli", "some are changed and some are not"), 1);
}

/// Where a kind of file has the sum of its journal, and what is summed.
struct JournalForm {
  const char* file;
  std::vector<std::string> before;  ///< written ahead of it
  std::uint64_t sum;
  std::uint64_t sumBytes;
  std::uint64_t summed;  ///< in the header, up to `headerEnd`
  std::uint64_t headerEnd;
};

/// Journals lie where the header says, and may say anything.
class AnyJournal : public PendingCommit {
 protected:
  /// Flips a byte, and in the sum what makes it right again.
  static void flip(std::string& bytes, const JournalForm& form, std::uint64_t at,
                   std::uint64_t start, char mask) {
    bytes[at] = static_cast<char>(bytes[at] ^ mask);
    const bool ofHeader = at >= form.summed && at < form.headerEnd;
    if (!ofHeader && at < start) return;
    char& sum = bytes[form.sum + (at - (ofHeader ? form.summed : start)) % form.sumBytes];
    sum = static_cast<char>(sum ^ mask);
  }
  void tryAll(const JournalForm& form, std::uint64_t start) const {
    const std::string sound = folder.bytes(form.file);
    for (std::size_t i = 8; i < sound.size(); i += i < form.headerEnd ? 1 : i < start ? 19 : 3) {
      for (const char mask : {'\xFF', '\x01'}) {
        std::string bytes = sound;
        bytes[i] = static_cast<char>(bytes[i] ^ mask);
        folder.write(form.file, bytes);
        EXPECT_FALSE(checkDatabase(control()).empty());
        bytes = sound;
        flip(bytes, form, i, start, mask);
        folder.write(form.file, bytes);
        EXPECT_FALSE(checkDatabase(control()).empty());
      }
    }
    folder.write(form.file, sound);
  }
  /// Dies behind ever more writes; each journal that stands is tried. Returns how many did.
  int tryStates(const JournalForm& form, const char* file, const char* what) {
    int journals = 0;
    for (int writes = 1; writes < 6; ++writes) {
      copyFiles(FreshFolder(), folder);
      std::vector<std::string> files = form.before;
      files.insert(files.end(), static_cast<std::size_t>(writes), file);
      dieBetween(kForms[2], files, keepLogs);
      if (countOf(checkDatabase(control()), file, what) == 0) continue;
      tryAll(form, startOf(form));
      ++journals;
    }
    return journals;
  }
  [[nodiscard]] std::uint64_t startOf(const JournalForm& form) const {
    const std::string name = form.file;
    if (name == "T.zlt") return word(name, 80) - 40 * (word(name, 104, 4) + word(name, 112, 4));
    return std::max(word(name, 48), word(name, 32));
  }
  bool keepLogs = false;
};

TEST_F(AnyJournal, OfATableDoesNoHarm) {
  EXPECT_GE(tryStates({"T.zlt", {".zli"}, 96, 4, 104, 168}, ".zlt", "cut off"), 2);
}

TEST_F(AnyJournal, OfAnIndexFileDoesNoHarm) {
  EXPECT_GE(tryStates({"T.zli", {}, 56, 8, 64, 96}, ".zli", "cut off"), 2);
}

TEST_F(AnyJournal, OfALogDoesNoHarm) {
  keepLogs = true;
  EXPECT_GE(tryStates({"db.0000.zll", {}, 56, 8, 64, 112}, ".zll", "under way"), 2);
}

}  // namespace
}  // namespace zelta::testing

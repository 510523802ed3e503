// What becomes of index files in the course of their lives, whatever kinds of index a table has.

#include <gtest/gtest.h>

#include <filesystem>

#include "crash/misfortune.h"
#include "crash/recorded_disk.h"
#include "transaction/commit_bench.h"

namespace zelta::testing {
namespace {

/// All forms of table with indexes.
std::vector<TableForm> indexedForms() {
  std::vector<TableForm> forms = allForms();
  std::erase_if(forms, [](const TableForm& form) { return !form.indexed; });
  return forms;
}

/// An index file at rest, as its bytes tell.
struct RestingIndexFile {
  explicit RestingIndexFile(const std::string& bytes) : size(bytes.size()) {
    const auto count = numberAt<std::uint32_t>(bytes, 8);
    const std::uint64_t pageSize = numberAt<std::uint32_t>(bytes, 12);
    firstPage = ((std::uint64_t{count} + 1) * 16 + 79) / pageSize * pageSize + pageSize;
    freeHead = numberAt<std::uint64_t>(bytes, 16);
    end = numberAt<std::uint64_t>(bytes, 24);
    for (std::uint64_t i = 0; i < 2 * std::uint64_t{count}; ++i) {
      const auto root = numberAt<std::uint64_t>(bytes, 80 + 8 * i);
      (i < count ? comingRoots : roots).push_back(root);
    }
  }
  std::uint64_t size;
  std::uint64_t firstPage = 0;
  std::uint64_t freeHead = 0;
  std::uint64_t end = 0;
  std::vector<std::uint64_t> comingRoots;
  std::vector<std::uint64_t> roots;
};

TEST(IndexLife, Of_a_table_that_becomes_empty_nothing_is_left) {
  for (const TableForm& form : indexedForms()) {
    Bench bench(form);
    bench.fill(150);
    const RestingIndexFile full(bench.folder.bytes("T.zli"));
    EXPECT_EQ(std::count(full.roots.begin(), full.roots.end(), 0u), 0) << form.name;
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    // One transaction takes most of it, the next one the rest.
    for (std::uint64_t id = 1; id <= 140; ++id) ASSERT_TRUE(session.erase(id * 7 % 151).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    for (std::uint64_t id = 141; id <= 150; ++id) ASSERT_TRUE(session.erase(id * 7 % 151).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_EQ(session.error(), "") << form.name;
    const RestingIndexFile empty(bench.folder.bytes("T.zli"));
    const std::vector<std::uint64_t> none(empty.roots.size(), 0);
    EXPECT_EQ(empty.roots, none) << form.name;
    EXPECT_EQ(empty.comingRoots, none) << form.name;
    EXPECT_EQ(empty.freeHead, 0u) << form.name;
    EXPECT_EQ(empty.end, empty.firstPage) << form.name;
    EXPECT_EQ(empty.size, empty.end) << form.name;
    ASSERT_TRUE(session.add(content(7, bench.textOf(7))).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    std::string damage;
    EXPECT_EQ(session.readAll(&damage).size(), 1u);
    EXPECT_EQ(damage, "") << form.name;
  }
}

TEST(IndexLife, Objects_that_keep_what_indexes_have_of_them_leave_the_file_alone) {
  for (const TableForm& form : indexedForms()) {
    Bench bench(form);
    bench.fill(30);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    const std::string before = bench.folder.bytes("T.zli");
    Recorder recorder;
    for (std::uint32_t id = 3; id <= 30; id += 4) {
      ASSERT_TRUE(session.rewrite(id, content(id, bench.textOf(id))).ok()) << session.error();
    }
    ASSERT_TRUE(session.commit().ok()) << session.error();
    platform::faults::install(nullptr);
    ASSERT_EQ(session.error(), "") << form.name;
    EXPECT_EQ(std::count_if(recorder.changes.begin(), recorder.changes.end(),
                            [](const Change& change) { return change.file == "T.zli"; }),
              0)
        << form.name;
    EXPECT_EQ(bench.folder.bytes("T.zli"), before) << form.name;
  }
}

TEST(IndexLife, An_abort_leaves_no_pending_tree) {
  for (const TableForm& form : indexedForms()) {
    Bench bench(form);
    bench.fill(40);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    const auto pendingRoots = [&] {
      const std::string bytes = bench.folder.bytes("T.zlm");
      const auto count = numberAt<std::uint32_t>(bytes, 8);
      std::vector<std::uint64_t> roots;  // that of the map of objects comes first
      for (std::uint32_t i = 0; i <= count; ++i) {
        roots.push_back(numberAt<std::uint64_t>(bytes, 88 + 8 * std::uint64_t{count + i}));
      }
      return roots;
    };
    for (std::uint32_t i = 100; i < 180; ++i) {
      ASSERT_TRUE(session.add(content(i, bench.textOf(i))).ok()) << session.error();
    }
    for (std::uint32_t id = 1; id <= 20; ++id) {
      ASSERT_TRUE(session.rewrite(id, content(id + 200, bench.textOf(id + 200))).ok());
    }
    // Words and points are looked for in the objects themselves.
    const std::vector<std::uint64_t> during = pendingRoots();
    std::int64_t without = 0;
    if (form.shaped) {
      const std::vector<ShapeKind> kinds = shapeKinds(!form.fixed);
      without = std::count_if(kinds.begin(), kinds.end(),
                              [](const ShapeKind& kind) { return kind.key == nullptr; });
    }
    EXPECT_EQ(std::count(during.begin(), during.end(), 0u), without) << form.name;
    ASSERT_TRUE(session.abort(false).ok()) << session.error();
    const std::vector<std::uint64_t> after = pendingRoots();
    EXPECT_EQ(after, std::vector<std::uint64_t>(after.size(), 0)) << form.name;
    std::string damage;
    EXPECT_EQ(session.readAll(&damage).size(), 40u);
    EXPECT_EQ(damage, "") << form.name;
  }
}

/// What one transaction does to one object between its commits, in numbers that give it keys; 0
/// deletes it, a repeated one rewrites it with what it has.
using Turns = std::vector<std::uint32_t>;

TEST(IndexLife, Keys_that_go_and_come_back_in_one_transaction_stay_in_step) {
  const std::vector<Turns> units = {{2, 1},          {2, 1, 3},    {4, 3, 4, 3, 4}, {1, 1, 2},
                                    {5, 5, 2, 5, 2}, {6, 2, 6, 2}, {7, 2, 0}};
  for (const TableForm& form : indexedForms()) {
    Bench bench(form);
    // 54 and 107 have the shapes of 1.
    bench.commit({{EditStep::Kind::add, 1, content(1, bench.textOf(1))},
                  {EditStep::Kind::add, 2, content(54, bench.textOf(54))},
                  {EditStep::Kind::add, 3, content(107, bench.textOf(107))}});
    Model model = {{1, content(1, bench.textOf(1))},
                   {2, content(54, bench.textOf(54))},
                   {3, content(107, bench.textOf(107))}};
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    for (const Turns& turns : units) {
      for (const std::uint32_t number : turns) {
        const Content now = content(number, bench.textOf(number));
        ASSERT_TRUE((number == 0 ? session.erase(1) : session.rewrite(1, now)).ok())
            << session.error();
        applyStep(model, {number == 0 ? EditStep::Kind::erase : EditStep::Kind::rewrite, 1, now});
      }
      ASSERT_TRUE(session.commit(turns.size() % 2 == 0).ok()) << session.error();
      ASSERT_EQ(session.error(), "") << form.name;
      std::string damage;
      EXPECT_TRUE(session.readAll(&damage) == model) << form.name;
      EXPECT_EQ(damage, "") << form.name << " after " << turns.back();
      for (const CheckFinding& finding : checkDatabase(bench.folder.file("db.zlc"))) {
        EXPECT_NE(finding.kind, CheckKind::damage) << form.name << ": " << describe(finding);
      }
    }
  }
}

/// Opens the table and reads by an index, which builds the file if it is not there.
int readByIndex(const FreshFolder& folder, const TableForm& form) {
  EditSession session(folder, form);
  Content content;
  if (session.opened.failed() || session.enter().failed()) return 100;
  if (session.readByNumber(CZELTA::ReadEqual, 5, &content).failed()) return 101;
  if (content.number != 5) return 102;
  return session.end().ok() ? 0 : 103;
}

TEST(IndexLife, A_file_that_is_missing_or_whose_builder_died_is_built_again) {
  for (const TableForm& form : indexedForms()) {
    Bench bench(form);
    bench.fill(60);
    bench.commit({erase(7), erase(8), rewrite(9, 300)});
    std::string damage;
    const Model model = contentsOf(bench.folder, form, &damage);
    ASSERT_EQ(damage, "") << form.name;
    int died = 0;
    for (std::uint64_t call = 0;; ++call) {
      std::filesystem::remove(bench.folder.path() / "T.zli");
      const int ended = inProcess([&] {
        const Misfortune misfortune(
            call, call % 2 == 0 ? Misfortune::Kind::death : Misfortune::Kind::deathInWrite);
        return readByIndex(bench.folder, form);
      });
      ASSERT_TRUE(ended == 0 || ended == kKilled) << ended << ", call " << call;
      EXPECT_TRUE(contentsOf(bench.folder, form, &damage) == model);
      ASSERT_EQ(damage, "") << form.name << ", call " << call;
      if (ended == 0) break;
      ++died;
    }
    EXPECT_GT(died, 5) << form.name;
  }
}

}  // namespace
}  // namespace zelta::testing

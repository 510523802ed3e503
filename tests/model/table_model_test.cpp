// Random transactions of one handle against the model, and the files against themselves.

#include <cstdlib>
#include <iostream>

#include "model/random_work.h"

namespace zelta::testing {
namespace {

/// ZELTA_SEED repeats a run.
unsigned seedOfRun() {
  const char* given = std::getenv("ZELTA_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                         : std::random_device{}();
  std::cout << "seed " << seed << '\n';
  return seed;
}

bool thorough() { return std::getenv("ZELTA_THOROUGH") != nullptr; }

class ModelOf : public ::testing::TestWithParam<TableShape> {
 protected:
  [[nodiscard]] std::u16string path() const { return folder.file("db.zlc"); }

  /// Batches of operations of some handles in one thread; between them all is compared.
  void run(unsigned handles, unsigned crowd, unsigned batches, unsigned operations,
           bool trouble = false) {
    const unsigned seed = seedOfRun();
    makeModelTable(path(), GetParam());
    if (HasFailure()) return;
    TableModel table(GetParam());
    RandomThings random(seed, GetParam(), crowd);
    std::vector<std::unique_ptr<ModelHandle>> all;
    std::vector<RandomWorker> workers;
    std::mt19937 troubles(seed);
    for (unsigned i = 0; i < handles; ++i) {
      all.push_back(std::make_unique<ModelHandle>(table, path()));
      workers.emplace_back(random, table, *all.back());
      if (trouble) all.back()->makeTrouble(troubles);
    }
    for (unsigned batch = 0; batch < batches; ++batch) {
      SCOPED_TRACE("batch " + std::to_string(batch) + " of seed " + std::to_string(seed));
      for (unsigned i = 0; i < operations; ++i) {
        workers[random.below(handles)].step();
        if (i % 100 == 99) expectNoDamage();
        ASSERT_FALSE(HasFailure()) << "operation " << i;
      }
      settle(table, workers, all, batch);
      ASSERT_FALSE(HasFailure());
    }
    EXPECT_EQ(trouble, all[0]->troubles() > 0);
    if (trouble) std::cout << all[0]->troubles() << " operations failed on the first handle\n";
  }

 private:
  /// Between two operations the files agree, whatever transactions are open.
  void expectNoDamage() {
    for (const CheckFinding& finding : checkDatabase(path())) {
      if (finding.kind == CheckKind::damage) ADD_FAILURE() << describe(finding);
    }
  }
  /// All transactions end; the files must agree with the model and with each other. Now and then
  /// the database is closed on the way.
  void settle(const TableModel& table, std::vector<RandomWorker>& workers,
              std::vector<std::unique_ptr<ModelHandle>>& handles, unsigned batch) {
    for (RandomWorker& worker : workers) worker.rest();
    if (batch % 4 == 3) {
      for (auto& handle : handles) handle->close();
    }
    CheckCounts counts;
    EXPECT_EQ(findingsOf(path()), "");
    static_cast<void>(checkDatabase(path(), {}, &counts));
    EXPECT_EQ(counts.objects, table.objects().size());
    if (batch % 4 == 3) {
      for (auto& handle : handles) handle->open();
    }
    compareAll(handles[0]->db, table);
  }

  FreshFolder folder;
};

TEST_P(ModelOf, FewObjectsIsWhatOneHandleSees) { run(1, 12, thorough() ? 400 : 8, 400); }

TEST_P(ModelOf, ManyObjectsIsWhatOneHandleSees) {
  run(1, thorough() ? 3000 : 600, thorough() ? 60 : 4, thorough() ? 3000 : 1500);
}

TEST_P(ModelOf, FewObjectsIsWhatThreeHandlesSee) { run(3, 25, thorough() ? 400 : 8, 500); }

TEST_P(ModelOf, ManyObjectsIsWhatFiveHandlesSee) {
  run(5, thorough() ? 2000 : 300, thorough() ? 60 : 4, thorough() ? 3000 : 1500);
}

TEST_P(ModelOf, FewObjectsSurvivesFailingCalls) { run(2, 15, thorough() ? 400 : 4, 400, true); }

TEST_P(ModelOf, ManyObjectsSurvivesFailingCalls) {
  run(1, 300, thorough() ? 60 : 2, thorough() ? 3000 : 1500, true);
}

INSTANTIATE_TEST_SUITE_P(Tables, ModelOf, ::testing::ValuesIn(tableShapes()),
                         [](const ::testing::TestParamInfo<TableShape>& shape) {
                           return shape.param.name;
                         });

}  // namespace
}  // namespace zelta::testing

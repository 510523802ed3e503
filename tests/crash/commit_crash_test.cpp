// Processes that die at every call of a commit that changes a file, and others that die while they
// repair what these left: afterwards the transaction is there as a whole or not at all, and nothing
// else is left of it.

#include "crash/commit_trial.h"
#include "support/database_fixture.h"
#include "support/sanitized.h"

namespace zelta::testing {
namespace {

/// Calls from one that is struck to the next. What is left of a transaction is looked at after each
/// call without the sanitizers, which are there for what the code does to memory.
constexpr std::uint64_t kStride = ZELTA_TEST_SANITIZED ? 3 : 1;
/// The same where only some of the calls are tried, which differ from run to run.
std::uint64_t longStride() { return std::getenv("ZELTA_THOROUGH") != nullptr ? 1 : 13 * kStride; }

/// Runs every scene with the forms, one call after the other, until the commit meets no misfortune.
void strikeEverywhere(Misfortune::Kind kind, const std::vector<TableForm>& forms,
                      std::uint64_t stride,
                      const std::function<void(const Trial&, const FreshFolder&, int exitCode,
                                               const std::string& context)>& judge) {
  const std::vector<Scene> all = scenes();
  std::uint64_t first = stride == kStride ? 0 : std::random_device{}();
  for (const TableForm& form : forms) {
    for (const Scene& scene : all) {
      const Trial trial(form, scene);
      for (std::uint64_t call = first++ % stride;; call += stride) {
        const std::string context = contextOf(form, scene, call);
        FreshFolder folder;
        copyFiles(trial.start(), folder);
        const int exitCode = trial.commitIn(folder, call, kind);
        ASSERT_TRUE(exitCode < 100 || exitCode == kKilled) << exitCode << context;
        judge(trial, folder, exitCode, context);
        if (::testing::Test::HasFailure()) return;
        if (exitCode == 0) break;
      }
    }
  }
}

void expectWholeOrNothing(Misfortune::Kind kind, const std::vector<TableForm>& forms,
                          std::uint64_t stride = kStride) {
  int outcomes[2] = {0, 0};
  strikeEverywhere(
      kind, forms, stride,
      [&](const Trial& trial, const FreshFolder& folder, int exitCode, const std::string& context) {
        const int outcome = trial.outcome(folder, context);
        if (exitCode == 0 || exitCode == 2) {
          EXPECT_EQ(outcome, 1) << "it was reported done" << context;
        }
        ++outcomes[outcome];
      });
  EXPECT_GT(outcomes[0], 0);
  EXPECT_GT(outcomes[1], 0);
  std::printf("%d points\n", outcomes[0] + outcomes[1]);
}

TEST(CommitCrash, A_process_that_dies_at_any_call_leaves_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::death, formsOf({0, 1, 2, 3, 4}));
}

TEST(CommitCrash, A_process_that_dies_leaves_indexes_of_all_kinds_in_step) {
  expectWholeOrNothing(Misfortune::Kind::death, shapedForms(), longStride());
  expectWholeOrNothing(Misfortune::Kind::deathInWrite, shapedForms(), 2 * longStride());
}

TEST(CommitCrash, Calls_that_fail_leave_indexes_of_all_kinds_in_step) {
  expectWholeOrNothing(Misfortune::Kind::failure, shapedForms(), 2 * longStride());
  expectWholeOrNothing(Misfortune::Kind::failures, shapedForms(), 2 * longStride());
}

TEST(CommitCrash, A_process_that_dies_within_any_write_leaves_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::deathInWrite, formsOf({0, 3}));
}

TEST(CommitCrash, A_call_that_fails_once_leaves_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::failure, formsOf({1, 2}));
}

TEST(CommitCrash, Calls_that_fail_from_some_point_on_leave_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::failures, formsOf({3}));
}

TEST(CommitCrash, A_handle_that_lives_on_repairs_when_it_begins) {
  int outcomes[2] = {0, 0};
  const std::vector<Scene> all = scenes();
  for (const TableForm& form : formsOf({2})) {
    for (const Scene& scene : all) {
      const Trial trial(form, scene);
      for (std::uint64_t call = 0;; ++call) {
        const std::string context = contextOf(form, scene, call);
        FreshFolder folder;
        copyFiles(trial.start(), folder);
        int exitCode = 0;
        {
          EditSession witness(folder, form);
          exitCode = trial.commitIn(folder, call, Misfortune::Kind::death);
          ASSERT_TRUE(witness.enter().ok()) << witness.error() << context;
          std::string damage;
          witness.readAll(&damage);
          ASSERT_EQ(damage, "") << context;
          ASSERT_TRUE(witness.end().ok()) << witness.error();
        }
        ++outcomes[trial.outcome(folder, context)];
        ASSERT_FALSE(::testing::Test::HasFailure()) << context;
        if (exitCode == 0) break;
      }
    }
  }
  EXPECT_GT(outcomes[0], 0);
  EXPECT_GT(outcomes[1], 0);
}

void repairersDie(const std::vector<TableForm>& forms, std::uint64_t stride) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  strikeEverywhere(
      Misfortune::Kind::death, forms, stride,
      [&](const Trial& trial, const FreshFolder& folder, int exitCode, const std::string& context) {
        if (exitCode == 0) return;
        FreshFolder other;
        copyFiles(folder, other);
        const int expected = trial.outcome(other, context);
        // One repairer dies early, the next somewhat later, until one gets through.
        std::uint64_t reach = random() % 3;
        for (int died = 256; died >= 256; reach += random() % 12) {
          died = trial.repairIn(
              folder, reach,
              random() % 2 == 0 ? Misfortune::Kind::death : Misfortune::Kind::deathInWrite);
          ASSERT_TRUE(died == 0 || died == kKilled) << died << context;
        }
        EXPECT_EQ(trial.outcome(folder, context), expected) << context;
      });
}

TEST(CommitCrash, Whoever_repairs_may_die_as_well) { repairersDie(formsOf({0, 2}), kStride); }

TEST(CommitCrash, Whoever_repairs_indexes_of_all_kinds_may_die_as_well) {
  repairersDie(shapedForms(), 2 * longStride());
}

/// A session whose first commit met a call that failed.
struct Struck {
  Struck(const TableForm& form, CZELTA::Mode mode, bool releaseLocks, std::uint64_t call)
      : session(folder, form), context(", call " + std::to_string(call)) {
    session.makeTable();
    EXPECT_TRUE(session.enter(mode).ok()) << session.error();
    EXPECT_TRUE(session.carryOut(adds(1, 5)).ok()) << session.error();
    const Misfortune misfortune(call, Misfortune::Kind::failure);
    committed = session.commit(releaseLocks).ok();
    struck = misfortune.struck;
  }
  /// Whether the commit is decided, but still to be carried out.
  [[nodiscard]] bool isLeft() const { return committed && session.metaData.leaveSlot; }

  const FreshFolder folder;
  EditSession session;
  std::string context;
  bool committed = false;
  bool struck = false;
};

TEST(CommitCrash, What_could_not_be_carried_out_keeps_its_place_before_another_commit) {
  const TableForm& form = kForms[2];
  int refused = 0;
  for (std::uint64_t call = 0;; ++call) {
    Struck trial(form, CZELTA::TransactionShared, false, call);
    EditSession& session = trial.session;
    const std::string& context = trial.context;
    if (trial.isLeft()) {
      ASSERT_TRUE(session.commit().ok()) << "there is nothing to write" << context;
      for (const EditStep& step : {erase(2), add(9, 9)}) {
        if (session.carryOut({step}).failed()) continue;  // half of it is there
        ASSERT_EQ(session.commit().word(), systemCode(code::kDeviceError)) << context;
        ASSERT_TRUE(session.abort().ok()) << context;
        ++refused;
      }
    }
    ASSERT_TRUE(session.end().ok()) << context;
    if (trial.committed) {
      ASSERT_TRUE(session.enter().ok()) << session.error() << context;  // carries it out
      std::string damage;
      const Model found = session.readAll(&damage);
      EXPECT_EQ(damage, "") << context;
      Model expected;
      for (const EditStep& step : adds(1, 5)) applyStep(expected, step);
      EXPECT_EQ(found, expected) << context;
      ASSERT_TRUE(session.carryOut({erase(3)}).ok()) << session.error() << context;
      ASSERT_TRUE(session.commit().ok()) << session.error() << context;
      ASSERT_TRUE(session.end().ok()) << context;
    }
    if (!trial.struck) break;
  }
  EXPECT_GT(refused, 5);
}

TEST(CommitCrash, Log_files_stay_while_something_is_to_be_carried_out_from_them) {
  const TableForm& form = kForms[2];
  int refused = 0;
  for (std::uint64_t call = 0;; ++call) {
    Struck trial(form, CZELTA::TransactionExclusive, true, call);
    EditSession& session = trial.session;
    const std::string& context = trial.context;
    if (trial.isLeft()) {
      ++refused;
      EXPECT_EQ(setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, 1).word(),
                systemCode(code::kDeviceError))
          << context;
      EXPECT_EQ(removeTable({session.metaData, session.tables}, 1, true, true).word(),
                systemCode(code::kDeviceError))
          << context;
      ASSERT_TRUE(session.end().ok()) << context;
      std::string damage;
      EXPECT_EQ(contentsOf(trial.folder, form, &damage).size(), 5u) << context;
      EXPECT_EQ(damage, "") << context;
    }
    if (!trial.struck) break;
  }
  EXPECT_GT(refused, 5);
}

}  // namespace
}  // namespace zelta::testing

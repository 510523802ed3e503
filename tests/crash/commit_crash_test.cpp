// Processes that die at every call of a commit that changes a file, and others that die while they
// repair what these left: afterwards the transaction is there as a whole or not at all, and nothing
// else is left of it.

#include "crash/commit_trial.h"

namespace zelta::testing {
namespace {

/// Runs every scene with the forms, one call after the other, until the commit meets no misfortune.
void strikeEverywhere(Misfortune::Kind kind, std::initializer_list<std::size_t> forms,
                      const std::function<void(const Trial&, const FreshFolder&, int exitCode,
                                               const std::string& context)>& judge) {
  const std::vector<Scene> all = scenes();
  for (const TableForm& form : formsOf(forms)) {
    for (const Scene& scene : all) {
      const Trial trial(form, scene);
      for (std::uint64_t call = 0;; ++call) {
        const std::string context = contextOf(form, scene, call);
        FreshFolder folder;
        copyFiles(trial.start(), folder);
        const int exitCode = trial.commitIn(folder, call, kind);
        ASSERT_TRUE(exitCode < 100 || exitCode == 256 + SIGKILL) << exitCode << context;
        judge(trial, folder, exitCode, context);
        if (::testing::Test::HasFailure()) return;
        if (exitCode == 0) break;
      }
    }
  }
}

void expectWholeOrNothing(Misfortune::Kind kind, std::initializer_list<std::size_t> forms) {
  int outcomes[2] = {0, 0};
  strikeEverywhere(
      kind, forms,
      [&](const Trial& trial, const FreshFolder& folder, int exitCode, const std::string& context) {
        const int outcome = trial.outcome(folder, context);
        if (exitCode == 0 || exitCode == 2) {
          EXPECT_EQ(outcome, 1) << "it was reported done" << context;
        }
        ++outcomes[outcome];
      });
  EXPECT_GT(outcomes[0], 0);
  EXPECT_GT(outcomes[1], 0);
}

TEST(CommitCrash, A_process_that_dies_at_any_call_leaves_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::death, {0, 1, 2, 3, 4});
}

TEST(CommitCrash, A_process_that_dies_within_any_write_leaves_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::deathInWrite, {0, 3});
}

TEST(CommitCrash, A_call_that_fails_once_leaves_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::failure, {1, 2});
}

TEST(CommitCrash, Calls_that_fail_from_some_point_on_leave_all_of_it_or_nothing) {
  expectWholeOrNothing(Misfortune::Kind::failures, {3});
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

TEST(CommitCrash, Whoever_repairs_may_die_as_well) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  strikeEverywhere(
      Misfortune::Kind::death, {0, 2},
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
          ASSERT_TRUE(died == 0 || died == 256 + SIGKILL) << died << context;
        }
        EXPECT_EQ(trial.outcome(folder, context), expected) << context;
      });
}

}  // namespace
}  // namespace zelta::testing

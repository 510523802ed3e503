// Transactions of all kinds that meet misfortune in their commit, and how their outcome is judged.

#ifndef ZELTA_TESTS_CRASH_COMMIT_TRIAL_H
#define ZELTA_TESTS_CRASH_COMMIT_TRIAL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "crash/misfortune.h"
#include "support/check_database.h"
#include "support/edit_session.h"
#include "transaction/log/log_parameters.h"

namespace zelta::testing {

/// What stands before the transaction in question, and what it does.
struct Scene {
  const char* name;
  std::vector<std::vector<EditStep>> before;
  std::vector<EditStep> edits;
  bool exclusive = false;
  bool keepLogs = false;
};

inline std::vector<Scene> scenes() {
  const std::vector<EditStep> mixed = {
      erase(3),   rewrite(4, 400), rewrite(5, 500, 900), erase(20),    rewrite(6, 600, 1),
      erase(19),  add(24, 21),     add(22, 22),          add(100, 23), rewrite(7, 3),
      add(21, 7), erase(8),        rewrite(9, 8),        add(30, 9)};
  return {{"first objects", {}, adds(1, 3)},
          {"more objects", {adds(1, 10)}, adds(11, 14)},
          {"growing slots", {adds(1, 48, 60)}, adds(49, 60)},
          {"a far object", {adds(1, 5)}, {add(130, 130)}},
          {"all kinds of edits", {adds(1, 20, 50), {erase(2), erase(12), erase(13)}}, mixed},
          {"everything goes",
           {adds(1, 30)},
           [] {
             std::vector<EditStep> steps;
             for (std::uint32_t i = 1; i <= 30; ++i) steps.push_back(erase(i));
             return steps;
           }()},
          {"shrinking slots",
           {adds(1, 200)},
           [] {
             std::vector<EditStep> steps;
             for (std::uint32_t i = 5; i <= 200; ++i) steps.push_back(erase(i));
             return steps;
           }()},
          {"exclusive", {adds(1, 10)}, {add(11, 11), rewrite(2, 40), erase(3)}, true},
          {"kept logs", {adds(1, 10)}, {add(11, 11), rewrite(2, 40), erase(3)}, false, true},
          {"exclusive with kept logs", {adds(1, 4)}, {add(5, 5), erase(3)}, true, true}};
}

inline void copyFiles(const FreshFolder& from, const FreshFolder& to) {
  for (const auto& entry : std::filesystem::directory_iterator(to.path())) {
    std::filesystem::remove(entry.path());
  }
  to.copyFrom(from);
}

class Trial {
 public:
  Trial(const TableForm& form, const Scene& scene) : form_(form), scene_(scene) {
    EditSession session(start_, form);
    session.makeTable();
    if (scene.keepLogs) {
      EXPECT_TRUE(session.begin(CZELTA::TransactionExclusive).ok());
      EXPECT_TRUE(setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, 1).ok());
      EXPECT_TRUE(session.end().ok());
    }
    EXPECT_TRUE(session.enter().ok()) << session.error();
    for (const auto& steps : scene.before) {
      EXPECT_TRUE(session.carryOut(steps).ok()) << session.error();
      EXPECT_TRUE(session.commit().ok());
      EXPECT_EQ(session.error(), "");
      for (const EditStep& step : steps) applyStep(before_, forForm(step));
    }
    EXPECT_TRUE(session.end().ok());
    after_ = before_;
    for (const EditStep& step : scene.edits) applyStep(after_, forForm(step));
  }
  [[nodiscard]] const FreshFolder& start() const { return start_; }
  [[nodiscard]] CZELTA::Mode mode() const {
    return scene_.exclusive ? CZELTA::TransactionExclusive : CZELTA::TransactionShared;
  }

  /// Runs the transaction in a process that meets misfortune in its commit. Returns 0 if there was
  /// no such call, 1 if an operation failed, 256 and more if it died.
  int commitIn(const FreshFolder& folder, std::uint64_t calls, Misfortune::Kind kind) const {
    return inProcess([&] {
      EditSession session(folder, form_);
      if (session.opened.failed() || session.enter(mode()).failed()) return 100;
      if (session.carryOut(scene_.edits).failed()) return 101;
      Misfortune misfortune(calls, kind);
      const bool committed = session.commit().ok();
      const bool ended = session.end().ok();
      if (!misfortune.struck) return committed && ended ? 0 : 102;
      return committed ? 2 : 1;
    });
  }
  /// Repairs in a process that dies.
  int repairIn(const FreshFolder& folder, std::uint64_t calls, Misfortune::Kind kind) const {
    return inProcess([&] {
      Misfortune misfortune(calls, kind);
      EditSession session(folder, form_);
      if (session.opened.failed() || session.enter().failed()) return 100;
      return session.end().ok() ? 0 : 101;
    });
  }
  /// What is found in the end: 0 the state before, 1 the state after.
  int outcome(const FreshFolder& folder, const std::string& context) const {
    std::string damage;
    const Model found = contentsOf(folder, form_, &damage);
    EXPECT_EQ(damage, "") << context;
    expectAgreement(folder, context);
    EXPECT_TRUE(found == before_ || found == after_) << context;
    if (!scene_.keepLogs && folder.has("db.zll")) expectNothingToReplay(folder, context);
    const std::string control = folder.bytes("db.zlc");
    EXPECT_EQ(numberAt<std::uint32_t>(control, 36), 0u) << context;
    EXPECT_EQ(control.size(), numberAt<std::uint32_t>(control, 16)) << "slots left, " << context;
    // Nobody's traces: what comes next finds all IDs and keys free.
    EditSession next(folder, form_);
    EXPECT_TRUE(next.enter().ok()) << context;
    for (const EditStep& step : scene_.edits) {
      if (found != before_ || step.kind != EditStep::Kind::add) continue;
      const bool keyFree = std::none_of(before_.begin(), before_.end(), [&](const auto& entry) {
        return entry.second.number == step.content.number;
      });
      if (keyFree) {
        EXPECT_TRUE(next.add(step.content, step.id).ok()) << next.error() << context;
      }
    }
    return found == after_ ? 1 : 0;
  }

 private:
  /// A call that failed once can leave a change of the log half done, to which the next commit
  /// sees.
  static void expectAgreement(const FreshFolder& folder, const std::string& context) {
    for (const CheckFinding& finding : checkDatabase(folder.file("db.zlc"))) {
      const bool ofLog = finding.file.find(".zll") != std::string::npos;
      if (finding.kind == CheckKind::pendingWork && ofLog) continue;
      ADD_FAILURE() << describe(finding) << context;
    }
  }
  /// Entries that could not be removed are incomplete at least.
  static void expectNothingToReplay(const FreshFolder& folder, const std::string& context) {
    const std::string log = folder.bytes("db.zll");
    const auto root = log.size() < 112 ? 0 : numberAt<std::uint64_t>(log, 8);
    if (root == 0) return;
    ASSERT_EQ(numberAt<std::uint16_t>(log, root + 8), 27753u) << context;
    for (std::uint64_t i = 0; i < numberAt<std::uint16_t>(log, root + 10); ++i) {
      const auto entry = numberAt<std::uint64_t>(log, root + 112 + 8 * i);
      EXPECT_EQ(numberAt<std::uint32_t>(log, entry + 16), 0u) << context;
    }
  }
  [[nodiscard]] EditStep forForm(EditStep step) const {
    if (form_.fixed) step.content.text.clear();
    return step;
  }

  const TableForm& form_;
  const Scene& scene_;
  FreshFolder start_;
  Model before_;
  Model after_;
};

inline std::string contextOf(const TableForm& form, const Scene& scene, std::uint64_t call) {
  return std::string(", ") + form.name + ", " + scene.name + ", call " + std::to_string(call);
}

/// The forms of table that a test tries: all of them if ZELTA_THOROUGH is set, else some.
inline std::vector<TableForm> formsOf(std::initializer_list<std::size_t> some) {
  std::vector<TableForm> out;
  if (std::getenv("ZELTA_THOROUGH") != nullptr) {
    out.assign(std::begin(kForms), std::end(kForms));
  } else {
    for (const std::size_t i : some) out.push_back(kForms[i]);
  }
  return out;
}

/// The forms with indexes of many kinds.
inline std::vector<TableForm> shapedForms() {
  return {std::begin(kShapedForms), std::end(kShapedForms)};
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CRASH_COMMIT_TRIAL_H

// A database with one table for tests of what commits make of its files.

#ifndef ZELTA_TESTS_TRANSACTION_COMMIT_BENCH_H
#define ZELTA_TESTS_TRANSACTION_COMMIT_BENCH_H

#include <string>
#include <vector>

#include "support/check_database.h"
#include "support/edit_session.h"

namespace zelta::testing {

inline constexpr const TableForm& kFixed = kForms[0];
inline constexpr const TableForm& kVariable = kForms[2];

inline Content content(std::uint32_t number, const std::string& text = "") {
  return {number, text};
}

class Bench {
 public:
  explicit Bench(const TableForm& form) : form_(form) {
    EditSession creator(folder, form);
    EXPECT_TRUE(creator.opened.ok()) << creator.error();
    creator.makeTable();
  }
  ~Bench() { expectClean(folder, "db.zlc"); }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;
  /// Objects 1 to `count`, committed.
  void fill(std::uint32_t count) {
    std::vector<EditStep> steps;
    for (std::uint32_t i = 1; i <= count; ++i) {
      steps.push_back({EditStep::Kind::add, i, content(i, textOf(i))});
    }
    commit(steps);
  }
  /// Does the steps in a transaction of their own.
  void commit(const std::vector<EditStep>& steps) {
    EditSession session(folder, form_);
    ASSERT_TRUE(session.enter().ok()) << session.error();
    ASSERT_TRUE(session.carryOut(steps).ok()) << session.error();
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_EQ(session.error(), "");
    ASSERT_TRUE(session.end().ok()) << session.error();
  }
  std::string textOf(std::uint32_t number) const {
    return form_.fixed ? "" : "text " + std::to_string(number);
  }
  RawTable raw() {
    bytes_ = folder.bytes("T.zlt");
    RawTable out(bytes_, form_);
    EXPECT_EQ(out.damage, "");
    return out;
  }
  FreshFolder folder;

 private:
  const TableForm& form_;
  std::string bytes_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_TRANSACTION_COMMIT_BENCH_H

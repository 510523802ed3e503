// A database with one table that has seen additions and deletions, and single changes of its files
// with what the checker must say to each.

#ifndef ZELTA_TESTS_CHECK_DAMAGE_FIXTURE_H
#define ZELTA_TESTS_CHECK_DAMAGE_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/check_database.h"
#include "support/edit_session.h"
#include "transaction/log/log_parameters.h"

namespace zelta::testing {

class Damage : public ::testing::Test {
 protected:
  /// Objects 1 to `count`, of which every seventh is deleted again.
  void make(const TableForm& form, std::uint32_t count, bool keepLogs = false) {
    EditSession session(folder, form);
    session.makeTable();
    if (keepLogs) {
      ASSERT_TRUE(session.begin(CZELTA::TransactionExclusive).ok());
      ASSERT_TRUE(setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, 1).ok());
      ASSERT_TRUE(session.end().ok());
    }
    ASSERT_TRUE(session.enter().ok());
    for (std::uint32_t i = 1; i <= count; ++i) {
      ASSERT_TRUE(session.add({i, "text " + std::to_string(i % 10)}).ok()) << session.error();
    }
    ASSERT_TRUE(session.commit().ok());
    for (std::uint32_t i = 7; i < count; i += 7) ASSERT_TRUE(session.erase(i).ok());
    ASSERT_TRUE(session.commit().ok());
    ASSERT_TRUE(session.end().ok());
    ASSERT_EQ(findings(), "");
  }

  [[nodiscard]] std::string findings() const { return findingsOf(folder.file("db.zlc"), true); }
  [[nodiscard]] std::uint64_t word(const std::string& file, std::uint64_t offset,
                                   unsigned width = 8) const {
    std::uint64_t value = 0;
    const std::string bytes = folder.bytes(file);
    if (offset + width > bytes.size()) {
      ADD_FAILURE() << file << " has no bytes at " << offset;
      return 0;
    }
    std::memcpy(&value, bytes.data() + offset, width);
    return value;
  }
  template <class Number>
  void put(const std::string& file, std::uint64_t offset, Number value) const {
    std::string bytes = folder.bytes(file);
    ASSERT_LE(offset + sizeof value, bytes.size());
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    folder.write(file, bytes);
  }

  /// Writes a number into a file, expects a finding there (or at `found`), and puts the old bytes
  /// back.
  template <class Number>
  void expectFound(const std::string& file, std::uint64_t offset, Number value,
                   std::uint64_t found = ~std::uint64_t{0},
                   CheckKind kind = CheckKind::damage) const {
    expectFoundIn(file, file, offset, value, found == ~std::uint64_t{0} ? offset : found, kind);
  }
  /// The same where the finding is in another file.
  template <class Number>
  void expectFoundIn(const std::string& where, const std::string& file, std::uint64_t offset,
                     Number value, std::uint64_t found, CheckKind kind = CheckKind::damage) const {
    const std::string sound = folder.bytes(file);
    put(file, offset, value);
    EXPECT_TRUE(has(where, found, kind))
        << file << " at " << offset << ", expected at " << found << "; found:\n"
        << findings().substr(0, 3000);
    folder.write(file, sound);
  }
  [[nodiscard]] bool has(const std::string& file, std::uint64_t offset, CheckKind kind) const {
    CheckOptions options;
    options.remains = true;
    const auto all = checkDatabase(folder.file("db.zlc"), options);
    const std::string path = (folder.path() / file).string();
    return std::any_of(all.begin(), all.end(), [&](const CheckFinding& finding) {
      return finding.kind == kind && finding.file == path && finding.offset == offset;
    });
  }

  FreshFolder folder;
};

inline constexpr CheckKind kPending = CheckKind::pendingWork;
inline constexpr CheckKind kRemains = CheckKind::remains;
inline constexpr std::uint64_t kThere = ~std::uint64_t{0};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CHECK_DAMAGE_FIXTURE_H

// The offline checker at the end of a test: whatever the test did, the files must agree.

#ifndef ZELTA_TESTS_SUPPORT_CHECK_DATABASE_H
#define ZELTA_TESTS_SUPPORT_CHECK_DATABASE_H

#include <gtest/gtest.h>

#include <string>

#include "check/check.h"
#include "support/storage_fixture.h"

namespace zelta::testing {

/// All that the checker finds, a line each; empty for a database without fault. With `remains`
/// harmless left-overs of processes that died count too. No transaction may be open.
inline std::string findingsOf(const std::u16string& controlPath, bool remains = false) {
  CheckOptions options;
  options.remains = remains;
  std::string out;
  for (const CheckFinding& finding : checkDatabase(controlPath, options)) {
    out += describe(finding) + "\n";
  }
  return out;
}

inline void expectClean(const std::u16string& controlPath) {
  EXPECT_EQ(findingsOf(controlPath), "");
}
inline void expectClean(const FreshFolder& folder, const std::string& control) {
  expectClean(folder.file(control));
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_CHECK_DATABASE_H

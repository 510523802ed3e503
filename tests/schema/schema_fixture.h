// Schemas given to the exported class, and what comes of them.

#ifndef ZELTA_TESTS_SCHEMA_SCHEMA_FIXTURE_H
#define ZELTA_TESTS_SCHEMA_SCHEMA_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/buffer_table.h"
#include "support/database_fixture.h"
#include "support/raw_table.h"

namespace zelta::testing {

using Change = std::function<void(CZELTA::Schema&)>;

/// A schema, and what comes of giving it to CreateTable().
struct SchemaCase {
  const char* title;
  Fields fields;
  Indexes indexes;
  unsigned int code;  ///< own code; 0: it is good
  std::string text;   ///< the failure's text, or its end; empty: any
  Change change = {};
  std::uint32_t flags = 0;
};

/// An exclusive transaction of a fresh database that tables are tried in.
class SchemaTest : public DatabaseTest {
 protected:
  void SetUp() override {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  }

  static bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
  }

  /// Expects the outcome of a case; a refused schema must leave nothing behind.
  void expectCase(const SchemaCase& one) {
    SCOPED_TRACE(one.title);
    SchemaRecords records(one.fields, one.indexes, one.flags);
    if (one.change) one.change(records.schema);
    const std::string before = control();
    const unsigned long long result = handle.CreateTable(&records.schema, nullptr);
    const std::string text = messageOf(handle);
    if (one.code == 0) {
      EXPECT_EQ(result, 0u) << text;
      if (result == 0) {
        EXPECT_DONE(handle, handle.RemoveTable(1, true));
      }
      return;
    }
    EXPECT_EQ(result, ownCode(one.code)) << text;
    EXPECT_TRUE(endsWith(text, one.text)) << "text: " << text << "\nexpected end: " << one.text;
    EXPECT_EQ(control(), before) << "a refused schema changes the control file";
    EXPECT_FALSE(folder.has("T.zlt")) << "a refused schema leaves a file";
    if (result == 0) {
      EXPECT_DONE(handle, handle.RemoveTable(1, true));
    }
  }
  void expectCases(const std::vector<SchemaCase>& cases) {
    for (const SchemaCase& one : cases) expectCase(one);
  }

  /// Makes the table, reads the head of its file, and removes it.
  RawTableHeader made(CZELTA::Schema& schema) {
    EXPECT_DONE(handle, handle.CreateTable(&schema, nullptr));
    const RawTable file(folder.bytes("T.zlt"));
    EXPECT_EQ(file.damage(), "");
    EXPECT_DONE(handle, handle.RemoveTable(1, true));
    return file.header;
  }

  CZELTA handle;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SCHEMA_SCHEMA_FIXTURE_H

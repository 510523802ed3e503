// A search by words that finds the same few objects more than a million times.

#include <gtest/gtest.h>

#include <numeric>

#include "support/buffer_table.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

constexpr unsigned kTable = 1;
constexpr unsigned kList = 1;

class RepeatedObjects : public DatabaseTest {
 protected:
  /// From this number of objects on, repeats are dropped. It is reached with the last of the words
  /// that many have: none of the objects is found again afterwards.
  static constexpr std::uint32_t kMany = 1u << 20;
  static constexpr std::uint32_t kWords = 26 * 26;
  static constexpr std::uint32_t kObjects = kMany / kWords + 1;

  void SetUp() override {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    SchemaRecords records({{CZELTA::TypeUInt32}, {CZELTA::TypeText, 40}},
                          {{{{1, CZELTA::SegmentWords}}, CZELTA::AsciiList}}, 0);
    records.schema.tableId = kTable;
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.OpenTable(kTable));
  }
  void add(const std::string& text) {
    CZELTA::Object object{};
    ASSERT_DONE(handle, handle.NewObject(kTable, &object, 0));
    ASSERT_DONE(handle,
                handle.PutVariableValues(kTable, text.c_str(),
                                         static_cast<unsigned>(text.size() + 1), 0, 1, &object));
    ASSERT_DONE(handle, handle.AddObject(kTable, &object, 0));
  }
  /// All words of two letters behind a "b".
  static std::string manyWords() {
    std::string text;
    for (char first = 'a'; first <= 'z'; ++first) {
      for (char second = 'a'; second <= 'z'; ++second) text.append({'b', first, second, ' '});
    }
    return text;
  }
  std::vector<long long> found(const char* expression) {
    std::vector<long long> ids;
    long long count = -1;
    EXPECT_DONE(handle,
                handle.SearchIndex(kTable, kList, nullptr, expression, CZELTA::Mode{}, &count));
    CZELTA::Object object{};
    CZELTA::Mode mode = CZELTA::ReadFirst;
    while (handle.ReadObject(kTable, mode, &object, kList, nullptr, nullptr) == 0) {
      ids.push_back(object.objectID);
      mode = CZELTA::ReadNext;
    }
    EXPECT_EQ(count, static_cast<long long>(ids.size()));
    return ids;
  }

  CZELTA handle;
};

/// Few objects have the first and the last of the words, all others the many between them.
TEST_F(RepeatedObjects, AreFoundOnceEach) {
  add("b");
  add("b");
  const std::string words = manyWords();
  for (std::uint32_t i = 0; i < kObjects; ++i) add(words);
  add("bzzz");
  add("a");
  ASSERT_DONE(handle, handle.CommitTransaction(true));
  std::vector<long long> all(kObjects + 3);
  std::iota(all.begin(), all.end(), 1);
  EXPECT_EQ(found("\" b\""), all);
  // Once the transaction has changed an object, they are looked at one by one.
  ASSERT_DONE(handle, handle.DeleteObject(kTable, all.back(), nullptr));
  all.pop_back();
  EXPECT_EQ(found("\"b\""), all);
  ASSERT_DONE(handle, handle.EndTransaction());
}

}  // namespace
}  // namespace zelta::testing

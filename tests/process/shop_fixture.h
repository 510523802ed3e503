// A database of one table, whose objects' whole content follows from their keys, and handles of it
// in several processes.

#ifndef ZELTA_TESTS_PROCESS_SHOP_FIXTURE_H
#define ZELTA_TESTS_PROCESS_SHOP_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {

using Line = ChildProcess::Line;

inline constexpr unsigned long long kKeyExists = ownCode(37);
inline constexpr unsigned long long kObjectExists = ownCode(36);
inline constexpr unsigned long long kNotFound = ownCode(32);
inline constexpr unsigned long long kObjectLocked = ownCode(27);
inline constexpr unsigned long long kTransactionLocked = ownCode(67);
inline constexpr unsigned long long kDatabaseLocked = ownCode(25);
inline constexpr unsigned long long kTimedOut = systemCode(258);

/// The fixed fields of an object, as they stand in it. `key` is unique by index 1, `writer` and
/// `sequence` together by index 2.
struct Row {
  std::uint64_t key = 0;
  std::uint32_t writer = 0;
  std::uint32_t sequence = 0;
  bool operator==(const Row& other) const {
    return key == other.key && writer == other.writer && sequence == other.sequence;
  }
};
static_assert(sizeof(Row) == 16);

/// The text of an object: up to 200 characters that only this row has.
inline std::string textOf(const Row& row) {
  const std::uint64_t mixed = (row.key * 31 + row.writer) * 0x9E3779B97F4A7C15 + row.sequence;
  std::string text = std::to_string(mixed) + ":";
  text.append(mixed >> 33 & 127, static_cast<char>('a' + row.key % 26));
  return text;
}

/// A handle of the shop.
class Shop {
 public:
  static constexpr unsigned kTable = 1;
  static constexpr unsigned kTimeout = 20000;

  CZELTA db;
  CZELTA::Object object{};

  bool open(const std::u16string& path) { return db.OpenDatabase(path.c_str()) == 0; }
  unsigned long long begin(CZELTA::Mode mode = CZELTA::TransactionShared,
                           unsigned timeout = kTimeout) {
    if (const auto failure = db.BeginTransaction(mode, timeout); failure != 0) return failure;
    return db.OpenTable(kTable);
  }
  unsigned long long commit(bool releaseLocks = true) { return db.CommitTransaction(releaseLocks); }
  unsigned long long end() { return db.EndTransaction(); }

  unsigned long long add(const Row& row, long long id = 0) {
    if (const auto failure = db.NewObject(kTable, &object, 0); failure != 0) return failure;
    const std::string text = textOf(row);
    if (const auto failure = db.PutVariableValues(
            kTable, text.c_str(), static_cast<unsigned>(text.size() + 1), 0, 1, &object);
        failure != 0) {
      return failure;
    }
    std::memcpy(object.data, &row, sizeof row);
    return db.AddObject(kTable, &object, id);
  }
  unsigned long long readKey(std::uint64_t key, CZELTA::Mode flags = CZELTA::Mode{}) {
    return db.ReadObject(kTable, CZELTA::ReadEqual | flags, &object, 1, &key, nullptr);
  }
  unsigned long long readPair(std::uint32_t writer, std::uint32_t sequence,
                              CZELTA::Mode flags = CZELTA::Mode{}) {
    const std::uint32_t pair[2] = {writer, sequence};
    return db.ReadObject(kTable, CZELTA::ReadEqual | flags, &object, 2, pair, nullptr);
  }
  unsigned long long readId(long long id, CZELTA::Mode flags = CZELTA::Mode{}) {
    return db.ReadObject(kTable, id, flags, &object);
  }
  /// Changes the object of the buffer, which this transaction has read or added.
  unsigned long long rewrite(const Row& row) {
    const std::string text = textOf(row);
    if (const auto failure = db.PutVariableValues(
            kTable, text.c_str(), static_cast<unsigned>(text.size() + 1), 0, 1, &object);
        failure != 0) {
      return failure;
    }
    std::memcpy(object.data, &row, sizeof row);
    return db.RewriteObject(kTable, &object);
  }
  unsigned long long remove(long long id) { return db.DeleteObject(kTable, id, &object); }
  unsigned long long walk(CZELTA::Mode mode, unsigned index) {
    return db.ReadObject(kTable, mode, &object, index, nullptr, nullptr);
  }
  /// The row of the object read last.
  [[nodiscard]] Row row() const {
    Row row;
    std::memcpy(&row, object.data, sizeof row);
    return row;
  }
  /// Whether the object read last is one that somebody has stored, to the last byte.
  [[nodiscard]] bool isWhole() const {
    return textOf(row()) == static_cast<const char*>(object.variableData);
  }
};

class ShopTest : public DatabaseTest {
 protected:
  void SetUp() override { makeShop(0, 0); }
  /// Whatever the processes did to each other: an opener that keeps all others out clears away what
  /// the dead among them left, and then the files agree.
  void TearDown() override {
    Shop last;
    ASSERT_TRUE(last.open(path()));
    ASSERT_DONE(last.db, last.begin(CZELTA::TransactionExclusive));
    ASSERT_DONE(last.db, last.end());
    ASSERT_DONE(last.db, last.db.CloseDatabase());
    expectClean(path());
  }

  /// `lockIndex` orders the locks of objects, see Schema; `flags` are the schema's.
  void makeShop(std::uint16_t lockIndex, std::uint32_t flags) const {
    CZELTA::Schema::Field fields[] = {{CZELTA::TypeUInt64, 0, 0, 0, u"key", nullptr},
                                      {CZELTA::TypeUInt32, 0, 0, 0, u"writer", nullptr},
                                      {CZELTA::TypeUInt32, 0, 0, 0, u"sequence", nullptr},
                                      {CZELTA::TypeText, 0, 200, 0, u"text", nullptr}};
    CZELTA::Schema::Segment key[] = {{0, 0}};
    CZELTA::Schema::Segment pair[] = {{1, 0}, {2, 0}};
    CZELTA::Schema::Index indexes[2] = {};
    indexes[0].segmentCount = 1;
    indexes[0].segments = key;
    indexes[1].segmentCount = 2;
    indexes[1].segments = pair;
    CZELTA::Schema schema{};
    schema.lockIndex = lockIndex;
    schema.indexCount = 2;
    schema.tableId = Shop::kTable;
    schema.fieldCount = 4;
    schema.schemaFlags = flags;
    schema.tableName = u"things";
    schema.fields = fields;
    schema.indexes = indexes;
    // In a process of its own: the test's must not be the one that keeps the database open.
    ChildProcess maker([&](const Line&) {
      CZELTA db;
      return db.CreateDatabase(path().c_str()) == 0 &&
                     db.BeginTransaction(CZELTA::TransactionExclusive, Shop::kTimeout) == 0 &&
                     db.CreateTable(&schema, nullptr) == 0 && db.EndTransaction() == 0
                 ? 0
                 : 1;
    });
    ASSERT_EQ(maker.wait(), 0);
  }

  /// Adds rows in a transaction of their own.
  void stock(const std::vector<Row>& rows) const {
    Shop shop;
    ASSERT_TRUE(shop.open(path()));
    ASSERT_DONE(shop.db, shop.begin());
    for (const Row& row : rows) ASSERT_DONE(shop.db, shop.add(row));
    ASSERT_DONE(shop.db, shop.commit());
  }
};

/// Milliseconds since the object was made.
class Stopwatch {
 public:
  [[nodiscard]] double elapsed() const {
    return std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_PROCESS_SHOP_FIXTURE_H

// What adding leaves behind besides the object: where walks go on, and what a failure leaves.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace {

/// Allocations that may still be made; the next one fails, once. Negative: no limit.
thread_local long allocationsLeft = -1;
thread_local long allocations = 0;

bool mayAllocate() {
  ++allocations;
  if (allocationsLeft < 0) return true;
  return allocationsLeft-- > 0;  // behind the one that fails there is no limit
}

}  // namespace

#include "support/replaced_new.h"

namespace zelta {
namespace {

using testing::ChildProcess;
using testing::Packed;
using testing::Segments;

class StoredObject : public testing::DatabaseTest {
 protected:
  /// A database with table 1, which two indexes lead into: by rows, and by a number.
  void makeRows() const {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
    const testing::SchemaRecords records(
        {{CZELTA::TypeUInt32}, {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}}},
        {{Segments{{2, 0}}}, {Segments{{0, 0}}}}, 0);
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
  }
  void begin(CZELTA& handle) const {
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
  }
  static unsigned long long add(CZELTA& handle, std::uint32_t number,
                                const std::vector<std::uint32_t>& rows, long failAt = -1) {
    Packed bytes;
    for (const std::uint32_t row : rows) bytes.number(row);
    const std::string value = Packed().binary(bytes);
    allocations = 0;
    allocationsLeft = failAt;
    const unsigned long long word = addValue(handle, number, value);
    allocationsLeft = -1;
    return word;
  }
  static unsigned long long addValue(CZELTA& handle, std::uint32_t number,
                                     const std::string& value) {
    CZELTA::Object object;
    if (const auto failure = handle.NewObject(1, &object, 0); failure != 0) return failure;
    std::memcpy(object.data, &number, 4);
    const auto size = static_cast<unsigned>(value.size());
    if (const auto failure = handle.PutVariableValues(1, value.data(), size, 0, 1, &object);
        failure != 0) {
      return failure;
    }
    return handle.AddObject(1, &object, 0);
  }
  /// The number of the object that a read finds, 0 for none.
  static std::uint32_t numberAt(CZELTA& handle, CZELTA::Mode mode, unsigned index) {
    CZELTA::Object object;
    std::uint32_t number = 0;
    if (handle.ReadObject(1, mode, &object, index, nullptr, nullptr) != 0) return 0;
    std::memcpy(&number, object.data, 4);
    return number;
  }
};

TEST_F(StoredObject, WalksGoOnFromItsKeys) {
  makeRows();
  CZELTA handle;
  begin(handle);
  ASSERT_DONE(handle, add(handle, 6, {20, 5}));
  ASSERT_DONE(handle, add(handle, 4, {40}));
  ASSERT_DONE(handle, add(handle, 5, {30, 10}));
  EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 1), 6u);  // behind its lowest row, 10
  ASSERT_DONE(handle, add(handle, 3, {35}));
  EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 2), 4u);
  ASSERT_DONE(handle, add(handle, 7, {}));
  EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 1), 0u);  // it has no row
  ASSERT_DONE(handle, add(handle, 8, {1}));
  EXPECT_EQ(numberAt(handle, CZELTA::ReadPrevious, 2), 7u);
}

TEST_F(StoredObject, ManyRowsAreAddedInOneGo) {
  makeRows();
  CZELTA handle;
  begin(handle);
  std::vector<std::uint32_t> rows(60000);
  for (std::uint32_t i = 0; i < rows.size(); ++i) rows[i] = i * 2;
  ASSERT_DONE(handle, add(handle, 1, rows));
  ASSERT_DONE(handle, add(handle, 2, {3}));
  EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 1), 1u);
}

/// Adds objects while the n-th allocation fails, for many n: the object is there just when the call
/// said so.
TEST_F(StoredObject, OutOfMemoryMeansThatItIsNotThere) {
  makeRows();
  CZELTA handle;
  begin(handle);
  std::uint32_t next = 1;
  for (const std::uint32_t count : {1u, 3u, 17000u}) {
    std::vector<std::uint32_t> rows(count);
    const auto fill = [&] {
      for (std::uint32_t& row : rows) row = next++;
    };
    fill();
    ASSERT_DONE(handle, add(handle, next, rows));
    const long all = allocations;
    for (long n = 0; n < all; n += n < 8 || n + 8 > all ? 1 : all / 7) {
      fill();
      const std::uint32_t number = next;
      const unsigned long long word = add(handle, number, rows, n);
      CZELTA::Object object;
      const bool there = handle.ReadObject(1, CZELTA::ReadEqual, &object, 2, &number, nullptr) == 0;
      EXPECT_EQ(there, word == 0) << n << " of " << all;
      if (word == 0) continue;
      EXPECT_EQ(word, testing::systemCode(8)) << n;
      ASSERT_DONE(handle, add(handle, number, rows));
    }
  }
}

/// Rewrites an object while the n-th allocation fails, for all n: walks go on from where they stood
/// unless the object was rewritten.
TEST_F(StoredObject, OutOfMemoryInARewriteKeepsThePlaceOfWalks) {
  makeRows();
  CZELTA handle;
  begin(handle);
  for (std::uint32_t number = 10; number <= 30; number += 10) {
    ASSERT_DONE(handle, add(handle, number, {number, number + 1, number + 2}));
  }
  std::vector<std::uint32_t> rows(100);
  for (std::uint32_t i = 0; i < rows.size(); ++i) rows[i] = 100 + i;
  Packed bytes;
  for (const std::uint32_t row : rows) bytes.number(row);
  const std::string value = Packed().binary(bytes);
  bool stored = false;
  for (long n = 0; !stored; ++n) {
    const std::uint32_t row = 11;
    const std::uint32_t number = 25;
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.ReadObject(1, CZELTA::ReadEqual, &object, 1, &row, nullptr));
    ASSERT_DONE(handle, handle.PutVariableValues(
                            1, value.data(), static_cast<unsigned>(value.size()), 0, 1, &object));
    std::memcpy(object.data, &number, 4);
    allocationsLeft = n;
    const unsigned long long word = handle.RewriteObject(1, nullptr);
    allocationsLeft = -1;
    stored = word == 0;
    if (stored) break;
    EXPECT_EQ(word, testing::systemCode(8)) << n;
    EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 1), 10u) << n;  // its next row
    EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 2), 20u) << n;
  }
  EXPECT_EQ(numberAt(handle, CZELTA::ReadNext, 2), 30u);
}

/// The writer dies while the other transaction runs, so that no begin of a transaction meets it.
TEST_F(StoredObject, AKeyOfADeadTransactionIsFree) {
  makeRows();
  ChildProcess child([this](const ChildProcess::Line& line) {
    if (line.hear() != 'g') return 1;
    CZELTA handle;
    begin(handle);
    if (add(handle, 5, {50}) != 0) return 2;
    line.say('r');
    return static_cast<int>(line.hear());
  });
  CZELTA handle;
  begin(handle);
  child.tell('g');
  ASSERT_TRUE(child.hears('r'));
  EXPECT_EQ(add(handle, 5, {51}), testing::ownCode(37));
  EXPECT_EQ(add(handle, 6, {50}), testing::ownCode(37));
  child.kill();
  EXPECT_DONE(handle, add(handle, 5, {51}));
  EXPECT_DONE(handle, add(handle, 6, {50}));
}

TEST_F(StoredObject, MayTakeAKeyOfADeadTransactionWhenItIsRewritten) {
  makeRows();
  ChildProcess child([this](const ChildProcess::Line& line) {
    if (line.hear() != 'g') return 1;
    CZELTA handle;
    begin(handle);
    if (add(handle, 5, {50}) != 0) return 2;
    line.say('r');
    return static_cast<int>(line.hear());
  });
  CZELTA handle;
  begin(handle);
  ASSERT_DONE(handle, add(handle, 1, {10}));
  const auto rewriteTo5 = [&] {
    CZELTA::Object object;
    EXPECT_DONE(handle, handle.ReadObject(1, 1, &object));
    const std::uint32_t number = 5;
    std::memcpy(object.data, &number, 4);
    return handle.RewriteObject(1, nullptr);
  };
  child.tell('g');
  ASSERT_TRUE(child.hears('r'));
  EXPECT_EQ(rewriteTo5(), testing::ownCode(37));
  child.kill();
  EXPECT_DONE(handle, rewriteTo5());
  ASSERT_DONE(handle, handle.CommitTransaction(true));
  EXPECT_EQ(numberAt(handle, CZELTA::ReadLast, 2), 5u);
  ASSERT_DONE(handle, handle.CloseDatabase());
  testing::expectClean(path());
}

}  // namespace
}  // namespace zelta

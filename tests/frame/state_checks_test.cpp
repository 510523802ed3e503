// The checks in front of every operation, in their order.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

using Call = std::function<unsigned long long(CZELTA&)>;

struct Operation {
  const char* name;
  Call call;
  // Codes by state, own class; 0: not looked at here
  unsigned int closed;       ///< no database
  unsigned int outside;      ///< no transaction
  unsigned int reading;      ///< TransactionRead
  unsigned int excluding;    ///< TransactionExclusiveRead
  unsigned int otherThread;  ///< TransactionShared of another thread
  unsigned int shared;       ///< TransactionShared, no table open
};

constexpr unsigned int kTable = 1;  // exists, but isn't open

const CZELTA::Schema kNameless{};
CZELTA::Object object;
unsigned int number;
long long longNumber;
void* value;
const long long kKey = 1;
constexpr auto kEqual = CZELTA::ReadEqual;
constexpr auto kNext = CZELTA::ReadNext;

const Operation kOperations[] = {
    {"BeginTransaction", [](CZELTA& h) { return h.BeginTransaction(CZELTA::TransactionRead, 0); },
     3, 0, 34, 34, 34, 34},
    {"BeginTransaction, wrong mode",
     [](CZELTA& h) { return h.BeginTransaction(static_cast<CZELTA::Mode>(97), 0); }, 3, 7, 34, 34,
     34, 34},
    {"CommitTransaction", [](CZELTA& h) { return h.CommitTransaction(true); }, 3, 3, 5, 5, 0, 0},
    {"GetDatabaseMembers", [](CZELTA& h) { return h.GetDatabaseMembers(nullptr, nullptr); }, 3, 3,
     7, 7, 7, 7},
    {"GetDatabaseParameter",
     [](CZELTA& h) { return h.GetDatabaseParameter(CZELTA::ParameterKeepLogFiles, nullptr); }, 7, 7,
     7, 7, 7, 7},
    {"SetDatabaseParameter",
     [](CZELTA& h) { return h.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 0); }, 4, 4, 4, 5,
     4, 4},
    {"AppendTransaction", [](CZELTA& h) { return h.AppendTransaction(0, 0, 0, 0, nullptr); }, 4, 4,
     4, 5, 4, 4},
    {"WaitNextCommit",
     [](CZELTA& h) { return h.WaitNextCommit(&number, &longNumber, &number, nullptr, nullptr, 0); },
     3, 7, 7, 7, 7, 7},
    {"AddTable", [](CZELTA& h) { return h.AddTable(nullptr, 0, nullptr, 0); }, 4, 4, 4, 5, 4, 4},
    {"CreateTable", [](CZELTA& h) { return h.CreateTable(&kNameless, nullptr); }, 3, 4, 4, 5, 4, 4},
    {"RemoveTable", [](CZELTA& h) { return h.RemoveTable(kTable, true); }, 4, 4, 4, 5, 4, 4},
    {"SetTableSchema",
     [](CZELTA& h) {
       return h.SetTableSchema(kTable, &kNameless, nullptr, CZELTA::ParameterKeepLogFiles);
     },
     4, 4, 4, 5, 4, 4},
    {"OpenTable", [](CZELTA& h) { return h.OpenTable(77); }, 3, 3, 30, 30, 28, 30},
    {"CloseTable", [](CZELTA& h) { return h.CloseTable(kTable); }, 3, 3, 6, 6, 28, 6},
    {"GetTableSchema", [](CZELTA& h) { return h.GetTableSchema(kTable, nullptr, &number); }, 3, 3,
     6, 6, 6, 6},
    {"GetTableSchema, nothing to fill",
     [](CZELTA& h) { return h.GetTableSchema(kTable, nullptr, nullptr); }, 3, 3, 7, 7, 7, 7},
    {"NewObject", [](CZELTA& h) { return h.NewObject(kTable, &object, 0); }, 3, 3, 6, 6, 28, 6},
    {"PutVariableValues", [](CZELTA& h) { return h.PutVariableValues(kTable, &object, 0); }, 3, 3,
     6, 6, 28, 6},
    {"PutVariableValues, one",
     [](CZELTA& h) { return h.PutVariableValues(kTable, nullptr, 0, 0, 0, &object); }, 3, 3, 6, 6,
     28, 6},
    {"GetVariableField", [](CZELTA& h) { return h.GetVariableField(kTable, 0, &value, &object); },
     3, 3, 6, 6, 6, 6},
    {"GetVariableField, sub-record",
     [](CZELTA& h) { return h.GetVariableField(kTable, 0, 0, 0, &value, &object); }, 3, 3, 6, 6, 6,
     6},
    {"AddObject", [](CZELTA& h) { return h.AddObject(kTable, &object, 0); }, 3, 3, 5, 5, 28, 6},
    {"RewriteObject", [](CZELTA& h) { return h.RewriteObject(kTable, &object); }, 3, 3, 5, 5, 28,
     6},
    {"RestoreObject", [](CZELTA& h) { return h.RestoreObject(kTable, 1, false); }, 3, 3, 5, 5, 28,
     6},
    {"DeleteObject, by ID", [](CZELTA& h) { return h.DeleteObject(kTable, 1, &object); }, 3, 3, 5,
     5, 28, 6},
    {"DeleteObject, without a lock",
     [](CZELTA& h) {
       return h.DeleteObject(kTable, kEqual | CZELTA::ReadNoLock, &object, 0, nullptr, nullptr);
     },
     3, 3, 7, 7, 28, 7},
    {"DeleteObject, no key",
     [](CZELTA& h) { return h.DeleteObject(kTable, kEqual, &object, 0, nullptr, nullptr); }, 3, 3,
     7, 7, 28, 7},
    {"ReadObject, by ID", [](CZELTA& h) { return h.ReadObject(kTable, 1, &object); }, 3, 3, 6, 6,
     28, 6},
    {"ReadObject, by ID and mode",
     [](CZELTA& h) { return h.ReadObject(kTable, 1, CZELTA::ReadNoWait, &object); }, 3, 3, 6, 6, 28,
     6},
    {"ReadObject, next",
     [](CZELTA& h) { return h.ReadObject(kTable, kNext, &object, 0, nullptr, nullptr); }, 3, 3, 6,
     6, 28, 6},
    {"ReadObject, no key",
     [](CZELTA& h) {
       return h.ReadObject(kTable, CZELTA::ReadGreaterEqual, &object, 1, nullptr, nullptr);
     },
     3, 3, 6, 6, 28, 7},
    {"ReadObject, no key, with a flag",
     [](CZELTA& h) {
       return h.ReadObject(kTable, kEqual | CZELTA::ReadNoWait, &object, 1, nullptr, nullptr);
     },
     3, 3, 6, 6, 28, 6},
    {"DeleteObject, no key, with a flag",
     [](CZELTA& h) {
       return h.DeleteObject(kTable, kEqual | CZELTA::ReadNoWait, &object, 0, nullptr, nullptr);
     },
     3, 3, 5, 5, 28, 6},
    {"SearchIndex",
     [](CZELTA& h) {
       return h.SearchIndex(kTable, 1, &kKey, nullptr, CZELTA::Mode{}, &longNumber);
     },
     3, 3, 6, 6, 28, 6},
    {"SearchIndex, pattern",
     [](CZELTA& h) { return h.SearchIndex(kTable, 1, &kKey, 0u, CZELTA::Mode{}, &longNumber); }, 3,
     3, 6, 6, 28, 6},
};

class StateChecks : public DatabaseTest {
 protected:
  void SetUp() override { makeShop(); }
  void open() { ASSERT_DONE(handle, handle.OpenDatabase(path().c_str())); }
  void begin(CZELTA::Mode mode) {
    open();
    ASSERT_DONE(handle, handle.BeginTransaction(mode, 1000));
  }
  void expectAll(unsigned int Operation::*code) {
    for (const Operation& one : kOperations) {
      if (one.*code == 0) continue;
      EXPECT_EQ(one.call(handle), ownCode(one.*code)) << one.name;
    }
  }
  CZELTA handle;
};

TEST_F(StateChecks, WithoutADatabase) { expectAll(&Operation::closed); }

TEST_F(StateChecks, OutsideATransaction) {
  open();
  expectAll(&Operation::outside);
  EXPECT_EQ(handle.EndTransaction(), 0u);
  EXPECT_EQ(handle.AbortTransaction(true), 0u);
  EXPECT_EQ(handle.AbortTransaction(false), 0u);
}

TEST_F(StateChecks, InAReadTransaction) {
  begin(CZELTA::TransactionRead);
  expectAll(&Operation::reading);
}

TEST_F(StateChecks, InAnExclusiveReadTransaction) {
  begin(CZELTA::TransactionExclusiveRead);
  expectAll(&Operation::excluding);
}

TEST_F(StateChecks, InASharedTransaction) {
  begin(CZELTA::TransactionShared);
  expectAll(&Operation::shared);
}

TEST_F(StateChecks, OnAnotherThread) {
  begin(CZELTA::TransactionShared);
  std::thread([&] { expectAll(&Operation::otherThread); }).join();
  // The operations that ask no thread work there.
  std::thread([&] {
    EXPECT_DONE(handle, handle.CommitTransaction(true));
    EXPECT_DONE(handle, handle.AbortTransaction(true));
    EXPECT_DONE(handle, handle.EndTransaction());
  }).join();
}

TEST_F(StateChecks, AnExclusiveTransactionMayBeUsedForTablesOnAnyThread) {
  begin(CZELTA::TransactionExclusive);
  std::thread([&] {
    SmallSchema small(u"other");
    unsigned int id = 0;
    EXPECT_DONE(handle, handle.CreateTable(&small.schema, &id));
    EXPECT_DONE(handle, handle.RemoveTable(id, true));
    EXPECT_DONE(handle, handle.SetDatabaseParameter(CZELTA::ParameterLogRetention, 3));
    EXPECT_EQ(handle.OpenTable(kTable), ownCode(28));
    EXPECT_DONE(handle, handle.EndTransaction());
  }).join();
}

TEST_F(StateChecks, MissingNamesOfTablesAreTheNamesFault) {
  begin(CZELTA::TransactionExclusive);
  SmallSchema small(u"");
  EXPECT_EQ(handle.CreateTable(&small.schema, nullptr), ownCode(9));
  EXPECT_EQ(handle.CreateTable(nullptr, nullptr), ownCode(9));
  EXPECT_EQ(handle.AddTable(nullptr, 0, nullptr, 0), ownCode(9));
}

TEST_F(StateChecks, TheMessageOfATableThatIsNotOpenNamesIt) {
  begin(CZELTA::TransactionRead);
  EXPECT_EQ(handle.ReadObject(0xFFFFFFFE, 1, &object), ownCode(6));
  EXPECT_EQ(messageOf(handle), "Table (ID = 4294967294) is not currently open.");
}

TEST_F(StateChecks, AReadThatIsRefusedHasClearedTheRecordAndADeleteHasNot) {
  char byte = 0;
  const CZELTA::Object used{3, 4, 5, &byte, &byte};
  CZELTA::Object record = used;
  unsigned int entry = 7;
  CZELTA closed;
  EXPECT_EQ(closed.ReadObject(kTable, kEqual, &record, 0, &kKey, &entry), ownCode(3));
  EXPECT_EQ(record.objectID, 0);
  EXPECT_EQ(record.data, nullptr);
  EXPECT_EQ(entry, 7u);
  begin(CZELTA::TransactionShared);
  record = used;
  EXPECT_EQ(handle.DeleteObject(kTable, kEqual, &record, 0, &kKey, &entry), ownCode(6));
  EXPECT_EQ(record.objectID, 5);
  EXPECT_EQ(entry, 0u);
  entry = 7;
  EXPECT_EQ(handle.DeleteObject(kTable, kEqual, &record, 0, nullptr, &entry), ownCode(7));
  EXPECT_EQ(entry, 7u);
  EXPECT_EQ(handle.ReadObject(kTable, kEqual, &record, 0, nullptr, &entry), ownCode(7));
  EXPECT_EQ(record.objectID, 0);
  EXPECT_EQ(entry, 7u);
  EXPECT_EQ(handle.ReadObject(kTable, kEqual, &record, 0, &kKey, &entry), ownCode(6));
  EXPECT_EQ(entry, 0u);
}

}  // namespace
}  // namespace zelta::testing

// Processes that die in a change of the directory while others keep the database open, so that no
// first opener puts the control file in order.

#include "frame/directory_fixture.h"

namespace zelta::testing {
namespace {

class BesideOpener : public DirectoryChangeTest {
 protected:
  /// A process dies one change later each time; then this process, which had the database open all
  /// the time, begins transactions of all kinds.
  void dieBeside(const std::function<unsigned long long(CZELTA&)>& work) {
    const State before = state();
    bool cameThrough = false;
    for (std::uint64_t calls = 0; !cameThrough; ++calls) {
      ASSERT_LT(calls, 200u);
      SCOPED_TRACE("after " + std::to_string(calls) + " calls");
      restore(before);
      CZELTA living;
      ASSERT_DONE(living, living.OpenDatabase(path().c_str()));
      ChildProcess child([&](const ChildProcess::Line&) {
        CZELTA own;
        if (own.OpenDatabase(path().c_str()) != 0) return 1;
        if (own.BeginTransaction(CZELTA::TransactionExclusive, 10000) != 0) return 2;
        {
          const DieAt die(calls);
          if (work(own) != 0) return 3;
        }
        endProcess(0);  // no orderly end: the transaction dies with the process
      });
      const int ended = child.wait();
      ASSERT_TRUE(ended == 0 || ended == kKilled) << ended;
      cameThrough = ended == 0;
      for (const CZELTA::Mode mode : {CZELTA::TransactionShared, CZELTA::TransactionExclusive,
                                      CZELTA::TransactionExclusiveRead}) {
        ASSERT_DONE(living, living.BeginTransaction(mode, 0));
        ASSERT_DONE(living, living.OpenTable(2));
        ASSERT_DONE(living, living.EndTransaction());
      }
      const RawControl raw(control());
      EXPECT_FALSE(raw.pending);
      EXPECT_EQ(raw.state, 0u);
      EXPECT_TRUE(raw.slots.empty());
      ASSERT_FALSE(HasFailure());
    }
  }
};

TEST_F(BesideOpener, WhatACreationLeavesBehindTheDirectoryIsNotTakenForTransactions) {
  dieBeside([](CZELTA& own) {
    SmallSchema small(u"mid", 9);
    return own.CreateTable(&small.schema, nullptr);
  });
}

TEST_F(BesideOpener, WhatARemovalLeavesBehindTheDirectoryIsNotTakenForTransactions) {
  dieBeside([](CZELTA& own) { return own.RemoveTable(1, true); });
}

TEST_F(BesideOpener, ASlotWithANumberThatNoTransactionGetsIsFree) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  patch(control().size(), words({1, 1}));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  ASSERT_DONE(handle, handle.EndTransaction());
  EXPECT_TRUE(RawControl(control()).slots.empty());
}

}  // namespace
}  // namespace zelta::testing

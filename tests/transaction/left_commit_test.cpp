// A commit that stands in the log and could not be carried out, beside transactions that go on.

#include <gtest/gtest.h>

#include <map>

#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

/// Fails changes of files of one kind behind a number of them: one, or all.
class ChangeFails : public platform::faults::Hook {
 public:
  ChangeFails(std::string extension, int calls, bool once = false)
      : extension_(std::move(extension)), left_(calls), once_(once) {
    platform::faults::install(this);
  }
  ~ChangeFails() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    const bool ours =
        event.name.size() > 4 && event.name.compare(event.name.size() - 4, 4, extension_) == 0;
    const bool changes =
        event.call == Call::write || event.call == Call::truncate || event.call == Call::flush;
    if (!ours || !changes || left_-- > 0 || (met && once_)) return verdict;
    verdict.code = code::kDeviceError;
    met = true;
    return verdict;
  }
  bool met = false;

 private:
  std::string extension_;
  int left_;
  bool once_;
};

class LeftCommit : public DatabaseTest {
 protected:
  void begin(CZELTA& handle) const {
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
  }
  static unsigned long long add(CZELTA& handle, std::uint32_t number) {
    CZELTA::Object object;
    EXPECT_DONE(handle, handle.NewObject(1, &object, 0));
    std::memcpy(object.data, &number, 4);
    return handle.AddObject(1, nullptr, 0);
  }
  static std::map<std::int64_t, std::uint32_t> numbers(CZELTA& handle) {
    std::map<std::int64_t, std::uint32_t> all;
    CZELTA::Mode mode = CZELTA::ReadFirst;
    CZELTA::Object object;
    while (handle.ReadObject(1, mode, &object, 1, nullptr, nullptr) == 0) {
      std::memcpy(&all[object.objectID], object.data, 4);
      mode = CZELTA::ReadNext;
    }
    return all;
  }
};

TEST_F(LeftCommit, Keeps_its_IDs_and_keys_from_others_until_it_is_carried_out) {
  bool met = true;
  for (int calls = 0; met; ++calls) {
    SCOPED_TRACE(calls);
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
      std::filesystem::remove(file.path());
    }
    makeShop();
    CZELTA other;
    begin(other);
    {
      CZELTA handle;
      begin(handle);
      ASSERT_DONE(handle, add(handle, 1));
      ASSERT_DONE(handle, add(handle, 2));
      {
        ChangeFails fault(".zlt", calls);
        ASSERT_DONE(handle, handle.CommitTransaction(true));
        met = fault.met;
      }
      ASSERT_DONE(handle, add(handle, 3));
      ASSERT_DONE(handle, handle.EndTransaction());
    }
    ASSERT_DONE(other, add(other, 4));
    EXPECT_EQ(add(other, 2), ownCode(37)) << "the key is taken";
    ASSERT_DONE(other, other.CommitTransaction(true));
    ASSERT_DONE(other, other.EndTransaction());
    CZELTA last;
    begin(last);
    std::map<std::int64_t, std::uint32_t> all = numbers(last);
    EXPECT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1], 1u);
    EXPECT_EQ(all[2], 2u);
    ASSERT_DONE(last, add(last, 3));
    ASSERT_DONE(last, last.CommitTransaction(true));
    ASSERT_DONE(last, last.EndTransaction());
    ASSERT_DONE(last, last.CloseDatabase());
    ASSERT_DONE(other, other.CloseDatabase());
    expectClean(folder, "shop.zlc");
  }
}

TEST_F(LeftCommit, ThatIsReportedAsFailedIsNotCarriedOutAndHoldsNothing) {
  makeShop();
  {
    CZELTA handle;
    begin(handle);
    for (std::uint32_t i = 1; i <= 3; ++i) ASSERT_DONE(handle, add(handle, i));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
  }
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  CZELTA other;
  ASSERT_DONE(other, other.OpenDatabase(path().c_str()));
  std::uint32_t value = 1;
  bool met = true;
  int ended = 0;
  for (int calls = 0; met; ++calls) {
    SCOPED_TRACE(calls);
    std::uint32_t id = 1;
    CZELTA::Object object;
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
    ASSERT_DONE(handle, handle.ReadObject(1, CZELTA::ReadEqual, &object, 0, &id, nullptr));
    ASSERT_EQ(std::memcmp(object.data, &value, 4), 0);
    const std::uint32_t wanted = 100 + static_cast<std::uint32_t>(calls);
    std::memcpy(object.data, &wanted, 4);
    ASSERT_DONE(handle, handle.RewriteObject(1, nullptr));
    id = 2;
    ASSERT_DONE(handle, handle.ReadObject(1, CZELTA::ReadEqual, &object, 0, &id, nullptr));
    unsigned long long word = 0;
    {
      ChangeFails fault(".zll", calls, true);
      word = handle.CommitTransaction(false);
      met = fault.met;
    }
    const unsigned long long again = word == 0 ? 0 : handle.CommitTransaction(false);
    if (again == 0) value = wanted;
    if (again == 0) {
      ASSERT_DONE(handle, handle.EndTransaction());
    } else {
      EXPECT_EQ(again, ownCode(3));
      ++ended;
    }
    // The objects are free, whether or not the handle has noticed that its transaction is over.
    ASSERT_DONE(other, other.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(other, other.OpenTable(1));
    for (id = 1; id <= 2; ++id) {
      EXPECT_DONE(other, other.ReadObject(1, CZELTA::Mode(CZELTA::ReadEqual | CZELTA::ReadNoWait),
                                          &object, 0, &id, nullptr));
      const std::uint32_t expected = id == 1 ? value : id;
      EXPECT_EQ(std::memcmp(object.data, &expected, 4), 0);
    }
    ASSERT_DONE(other, other.EndTransaction());
  }
  EXPECT_GE(ended, 3);
  ASSERT_DONE(handle, handle.CloseDatabase());
  ASSERT_DONE(other, other.CloseDatabase());
  expectClean(folder, "shop.zlc");
}

TEST_F(LeftCommit, IsCarriedOutThoughOthersHaveLeftEntriesBehindIt) {
  for (const unsigned keep : {0u, 1u}) {
    SCOPED_TRACE(keep);
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
      std::filesystem::remove(file.path());
    }
    makeShop();
    CZELTA other;
    ASSERT_DONE(other, other.OpenDatabase(path().c_str()));
    ASSERT_DONE(other, other.BeginTransaction(CZELTA::TransactionExclusive, 10000));
    ASSERT_DONE(other, other.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, keep));
    ASSERT_DONE(other, other.EndTransaction());
    CZELTA handle;
    begin(handle);
    ASSERT_DONE(other, other.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(other, other.OpenTable(1));
    ASSERT_DONE(handle, add(handle, 11));
    ASSERT_DONE(handle, add(handle, 12));
    {
      const ChangeFails fault(".zlt", 0);
      ASSERT_DONE(handle, handle.CommitTransaction(true));
      ASSERT_TRUE(fault.met);
    }
    ASSERT_DONE(other, add(other, 13));
    ASSERT_DONE(other, other.CommitTransaction(true));
    ASSERT_DONE(other, other.EndTransaction());
    ASSERT_DONE(handle, handle.EndTransaction());
    ASSERT_DONE(other, other.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(other, other.OpenTable(1));
    EXPECT_EQ(numbers(other), (std::map<std::int64_t, std::uint32_t>{{1, 11}, {2, 12}, {3, 13}}));
    ASSERT_DONE(other, other.EndTransaction());
    ASSERT_DONE(other, other.CloseDatabase());
    ASSERT_DONE(handle, handle.CloseDatabase());
    expectClean(folder, "shop.zlc");
  }
}

TEST_F(LeftCommit, OfTheTransactionThatMadeTheTableIsNotTakenForADeadOnes) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
  SmallSchema goods(u"goods", 1, 0);
  ASSERT_DONE(handle, handle.CreateTable(&goods.schema, nullptr));
  ASSERT_DONE(handle, add(handle, 5));
  {
    const ChangeFails fault(".zlt", 0);
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_TRUE(fault.met);
  }
  // The key is there, and its object is not: is somebody dead?
  const std::uint32_t number = 5;
  CZELTA::Object object;
  static_cast<void>(handle.ReadObject(1, CZELTA::ReadEqual, &object, 1, &number, nullptr));
  ASSERT_DONE(handle, handle.EndTransaction());
  ASSERT_DONE(handle, handle.CloseDatabase());
  begin(handle);
  EXPECT_EQ(numbers(handle), (std::map<std::int64_t, std::uint32_t>{{1, 5}}));
  ASSERT_DONE(handle, handle.EndTransaction());
  ASSERT_DONE(handle, handle.CloseDatabase());
  expectClean(folder, "shop.zlc");
}

/// Refuses calls of one kind on files of one extension.
class CallFails final : public platform::faults::Hook {
 public:
  CallFails(platform::faults::Call call, std::string extension, SystemCode code)
      : call_(call), extension_(std::move(extension)), code_(code) {
    platform::faults::install(this);
  }
  ~CallFails() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    if (event.call == call_ && event.name.size() > 4 &&
        event.name.compare(event.name.size() - 4, 4, extension_) == 0) {
      met = true;
      verdict.code = code_;
    }
    return verdict;
  }
  bool met = false;

 private:
  platform::faults::Call call_;
  std::string extension_;
  SystemCode code_;
};

TEST_F(LeftCommit, StaysLeftWhenItsTracesCannotBeReached) {
  makeShop();
  CZELTA stays;  // else the next one would clear all memory files as the first opener
  ASSERT_DONE(stays, stays.OpenDatabase(path().c_str()));
  CZELTA handle;
  begin(handle);
  ASSERT_DONE(handle, add(handle, 7));
  {
    constexpr int kBeforeTheBody = 6;
    const ChangeFails fault(".zll", kBeforeTheBody, true);
    ASSERT_NE(handle.CommitTransaction(true), 0u);
    ASSERT_TRUE(fault.met);
  }
  ASSERT_EQ(handle.CommitTransaction(true), ownCode(3)) << "it is over, its place is left";
  CZELTA next;
  ASSERT_DONE(next, next.OpenDatabase(path().c_str()));
  {
    const CallFails fault(platform::faults::Call::open, ".zlm", code::kAccessDenied);
    EXPECT_EQ(next.BeginTransaction(CZELTA::TransactionShared, 10000),
              systemCode(code::kAccessDenied));
    ASSERT_TRUE(fault.met);
    EXPECT_NE(messageOf(next).find("goods"), std::string::npos) << messageOf(next);
  }
  ASSERT_DONE(next, next.BeginTransaction(CZELTA::TransactionShared, 10000));
  ASSERT_DONE(next, next.OpenTable(1));
  ASSERT_DONE(next, add(next, 7));
  ASSERT_DONE(next, next.CommitTransaction(true));
  EXPECT_EQ(numbers(next), (std::map<std::int64_t, std::uint32_t>{{1, 7}}));
  for (CZELTA* each : {&next, &handle, &stays}) ASSERT_DONE(*each, each->CloseDatabase());
  expectClean(folder, "shop.zlc");
}

TEST_F(LeftCommit, ThatCannotKeepLocksOfNewObjectsDoesNotTakeThemForLocked) {
  makeShop();
  CZELTA handle;
  begin(handle);
  ASSERT_DONE(handle, add(handle, 1));
  {
    const CallFails fault(platform::faults::Call::lock, ".zlt", code::kNoMemory);
    ASSERT_DONE(handle, handle.CommitTransaction(false));
    ASSERT_TRUE(fault.met);
  }
  EXPECT_EQ(handle.RewriteObject(1, nullptr), ownCode(39)) << messageOf(handle);
  CZELTA other;
  begin(other);
  CZELTA::Object object;
  const std::uint32_t id = 1;
  ASSERT_DONE(other, other.ReadObject(1, CZELTA::ReadEqual, &object, 0, &id, nullptr));
  ASSERT_DONE(other, other.RewriteObject(1, nullptr));
  ASSERT_DONE(other, other.CommitTransaction(true));
  ASSERT_DONE(handle, handle.ReadObject(1, CZELTA::ReadEqual, &object, 0, &id, nullptr));
  ASSERT_DONE(handle, handle.RewriteObject(1, nullptr));
  ASSERT_DONE(handle, handle.CommitTransaction(false));
  for (CZELTA* each : {&handle, &other}) ASSERT_DONE(*each, each->CloseDatabase());
  expectClean(folder, "shop.zlc");
}

}  // namespace
}  // namespace zelta::testing

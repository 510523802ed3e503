// Writes of the memory file that fail while objects are added: the answer tells what is the case.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/database_fixture.h"

namespace zelta {
namespace {

/// Fails changing calls on the memory file: the n-th one, counted from 0, or all from it on.
class FailAt : public platform::faults::Hook {
 public:
  FailAt(std::uint64_t calls, bool fromThenOn) : left_(calls), fromThenOn_(fromThenOn) {
    platform::faults::install(this);
  }
  ~FailAt() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    const bool memory =
        event.name.size() > 4 && event.name.compare(event.name.size() - 4, 4, ".zlm") == 0;
    if (!memory || (event.call != Call::write && event.call != Call::truncate)) return verdict;
    if (left_ != 0) {
      --left_;
    } else if (!met_ || fromThenOn_) {
      verdict.code = code::kDeviceError;
      met_ = true;
    }
    return verdict;
  }
  /// Whether the call was reached.
  [[nodiscard]] bool met() const { return met_; }

 private:
  std::uint64_t left_;
  bool fromThenOn_;
  bool met_ = false;
};

/// Notes where the memory file is written.
class Places : public platform::faults::Hook {
 public:
  Places() { platform::faults::install(this); }
  ~Places() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    const bool memory = event.name.find(".zlm") != std::string::npos;
    if (memory && event.call == platform::faults::Call::write) places.push_back(event.position);
    return {};
  }
  std::vector<std::uint64_t> places;
};

class StoreFailure : public testing::DatabaseTest {
 protected:
  void SetUp() override { makeShop(); }
  static void begin(CZELTA& handle) {
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(1));
  }
  static unsigned long long add(CZELTA& handle, std::uint32_t number) {
    CZELTA::Object object;
    EXPECT_DONE(handle, handle.NewObject(1, &object, 0));
    std::memcpy(object.data, &number, 4);
    return handle.AddObject(1, nullptr, 0);
  }
  /// The numbers of all objects, by ID or by key.
  static std::multiset<std::uint32_t> numbers(CZELTA& handle, unsigned index) {
    std::multiset<std::uint32_t> all;
    CZELTA::Mode mode = CZELTA::ReadFirst;
    CZELTA::Object object;
    while (handle.ReadObject(1, mode, &object, index, nullptr, nullptr) == 0) {
      std::uint32_t number = 0;
      std::memcpy(&number, object.data, 4);
      all.insert(number);
      mode = CZELTA::ReadNext;
    }
    return all;
  }
};

TEST_F(StoreFailure, FindsNoIntentBeforeItsJournalStands) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  begin(handle);
  ASSERT_DONE(handle, add(handle, 1));
  const auto end = testing::numberAt<std::uint64_t>(folder.bytes("goods.zlm"), 24);
  Places writes;
  ASSERT_DONE(handle, add(handle, 2));
  ASSERT_GE(writes.places.size(), 2u);
  EXPECT_GE(writes.places[0], end) << "the journal, behind the end of the file";
  EXPECT_EQ(writes.places[1], 32u) << "the intent";
}

TEST_F(StoreFailure, OfOneWriteIsSettledAtOnce) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  std::multiset<std::uint32_t> expected;
  std::uint32_t next = 1;
  bool met = true;
  bool stored = false;
  for (std::uint64_t n = 0; met; ++n) {
    begin(handle);
    for (int i = 0; i < 2; ++i) {
      ASSERT_DONE(handle, add(handle, next));
      expected.insert(next++);
    }
    unsigned long long word = 0;
    {
      FailAt fault(n, false);
      word = add(handle, next);
      met = fault.met();
    }
    if (word == 0) expected.insert(next);
    stored = stored || (word == 0 && met);
    EXPECT_TRUE(met || word == 0) << n;
    EXPECT_EQ(numbers(handle, 0), expected) << n;
    EXPECT_EQ(numbers(handle, 1), expected) << n;
    if (word != 0) {
      ASSERT_DONE(handle, add(handle, next)) << n;
      expected.insert(next);
    }
    ++next;
    ASSERT_DONE(handle, handle.CommitTransaction(true)) << n;
    ASSERT_DONE(handle, handle.EndTransaction()) << n;
  }
  EXPECT_TRUE(stored) << "no failure came behind the journal";
}

TEST_F(StoreFailure, ThatLastsKeepsTheTransactionFromCommittingWhatIsUncertain) {
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  std::multiset<std::uint32_t> expected;
  std::uint32_t next = 1;
  int refused = 0;
  bool met = true;
  for (std::uint64_t n = 0; met; ++n, next += 3) {
    begin(handle);
    ASSERT_DONE(handle, add(handle, next));
    unsigned long long word = 0;
    {
      FailAt fault(n, true);
      word = add(handle, next + 1);
      met = fault.met();
    }
    EXPECT_EQ(word == 0, !met) << n;
    bool third = false;
    {
      FailAt once(n % 4, false);  // settled, which says nothing of the one before
      third = add(handle, next + 2) == 0;
    }
    const unsigned long long committed = handle.CommitTransaction(true);
    if (committed == 0) {
      expected.insert(next);
      if (word == 0) expected.insert(next + 1);
      if (third) expected.insert(next + 2);
    } else {
      EXPECT_EQ(committed, testing::ownCode(58)) << n;
      ++refused;
    }
    ASSERT_DONE(handle, handle.EndTransaction()) << n;
    begin(handle);
    EXPECT_EQ(numbers(handle, 0), expected) << n;
    EXPECT_EQ(numbers(handle, 1), expected) << n;
    // No key is left behind.
    EXPECT_EQ(add(handle, next) == 0, expected.count(next) == 0) << n;
    EXPECT_EQ(add(handle, next + 1) == 0, expected.count(next + 1) == 0) << n;
    EXPECT_EQ(add(handle, next + 2) == 0, expected.count(next + 2) == 0) << n;
    ASSERT_DONE(handle, handle.EndTransaction()) << n;
  }
  EXPECT_GE(refused, 2);
}

}  // namespace
}  // namespace zelta

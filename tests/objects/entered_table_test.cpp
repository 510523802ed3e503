// A table whose file is entered in the directory beside an index file: that may be of another time
// or of another table, and is built anew.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/object_handle.h"

namespace zelta::testing {
namespace {

class EnteredTable : public ObjectTest {
 protected:
  void SetUp() override {
    ObjectHandle first(folder);
    first.create({kNumberField, kNumberIndex});
    first.begin();
    first.added(number(10));
    first.added(number(20));
    first.commit();
    old_ = folder.bytes("T.zli");
    ASSERT_EQ(old_.substr(0, 4), "ZELI");
    first.done(first.erase(1));
    first.done(first.rewrite(2, number(21)));
    first.added(number(30));  // takes ID 1 or 3
    first.commit();
    first.end();
    change(first, [&] { return removeTable({first.metaData, first.tables}, 1, false, true); });
  }
  template <typename Work>
  static void change(ObjectHandle& handle, Work work) {
    handle.done(
        beginTransaction({handle.metaData, handle.tables}, CZELTA::TransactionExclusive, 0));
    handle.done(work());
    handle.end();
  }
  /// Enters the table; true if that is logged, false as a replay of the log does it.
  void enter(bool log, const char16_t* directory = nullptr) {
    ObjectHandle handle(folder);
    change(handle, [&] {
      return addTable({handle.metaData, handle.tables}, u"T", 1, directory, 0, log);
    });
  }
  void expectKeysOfNow() {
    one = join();
    for (const std::uint32_t key : {21u, 30u}) {
      EXPECT_EQ(one->findNumber(key).word(), 0u) << key << one->error();
      EXPECT_EQ(one->content(), number(key));
    }
    for (const std::uint32_t key : {10u, 20u}) {
      EXPECT_EQ(one->findNumber(key).word(), ownWord(Own::keyNotFound)) << key;
    }
    finish();
  }

  std::string old_;
};

TEST_F(EnteredTable, DoesNotTakeAnIndexOfFormerDays) {
  for (const bool log : {true, false}) {
    folder.write("T.zli", old_);
    enter(log);
    expectKeysOfNow();
    ObjectHandle handle(folder);
    change(handle, [&] { return removeTable({handle.metaData, handle.tables}, 1, false, true); });
  }
}

TEST_F(EnteredTable, DoesNotTakeAnIndexOfFormerDaysFromAnotherFolder) {
  std::filesystem::create_directory(folder.path() / "keys");
  std::filesystem::remove(folder.path() / "T.zli");
  folder.write("keys/T.zli", old_);
  enter(true, folder.file("keys").c_str());
  expectKeysOfNow();
  EXPECT_FALSE(folder.has("T.zli"));
}

TEST_F(EnteredTable, DoesNotMindADamagedIndexOrThatOfAnotherTable) {
  std::string bad = old_;
  bad[8] = 7;  // the number of indexes
  folder.write("T.zli", bad);
  enter(true);
  expectKeysOfNow();
}

TEST_F(EnteredTable, ForgetsAnIndexThatCannotBeDeletedAllTheSame) {
  folder.write("T.zli", old_);
  class NoDeletion : public platform::faults::Hook {
   public:
    NoDeletion() { platform::faults::install(this); }
    ~NoDeletion() override { platform::faults::install(nullptr); }
    platform::faults::Verdict before(const platform::faults::Event& event) override {
      platform::faults::Verdict verdict;
      if (event.call == platform::faults::Call::remove &&
          event.name.find(".zli") != std::string::npos) {
        verdict.code = code::kAccessDenied;
      }
      return verdict;
    }
  };
  {
    const NoDeletion hook;
    enter(true);
  }
  EXPECT_EQ(folder.bytes("T.zli"), "");
  expectKeysOfNow();
}

}  // namespace
}  // namespace zelta::testing

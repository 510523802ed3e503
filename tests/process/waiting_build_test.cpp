// An index file that was lost, beside an object that waits for its content from the log: whoever
// waits for the object must not build the index in each of its passes.

#include "support/database_fixture.h"

namespace zelta::testing {
namespace {

bool endsIn(const std::string& name, const char* ending) {
  return name.size() > 4 && name.compare(name.size() - 4, 4, ending) == 0;
}

/// Fails all changes of table files behind a number of them.
class TablesFail : public platform::faults::Hook {
 public:
  explicit TablesFail(int calls) : left_(calls) { platform::faults::install(this); }
  ~TablesFail() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    platform::faults::Verdict verdict;
    if (!endsIn(event.name, ".zlt") || !changesFiles(event.call) || left_-- > 0) return verdict;
    verdict.code = code::kDeviceError;
    met = true;
    return verdict;
  }
  bool met = false;

 private:
  int left_;
};

/// Counts how often a build sets the length of an index file: at its start, and at its end if it
/// gets there, behind a flush. Counts the passes of a read, too.
class Builds : public platform::faults::Hook {
 public:
  Builds() { platform::faults::install(this); }
  ~Builds() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    if (endsIn(event.name, ".zli")) {
      if (event.call == Call::truncate && event.position != 0) ++lengths;
      if (event.call == Call::flush) finished = true;
    }
    if (endsIn(event.name, ".zlt") && event.call == Call::mutexWait) ++passes;
    return {};
  }
  int lengths = 0;
  bool finished = false;
  int passes = 0;
};

class WaitingBuild : public DatabaseTest {
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
  static unsigned long long read(CZELTA& handle, std::uint32_t number) {
    CZELTA::Object object;
    return handle.ReadObject(1,
                             static_cast<CZELTA::Mode>(CZELTA::ReadEqual | CZELTA::ReadShortWait),
                             &object, 1, &number, nullptr);
  }
};

TEST_F(WaitingBuild, IsTriedOnceUntilTheContentHasCome) {
  int waits = 0;
  bool met = true;
  for (int calls = 0; met; ++calls) {
    SCOPED_TRACE(calls);
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
      std::filesystem::remove(file.path());
    }
    makeShop();
    CZELTA handle;
    begin(handle);
    ASSERT_DONE(handle, add(handle, 1));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, add(handle, 2));
    {
      TablesFail fault(calls);
      ASSERT_DONE(handle, handle.CommitTransaction(true));
      met = fault.met;
    }
    CZELTA other;
    begin(other);  // finishes what stands in the table file
    std::filesystem::remove(folder.path() / "goods.zli");
    {
      Builds builds;
      const unsigned long long result = read(other, 2);
      if (result == ownCode(67)) {
        EXPECT_GT(builds.passes, 20);
        EXPECT_LE(builds.lengths, builds.finished ? 2 : 1);
        if (!builds.finished) ++waits;
      }
    }
    ASSERT_DONE(handle, handle.EndTransaction());
    EXPECT_DONE(other, read(other, 2));
    EXPECT_DONE(other, read(other, 1));
    EXPECT_DONE(other, add(other, 4));
    ASSERT_DONE(other, other.CommitTransaction(true));
    ASSERT_DONE(other, other.EndTransaction());
  }
  EXPECT_GT(waits, 0);
}

}  // namespace
}  // namespace zelta::testing

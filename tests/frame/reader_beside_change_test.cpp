// A transaction that only reads, beside one that changes the directory.

#include <atomic>
#include <thread>

#include "frame/directory_fixture.h"

namespace zelta::testing {
namespace {

/// Stops the writer where the new directory stands and the header still has the old one's numbers,
/// until a reader has looked at the directory several times.
class PauseBetween : public platform::faults::Hook {
 public:
  explicit PauseBetween(std::function<unsigned long long()> reader) : reader_(std::move(reader)) {
    platform::faults::install(this);
  }
  ~PauseBetween() override {
    platform::faults::install(nullptr);
    if (thread_.joinable()) thread_.join();
  }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    if (event.name.find(".zlc") == std::string::npos) return {};
    if (event.call == Call::write && event.position == 76) written_ = true;
    if (event.call == Call::read && event.position == 76 && reading_) ++looks_;
    if (event.call == Call::flush && written_ && !reading_) {
      reading_ = true;
      thread_ = std::thread([this] {
        result = reader_();
        ended_ = true;
      });
      while (looks_ < 3 && !ended_) std::this_thread::yield();
    }
    return {};
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  std::atomic<unsigned long long> result{~0ull};
  [[nodiscard]] int looks() const { return looks_; }

 private:
  std::function<unsigned long long()> reader_;
  std::thread thread_;
  std::atomic<bool> written_{false};
  std::atomic<bool> reading_{false};
  std::atomic<bool> ended_{false};
  std::atomic<int> looks_{0};
};

TEST_F(DirectoryChangeTest, AReaderWaitsForTheNumbersOfADirectoryThatIsBeingWritten) {
  for (const bool removal : {false, true}) {
    SCOPED_TRACE(removal ? "removal" : "creation");
    CZELTA writer;
    CZELTA reader;
    ASSERT_DONE(writer, writer.OpenDatabase(path().c_str()));
    ASSERT_DONE(reader, reader.OpenDatabase(path().c_str()));
    ASSERT_DONE(writer, writer.BeginTransaction(CZELTA::TransactionExclusive, 0));
    SmallSchema small(u"another", 9);
    PauseBetween pause([&] {
      const auto begun = reader.BeginTransaction(CZELTA::TransactionRead, 0);
      return begun != 0 ? begun : reader.OpenTable(2);
    });
    if (removal) {
      ASSERT_DONE(writer, writer.RemoveTable(9, true));
    } else {
      ASSERT_DONE(writer, writer.CreateTable(&small.schema, nullptr));
    }
    pause.join();
    EXPECT_EQ(pause.result, 0u) << messageOf(reader);
    EXPECT_GE(pause.looks(), 3);
    ASSERT_DONE(reader, reader.EndTransaction());
    ASSERT_DONE(writer, writer.EndTransaction());
  }
}

TEST_F(DirectoryChangeTest, ADirectoryThatStaysWrongIsDamageToAReader) {
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  patch(76, words({77}));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionRead, 0));
  EXPECT_EQ(handle.OpenTable(2), ownCode(54));
}

// -- A table that makes room for another one of its name ------------------------------------------

/// Does something just before a file is opened for the first time.
class BeforeOpening : public platform::faults::Hook {
 public:
  BeforeOpening(std::string name, std::function<void()> work)
      : name_(std::move(name)), work_(std::move(work)) {
    platform::faults::install(this);
  }
  ~BeforeOpening() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    if (event.call != platform::faults::Call::open || done ||
        event.name.find(name_) == std::string::npos) {
      return {};
    }
    done = true;
    work_();
    return {};
  }
  bool done = false;

 private:
  std::string name_;
  std::function<void()> work_;
};

class ReplacedTable : public DirectoryChangeTest {
 protected:
  static void addNumber(CZELTA& own, unsigned int table, std::uint32_t number) {
    CZELTA::Object object{};
    ASSERT_DONE(own, own.NewObject(table, &object, 0));
    std::memcpy(object.data, &number, sizeof number);
    ASSERT_DONE(own, own.AddObject(table, &object, 0));
  }
  /// Puts another table of the same name into the place of table 1.
  void replace(unsigned int id) {
    SmallSchema other(u"goods", id, 9);
    ASSERT_DONE(writer, writer.RemoveTable(1, true));
    ASSERT_DONE(writer, writer.CreateTable(&other.schema, nullptr));
    addNumber(writer, id, 7);
    ASSERT_DONE(writer, writer.CommitTransaction(true));
  }
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(DirectoryChangeTest::SetUp());
    ASSERT_DONE(writer, writer.OpenDatabase(path().c_str()));
    ASSERT_DONE(writer, writer.BeginTransaction(CZELTA::TransactionExclusive, 0));
    ASSERT_DONE(writer, writer.OpenTable(1));
    addNumber(writer, 1, 5);
    ASSERT_DONE(writer, writer.CommitTransaction(true));
    ASSERT_DONE(reader, reader.OpenDatabase(path().c_str()));
    ASSERT_DONE(reader, reader.BeginTransaction(CZELTA::TransactionRead, 0));
  }
  CZELTA writer;
  CZELTA reader;
};

TEST_F(ReplacedTable, IsNotTakenForTheOneThatWasAskedFor) {
  BeforeOpening hook("goods.zlt", [&] { replace(9); });
  EXPECT_EQ(reader.OpenTable(1), ownCode(30));
  EXPECT_TRUE(hook.done);
  EXPECT_DONE(reader, reader.OpenTable(9));
}

TEST_F(ReplacedTable, OfTheSameNumberIsOpenedWhole) {
  BeforeOpening hook("goods.zlt", [&] { replace(1); });
  EXPECT_DONE(reader, reader.OpenTable(1));
  CZELTA::Object object{};
  const std::uint32_t number = 7;
  EXPECT_DONE(reader, reader.ReadObject(1, CZELTA::ReadEqual, &object, 1, &number, nullptr));
}

TEST_F(ReplacedTable, LeavesAReaderOfTheOldOneWithoutItsIndex) {
  ASSERT_DONE(reader, reader.OpenTable(1));
  replace(9);
  CZELTA::Object object{};
  const std::uint32_t number = 7;
  EXPECT_EQ(reader.ReadObject(1, CZELTA::ReadEqual, &object, 1, &number, nullptr), systemCode(2))
      << "the keys in the file of that name are those of another table";
  ASSERT_DONE(reader, reader.ReadObject(1, 1, &object));
  std::uint32_t read = 0;
  std::memcpy(&read, object.data, sizeof read);
  EXPECT_EQ(read, 5u) << "the old table's objects are still there";
}

}  // namespace
}  // namespace zelta::testing

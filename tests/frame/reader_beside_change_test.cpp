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

}  // namespace
}  // namespace zelta::testing

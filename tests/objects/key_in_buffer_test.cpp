// Reads by an ID that lies in the table's buffer, where the object read before refers to the next
// one, while somebody changes the table so that the read has to begin anew.

#include <gtest/gtest.h>

#include <string>

#include "platform/faults.h"
#include "support/read_bench.h"

namespace zelta::testing {
namespace {

/// Changes the table, as far as those who only read can tell, before a place of it is read for the
/// first time.
class ChangeBefore final : public platform::faults::Hook {
 public:
  ChangeBefore(platform::Mutex mutex, std::uint64_t position) : mutex_(mutex), position_(position) {
    platform::faults::install(this);
  }
  ~ChangeBefore() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    const bool meant = event.call == platform::faults::Call::read &&
                       event.name.find(".zlt") != std::string::npos && event.position == position_;
    if (!meant) return {};
    ++reads;
    if (reads > 1) return {};
    platform::advanceChangeCount(mutex_);
    platform::advanceChangeCount(mutex_);
    return {};
  }
  int reads = 0;

 private:
  platform::Mutex mutex_;
  std::uint64_t position_;
};

class KeyInBuffer : public ::testing::Test {
 protected:
  /// Three objects, each of which has the next lower one's ID in it. The third has this size; it
  /// comes first in the file, so that what is read of it leaves room for the others.
  void write(std::size_t size) {
    bench.write({{1, {3, "one"}}, {2, {1, "two"}}, {3, {2, std::string(size, 'a')}}});
    handle().begin(CZELTA::TransactionRead);
  }
  ReadHandle& handle() { return bench.first(); }
  /// Reads the object that the third one refers to, through an index (0: by ID).
  void follow(std::uint32_t index) {
    ASSERT_TRUE(handle().readId(3).ok());
    const auto second = numberAt<std::uint64_t>(bench.folder.bytes("T.zlt"), bench.slotOf(2));
    const ChangeBefore change(handle().table->tableMutex, second);
    ASSERT_TRUE(handle().read(CZELTA::ReadEqual, index, handle().object.data).ok());
    EXPECT_EQ(change.reads, 2) << "the first pass was in vain";
    EXPECT_EQ(handle().object.objectID, 2);
    EXPECT_EQ(handle().text(), "two");
  }

  ReadBench bench;
};

TEST_F(KeyInBuffer, IsTakenOnceThoughTheBufferIsFilledTwice) {
  write(3);
  follow(0);
}

TEST_F(KeyInBuffer, IsTakenOnceThoughTheBufferIsGivenUp) {
  write(300000);
  follow(0);
}

TEST_F(KeyInBuffer, OfAResultIsTakenOnceToo) {
  write(3);
  handle().table->schema->indexes[0].indexKind = CZELTA::SpatialPattern;
  handle().table->searchIndex = 1;
  handle().table->searchResults = SortedIds({1, 2, 3});
  follow(1);
  handle().table->schema->indexes[0].indexKind = CZELTA::BPlusTree;
}

}  // namespace
}  // namespace zelta::testing

// A reader beside a writer that lives and changes the table during each of its passes: it is refused
// in the end, and never believes what it has read.

#include <gtest/gtest.h>

#include <string>

#include "objects/search/search_index.h"
#include "platform/faults.h"
#include "support/object_handle.h"

namespace zelta::testing {
namespace {

/// Changes the table, as far as those who only read can tell, whenever its header is read.
class BusyWriter final : public platform::faults::Hook {
 public:
  explicit BusyWriter(platform::Mutex mutex) : mutex_(mutex) { platform::faults::install(this); }
  ~BusyWriter() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    const bool header = event.call == platform::faults::Call::read && event.position == 0 &&
                        event.name.find(".zlt") != std::string::npos;
    if (!header) return {};
    ++changes;
    platform::advanceChangeCount(mutex_);
    platform::advanceChangeCount(mutex_);
    return {};
  }
  int changes = 0;

 private:
  platform::Mutex mutex_;
};

class TornReader : public ObjectTest {
 protected:
  static constexpr int kLeast = 1000;  ///< passes before a reader gives up
  static constexpr int kMost = 10000;

  /// The objects 1 to 3 with spans of time side by side.
  void SetUp() override {
    make({{CZELTA::TypeDate}, {CZELTA::TypeDate}},
         {{Segments{{0, 0}, {1, 0}}, CZELTA::TemporalTree}});
    for (std::uint32_t i = 0; i < 3; ++i) one->added(number(10 * i) + number(10 * i + 5));
    one->commit();
    two = std::make_unique<ObjectHandle>(folder);
    two->begin(CZELTA::TransactionRead);
  }
  void TearDown() override { finish(); }
  Result search() {
    clearError(two->metaData);
    const std::string span = number(0) + number(12);
    const SearchQuery query{SearchQuery::Form::shape, 1, span.data(), nullptr, 0, CZELTA::Mode{}};
    return searchIndex({two->metaData, two->tables}, two->table(), query, &found);
  }

  long long found = -1;
};

TEST_F(TornReader, OfAnObjectIsRefusedUntilTheWriterRests) {
  {
    const BusyWriter writer(one->table().tableMutex);
    EXPECT_EQ(two->read(2, kNoWait).word(), ownWord(Own::transactionLocked)) << two->error();
    EXPECT_GT(writer.changes, kLeast);
    EXPECT_LT(writer.changes, kMost);
    EXPECT_EQ(two->table().currentObjectID, 0u);
  }
  two->done(two->read(2, kNoWait));
  EXPECT_EQ(two->content(), number(10) + number(15));
}

TEST_F(TornReader, OfAnIndexIsRefusedUntilTheWriterRests) {
  {
    const BusyWriter writer(one->table().tableMutex);
    EXPECT_EQ(search().word(), ownWord(Own::objectLocked)) << two->error();
    EXPECT_GT(writer.changes, kLeast);
    EXPECT_LT(writer.changes, kMost);
    EXPECT_EQ(found, -1);
    EXPECT_TRUE(two->table().searchResults.empty());
  }
  two->done(search());
  EXPECT_EQ(found, 2);
}

}  // namespace
}  // namespace zelta::testing

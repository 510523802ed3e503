// Where walks through indexes go on after a change that could not be stored: from where they stood.

#include <gtest/gtest.h>

#include <string>

#include "support/object_handle.h"

namespace zelta::testing {
namespace {

/// With a parameter of true, objects are so large that no copy of them is kept for their keys.
class KeptPlace : public ObjectTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    make({{CZELTA::TypeUInt32},
          {CZELTA::TypeUInt32},
          {CZELTA::TypeSubRecords, 0, {{CZELTA::TypeUInt32}}},
          {CZELTA::TypeText}},
         {{Segments{{0, 0}}}, {Segments{{1, 0}}}, {Segments{{4, 0}}}});
    for (std::uint32_t key = 10; key <= 40; key += 10) one->added(object(key));
    one->commit();
  }
  /// Its keys are the given one, one that runs the other way, and in index 3 two rows.
  [[nodiscard]] std::string object(std::uint32_t key) const {
    Packed rows;
    rows.number(key).number(key + 5);
    const std::string text(GetParam() ? 70000 : 10, 'x');
    return Packed().number(key).number(1000 - key).binary(rows).text(text);
  }
  void expectFailure(const std::function<Result()>& work) {
    const StopAfter stop(0);
    EXPECT_EQ(work().word(), Result::system(code::kGeneralFailure).word());
  }
  /// Expects the number of the object that a walk meets next.
  void expectNext(std::uint32_t index, std::uint32_t key, CZELTA::Mode mode = CZELTA::ReadNext) {
    ASSERT_EQ(one->find(mode, index).word(), 0u) << one->error();
    EXPECT_EQ(numberAt<std::uint32_t>(one->content(), 0), key);
  }
};

TEST_P(KeptPlace, AfterARewrite) {
  one->done(one->findNumber(10));
  expectFailure([&] { return one->rewrite(object(37)); });
  expectNext(1, 20);
  one->done(one->findNumber(10));
  expectFailure([&] { return one->rewrite(object(37)); });
  expectNext(2, 20, CZELTA::ReadPrevious);
  one->done(one->findNumber(10));
  expectNext(2, 10, CZELTA::ReadLast);
  expectFailure([&] { return one->rewrite(object(37)); });
  one->done(one->rewrite(object(33)));
  expectNext(1, 40);
  expectNext(1, 33, CZELTA::ReadPrevious);
}

TEST_P(KeptPlace, AfterARewriteOfRows) {
  one->done(one->findNumber(25, 3));
  expectFailure([&] { return one->rewrite(object(37)); });
  expectNext(3, 30);
  one->done(one->findNumber(20, 3));
  expectFailure([&] { return one->rewrite(object(37)); });
  expectNext(3, 20);
  EXPECT_EQ(one->entry, 1u);
}

TEST_P(KeptPlace, AfterARestoredAdd) {
  one->added(object(13));
  expectFailure([&] { return one->restore(0); });
  expectNext(1, 20);
  one->done(one->restore(5));
  expectNext(1, 30);
}

TEST_P(KeptPlace, AfterARestoredRewrite) {
  one->done(one->findNumber(10));
  one->done(one->rewrite(object(32)));
  expectFailure([&] { return one->restore(0); });
  expectNext(1, 40);
  one->done(one->findNumber(32));
  expectFailure([&] { return one->restore(0); });
  one->done(one->restore(0));
  expectNext(1, 20);
}

std::string nameOfSize(const ::testing::TestParamInfo<bool>& large) {
  return large.param ? "large" : "small";
}
INSTANTIATE_TEST_SUITE_P(Objects, KeptPlace, ::testing::Bool(), nameOfSize);

}  // namespace
}  // namespace zelta::testing

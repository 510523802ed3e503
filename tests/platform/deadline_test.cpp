// Deadlines on a clock that begins again at 0.

#include <gtest/gtest.h>

#include "platform/deadline.h"

namespace zelta {
namespace {

TEST(Ticks, LeftToADeadlineAreNeverNegative) {
  EXPECT_EQ(platform::timeLeft(100, 350), 250u);
  EXPECT_EQ(platform::timeLeft(350, 350), 0u);
  EXPECT_EQ(platform::timeLeft(351, 350), 0u);
  EXPECT_EQ(platform::timeLeft(0, 0x7FFFFFFF), 0x7FFFFFFFu);
  EXPECT_EQ(platform::timeLeft(0, 0x80000000), 0u) << "such a time-out is none";
}

TEST(Ticks, LeftToADeadlineBehindTheWrapAreCounted) {
  EXPECT_EQ(platform::timeLeft(0xFFFFFFF0, 0x10), 0x20u);
  EXPECT_EQ(platform::timeLeft(0xC0000000, 0x3FFFFFFF), 0x7FFFFFFFu);
  EXPECT_EQ(platform::timeLeft(0x10, 0xFFFFFFF0), 0u) << "that was before the wrap";
}

TEST(Ticks, PassADeadlineWhenTheyReachIt) {
  EXPECT_FALSE(platform::deadlinePassed(99, 100));
  EXPECT_TRUE(platform::deadlinePassed(100, 100));
  EXPECT_TRUE(platform::deadlinePassed(101, 100));
}

TEST(Ticks, PassADeadlineOnItsOwnSideOfTheWrapOnly) {
  EXPECT_FALSE(platform::deadlinePassed(0xFFFFFFF0, 0x10));
  EXPECT_FALSE(platform::deadlinePassed(0xC0000000, 0x3FFFFFFF));
  EXPECT_TRUE(platform::deadlinePassed(0x10, 0xFFFFFFF0));
  EXPECT_TRUE(platform::deadlinePassed(0x3FFFFFFF, 0xC0000000));
  EXPECT_TRUE(platform::deadlinePassed(0xFFFFFFF1, 0xFFFFFFF0));
}

}  // namespace
}  // namespace zelta

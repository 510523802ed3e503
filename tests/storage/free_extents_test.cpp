#include "storage/free_space/free_extents.h"

#include <gtest/gtest.h>

#include <vector>

#include "storage/trees/avl_detail.h"

namespace zelta {
namespace {

std::vector<FileSpan> spans(const FreeExtents& extents) {
  std::vector<FileSpan> all;
  avl::Walk<const FreeExtentNode> walk(extents.root());
  while (const FreeExtentNode* node = walk.next()) all.push_back(node->span);
  return all;
}

using Spans = std::vector<FileSpan>;

TEST(FreeExtents, StandInTheOrderOfPosition) {
  FreeExtents extents;
  EXPECT_TRUE(extents.empty());
  for (std::uint64_t i = 0; i < 50; ++i) extents.add({i * 37 % 50, i});
  EXPECT_FALSE(extents.empty());
  const Spans all = spans(extents);
  ASSERT_EQ(all.size(), 50u);
  for (std::uint64_t i = 0; i < 50; ++i) {
    EXPECT_EQ(all[i].position, i);
    EXPECT_EQ(all[i].size * 37 % 50, i);
  }
}

TEST(FreeExtents, ARunBecomesOneExtentAsLongAsItsSizeFits) {
  FreeExtents extents;
  extents.addToRun({100, 20}, 64);
  extents.addToRun({120, 20}, 64);
  extents.addToRun({140, 24}, 64);
  extents.addToRun({164, 16}, 64);  // one byte more would be too many already
  extents.addToRun({80, 20}, 64);   // ends at a run, but does not begin at its end
  extents.add({180, 16});
  EXPECT_EQ(spans(extents), (Spans{{80, 20}, {100, 64}, {164, 16}, {180, 16}}));
}

TEST(FreeExtents, ARunDoesNotOutliveTheSet) {
  FreeExtents extents;
  extents.addToRun({100, 20}, 64);
  extents.clear();
  EXPECT_TRUE(extents.empty());
  extents.addToRun({120, 20}, 64);
  EXPECT_EQ(spans(extents), (Spans{{120, 20}}));
}

}  // namespace
}  // namespace zelta

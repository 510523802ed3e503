#include "storage/paged/page_set.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace zelta {
namespace {

TEST(PageSet, FindsAndSortsWhatItHasAfterEachChange) {
  PageSet set;
  std::map<std::uint64_t, PageNode*> model;
  std::mt19937_64 random(20180207);
  for (int step = 0; step < 20000; ++step) {
    // Positions are few enough to come again, and close enough to push each other in the table.
    const std::uint64_t position = 512 * (1 + random() % 600);
    const auto found = model.find(position);
    ASSERT_EQ(set.find(position), found == model.end() ? nullptr : found->second);
    if (found == model.end()) {
      PageNode* page = set.add(position);
      ASSERT_EQ(page->key, position);
      ASSERT_EQ(page->bytes, nullptr);
      ASSERT_EQ(page->size, 0u);
      page->makeRoom(64);
      model.emplace(position, page);
    } else if (random() % 2 == 0) {
      set.erase(found->second);
      model.erase(found);
    }
    ASSERT_EQ(set.size(), model.size());
    if (step % 100 != 0) continue;
    const auto ascending = set.ascending();
    ASSERT_EQ(ascending.size(), model.size());
    std::size_t i = 0;
    for (const auto& [key, page] : model) ASSERT_EQ(ascending[i++], page);
  }
  set.clear();
  EXPECT_EQ(set.size(), 0u);
  EXPECT_TRUE(set.ascending().empty());
  for (const auto& [key, page] : model) EXPECT_EQ(set.find(key), nullptr);
  EXPECT_EQ(set.add(512)->key, 512u);
}

}  // namespace
}  // namespace zelta

// Changes of contents on their way into the indexes that follow them.

#include "index/contents.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace zelta::testing {
namespace {

std::string textOf(const ObjectBytes& bytes) {
  return bytes.data == nullptr ? "-" : std::string(bytes.data, bytes.length);
}

/// Notes what comes.
class NotedUpdate final : public ContentUpdate {
 public:
  explicit NotedUpdate(std::vector<std::string>& notes, std::uint64_t refused = 0)
      : notes_(notes), refused_(refused) {}
  Result change(const ContentChange& change) override {
    if (change.objectID == refused_) return Result::own(Own::keyNotFound);
    notes_.push_back(std::to_string(change.objectID) + " " + textOf(change.before) + " " +
                     textOf(change.after));
    return {};
  }
  Result finish() override {
    notes_.push_back("end");
    return {};
  }

 private:
  std::vector<std::string>& notes_;
  std::uint64_t refused_;
};

/// Versions named after their objects; a third one of an object must not be asked for.
class NamedVersions final : public VersionSource {
 public:
  Result readBefore(std::uint64_t objectID, ObjectBytes* object) override {
    before_ = "old" + std::to_string(objectID);
    *object = {before_.data(), static_cast<std::uint32_t>(before_.size())};
    ++reads;
    return {};
  }
  Result readAfter(std::uint64_t objectID, ObjectBytes* object) override {
    if (objectID == missing) return Result::own(Own::objectNotFound);
    after_ = "new" + std::to_string(objectID);
    *object = {after_.data(), static_cast<std::uint32_t>(after_.size())};
    ++reads;
    return {};
  }
  int reads = 0;
  std::uint64_t missing = 0;

 private:
  std::string before_;
  std::string after_;
};

class Contents : public ::testing::Test {
 protected:
  Contents() {
    for (const std::uint64_t id : {2u, 9u}) new UInt64AVLTree(objects.added, id);
    for (const std::uint64_t id : {5u, 3u}) new UInt64AVLTree(objects.edited, id);
    for (const std::uint64_t id : {7u, 4u}) new UInt64AVLTree(objects.deleted, id);
  }
  ~Contents() override {
    destroyAll(objects.added);
    destroyAll(objects.edited);
    destroyAll(objects.deleted);
  }
  TransactionObjects objects;
  NamedVersions versions;
  ContentUpdates updates;
};

TEST_F(Contents, DeletedObjectsLeaveFirstAndRewrittenOnesComeOnceWithBothVersions) {
  std::vector<std::string> notes;
  updates.add(std::make_unique<NotedUpdate>(notes));
  ASSERT_TRUE(updates.changeAll(objects, versions).ok());
  ASSERT_TRUE(updates.finish().ok());
  const std::vector<std::string> expected = {"4 old4 -",    "7 old7 -", "2 - new2", "3 old3 new3",
                                             "5 old5 new5", "9 - new9", "end"};
  EXPECT_EQ(notes, expected);
}

TEST_F(Contents, AnObjectIsReadOnceForAllIndexes) {
  std::vector<std::string> first;
  std::vector<std::string> second;
  updates.add(std::make_unique<NotedUpdate>(first));
  updates.add(std::make_unique<NotedUpdate>(second));
  ASSERT_TRUE(updates.changeAll(objects, versions).ok());
  ASSERT_TRUE(updates.finish().ok());
  EXPECT_EQ(versions.reads, 8);
  EXPECT_EQ(first, second);
  EXPECT_TRUE(updates.none());
}

TEST_F(Contents, NothingIsReadForNoIndex) {
  ASSERT_TRUE(updates.changeAll(objects, versions).ok());
  ASSERT_TRUE(updates.finish().ok());
  EXPECT_EQ(versions.reads, 0);
}

TEST_F(Contents, AFailureOfAnIndexOrOfAVersionEndsTheRest) {
  std::vector<std::string> notes;
  updates.add(std::make_unique<NotedUpdate>(notes, 3));
  EXPECT_TRUE(updates.changeAll(objects, versions).is(Own::keyNotFound));
  EXPECT_EQ(notes.size(), 3u);

  std::vector<std::string> others;
  ContentUpdates fresh;
  fresh.add(std::make_unique<NotedUpdate>(others));
  versions.missing = 5;
  EXPECT_TRUE(fresh.changeAll(objects, versions).is(Own::objectNotFound));
  EXPECT_EQ(others.size(), 4u);
}

}  // namespace
}  // namespace zelta::testing

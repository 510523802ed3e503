// Random work on a table whose searches are held against a plain look at all objects: additions,
// rewrites, deletions, restores, commits and aborts, and all over again with the database opened
// anew.

#ifndef ZELTA_TESTS_SEARCH_RANDOM_OBJECTS_H
#define ZELTA_TESTS_SEARCH_RANDOM_OBJECTS_H

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {

/// `Item` is what an object holds: fixedBytes() and variableBytes() of its kVariableFields. The
/// parameter says whether IDs have 64 bits.
template <class Item>
class RandomObjects : public DatabaseTest, public ::testing::WithParamInterface<bool> {
 protected:
  static constexpr unsigned kTable = 1;
  using Items = std::map<std::uint64_t, Item>;
  using Ids = std::set<std::uint64_t>;

  void make(const Fields& fields, const Indexes& indexes) {
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    SchemaRecords records(fields, indexes, GetParam() ? CZELTA::SchemaWideObjectIds : 0u);
    records.schema.tableId = kTable;
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
    begin();
  }
  void begin() {
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 0));
    ASSERT_DONE(handle, handle.OpenTable(kTable));
    pending = committed;
  }

  /// What an object may hold, and what it may hold after another content.
  virtual Item item() = 0;
  virtual Item successor(const Item&) { return item(); }
  /// Searches each index once, and compares.
  virtual void searchAll() = 0;

  void run(int steps) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    for (int step = 0; step < steps && !HasFailure(); ++step) {
      work();
      if (step % 3 == 0) searchAll();
      if (step % 100 != 99) continue;
      ASSERT_DONE(handle, handle.EndTransaction());
      if (below(2) == 0) reopen();
      begin();
    }
    ASSERT_DONE(handle, handle.EndTransaction());
  }

  std::uint32_t below(std::size_t n) { return static_cast<std::uint32_t>(random() % n); }
  [[nodiscard]] static std::string bytesOf(const Item& item) {
    return item.fixedBytes() + item.variableBytes();
  }
  /// Whether the transaction has changed an object.
  [[nodiscard]] bool isChanged(std::uint64_t id) const {
    const auto before = committed.find(id);
    const auto now = pending.find(id);
    const bool was = before != committed.end();
    if (was != (now != pending.end())) return true;
    return was && bytesOf(before->second) != bytesOf(now->second);
  }

  /// What the last search has found. `inverted`: it has found all but some objects, and free IDs
  /// above the greatest one in the file would end a walk from the first.
  Ids results(unsigned index, bool inverted = false) {
    Ids out;
    CZELTA::Object object{};
    constexpr std::uint64_t kFront = 0;  // inverted results read all of it
    const std::uint64_t* pivot = inverted ? &kFront : nullptr;
    CZELTA::Mode mode = inverted ? CZELTA::ReadGreater : CZELTA::ReadFirst;
    for (;;) {
      const auto word =
          handle.ReadObject(kTable, mode | CZELTA::ReadNoLock, &object, index, pivot, nullptr);
      if (word != 0) {
        EXPECT_EQ(word, ownCode(32)) << messageOf(handle);
        return out;
      }
      EXPECT_TRUE(out.insert(static_cast<std::uint64_t>(object.objectID)).second);
      mode = CZELTA::ReadNext;
      pivot = nullptr;
    }
  }

  CZELTA handle;
  std::mt19937 random;
  Items committed;
  Items pending;

 private:
  void work() {
    const std::uint32_t choice = below(100);
    const bool grows = pending.size() < 30 || below(3) != 0;
    if (choice < 45 && grows) return store(item(), 0);
    if (choice >= 97) {
      ASSERT_DONE(handle, handle.AbortTransaction(below(2) == 0));
      pending = committed;
      return;
    }
    if (choice >= 92) {
      ASSERT_DONE(handle, handle.CommitTransaction(below(2) == 0));
      committed = pending;
      return;
    }
    if (pending.empty()) return;
    const std::uint64_t id = std::next(pending.begin(), below(pending.size()))->first;
    if (choice < 70) return store(below(6) == 0 ? pending[id] : successor(pending[id]), id);
    if (choice < 88) {
      ASSERT_DONE(handle, handle.DeleteObject(kTable, static_cast<long long>(id), nullptr));
      pending.erase(id);
      return;
    }
    restoreAny();
  }
  void store(const Item& item, std::uint64_t id) {
    CZELTA::Object object{};
    const std::string variable = item.variableBytes();
    if (id == 0) {
      ASSERT_DONE(handle, handle.NewObject(kTable, &object, 0));
    } else {
      ASSERT_DONE(handle, handle.ReadObject(kTable, static_cast<long long>(id), &object));
    }
    ASSERT_DONE(handle, handle.PutVariableValues(kTable, variable.data(),
                                                 static_cast<unsigned>(variable.size()), 0,
                                                 Item::kVariableFields, &object));
    const std::string fixed = item.fixedBytes();
    std::memcpy(object.data, fixed.data(), fixed.size());
    if (id == 0) {
      ASSERT_DONE(handle, handle.AddObject(kTable, &object, 0));
      id = static_cast<std::uint64_t>(object.objectID);
    } else {
      ASSERT_DONE(handle, handle.RewriteObject(kTable, &object));
    }
    pending[id] = item;
  }
  /// Of all objects, those that were deleted included, one; nothing if it is as it was.
  void restoreAny() {
    Items all = pending;
    all.insert(committed.begin(), committed.end());
    const std::uint64_t id = std::next(all.begin(), below(all.size()))->first;
    if (!isChanged(id)) return;
    ASSERT_DONE(handle, handle.RestoreObject(kTable, static_cast<long long>(id), true));
    pending.erase(id);
    if (committed.count(id) != 0) pending[id] = committed[id];
  }
  /// The index file may have gone meanwhile: it is built anew.
  void reopen() {
    ASSERT_DONE(handle, handle.CloseDatabase());
    EXPECT_EQ(findingsOf(path()), "");
    if (below(2) == 0) std::filesystem::remove(folder.path() / "T.zli");
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  }
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SEARCH_RANDOM_OBJECTS_H

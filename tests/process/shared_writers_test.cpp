// Several processes that write one table at once, each telling what it has committed, and the table
// compared with what they told.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "process/shop_fixture.h"
#include "support/check_database.h"

namespace zelta::testing {
namespace {

/// A line of a writer's journal, told when its commit has returned. An ID may have another owner
/// before the removal of the former is told; `writer` and `sequence` never have.
struct Note {
  long long id = 0;
  bool removed = false;      ///< else it is the object's new content
  std::uint32_t former = 0;  ///< the sequence of the object's former content, 0 for a new object
  Row row;
};

/// The journals of all writers, in the order in which they were told.
class Journal {
 public:
  Journal() { EXPECT_EQ(pipe(ends_), 0); }
  ~Journal() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  /// A writer's side. One call is one piece that no other's call comes into.
  [[nodiscard]] bool tell(const std::vector<Note>& notes) const {
    const std::size_t size = notes.size() * sizeof(Note);
    return size == 0 || write(ends_[1], notes.data(), size) == static_cast<ssize_t>(size);
  }
  /// The test's side: all that is told until the last writer is gone.
  std::vector<Note> hear() {
    close(ends_[1]);
    ends_[1] = -1;
    std::vector<Note> notes;
    Note note;
    while (read(ends_[0], &note, sizeof note) == static_cast<ssize_t>(sizeof note)) {
      notes.push_back(note);
    }
    return notes;
  }

 private:
  int ends_[2] = {-1, -1};
};

/// Keys below this are wanted by everybody; above it, each writer has its own.
constexpr std::uint64_t kContested = 200;

/// One process of a crowd.
class Writer {
 public:
  Writer(Shop& shop, const Journal& journal, std::uint32_t number, unsigned seed)
      : shop_(shop), journal_(journal), number_(number), random_(seed + number) {}

  /// A number of transactions; 0, or the line where something was not as it should be.
  int run(int transactions, bool changes) {
    for (int i = 0; i < transactions; ++i) {
      if (shop_.begin() != 0) return __LINE__;
      const auto units = 1 + random_() % 3;
      for (unsigned unit = 0; unit < units; ++unit) {
        if (const int line = work(changes); line != 0) return line;
        if (const int line = finish(); line != 0) return line;
      }
      if (const int line = work(changes); line != 0) return line;  // dies with the transaction
      pending_.clear();
      if (shop_.end() != 0) return __LINE__;
    }
    return 0;
  }

 private:
  int work(bool changes) {
    for (auto i = 1 + random_() % 5; i != 0; --i) {
      const auto dice = random_() % 10;
      const int line = changes && dice < 3   ? rewriteOne()
                       : changes && dice < 5 ? removeOne()
                       : dice < 8            ? addOne(ownKey())
                                             : addOne(random_() % kContested);
      if (line != 0) return line;
    }
    return 0;
  }
  int finish() {
    if (random_() % 4 == 0) {
      pending_.clear();
      return shop_.db.AbortTransaction(true) == 0 ? 0 : __LINE__;
    }
    if (shop_.commit(random_() % 2 == 0) != 0) return __LINE__;
    for (const Note& note : pending_) {
      if (note.removed) {
        mine_.erase(note.id);
      } else {
        mine_[note.id] = note.row;
      }
    }
    if (!journal_.tell(pending_)) return __LINE__;
    pending_.clear();
    return 0;
  }
  std::uint64_t ownKey() { return kContested + number_ * 1000000ull + random_() % 500000; }
  int addOne(std::uint64_t key) {
    const Row row{key, number_, ++sequence_};
    const auto result = shop_.add(row);
    if (result == kKeyExists) return 0;
    if (result != 0) return __LINE__;
    pending_.push_back({shop_.object.objectID, false, 0, row});
    return 0;
  }
  /// One of the committed objects of this writer that the pending work has left alone.
  long long choose() {
    if (mine_.empty()) return 0;
    auto found = mine_.lower_bound(static_cast<long long>(random_() % 2000));
    if (found == mine_.end()) found = mine_.begin();
    const long long id = found->first;
    const auto same = [&](const Note& note) { return note.id == id; };
    return std::any_of(pending_.begin(), pending_.end(), same) ? 0 : id;
  }
  int rewriteOne() {
    const long long id = choose();
    if (id == 0) return 0;
    if (shop_.readId(id) != 0) return __LINE__;
    if (!(shop_.row() == mine_[id]) || !shop_.isWhole()) return __LINE__;
    Row row = mine_[id];
    row.sequence = ++sequence_;
    if (random_() % 2 == 0) row.key = ownKey();
    const auto result = shop_.rewrite(row);
    if (result == kKeyExists) return 0;
    if (result != 0) return __LINE__;
    pending_.push_back({id, false, mine_[id].sequence, row});
    return 0;
  }
  int removeOne() {
    const long long id = choose();
    if (id == 0) return 0;
    if (shop_.remove(id) != 0) return __LINE__;
    pending_.push_back({id, true, mine_[id].sequence, mine_[id]});
    return 0;
  }

  Shop& shop_;
  const Journal& journal_;
  std::uint32_t number_;
  std::mt19937 random_;
  std::uint32_t sequence_ = 0;
  std::map<long long, Row> mine_;
  std::vector<Note> pending_;
};

class SharedWriters : public ShopTest {
 protected:
  /// Lets writers loose, and returns what they told.
  std::vector<Note> letWrite(unsigned writers, int transactions, bool changes) {
    const unsigned seed = std::random_device{}();
    std::cout << "seed " << seed << '\n';
    Journal journal;
    std::vector<std::unique_ptr<ChildProcess>> crowd;
    for (unsigned w = 1; w <= writers; ++w) {
      crowd.push_back(std::make_unique<ChildProcess>([&, w](const Line&) {
        Shop shop;
        if (!shop.open(path())) return 1;
        const int line = Writer(shop, journal, w, seed).run(transactions, changes);
        if (line != 0) std::cerr << "line " << line << ": " << messageOf(shop.db) << '\n';
        return line == 0 ? 0 : 2;
      }));
    }
    std::vector<Note> notes = journal.hear();
    for (const auto& writer : crowd) EXPECT_EQ(writer->wait(), 0);
    return notes;
  }

  /// The table must hold just what was told, by ID and by both indexes.
  void compare(const std::vector<Note>& notes) {
    using Pair = std::pair<std::uint32_t, std::uint32_t>;
    std::map<Pair, std::pair<long long, Row>> told;
    for (const Note& note : notes) {
      if (note.former != 0) {
        const auto former = told.find({note.row.writer, note.former});
        ASSERT_NE(former, told.end());
        ASSERT_EQ(former->second.first, note.id);
        told.erase(former);
      }
      if (!note.removed) told[{note.row.writer, note.row.sequence}] = {note.id, note.row};
    }
    std::map<long long, Row> expected;
    for (const auto& entry : told) {
      EXPECT_TRUE(expected.insert(entry.second).second) << "two told of ID " << entry.second.first;
    }
    ASSERT_FALSE(expected.empty());
    Shop shop;
    ASSERT_TRUE(shop.open(path()));
    ASSERT_DONE(shop.db, shop.begin(CZELTA::TransactionRead));
    std::map<std::uint64_t, Row> byKey;
    std::map<Pair, Row> byPair;
    for (const auto& [id, row] : expected) {
      EXPECT_TRUE(byKey.emplace(row.key, row).second) << "two told of one key " << row.key;
      EXPECT_TRUE(byPair.emplace(Pair(row.writer, row.sequence), row).second);
      ASSERT_DONE(shop.db, shop.readId(id));
      ASSERT_EQ(shop.row(), row) << id;
      ASSERT_TRUE(shop.isWhole());
      ASSERT_DONE(shop.db, shop.readKey(row.key));
      ASSERT_EQ(shop.object.objectID, id);
      ASSERT_EQ(shop.row(), row);
      ASSERT_DONE(shop.db, shop.readPair(row.writer, row.sequence));
      ASSERT_EQ(shop.object.objectID, id);
    }
    sameInOrder(shop, 0, expected);
    sameInOrder(shop, 1, byKey);
    sameInOrder(shop, 2, byPair);
    ASSERT_DONE(shop.db, shop.end());
    ASSERT_DONE(shop.db, shop.db.CloseDatabase());
    expectClean(path());
  }

  template <class Map>
  static void sameInOrder(Shop& shop, unsigned index, const Map& expected) {
    auto mode = CZELTA::ReadFirst;
    for (const auto& entry : expected) {
      ASSERT_DONE(shop.db, shop.walk(mode, index)) << "index " << index;
      ASSERT_EQ(shop.row(), entry.second) << "index " << index;
      mode = CZELTA::ReadNext;
    }
    EXPECT_EQ(shop.walk(mode, index), kNotFound) << "index " << index << " has no more";
    mode = CZELTA::ReadLast;
    for (auto entry = expected.rbegin(); entry != expected.rend(); ++entry) {
      ASSERT_DONE(shop.db, shop.walk(mode, index)) << "index " << index;
      ASSERT_EQ(shop.row(), entry->second) << "index " << index;
      mode = CZELTA::ReadPrevious;
    }
    EXPECT_EQ(shop.walk(mode, index), kNotFound);
  }
};

TEST_F(SharedWriters, ThatAddLeaveWhatTheyTold) { compare(letWrite(4, 40, false)); }

TEST_F(SharedWriters, ThatAddRewriteAndDeleteLeaveWhatTheyTold) { compare(letWrite(3, 50, true)); }

}  // namespace
}  // namespace zelta::testing

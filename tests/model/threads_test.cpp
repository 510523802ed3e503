// Handles of several threads that write one table at once and try again when they meet each other.
// What one has locked must be what was committed last, and in the end the table must hold what all
// say that they committed.

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>

#include "model/ledger.h"
#include "model/random_work.h"

namespace zelta::testing {
namespace {

constexpr Word kTransactionHeld = ownCode(67);

/// A thread's side.
class Writer {
 public:
  Writer(unsigned number, unsigned seed, const TableShape& shape, unsigned crowd, Ledger& ledger)
      : number_(number), shape_(shape), ledger_(ledger), random_(seed, shape, crowd) {}

  /// 0, or the line where something was not as it should be.
  int run(const std::u16string& path, int transactions) {
    if (db.OpenDatabase(path.c_str()) != 0) return __LINE__;
    for (int i = 0; i < transactions; ++i) {
      const int line = random_.chance(10) ? walkAsReader() : transaction();
      if (line != 0) return line;
    }
    return db.CloseDatabase() == 0 ? 0 : __LINE__;
  }
  /// How often it met somebody else.
  [[nodiscard]] int met() const { return met_; }
  [[nodiscard]] int commits() const { return commits_; }

  CZELTA db;

 private:
  int transaction() {
    const bool alone = random_.chance(3);
    const auto mode = alone ? CZELTA::TransactionExclusive : CZELTA::TransactionShared;
    const Word begun = db.BeginTransaction(mode, 20000);
    if (begun == kBusy || begun == systemCode(258)) return 0;  // it was not lucky
    if (begun != 0 || db.OpenTable(kModelTable) != 0) return __LINE__;
    held_.clear();
    for (auto units = 1 + random_.below(3); units != 0; --units) {
      bool blocked = false;
      for (auto steps = random_.below(12); steps != 0 && !blocked; --steps) {
        if (const int line = step(&blocked); line != 0) return line;
      }
      if (const int line = finish(blocked); line != 0) return line;
    }
    return db.EndTransaction() == 0 ? 0 : __LINE__;
  }
  int finish(bool blocked) {
    const bool release = blocked || random_.chance(60);
    if (blocked || random_.chance(15)) {
      if (db.AbortTransaction(release) != 0) return __LINE__;
      // What was new is gone; what was changed is locked and old again, or given up.
      for (const auto& [id, content] : pending_) held_.erase(id);
    } else {
      ledger_.announce(number_, pending_);
      if (db.CommitTransaction(release) != 0) return __LINE__;
      ledger_.confirm(number_, pending_);
      ++commits_;
      for (const auto& [id, content] : pending_) {
        held_.erase(id);
        if (content) held_[id] = *content;
      }
    }
    pending_.clear();
    if (release) held_.clear();
    return 0;
  }

  int step(bool* blocked) {
    const unsigned dice = random_.below(100);
    if (ledger_.size() < random_.crowd() ? dice < 45 : dice < 20) return add();
    int line = read(blocked);
    if (line != 0 || *blocked || object_.objectID == 0 || dice < 45) return line;
    if (dice < 75) return rewrite();
    line = erase();
    return line != 0 || !random_.chance(40) ? line : restore();
  }
  int add() {
    if (db.NewObject(kModelTable, &object_, 0) != 0) return __LINE__;
    Version version{whole(random_.thing()), 1};
    if (const int line = fill(version.thing); line != 0) return line;
    const Word result = db.AddObject(kModelTable, &object_, 0);
    if (result == kKeyTaken) return 0;
    if (result != 0) return __LINE__;
    return pending_.emplace(object_.objectID, version).second ? 0 : __LINE__;
  }
  int rewrite() {
    const auto id = static_cast<std::uint64_t>(object_.objectID);
    Version version = now(id);
    version.thing = whole(random_.changed(version.thing));
    ++version.version;
    if (const int line = fill(version.thing); line != 0) return line;
    const Word result = db.RewriteObject(kModelTable, &object_);
    if (result == kKeyTaken) return 0;
    if (result != 0) return __LINE__;
    pending_[id] = version;
    return 0;
  }
  int erase() {
    const auto id = static_cast<std::uint64_t>(object_.objectID);
    if (db.DeleteObject(kModelTable, 0, &object_) != 0) return __LINE__;
    if (held_.count(id) != 0) {
      pending_[id].reset();
    } else {
      pending_.erase(id);  // it was new
      object_.objectID = 0;
    }
    return 0;
  }
  int restore() {
    const auto id = static_cast<std::uint64_t>(object_.objectID);
    if (id == 0) return 0;
    const bool unlock = random_.chance(50);
    const Word result = db.RestoreObject(kModelTable, object_.objectID, unlock);
    if (result == kKeyTaken) return 0;
    if (result != 0) return __LINE__;
    pending_.erase(id);
    if (unlock) held_.erase(id);
    return 0;
  }
  /// Reads with a lock, by ID or by a walk through an index, and compares.
  int read(bool* blocked) {
    const std::uint64_t wanted =
        ledger_.someObject(1 + random_.below(static_cast<unsigned>(2 * random_.crowd())));
    const auto indexes = static_cast<unsigned>(shape_.indexes.size());
    const unsigned index = random_.chance(50) ? 0 : random_.below(indexes + 1);
    const auto flags = random_.chance(5) ? CZELTA::ReadShortWait : CZELTA::ReadNoWait;
    Ledger::Standing before;
    Word result = 0;
    if (index == 0 && wanted != 0) {
      before = ledger_.standing(wanted);
      result = db.ReadObject(kModelTable, static_cast<long long>(wanted), flags, &object_);
    } else {
      const auto mode = random_.chance(50) ? CZELTA::ReadFirst : CZELTA::ReadNext;
      result = db.ReadObject(kModelTable, mode | flags, &object_, index, nullptr, nullptr);
    }
    object_.objectID = result == 0 ? object_.objectID : 0;
    *blocked = result == kLocked || result == kTransactionHeld;
    if (*blocked) ++met_;
    if (*blocked || result == kNoObject) return 0;
    if (result == kMissing) return index == 0 && wanted != 0 ? mayBeMissing(wanted, before) : 0;
    return result == 0 ? compare() : __LINE__;
  }
  /// An object that nobody has touched meanwhile must be there.
  int mayBeMissing(std::uint64_t id, const Ledger::Standing& before) {
    if (pending_.count(id) != 0) return 0;
    const Ledger::Standing after = ledger_.standing(id);
    const bool quiet = !before.isChanging && !after.isChanging && before.changes == after.changes;
    return quiet && before.content ? __LINE__ : 0;
  }
  int compare() {
    const auto id = static_cast<std::uint64_t>(object_.objectID);
    const auto changed = pending_.find(id);
    if (changed != pending_.end()) {
      return changed->second && holds(*changed->second) ? 0 : __LINE__;
    }
    if (const auto held = held_.find(id); held != held_.end()) {
      return holds(held->second) ? 0 : __LINE__;
    }
    const std::optional<Version> found = decode();
    if (!found || !ledger_.agrees(id, *found)) return __LINE__;
    held_[id] = *found;
    return 0;
  }

  /// The transaction's version of an object that it has.
  [[nodiscard]] const Version& now(std::uint64_t id) const {
    const auto changed = pending_.find(id);
    return changed != pending_.end() ? *changed->second : held_.at(id);
  }
  [[nodiscard]] bool holds(const Version& version) const {
    const std::string bytes = shape_.bytes(version.thing);
    return object_.version == version.version && object_.length == bytes.size() &&
           std::memcmp(object_.data, bytes.data(), bytes.size()) == 0;
  }
  /// The object read last, if it is whole.
  [[nodiscard]] std::optional<Version> decode() const {
    Version out{shape_.thing({static_cast<const char*>(object_.data), object_.length}),
                object_.version};
    if (!holds(out) || whole(out.thing) != out.thing) return std::nullopt;
    return out;
  }
  /// Gives a content the stamp that belongs to it alone.
  [[nodiscard]] Thing whole(Thing thing) const {
    thing.stamp = 0;
    thing.stamp = std::hash<std::string>()(shape_.bytes(thing));
    return thing;
  }
  int fill(const Thing& thing) {
    if (shape_.variableFields() != 0) {
      const std::string values = shape_.variableBytes(thing);
      if (db.PutVariableValues(kModelTable, values.data(), static_cast<unsigned>(values.size()), 0,
                               shape_.variableFields(), &object_) != 0) {
        return __LINE__;
      }
    }
    const std::string fixed = shape_.fixedBytes(thing);
    std::memcpy(object_.data, fixed.data(), fixed.size());
    return 0;
  }

  /// Walks an index without a lock: whole objects in its order.
  int walkAsReader() {
    if (db.BeginTransaction(CZELTA::TransactionRead, 0) != 0) return __LINE__;
    if (db.OpenTable(kModelTable) != 0) return __LINE__;
    const unsigned index = random_.below(static_cast<unsigned>(shape_.indexes.size()) + 1);
    const bool ordered = index == 0 || !shape_.isMulti(index - 1);
    std::string last;
    CZELTA::Mode mode = CZELTA::ReadFirst;
    for (unsigned i = 0; i < 2 * random_.crowd(); ++i, mode = CZELTA::ReadNext) {
      const Word result = db.ReadObject(kModelTable, mode, &object_, index, nullptr, nullptr);
      if (result == kMissing) break;
      if (result != 0) return __LINE__;
      const std::optional<Version> found = decode();
      if (!found) return __LINE__;
      const auto id = static_cast<std::uint64_t>(object_.objectID);
      const std::string key = !ordered     ? ""
                              : index == 0 ? bigEndian(id)
                                           : shape_.key(index - 1, found->thing, id, 0);
      if (ordered && key <= last) return __LINE__;
      last = key;
    }
    return db.EndTransaction() == 0 ? 0 : __LINE__;
  }

  unsigned number_;
  const TableShape& shape_;
  Ledger& ledger_;
  RandomThings random_;
  CZELTA::Object object_{};
  Versions held_;    ///< committed objects that are locked, as they were read
  Outcome pending_;  ///< what the next commit makes of the objects
  int met_ = 0;
  int commits_ = 0;
};

class ThreadsOf : public ::testing::TestWithParam<TableShape> {};

TEST_P(ThreadsOf, FourLeaveWhatTheyCommitted) {
  const char* given = std::getenv("ZELTA_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                         : std::random_device{}();
  std::cout << "seed " << seed << '\n';
  const FreshFolder folder;
  const std::u16string path = folder.file("db.zlc");
  makeModelTable(path, GetParam());
  ASSERT_FALSE(HasFailure());
  const int transactions = std::getenv("ZELTA_THOROUGH") != nullptr ? 3000 : 150;
  Ledger ledger;
  std::vector<std::unique_ptr<Writer>> writers;
  std::vector<std::thread> threads;
  std::vector<int> lines(4, -1);
  for (unsigned i = 0; i < lines.size(); ++i) {
    writers.push_back(std::make_unique<Writer>(i, seed + i, GetParam(), 60, ledger));
  }
  for (unsigned i = 0; i < lines.size(); ++i) {
    threads.emplace_back([&, i] { lines[i] = writers[i]->run(path, transactions); });
  }
  for (std::thread& thread : threads) thread.join();
  int met = 0;
  for (unsigned i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i], 0) << "writer " << i << ": " << messageOf(writers[i]->db);
    met += writers[i]->met();
  }
  ASSERT_FALSE(HasFailure());
  std::cout << met << " times somebody else was met\n";
  expectClean(path);
  TableModel table(GetParam());
  ledger.fill(table);
  CZELTA db;
  ASSERT_DONE(db, db.OpenDatabase(path.c_str()));
  compareAll(db, table);
}

INSTANTIATE_TEST_SUITE_P(Tables, ThreadsOf, ::testing::ValuesIn(tableShapes()),
                         [](const ::testing::TestParamInfo<TableShape>& shape) {
                           return shape.param.name;
                         });

}  // namespace
}  // namespace zelta::testing

// One process of a crowd: transactions of random operations on objects that everybody wants.

#ifndef ZELTA_TESTS_CROWD_CROWD_WORKER_H
#define ZELTA_TESTS_CROWD_CROWD_WORKER_H

#include <atomic>
#include <iostream>
#include <map>
#include <random>
#include <string>

#include "crowd/crowd_journal.h"
#include "support/changing_calls.h"

namespace zelta::testing {

/// What all processes of a crowd have in common; it lies in shared memory.
struct CrowdBoard {
  std::atomic<bool> stop{false};
  std::atomic<std::uint32_t> writers{0};
  std::atomic<std::uint64_t> committed{0};
  std::atomic<std::uint64_t> aborted{0};
  std::atomic<std::uint64_t> retried{0};   ///< operations that met a lock
  std::atomic<std::uint64_t> refused{0};   ///< operations that met a key
  std::atomic<std::uint64_t> restored{0};  ///< objects
  std::atomic<std::uint64_t> searched{0};  ///< indexes, with all results read
  std::atomic<std::uint64_t> repaired{0};  ///< operations that repaired a table on their way
};

/// Looks at the calls of a process: notes repairs, and kills it at one of them if it is told so.
class CrowdHook final : public platform::faults::Hook {
 public:
  CrowdHook(CrowdBoard& board, std::uint64_t callsToLive) : board_(board), left_(callsToLive) {
    platform::faults::install(this);
  }
  ~CrowdHook() override { platform::faults::install(nullptr); }

  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    const bool counts =
        changesFiles(event.call) || event.call == Call::unlock || event.call == Call::mutexRelease;
    if (!counts) return verdict;
    // Marks in slots are cleared word by word; only repairs write more outside of a commit.
    constexpr std::uint64_t kMark = 4;
    if (!committing && !repairSeen_ && event.call == Call::write && event.length > kMark &&
        event.name.size() > 4 && event.name.compare(event.name.size() - 4, 4, ".zlt") == 0) {
      repairSeen_ = true;
      ++board_.repaired;
    }
    if (left_ == 0 || --left_ != 0) return verdict;
    verdict.die = true;
    // A write may be cut, but not within a sector.
    constexpr std::uint64_t kSector = 512;
    const std::uint64_t first = kSector - event.position % kSector;
    if (event.call == Call::write && event.length > first) verdict.cutTo = first;
    return verdict;
  }
  void newOperation() { repairSeen_ = false; }
  bool committing = false;

 private:
  CrowdBoard& board_;
  std::uint64_t left_;  ///< 0: without end
  bool repairSeen_ = false;
};

class CrowdWorker {
 public:
  CrowdWorker(CrowdBoard& board, CrowdHook& hook, const std::string& journal, unsigned seed)
      : board_(board),
        hook_(hook),
        journal_(journal),
        number_(++board.writers),
        random_(seed + number_) {}

  /// Works until the board says stop; 0, or the line where something was not as it should be.
  int run(const std::u16string& path) {
    const int line = work(path);
    if (line != 0) {
      std::cerr << "writer " << number_ << ", line " << line << ": " << std::hex << result_
                << std::dec << ", " << messageOf(handle_.db) << '\n';
    }
    return line == 0 ? 0 : 1;
  }

 private:
  static constexpr unsigned long long kLocked[] = {ownCode(27), ownCode(67)};
  static constexpr unsigned long long kBusy[] = {ownCode(25), systemCode(258)};
  static constexpr unsigned kTimeout = 20000;

  /// What the transaction has done to an object: what was there before, and what is there now.
  struct Own {
    CrowdRow former;
    CrowdRow row;
    bool existed = false;
    bool removed = false;
  };
  using Objects = std::map<std::pair<std::uint32_t, std::int64_t>, Own>;

  template <std::size_t count>
  [[nodiscard]] bool is(const unsigned long long (&codes)[count]) const {
    return std::find(std::begin(codes), std::end(codes), result_) != std::end(codes);
  }
  [[nodiscard]] bool is(unsigned code) const { return result_ == ownCode(code); }
  /// Runs an operation and keeps its result.
  template <class Operation>
  bool done(const Operation& operation) {
    hook_.newOperation();
    result_ = operation();
    if (is(kLocked)) {
      ++board_.retried;
      locked_ = true;
    }
    if (is(37)) ++board_.refused;
    return result_ == 0;
  }
  std::uint32_t dice(std::uint32_t sides) { return static_cast<std::uint32_t>(random_() % sides); }

  int work(const std::u16string& path) {
    if (!done([&] { return handle_.db.OpenDatabase(path.c_str()); })) return __LINE__;
    while (!board_.stop) {
      if (!done([&] { return handle_.db.BeginTransaction(CZELTA::TransactionShared, kTimeout); })) {
        if (is(kBusy)) continue;
        return __LINE__;
      }
      if (!done([&] { return handle_.openTables(); })) return __LINE__;
      for (std::uint32_t units = 1 + dice(3); units != 0; --units) {
        if (const int line = unit(); line != 0) return line;
      }
      if (dice(4) == 0) {  // work that dies with the transaction
        if (const int line = operate(); line != 0) return line;
        objects_.clear();
      }
      if (!done([&] { return handle_.db.EndTransaction(); })) return __LINE__;
    }
    return done([&] { return handle_.db.CloseDatabase(); }) ? 0 : __LINE__;
  }

  int unit() {
    locked_ = false;
    for (std::uint32_t left = 1 + dice(8); left != 0; --left) {
      if (const int line = operate(); line != 0) return line;
      if (locked_ && dice(2) == 0) break;
    }
    return locked_ || dice(5) == 0 ? abort() : commit();
  }
  int abort() {
    if (!done([&] { return handle_.db.AbortTransaction(dice(2) == 0); })) return __LINE__;
    ++board_.aborted;
    objects_.clear();
    return 0;
  }
  int commit() {
    std::vector<Change> changes;
    for (const auto& [place, own] : objects_) {
      if (!own.existed && own.removed) continue;
      changes.push_back({place.first, own.removed ? 1u : 0u, place.second, own.former.writer,
                         own.former.sequence, own.removed ? CrowdRow{} : own.row});
    }
    if (!changes.empty()) journal_.intend(changes);
    const bool release = dice(3) != 0;
    hook_.committing = true;
    const bool committed = done([&] { return handle_.db.CommitTransaction(release); });
    hook_.committing = false;
    if (!committed) return __LINE__;
    if (!changes.empty()) journal_.confirm();
    if (!journal_.good()) return __LINE__;
    if (!changes.empty()) ++board_.committed;
    objects_.clear();
    return 0;
  }

  int operate() {
    table_ = 1 + dice(kCrowdTables);
    switch (dice(10)) {
      case 0:
      case 1:
      case 2:
        return add();
      case 3:
        return restore();
      case 4:
        return dice(3) == 0 ? search() : readOwn();
      default:
        break;
    }
    bool found = false;
    if (const int line = find(&found); line != 0 || !found) return line;
    switch (dice(5)) {
      case 0:
      case 1:
        return remove();
      case 2:
        return 0;
      default:
        return rewrite();
    }
  }
  CrowdRow newRow() { return {dice(400), number_, ++sequence_}; }
  [[nodiscard]] std::pair<std::uint32_t, std::int64_t> here() const {
    return {table_, handle_.object.objectID};
  }

  int add() {
    const CrowdRow row = newRow();
    const long long id = dice(40) == 0 ? 1 + dice(600) : 0;
    if (done([&] { return handle_.add(table_, row, id); })) {
      Own& own = objects_[here()];  // an ID that this transaction had before is taken anew
      if (own.existed || (own.row.writer != 0 && !own.removed)) return __LINE__;
      own = {{}, row, false, false};
      return 0;
    }
    return is(37) || is(kLocked) || (id != 0 && is(36)) ? 0 : __LINE__;
  }
  /// Reads some object in one of all modes.
  int find(bool* found) {
    const std::uint64_t key = dice(400);
    const auto mode = static_cast<CZELTA::Mode>(CZELTA::ReadEqual + dice(9));
    // In a crowd, whoever waits long while it holds much is waited for by others.
    const auto flags = dice(3) == 0 ? CZELTA::ReadShortWait : CZELTA::ReadNoWait;
    const unsigned index = dice(3) == 0 ? 0 : 1;
    const std::int64_t id = 1 + dice(400);
    const void* pivot = index == 0 ? static_cast<const void*>(&id) : &key;
    if (!done([&] { return handle_.read(table_, mode | flags, index, pivot); })) {
      return is(32) || is(39) || is(kLocked) ? 0 : __LINE__;
    }
    *found = true;
    if (!handle_.isWhole(table_)) return __LINE__;
    const std::uint64_t got =
        index == 0 ? static_cast<std::uint64_t>(here().second) : handle_.row().key;
    if (!suits(mode, got, index == 0 ? static_cast<std::uint64_t>(id) : key)) return __LINE__;
    const auto own = objects_.find(here());
    if (own == objects_.end()) return 0;
    return !own->second.removed && handle_.row() == own->second.row ? 0 : __LINE__;
  }
  static bool suits(CZELTA::Mode mode, std::uint64_t got, std::uint64_t asked) {
    switch (mode) {
      case CZELTA::ReadEqual:
        return got == asked;
      case CZELTA::ReadLess:
        return got < asked;
      case CZELTA::ReadGreater:
        return got > asked;
      case CZELTA::ReadLessEqual:
        return got <= asked;
      case CZELTA::ReadGreaterEqual:
        return got >= asked;
      default:
        return true;
    }
  }
  /// One of the objects that this transaction has changed; false if there is none.
  bool choose(Objects::iterator* place) {
    if (objects_.empty()) return false;
    *place = std::next(objects_.begin(), dice(static_cast<std::uint32_t>(objects_.size())));
    table_ = (*place)->first.first;
    return true;
  }
  int readOwn() {
    Objects::iterator place;
    if (!choose(&place)) return 0;
    const Own& own = place->second;
    const bool there =
        done([&] { return handle_.readId(table_, place->first.second, CZELTA::ReadShortWait); });
    if (own.removed) {
      if (!own.existed) return there || is(32) || is(kLocked) ? 0 : __LINE__;  // another's by now
      return is(32) ? 0 : __LINE__;
    }
    if (!there || !handle_.isWhole(table_) || !(handle_.row() == own.row)) return __LINE__;
    return dice(3) == 0 ? remove() : rewrite();
  }
  /// Searches for shapes like those of an object that this transaction has changed, if there is one.
  int search() {
    Shapes like(dice(400));
    Objects::iterator place;
    if (choose(&place) && !place->second.removed) like = shapesOf(place->second.row);
    const std::vector<ShapeKind> kinds = searchesOf(table_);
    if (kinds.empty()) return 0;
    const std::uint32_t which = dice(static_cast<std::uint32_t>(kinds.size()));
    const unsigned index = kFirstSearch + which;
    long long count = 0;
    if (!done([&] { return searchLike(handle_.db, table_, index, kinds[which], like, &count); })) {
      return is(kLocked) ? 0 : __LINE__;
    }
    std::set<std::int64_t> found;
    auto mode = CZELTA::ReadFirst;
    while (done([&] {
      return handle_.read(table_, mode | CZELTA::ReadNoLock | CZELTA::ReadNoWait, index, nullptr);
    })) {
      if (!handle_.isWhole(table_) || !found.insert(here().second).second) return __LINE__;
      mode = CZELTA::ReadNext;
    }
    if (!is(32)) return is(kLocked) ? 0 : __LINE__;
    // A commit that others are still to carry out ends a walk early. Of points only what is
    // committed is found.
    const bool whole = found.size() == static_cast<std::uint64_t>(count);
    if ((kinds[which].key == nullptr && !kinds[which].byWords) || !whole) return 0;
    ++board_.searched;
    return expectOwn(kinds[which], like, found);
  }
  static bool hasOtherKey(const ShapeKind& kind, const Own& own) {
    return kind.key(shapesOf(own.row)) != kind.key(shapesOf(own.former));
  }
  /// What this transaction has changed is found by what it has now. An object with a key that
  /// another one has given up may be passed over.
  int expectOwn(const ShapeKind& kind, const Shapes& like, const std::set<std::int64_t>& found) {
    for (const auto& [place, own] : objects_) {
      if (place.first != table_ || (own.removed && !own.existed)) continue;
      const bool isThere = found.count(place.second) != 0;
      const bool matches = !own.removed && kind.matches(shapesOf(own.row), like);
      const bool isNew = !own.removed && (!own.existed || kind.byWords || hasOtherKey(kind, own));
      if (isThere && !matches) return __LINE__;
      if (isNew && matches && !isThere) return __LINE__;
    }
    return 0;
  }
  int rewrite() {
    const CrowdRow before = handle_.row();
    const auto place = here();
    CrowdRow row = newRow();
    if (dice(2) == 0) row.key = before.key;
    if (!done([&] { return handle_.rewrite(table_, row); })) {
      return is(37) || is(kLocked) ? 0 : __LINE__;
    }
    const auto own = objects_.find(place);
    if (own != objects_.end()) {
      own->second.row = row;
    } else {
      objects_[place] = {before, row, true, false};
    }
    return 0;
  }
  int remove() {
    const CrowdRow before = handle_.row();
    const auto place = here();
    const bool byBuffer = dice(2) == 0;
    if (!done([&] {
          return handle_.db.DeleteObject(table_, byBuffer ? 0 : place.second, &handle_.object);
        })) {
      return is(kLocked) ? 0 : __LINE__;
    }
    if (!(handle_.row() == before)) return __LINE__;
    const auto own = objects_.find(place);
    if (own == objects_.end()) {
      objects_[place] = {before, {}, true, true};
    } else if (own->second.existed) {
      own->second.removed = true;
    } else {
      objects_.erase(own);
    }
    return 0;
  }
  int restore() {
    Objects::iterator place;
    if (!choose(&place)) return 0;
    const bool unlock = dice(2) == 0;
    if (!done([&] { return handle_.db.RestoreObject(table_, place->first.second, unlock); })) {
      return is(37) ? 0 : __LINE__;  // another object of this transaction has its key
    }
    ++board_.restored;
    objects_.erase(place);
    return 0;
  }

  CrowdBoard& board_;
  CrowdHook& hook_;
  CrowdJournal journal_;
  const std::uint32_t number_;
  std::mt19937 random_;
  CrowdHandle handle_;
  unsigned long long result_ = 0;
  bool locked_ = false;
  std::uint32_t table_ = 0;
  std::uint32_t sequence_ = 0;
  Objects objects_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CROWD_CROWD_WORKER_H

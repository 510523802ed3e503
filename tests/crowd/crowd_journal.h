// What the processes of a crowd tell of their transactions, and what must be in the database after
// that.
//
// Contents are told apart by their stamps, and each change names the stamp of the content that it
// found and replaced. So the journals need no common order: what was made and not replaced is there
// in the end.

#ifndef ZELTA_TESTS_CROWD_CROWD_JOURNAL_H
#define ZELTA_TESTS_CROWD_CROWD_JOURNAL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "crowd/crowd_tables.h"

namespace zelta::testing {

/// Writer and sequence of a content; zeros: none.
using Stamp = std::pair<std::uint32_t, std::uint32_t>;
inline Stamp stampOf(const CrowdRow& row) { return {row.writer, row.sequence}; }

/// What a transaction did to one object.
struct Change {
  std::uint32_t table = 0;
  std::uint32_t removed = 0;  ///< 1: the object is gone, and `row` is zero
  std::int64_t id = 0;
  std::uint32_t formerWriter = 0;
  std::uint32_t formerSequence = 0;
  CrowdRow row;
  [[nodiscard]] Stamp former() const { return {formerWriter, formerSequence}; }
  [[nodiscard]] bool replaces() const { return formerWriter != 0; }
};
static_assert(sizeof(Change) == 40);

struct CrowdTransaction {
  bool committed = false;  ///< the commit was told to be done; else it may be or not
  std::vector<Change> changes;
};

/// A process's own journal. What it has written stays, however it ends.
class CrowdJournal {
 public:
  explicit CrowdJournal(const std::string& path) : out_(path, std::ios::binary | std::ios::app) {}
  /// Before a commit.
  void intend(const std::vector<Change>& changes) {
    const auto count = static_cast<std::uint32_t>(changes.size());
    std::string record(reinterpret_cast<const char*>(&count), sizeof count);
    for (const Change& change : changes) {
      record.append(reinterpret_cast<const char*>(&change), sizeof change);
    }
    out_.write(record.data(), static_cast<std::streamsize>(record.size()));
    out_.flush();
  }
  /// Behind it.
  void confirm() {
    out_.put('!');
    out_.flush();
  }
  [[nodiscard]] bool good() const { return out_.good(); }

  /// All that a process has told; a record that it did not finish was about a commit not begun.
  static void read(const std::string& path, std::vector<CrowdTransaction>& out) {
    std::ifstream in(path, std::ios::binary);
    std::uint32_t count = 0;
    while (in.read(reinterpret_cast<char*>(&count), sizeof count)) {
      CrowdTransaction transaction;
      transaction.changes.resize(count);
      in.read(reinterpret_cast<char*>(transaction.changes.data()),
              static_cast<std::streamsize>(count * sizeof(Change)));
      if (!in) return;
      transaction.committed = in.get() == '!';
      out.push_back(std::move(transaction));
    }
  }

 private:
  std::ofstream out_;
};

/// Where a content is.
struct Held {
  std::uint32_t table = 0;
  std::int64_t id = 0;
  CrowdRow row;
  bool operator==(const Held& other) const {
    return table == other.table && id == other.id && row == other.row;
  }
};
inline std::ostream& operator<<(std::ostream& out, const Held& held) {
  return out << held.row << " in object " << held.id << " of table " << held.table;
}
using Contents = std::map<Stamp, Held>;

/// All contents that must be in the database.
class Ledger {
 public:
  [[nodiscard]] const Contents& contents() const { return contents_; }
  [[nodiscard]] std::uint64_t finished() const { return finished_; }
  [[nodiscard]] std::uint64_t dropped() const { return dropped_; }

  /// Enters transactions, and looks into what is found in the database for those in doubt: each
  /// must be there as a whole or not at all.
  void enter(std::vector<CrowdTransaction> transactions, const Contents& found) {
    entered_ = std::move(transactions);
    makers_.clear();
    replacers_.clear();
    claimed_.clear();
    for (const CrowdTransaction& transaction : entered_) {
      for (const Change& change : transaction.changes) {
        if (change.removed == 0) makers_[stampOf(change.row)] = &transaction;
        if (change.replaces()) replacers_[change.former()].push_back(&transaction);
      }
    }
    std::vector<Verdict> verdicts;
    for (const CrowdTransaction& transaction : entered_) {
      verdicts.push_back(judge(transaction, found));
    }
    std::vector<bool> applied;
    for (std::size_t i = 0; i < entered_.size(); ++i) {
      applied.push_back(verdicts[i] == Verdict::unknown ? claim(entered_[i], found)
                                                        : verdicts[i] == Verdict::applied);
      if (!entered_[i].committed) ++(applied[i] ? finished_ : dropped_);
    }
    for (std::size_t i = 0; i < entered_.size(); ++i) {
      if (applied[i]) make(entered_[i]);
    }
    for (std::size_t i = 0; i < entered_.size(); ++i) {
      if (applied[i]) replace(entered_[i]);
    }
  }

  /// Compares the ledger with what was found.
  void compare(const Contents& found) const {
    int shown = 0;
    for (const auto& [stamp, held] : contents_) {
      const auto place = found.find(stamp);
      if (place != found.end() && place->second == held) continue;
      ADD_FAILURE() << "missing: " << held << storyOf(stamp);
      if (++shown == 20) return;
    }
    for (const auto& [stamp, held] : found) {
      if (contents_.count(stamp) != 0) continue;
      ADD_FAILURE() << "never committed, or replaced: " << held << storyOf(stamp);
      if (++shown == 20) return;
    }
  }

 private:
  /// Whether another transaction has found this content, which then was there.
  [[nodiscard]] bool foundByAnother(Stamp stamp, const CrowdTransaction& transaction,
                                    bool committed = false) const {
    const auto place = replacers_.find(stamp);
    if (place == replacers_.end()) return false;
    return std::any_of(place->second.begin(), place->second.end(),
                       [&](const CrowdTransaction* other) {
                         return other != &transaction && (other->committed || !committed);
                       });
  }
  enum class Verdict { applied, dropped, unknown };

  /// Whether a transaction that was cut off in its commit is there.
  Verdict judge(const CrowdTransaction& transaction, const Contents& found) {
    int yes = transaction.committed ? 1 : 0;
    int no = 0;
    for (const Change& change : transaction.changes) {
      if (transaction.committed) break;
      if (change.removed == 0) {
        const Stamp stamp = stampOf(change.row);
        const bool there = found.count(stamp) != 0 || foundByAnother(stamp, transaction);
        ++(there ? yes : no);
      } else if (foundByAnother(change.former(), transaction, true)) {
        ++no;  // another one took it away
      } else if (!foundByAnother(change.former(), transaction)) {
        ++(found.count(change.former()) == 0 ? yes : no);
      }
    }
    EXPECT_TRUE(yes == 0 || no == 0) << "half a transaction: " << yes << " of " << yes + no;
    if (no != 0) return Verdict::dropped;
    if (yes == 0) return Verdict::unknown;
    for (const Change& change : transaction.changes) claimed_.insert(change.former());
    return Verdict::applied;
  }
  /// Several transactions that were cut off removed the same objects, and that is all that is known
  /// of this one: it takes what none of the others has taken.
  bool claim(const CrowdTransaction& transaction, const Contents& found) {
    for (const Change& change : transaction.changes) {
      if (found.count(change.former()) + claimed_.count(change.former()) != 0) return false;
    }
    for (const Change& change : transaction.changes) claimed_.insert(change.former());
    return true;
  }
  /// All that transactions did to a content.
  [[nodiscard]] std::string storyOf(Stamp stamp) const {
    std::ostringstream out;
    if (const auto maker = makers_.find(stamp); maker != makers_.end()) {
      out << "\n made by ";
      tell(*maker->second, out);
    }
    if (const auto place = replacers_.find(stamp); place != replacers_.end()) {
      for (const CrowdTransaction* transaction : place->second) {
        out << "\n replaced by ";
        tell(*transaction, out);
      }
    }
    return out.str();
  }
  static void tell(const CrowdTransaction& transaction, std::ostream& out) {
    out << (transaction.committed ? "one committed:" : "one cut off:");
    for (const Change& change : transaction.changes) {
      out << "\n    " << change.formerWriter << "." << change.formerSequence << " -> " << change.row
          << " in object " << change.id << " of table " << change.table;
    }
  }
  void make(const CrowdTransaction& transaction) {
    for (const Change& change : transaction.changes) {
      if (change.removed != 0) continue;
      const bool isNew =
          contents_.emplace(stampOf(change.row), Held{change.table, change.id, change.row}).second;
      EXPECT_TRUE(isNew) << "told twice: " << change.row;
    }
  }
  void replace(const CrowdTransaction& transaction) {
    for (const Change& change : transaction.changes) {
      if (!change.replaces()) continue;
      const auto former = contents_.find(change.former());
      if (former == contents_.end()) {
        ADD_FAILURE() << "replaced twice, or never there: " << change.formerWriter << "."
                      << change.formerSequence << " in object " << change.id << " of table "
                      << change.table << storyOf(change.former());
        continue;
      }
      EXPECT_EQ(former->second.id, change.id);
      EXPECT_EQ(former->second.table, change.table);
      contents_.erase(former);
    }
  }

  Contents contents_;
  std::vector<CrowdTransaction> entered_;  ///< last; the maps below lead to them
  std::map<Stamp, const CrowdTransaction*> makers_;
  std::map<Stamp, std::vector<const CrowdTransaction*>> replacers_;
  std::set<Stamp> claimed_;
  std::uint64_t finished_ = 0;  ///< of those in doubt
  std::uint64_t dropped_ = 0;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CROWD_CROWD_JOURNAL_H

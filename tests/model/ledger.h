// What several writers say that they have committed, while they do it: an object that somebody has
// locked must be the one that was committed last.

#ifndef ZELTA_TESTS_MODEL_LEDGER_H
#define ZELTA_TESTS_MODEL_LEDGER_H

#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "model/table_model.h"

namespace zelta::testing {

/// Content of objects after a commit; none: deleted.
using Outcome = std::map<std::uint64_t, std::optional<Version>>;

class Ledger {
 public:
  /// How an object stood at some moment.
  struct Standing {
    std::optional<Version> content;
    std::uint64_t changes = 0;
    bool isChanging = false;
  };

  /// Before a commit. Whoever has made an earlier announcement for these objects has committed it:
  /// else they would be locked still.
  void announce(unsigned writer, const Outcome& outcome) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& [id, content] : outcome) {
      Entry& entry = entries_[id];
      settle(entry);
      entry.coming = Coming{writer, content};
      ++entry.changes;
    }
  }
  /// After the commit.
  void confirm(unsigned writer, const Outcome& outcome) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& [id, content] : outcome) {
      Entry& entry = entries_[id];
      if (entry.coming && entry.coming->writer == writer) settle(entry);
    }
  }
  /// Whether this can be the object's committed content, for one who has it locked.
  [[nodiscard]] bool agrees(std::uint64_t id, const Version& found) {
    const std::lock_guard<std::mutex> guard(mutex_);
    Entry& entry = entries_[id];
    if (entry.coming && entry.coming->content == found) settle(entry);
    return entry.settled == found;
  }
  [[nodiscard]] Standing standing(std::uint64_t id) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const Entry& entry = entries_[id];
    return {entry.settled, entry.changes, entry.coming.has_value()};
  }
  /// An object at or behind an ID; 0 if there is none.
  [[nodiscard]] std::uint64_t someObject(std::uint64_t from) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (auto at = entries_.lower_bound(from); at != entries_.end(); ++at) {
      if (at->second.settled) return at->first;
    }
    return 0;
  }
  [[nodiscard]] std::size_t size() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return objects_;
  }
  /// When all are done.
  void fill(TableModel& table) const {
    for (const auto& [id, entry] : entries_) {
      if (entry.settled) table.put(id, *entry.settled);
    }
  }

 private:
  struct Coming {
    unsigned writer;
    std::optional<Version> content;
  };
  struct Entry {
    std::optional<Version> settled;
    std::optional<Coming> coming;
    std::uint64_t changes = 0;
  };

  void settle(Entry& entry) {
    if (!entry.coming) return;
    objects_ += entry.coming->content.has_value() ? 1 : 0;
    objects_ -= entry.settled.has_value() ? 1 : 0;
    entry.settled = std::move(entry.coming->content);
    entry.coming.reset();
  }

  std::mutex mutex_;
  std::map<std::uint64_t, Entry> entries_;
  std::size_t objects_ = 0;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_MODEL_LEDGER_H

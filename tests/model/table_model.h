// A table as plain maps in memory, and the transactions of several handles on it: each operation
// answers as the library must, with the code, the object, and the place from which walks go on.
//
// Reads and deletes are those with ReadNoWait, so that a lock of another handle is met with a code.

#ifndef ZELTA_TESTS_MODEL_TABLE_MODEL_H
#define ZELTA_TESTS_MODEL_TABLE_MODEL_H

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "czelta.h"
#include "model/table_shape.h"
#include "support/database_fixture.h"

namespace zelta::testing {

using Word = unsigned long long;

inline constexpr Word kDone = 0;
inline constexpr Word kMayNotWrite = ownCode(5);
inline constexpr Word kBusy = ownCode(25);
inline constexpr Word kLocked = ownCode(27);
inline constexpr Word kNothingToRestore = ownCode(31);
inline constexpr Word kMissing = ownCode(32);
inline constexpr Word kIdTaken = ownCode(36);
inline constexpr Word kKeyTaken = ownCode(37);
inline constexpr Word kNoObject = ownCode(39);

struct Version {
  Thing thing;
  std::uint16_t version = 0;
  friend bool operator==(const Version&, const Version&) = default;
};
using Versions = std::map<std::uint64_t, Version>;

/// The keys of some objects in the order of an index.
class KeyMap {
 public:
  using Entries = std::map<std::string, std::uint64_t>;

  void put(const TableShape& shape, std::size_t index, const Thing& thing, std::uint64_t id) {
    for (const std::string& key : keysOf(shape, index, thing, id)) entries_[key] = id;
  }
  /// Keys that have gone to another object meanwhile stay.
  void drop(const TableShape& shape, std::size_t index, const Thing& thing, std::uint64_t id) {
    for (const std::string& key : keysOf(shape, index, thing, id)) {
      const auto found = entries_.find(key);
      if (found != entries_.end() && found->second == id) entries_.erase(found);
    }
  }
  [[nodiscard]] const Entries& entries() const { return entries_; }
  /// Who has the key; 0: nobody.
  [[nodiscard]] std::uint64_t holder(const std::string& key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? 0 : found->second;
  }
  /// The entry that a mode leads to from a key, over those that `counts` takes; null if there is
  /// none.
  template <class Predicate>
  [[nodiscard]] const Entries::value_type* seek(CZELTA::Mode mode, const std::string& key,
                                                const Predicate& counts) const {
    if (mode == CZELTA::ReadEqual) {
      const auto found = entries_.find(key);
      return found != entries_.end() && counts(*found) ? &*found : nullptr;
    }
    if (mode == CZELTA::ReadFirst || mode == CZELTA::ReadNext || mode == CZELTA::ReadGreater ||
        mode == CZELTA::ReadGreaterEqual) {
      auto at = mode == CZELTA::ReadFirst          ? entries_.begin()
                : mode == CZELTA::ReadGreaterEqual ? entries_.lower_bound(key)
                                                   : entries_.upper_bound(key);
      while (at != entries_.end() && !counts(*at)) ++at;
      return at == entries_.end() ? nullptr : &*at;
    }
    auto at = mode == CZELTA::ReadLast        ? entries_.end()
              : mode == CZELTA::ReadLessEqual ? entries_.upper_bound(key)
                                              : entries_.lower_bound(key);
    while (at != entries_.begin()) {
      if (counts(*--at)) return &*at;
    }
    return nullptr;
  }

 private:
  Entries entries_;
};

class ModelSession;

/// What is committed, and who works on it.
class TableModel {
 public:
  explicit TableModel(const TableShape& shape) : shape_(shape), keys_(shape.indexes.size()) {}

  [[nodiscard]] const TableShape& shape() const { return shape_; }
  [[nodiscard]] const Versions& objects() const { return objects_; }
  [[nodiscard]] const KeyMap& keys(std::size_t index) const { return keys_[index]; }
  [[nodiscard]] std::uint64_t highest() const {
    return objects_.empty() ? 0 : objects_.rbegin()->first;
  }
  [[nodiscard]] const std::set<ModelSession*>& sessions() const { return sessions_; }
  void enter(ModelSession& session) { sessions_.insert(&session); }
  void leave(ModelSession& session) { sessions_.erase(&session); }

  void remove(std::uint64_t id) {
    const auto found = objects_.find(id);
    for (std::size_t i = 0; i < keys_.size(); ++i)
      keys_[i].drop(shape_, i, found->second.thing, id);
    objects_.erase(found);
  }
  void put(std::uint64_t id, const Version& version) {
    objects_[id] = version;
    for (std::size_t i = 0; i < keys_.size(); ++i) keys_[i].put(shape_, i, version.thing, id);
  }

 private:
  const TableShape& shape_;
  Versions objects_;
  std::vector<KeyMap> keys_;
  std::set<ModelSession*> sessions_;
};

/// What a request is for: an ID or a key of an index, or neither.
struct Request {
  CZELTA::Mode mode = CZELTA::ReadEqual;
  bool noLock = false;
  unsigned index = 0;  ///< from 1; 0: by ID
  std::uint64_t id = 0;
  std::string key;

  [[nodiscard]] bool hasPivot() const { return mode <= CZELTA::ReadGreaterEqual; }
  [[nodiscard]] bool upward() const {
    return mode == CZELTA::ReadFirst || mode == CZELTA::ReadNext || mode == CZELTA::ReadGreater ||
           mode == CZELTA::ReadGreaterEqual;
  }
};

/// One handle's side of the table.
class ModelSession {
 public:
  explicit ModelSession(TableModel& table)
      : table_(table), shape_(table.shape()), keys_(shape_.indexes.size()) {
    table_.enter(*this);
  }
  ~ModelSession() { table_.leave(*this); }
  ModelSession(const ModelSession&) = delete;
  ModelSession& operator=(const ModelSession&) = delete;

  Word begin(CZELTA::Mode mode);
  void end() { reset(); }
  Word commit(bool releaseLocks);
  Word abort(bool releaseLocks);
  /// Closes the table, if it may be, and opens it again.
  void reopen();

  /// Puts a new object into the buffer, or changes the one that is there.
  void newObject(const Thing& thing);
  void change(const Thing& thing) { buffer_->thing = thing; }
  /// Nothing is known of the buffer.
  void spoilBuffer() { buffer_.reset(); }
  Word add(std::uint64_t wanted);
  Word rewrite();
  Word read(const Request& request);
  Word erase(const Request& request) { return eraseFound(request, false); }
  Word eraseCurrent() { return eraseFound({CZELTA::ReadEqual, false, 0, current_, {}}, true); }
  Word restore(std::uint64_t id, bool unlock);

  /// What a search of one of the indexes over shapes finds.
  [[nodiscard]] std::set<std::uint64_t> findable(std::size_t search, const Shapes& like) const;
  /// Goes to an object that was found, without a lock.
  Word goTo(std::uint64_t id) { return read({CZELTA::ReadEqual, true, 0, id, {}}); }

  [[nodiscard]] bool active() const { return active_; }
  [[nodiscard]] CZELTA::Mode mode() const { return mode_; }
  [[nodiscard]] bool mayWrite() const {
    return active_ && (mode_ == CZELTA::TransactionShared || mode_ == CZELTA::TransactionExclusive);
  }
  [[nodiscard]] std::uint64_t current() const { return current_; }
  [[nodiscard]] const std::optional<Version>& buffer() const { return buffer_; }
  /// Number of the entry by which the last read found its object.
  [[nodiscard]] std::uint32_t entry() const { return entry_; }
  [[nodiscard]] const Versions& added() const { return added_; }
  [[nodiscard]] const Versions& edited() const { return edited_; }
  [[nodiscard]] const std::set<std::uint64_t>& deleted() const { return deleted_; }
  [[nodiscard]] bool holds(std::uint64_t id) const {
    return locked_.count(id) != 0 || edited_.count(id) != 0 || deleted_.count(id) != 0;
  }
  [[nodiscard]] bool lockedElsewhere(std::uint64_t id) const {
    const auto& all = table_.sessions();
    return std::any_of(all.begin(), all.end(),
                       [&](const ModelSession* s) { return s != this && s->holds(id); });
  }
  [[nodiscard]] bool pendingAnywhere(std::uint64_t id) const {
    const auto& all = table_.sessions();
    return std::any_of(all.begin(), all.end(),
                       [&](const ModelSession* s) { return s->added_.count(id) != 0; });
  }

 private:
  [[nodiscard]] bool changed(std::uint64_t id) const {
    return edited_.count(id) != 0 || deleted_.count(id) != 0;
  }
  [[nodiscard]] const Version& visible(std::uint64_t id) const;
  [[nodiscard]] std::uint64_t chooseId() const;
  [[nodiscard]] bool keysAreTaken(const Thing& thing, std::uint64_t id) const;
  [[nodiscard]] bool heldByOthers(std::size_t index, const std::string& key) const;
  void setPending(Versions& set, std::uint64_t id, const Version& version);
  void dropPending(std::uint64_t id);

  Word locate(const Request& request, std::uint64_t* id, std::string* key);
  Word locateById(const Request& request, std::uint64_t* id) const;
  Word testId(const Request& request, std::uint64_t* id, bool* answer) const;
  Word locateByKey(const Request& request, std::uint64_t* id, std::string* key);
  Word pivot(const Request& request, std::string* key);
  Word eraseFound(const Request& request, bool isCurrent);

  [[nodiscard]] std::vector<std::string> sourceKeys(std::size_t index) const {
    return keysOf(shape_, index, source_, sourceId_);
  }
  void moveTo(std::uint64_t id, const Version& version, const Request* by, const std::string& key);
  void renew(const Thing& thing);
  void forget();
  void reset();

  TableModel& table_;
  const TableShape& shape_;
  bool active_ = false;
  CZELTA::Mode mode_ = CZELTA::TransactionRead;
  std::set<std::uint64_t> locked_;
  Versions added_;
  Versions edited_;
  std::set<std::uint64_t> deleted_;
  std::vector<KeyMap> keys_;  ///< of what is added and edited

  // The buffer, and the place in each index.
  std::uint64_t current_ = 0;
  std::optional<Version> buffer_;
  std::uint32_t entry_ = 0;
  Thing source_;  ///< the version from which places are made when they are asked for
  std::uint64_t sourceId_ = 0;
  std::map<std::size_t, std::string> places_;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_MODEL_TABLE_MODEL_H

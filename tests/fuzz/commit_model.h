// What must be found again: the objects that were committed through the handles of a process.

#ifndef ZELTA_TESTS_FUZZ_COMMIT_MODEL_H
#define ZELTA_TESTS_FUZZ_COMMIT_MODEL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace zelta::fuzz {

/// Knows nothing of locks: only what an operation that returned 0 has promised. A table of which
/// more has happened than the model can follow is given up.
class CommitModel {
 public:
  using Objects = std::map<long long, std::string>;

  /// Whether a handle has this database open, or another one, of which nothing is noted.
  void open(std::size_t handle, bool another) { away_[handle] = another; }

  [[nodiscard]] bool isAway(std::size_t handle) const;

  void create(std::size_t handle, unsigned int table);
  /// The table is not what the model thinks, or no more.
  void giveUp(std::size_t handle, unsigned int table);

  // What a handle has done in its transaction.
  void put(std::size_t handle, unsigned int table, long long id, const std::string& bytes);
  void erase(std::size_t handle, unsigned int table, long long id);
  void restore(std::size_t handle, unsigned int table, long long id);
  void commit(std::size_t handle);
  /// It is not known whether it has committed.
  void commitFailed(std::size_t handle);
  void drop(std::size_t handle) { pending_[handle].clear(); }

  /// Whether a read with a lock can be compared, and with what: null for no object.
  [[nodiscard]] bool knows(std::size_t handle, unsigned int table) const;
  [[nodiscard]] const std::string* seenBy(std::size_t handle, unsigned int table,
                                          long long id) const;
  [[nodiscard]] const std::map<unsigned int, Objects>& committed() const { return tables_; }

 private:
  using Changes = std::map<long long, std::optional<std::string>>;
  void forget(unsigned int table);

  std::map<unsigned int, Objects> tables_;
  std::map<std::size_t, bool> away_;
  std::map<std::size_t, std::map<unsigned int, Changes>> pending_;
};

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_COMMIT_MODEL_H

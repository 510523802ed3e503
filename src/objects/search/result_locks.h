// Locks on the objects that a search has found.

#ifndef ZELTA_OBJECTS_SEARCH_RESULT_LOCKS_H
#define ZELTA_OBJECTS_SEARCH_RESULT_LOCKS_H

#include <cstdint>

#include "index/search/index_search.h"
#include "objects/table_access.h"

namespace zelta {

/// The locks of one attempt. They are given back unless they are kept.
class ResultLocks {
 public:
  /// `index`, from 0, is the one that was searched.
  ResultLocks(TableAccess& access, std::uint32_t index) : access_(access), index_(index) {}
  ~ResultLocks();
  ResultLocks(const ResultLocks&) = delete;
  ResultLocks& operator=(const ResultLocks&) = delete;

  /// Locks what matches: the objects of the set, or with `inverted` all others below the table's
  /// highest ID. Those that this transaction has locked or changed are passed by. Under the mutex.
  /// `ended`: a transaction that is known to live no more. Code 33: another one has an object, see
  /// blocker(). Own code 44: an object of the set is gone.
  Result take(const SortedIds& found, bool inverted, std::uint32_t ended);
  /// The transaction whose mark stands on an object that nobody has locked; 0: it is not known.
  [[nodiscard]] std::uint32_t blocker() const { return blocker_; }
  /// Makes the locks the transaction's, and takes note of them in its lock position.
  void keep();

 private:
  Result lock(std::uint64_t objectID, bool mayBeGone);
  [[nodiscard]] bool isPassedBy(std::uint64_t objectID) const;

  TableAccess& access_;
  const std::uint32_t index_;
  UInt64AVLTree* locked_ = nullptr;
  std::uint32_t ended_ = 0;
  std::uint32_t blocker_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_SEARCH_RESULT_LOCKS_H

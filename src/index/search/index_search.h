// A search of one index. It is prepared once, before any lock is taken, and run as often as others
// stand in its way.

#ifndef ZELTA_INDEX_SEARCH_INDEX_SEARCH_H
#define ZELTA_INDEX_SEARCH_INDEX_SEARCH_H

#include <cstdint>
#include <optional>
#include <vector>

#include "storage/paged/atomic_manager.h"
#include "storage/trees/avl_tree.h"

namespace zelta {

/// The objects that a search has found so far, each of them once.
class FoundObjects {
 public:
  FoundObjects() = default;
  ~FoundObjects() { destroyAll(ids); }
  FoundObjects(const FoundObjects&) = delete;
  FoundObjects& operator=(const FoundObjects&) = delete;

  void add(std::uint64_t objectID) {
    if (addUncounted(objectID)) ++count;
  }
  /// False: it was there.
  bool addUncounted(std::uint64_t objectID) {
    if (find(ids, objectID) != nullptr) return false;
    new UInt64AVLTree(ids, objectID);
    return true;
  }

  UInt64AVLTree* ids = nullptr;  ///< owned
  long long count = 0;           ///< what the caller is told; not always their number
  /// Found as well, but results only of a search that keeps those before it. Any order.
  std::vector<std::uint64_t> besides;
  /// Whether `ids` are those that do not match. None: the search says nothing of it.
  std::optional<bool> inverted;
};

/// A prepared search.
class IndexSearch {
 public:
  IndexSearch() = default;
  IndexSearch(const IndexSearch&) = delete;
  IndexSearch& operator=(const IndexSearch&) = delete;
  virtual ~IndexSearch() = default;

  /// Looks through what is committed, less what the running transaction has taken out, and through
  /// what it has pending. The manager has the index file, and of a transaction that may write the
  /// memory file; `found` is empty. Nothing of a former run counts. Code 33: something is locked,
  /// another run may find it free.
  virtual Result run(AtomicManager& manager, FoundObjects& found) = 0;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_SEARCH_INDEX_SEARCH_H

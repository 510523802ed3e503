// A search of one index. It is prepared once, before any lock is taken, and run as often as others
// stand in its way.

#ifndef ZELTA_INDEX_SEARCH_INDEX_SEARCH_H
#define ZELTA_INDEX_SEARCH_INDEX_SEARCH_H

#include <cstdint>
#include <optional>

#include "storage/paged/atomic_manager.h"
#include "storage/trees/sorted_ids.h"

namespace zelta {

/// What a word that too many objects have brings among the results: an ID that no object has.
inline constexpr std::uint64_t kNoObject = ~std::uint64_t{0} >> 1;

/// The objects that a search has found.
struct FoundObjects {
  /// In any order; an object may come more than once.
  void add(std::uint64_t objectID) { ids.append(objectID); }

  SortedIds ids;
  /// What the caller is told. None: how many there are in `ids`.
  std::optional<long long> count;
  /// Found as well, but results only of a search that keeps those before it.
  SortedIds besides;
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

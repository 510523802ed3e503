// What changes in the contents of objects, on its way into the indexes that follow them (see kind.h
// for the two families of kinds). A commit, a replay and the building of an index file all bring
// their changes here, and need not know which kinds there are. A tree's form depends on their order:
// what is deleted comes first, then what is rewritten or new, each in ascending order of object ID.

#ifndef ZELTA_INDEX_CONTENTS_H
#define ZELTA_INDEX_CONTENTS_H

#include <cstdint>
#include <memory>
#include <vector>

#include "index/kind.h"

namespace zelta {

/// The objects that a transaction changes in one table. An ID is in one set at most.
struct TransactionObjects {
  UInt64AVLTree* added = nullptr;
  UInt64AVLTree* edited = nullptr;
  UInt64AVLTree* deleted = nullptr;

  /// Those that have pending keys.
  [[nodiscard]] ObjectSets pending() const { return {added, edited}; }
};

/// Reads the contents of objects that a transaction changes. Both versions of one object are good
/// until a version of another one is asked for.
class VersionSource {
 public:
  virtual ~VersionSource() = default;
  /// The committed version.
  virtual Result readBefore(std::uint64_t objectID, ObjectBytes* object) = 0;
  /// The version that the transaction has pending.
  virtual Result readAfter(std::uint64_t objectID, ObjectBytes* object) = 0;
};

/// The updates of all those indexes of one table. An object is read once for all of them, and not
/// at all if there are none.
class ContentUpdates {
 public:
  /// Begins with each index of the manager's table that follows contents. The manager, attached to
  /// the index file, outlives the updates.
  void begin(AtomicManager& manager, ContentMode mode);
  void add(std::unique_ptr<ContentUpdate> update) { updates_.push_back(std::move(update)); }
  [[nodiscard]] bool none() const { return updates_.empty(); }

  /// Hands one change to every update.
  Result change(const ContentChange& change);
  /// All changes of a transaction, in their order.
  Result changeAll(const TransactionObjects& objects, VersionSource& versions);
  /// Ends all updates: the trees have all changes then. Without it they have some of them, and the
  /// caller drops what the manager holds.
  Result finish();

 private:
  std::vector<std::unique_ptr<ContentUpdate>> updates_;
};

}  // namespace zelta

#endif  // ZELTA_INDEX_CONTENTS_H

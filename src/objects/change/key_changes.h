// What an operation on an object changes in the running transaction's view of the indexes.
//
// A key that the transaction sees stands in one of three places: in the committed tree, in the
// pending tree of the memory file, or, with an ID of its own, in the cursor's `replacedKeys`, which
// gives a committed key to another object. A committed key that the transaction has given up stands
// in `removedKeys`. An index whose keys need not be unique knows no `replacedKeys`.
//
//   a key is given up: replaced -> removed (returnReplaced), pending -> gone (removePending),
//                      committed -> removed (noteRemoved)
//   a key is taken:    free -> pending (insertPending), removed -> replaced (takeOver),
//                      removed, of the object itself -> committed (keepCommitted)

#ifndef ZELTA_OBJECTS_CHANGE_KEY_CHANGES_H
#define ZELTA_OBJECTS_CHANGE_KEY_CHANGES_H

#include <cstdint>

#include "objects/change/version_keys.h"

namespace zelta {

/// The changes of one operation: planned first, with all that can fail for reasons of the caller's;
/// then entered in the memory file's trees, which nobody sees before they are flushed; then noted
/// in the cursors, which cannot fail.
class KeyChanges {
 public:
  /// How the object comes by its new keys.
  enum class Source {
    tested,     ///< a key must be free, or given up by this transaction
    committed,  ///< they are those of its committed version, and must have been given up
  };

  KeyChanges(Table& table) : metaData_(table.metaData), table_(table) {}
  ~KeyChanges() { clear(); }
  KeyChanges(const KeyChanges&) = delete;
  KeyChanges& operator=(const KeyChanges&) = delete;

  /// Plans the way from the keys of one version to those of another. Takes keys that it needs out
  /// of them. `wasPending`: the version before may have pending keys. The manager reaches the
  /// memory file, and if keys are to be tested the index file. Own code 37 if a new key is another
  /// object's, or is there twice.
  Result plan(AtomicManager& manager, std::uint64_t objectID, VersionKeys& before, bool wasPending,
              VersionKeys& after, Source source);
  /// Enters the changes in the pending trees, removals first. The caller flushes them together with
  /// the object.
  Result enter(AtomicManager& manager);
  /// Notes the changes in the cursors: only once the memory file has them.
  void finish() noexcept;
  /// Drops the plan.
  void clear() noexcept;
  /// Whether plan() failed because of an object that another transaction has pending.
  [[nodiscard]] bool heldByOthers() const { return heldByOthers_; }

 private:
  enum class Step {
    insertPending,
    removePending,
    noteRemoved,     ///< a committed key is given up: `node` is new
    returnReplaced,  ///< a key that was taken over is given up again
    keepCommitted,   ///< a given up key of the object itself stays its own
    takeOver         ///< a given up key of another object is taken over
  };
  struct Change {
    std::uint32_t* key;   ///< owned
    ObjectKeyNode* node;  ///< owned by noteRemoved; of a key that changes hands: in the cursor
    std::uint32_t index;
    Step step;
  };

  // Planning
  Result checkRepeated(VersionKeys& after);
  Result giveUp(AtomicManager& manager, VersionKeys::Entry& entry, bool wasPending);
  Result take(AtomicManager& manager, VersionKeys::Entry& entry, Source source);
  Result takeUnique(AtomicManager& manager, VersionKeys::Entry& entry);
  Result exists(std::uint32_t index, std::uint64_t holder);
  void add(VersionKeys::Entry& entry, Step step, ObjectKeyNode* node);
  /// How often a step is planned for an index and a key that were planned for last: an object may
  /// have one key in several rows.
  [[nodiscard]] std::uint32_t planned(const VersionKeys::Entry& entry, Step step);
  void noteRemoved(VersionKeys::Entry& entry);
  void releaseNode(const Change& change) noexcept;

  MetaData& metaData_;
  Table& table_;
  std::uint64_t objectID_ = 0;
  SmallVector<Change> changes_;
  bool heldByOthers_ = false;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_KEY_CHANGES_H

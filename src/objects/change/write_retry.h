// Repeating the passes of an operation that changes objects: one policy for all of them of what is
// done when a pass meets a lock, or a key that another transaction has pending.

#ifndef ZELTA_OBJECTS_CHANGE_WRITE_RETRY_H
#define ZELTA_OBJECTS_CHANGE_WRITE_RETRY_H

#include <cassert>
#include <cstdint>

#include "objects/change/key_changes.h"
#include "objects/table_access.h"

namespace zelta {

/// Never waits with the table's mutex held: each pass gives it up, and pauses and repairs lie
/// between passes.
class WriteRetry {
 public:
  struct Limits {
    int passes;       ///< that may be stopped by a lock
    int quickPasses;  ///< the first of them, which only yield the processor in between
  };

  WriteRetry(UInt32AVLTree*& tables, TableAccess& access, Limits limits)
      : metaData_(access.metaData), tables_(tables), access_(access), limits_(limits) {}

  /// Repeats `pass()` for as long as it meets others. After each pass the mutex is free and the
  /// changes that it has planned are gone. A key that another transaction has pending may be left
  /// over: once that transaction is looked for, before own code 37 counts. After code 33 `wait()`
  /// says what is to be done before the next pass.
  template <typename Pass, typename Wait>
  Result run(KeyChanges& changes, const Pass& pass, const Wait& wait) {
    for (bool repairedForKey = false;;) {
      assert(!access_.owned());
      const Result result = pass();
      access_.leave();
      const bool keyPending = result.is(Own::keyExists) && changes.heldByOthers();
      changes.clear();
      if (keyPending && !repairedForKey) {
        repairedForKey = true;
        ZELTA_TRY(repairDead());
      } else if (!result.isLocked()) {
        return result;
      } else {
        ZELTA_TRY(wait());
      }
    }
  }

  /// Who holds what is wanted may have died without anybody having noticed yet: looks for such a
  /// one and repairs it. What failed for it leaves no text.
  Result repairDead();
  /// Counts a pass that a lock has stopped: own code 27 with the object's ID when there were as
  /// many as may be.
  Result countPass(std::uint64_t objectID);
  /// Pauses before the next pass, behind all that is done in between: others get on meanwhile.
  void pause() const;

 private:
  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  TableAccess& access_;
  const Limits limits_;
  int passes_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_CHANGE_WRITE_RETRY_H

// What becomes of a transaction whose process died: whoever meets its remains repairs them.
//
// A transaction is dead if its slot has a number and its owner's word can be locked. Its repair:
// replay its entry if that is complete, drop what it has in memory files, release its slot, in this
// order, so that a repairer who dies as well leaves a transaction to be repaired. upcalls.h of
// objects and frame declare who may ask for it.

#ifndef ZELTA_TRANSACTION_SLOTS_RECOVERY_H
#define ZELTA_TRANSACTION_SLOTS_RECOVERY_H

#include <cstdint>

#include "frame/slots.h"

namespace zelta {

/// The right to repair a dead transaction, whose owner's word this handle has locked. The handle
/// works as the exclusive one meanwhile. Unless the repair succeeds, the word is unlocked again.
///
/// The caller owns databaseMutex from the finding of the dead transaction to the end of its repair:
/// who finds its word locked by a repairer in between would take it for alive, and what it has left
/// halfway for damage. And nobody commits meanwhile: what a replay has brought back must not be
/// deleted as long as the log could bring it back once more.
class RepairScope {
 public:
  RepairScope(MetaData& metaData, std::uint32_t number, const Slot& slot);
  ~RepairScope();
  RepairScope(const RepairScope&) = delete;
  RepairScope& operator=(const RepairScope&) = delete;

  /// Replays its log entry if that is complete, removes what it has left in memory files, and gives
  /// its place back.
  Result run(UInt32AVLTree*& tables);

 private:
  MetaData& metaData_;
  std::uint32_t number_;
  Slot slot_;
  const std::uint32_t ownNumber_;
  const Access ownAccess_;
  bool repaired_ = false;
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_SLOTS_RECOVERY_H

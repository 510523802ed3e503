// What the files of the transaction frame share.

#ifndef ZELTA_TRANSACTION_FRAME_INTERNAL_H
#define ZELTA_TRANSACTION_FRAME_INTERNAL_H

#include "frame/mutex_guard.h"
#include "transaction/frame.h"

namespace zelta {

/// Looks at one slot after the other, until it asks to stop or fails.
class SlotVisitor {
 public:
  virtual ~SlotVisitor() = default;
  virtual Result visit(std::uint64_t slot, bool* stop) = 0;
};
Result walkSlots(MetaData& metaData, std::uint64_t start, SlotVisitor& visitor);

Result readSlotNumber(MetaData& metaData, std::uint64_t slot, std::uint32_t* number);
Result reportControlFile(MetaData& metaData, SystemCode failure);

/// Unlocks the word that tells that a transaction lives.
void unlockOwnerWord(MetaData& metaData, std::uint32_t number, std::uint64_t position);

/// The right to repair a dead transaction, whose owner's word this handle has locked. The handle
/// works as the exclusive one meanwhile. Unless the repair succeeds, the word is unlocked again.
class RepairScope {
 public:
  RepairScope(MetaData& metaData, std::uint32_t number, std::uint64_t position)
      : metaData_(metaData),
        number_(number),
        position_(position),
        ownWord_(metaData.transactionWord),
        ownSlot_(metaData.slotPosition) {
    metaData.transactionWord = 1;
    if (ownWord_ == 0) metaData.slotPosition = 1;  // a begin, which has no place yet
  }
  ~RepairScope() {
    metaData_.transactionWord = ownWord_;
    metaData_.slotPosition = ownSlot_;
    if (!repaired_) unlockOwnerWord(metaData_, number_, position_);
  }
  RepairScope(const RepairScope&) = delete;
  RepairScope& operator=(const RepairScope&) = delete;
  Result run(UInt32AVLTree*& tables) {
    // Nobody commits meanwhile: what a replay has brought back must not be deleted as long as the
    // log could bring it back once more.
    MutexGuard guard;
    Result result = guard.acquire(metaData_, metaData_.databaseMutex, kLongWait);
    if (result.ok()) {
      result = recoverTransaction(metaData_, tables, number_, position_, nullptr);
    }
    repaired_ = result.ok();
    return result;
  }

 private:
  MetaData& metaData_;
  std::uint32_t number_;
  std::uint64_t position_;
  std::uint32_t ownWord_;
  std::uint64_t ownSlot_;
  bool repaired_ = false;
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_FRAME_INTERNAL_H

// What the files of the transaction frame share.

#ifndef ZELTA_TRANSACTION_FRAME_INTERNAL_H
#define ZELTA_TRANSACTION_FRAME_INTERNAL_H

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

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_FRAME_INTERNAL_H

// Allocating, judging and releasing the slots of transactions in the control file. frame/slots.h
// has the slot itself and the walk over all of them; what is decided about their owners is here.
// Who is alive keeps the owner's word of its slot locked: a word that can be locked has no owner,
// or a dead one.

#ifndef ZELTA_TRANSACTION_SLOTS_SLOTS_H
#define ZELTA_TRANSACTION_SLOTS_SLOTS_H

#include <cstdint>

#include "frame/slots.h"

namespace zelta {

/// What a look over all slots has met.
struct SlotScan {
  /// A free slot, which may lie at the end of the file; or a dead transaction's.
  Slot slot;
  std::uint32_t deadNumber =
      0;                        ///< not 0: the slot is a dead one's, and its owner's word is locked
  std::uint32_t liveCount = 0;  ///< live transactions that were met
};

/// Looks for a free slot, and stops at a dead transaction's. Cuts the file behind the last live
/// slot if there is no dead one. With `take` the owner's word of the free slot is locked then. The
/// caller owns databaseMutex and the exclusive place's word.
Result scanSlots(MetaData& metaData, const ControlHeader_tag& header, bool take, SlotScan& out);

/// Looks for a dead transaction: that of `number`, with 0 any. Code 33: it lives. Else `slot` is
/// its place, with the owner's word locked, and `*found` its number; no place: it has ended, or
/// nobody is dead. The caller owns databaseMutex.
Result lockDeadTransaction(MetaData& metaData, std::uint32_t number, Slot& slot,
                           std::uint32_t* found);

/// Releases a transaction's slot and lets the owner's word go: marks it as free, or cuts the
/// control file behind the last slot in use. No place: does nothing.
Result releaseSlot(MetaData& metaData, const Slot& slot);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_SLOTS_SLOTS_H

// The frame of transactions: modes, slots in the control file, and who lives beside whom.

#ifndef ZELTA_TRANSACTION_FRAME_H
#define ZELTA_TRANSACTION_FRAME_H

#include <cstdint>

#include "czelta.h"
#include "frame/control_file.h"
#include "frame/upcalls.h"

namespace zelta {

Result beginTransaction(MetaData& metaData, UInt32AVLTree*& tables, CZELTA::Mode mode,
                        std::uint32_t timeout);

/// Learns whether a writing transaction lives. `number` 0 asks for any dead one. A result of code
/// 33: it lives. Success with `*position` 0: it has ended (or nobody is dead). Success with a
/// position: it is dead; `*found` is its number, and with `keepLock` its slot is locked now.
Result findLiveTransaction(MetaData& metaData, std::uint32_t number, std::uint64_t* position,
                           std::uint32_t* found, bool keepLock);

/// Asks for a transaction as findLiveTransaction() does and repairs it if it is dead. Success: it
/// is out of the way, try again. Code 33: it lives. No table's mutex may be held.
Result clearDeadTransaction(MetaData& metaData, UInt32AVLTree*& tables, std::uint32_t number);

/// Repairs all dead transactions. Code 33: one of them cannot be repaired now. No table's mutex may
/// be held. `*repaired` (may be null): there was one.
Result clearAllDead(MetaData& metaData, UInt32AVLTree*& tables, bool* repaired = nullptr);

/// Gives a slot back: zeroes it, or cuts the control file behind the last one in use.
Result releaseSlot(MetaData& metaData, std::uint32_t number, std::uint64_t position);

/// Looks for a free slot and for dead transactions on the way. The caller owns databaseMutex and
/// bytes 32 to 35.
Result findFreeSlot(MetaData& metaData, const ControlHeader_tag& header, std::uint64_t* position,
                    std::uint32_t* liveCount, std::uint32_t* deadNumber, bool keepLock);

/// The two tests of the 32-bit tick counter. A deadline is a tick; both take the wrap into account.
[[nodiscard]] std::uint32_t timeLeft(std::uint32_t now, std::uint32_t deadline);
[[nodiscard]] bool deadlinePassed(std::uint32_t now, std::uint32_t deadline);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_FRAME_H

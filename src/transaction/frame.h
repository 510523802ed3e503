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

/// Gives a slot back: zeroes it, or cuts the control file behind the last one in use.
Result releaseSlot(MetaData& metaData, std::uint32_t number, std::uint64_t position);

/// Looks for a free slot and for dead transactions on the way. The caller owns databaseMutex and
/// bytes 32 to 35.
Result findFreeSlot(MetaData& metaData, const ControlHeader_tag& header, std::uint64_t* position,
                    std::uint32_t* liveCount, std::uint32_t* deadNumber, bool keepLock);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_FRAME_H

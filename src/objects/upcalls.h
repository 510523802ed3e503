// What work on objects needs from the transaction layer above it: each function is defined
// there. Slots, recovery and the log are that layer's; reading and changing objects only ever meets
// their traces. Other transactions stand in its way, living or dead, and it asks for them here.

#ifndef ZELTA_OBJECTS_UPCALLS_H
#define ZELTA_OBJECTS_UPCALLS_H

#include <cstdint>

#include "frame/metadata.h"

namespace zelta {

class Table;

/// Asks whether a writing transaction lives (`number` 0: whether any has died) and repairs it if it
/// is dead. Success: it is out of the way, try again. Code 33: it lives. No table's mutex may be
/// held. Defined in transaction/slots/recovery.cpp.
Result clearDeadTransaction(const Session& session, std::uint32_t number);

/// Repairs all dead transactions. Code 33: one of them cannot be repaired now. No table's mutex may
/// be held. `*repaired` (may be null): there was one. Defined in transaction/slots/recovery.cpp.
Result clearAllDead(const Session& session, bool* repaired = nullptr);

/// The number of another transaction that has a slot and whose last entry in the log is complete
/// and brings an object of this ID to the table; 0: none is found. Once such an entry stands, a
/// table may lack what its index has already. What cannot be read proves nothing. No table's mutex
/// may be held. Defined in transaction/commit/decided_commit.cpp.
[[nodiscard]] std::uint32_t findDecidedCommit(const Table& table, std::uint64_t objectID);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_UPCALLS_H

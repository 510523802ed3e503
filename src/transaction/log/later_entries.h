// What the log says of the time after an entry. A replay of a log whose entries are kept asks here
// what must not be done again.

#ifndef ZELTA_TRANSACTION_LOG_LATER_ENTRIES_H
#define ZELTA_TRANSACTION_LOG_LATER_ENTRIES_H

#include <cstdint>
#include <set>

#include "transaction/log/log_file.h"

namespace zelta {

/// Takes those IDs out of `objects` that a complete entry behind `entry` names for the same table,
/// and all of them if the table itself was changed later: what `entry` did to them was applied long
/// ago, and must not be done again. Numbered files only: the single form keeps no entry that was
/// applied. `log` has the file of the entry; its header is read anew, under logMutex. IDs have
/// `idSize` bytes.
Result dropKnownLater(LogFile& log, const LogEntry& entry, std::uint32_t tableId,
                      std::uint32_t idSize, std::set<std::uint64_t>& objects);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LATER_ENTRIES_H

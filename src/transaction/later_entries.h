// What the log says of the time after an entry.

#ifndef ZELTA_TRANSACTION_LATER_ENTRIES_H
#define ZELTA_TRANSACTION_LATER_ENTRIES_H

#include <cstdint>
#include <set>

#include "frame/metadata.h"
#include "transaction/log_file.h"

namespace zelta {

/// Takes those IDs out of `objects` that a complete entry behind the one at `position` names for
/// the same table, and all of them if the table itself was changed later: what the entry at
/// `position` did to them was applied long ago, and must not be done again. Numbered files only:
/// the single form keeps no entry that was applied.
Result dropKnownLater(MetaData& metaData, platform::File file, const LogEntryHead_tag& head,
                      std::uint64_t position, std::uint32_t tableId, std::uint32_t idSize,
                      std::set<std::uint64_t>& objects);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LATER_ENTRIES_H

// Replay of changes of the table directory: tables that are made, entered or removed. The directory
// itself tells whether that is done.

#ifndef ZELTA_TRANSACTION_REPLAY_REPLAY_SCHEMA_H
#define ZELTA_TRANSACTION_REPLAY_REPLAY_SCHEMA_H

#include "storage/table.h"
#include "transaction/log/log_entries.h"

namespace zelta {

/// Makes the change that a section describes, unless the directory shows that it was made. The
/// reader stands behind the section's head, and is left behind its body. Tables that are made or
/// entered stay open. Own code 69: the body makes no sense; 8: a change of a table's schema.
Result replaySchemaSection(const Session& session, EntryReader& reader,
                           const LogSchemaSection_tag& section);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_REPLAY_REPLAY_SCHEMA_H

// Making, entering and removing tables. Each changes the directory in two phases
// (frame/directory_change.h) and needs an exclusive transaction, of which the caller has made sure.

#ifndef ZELTA_SCHEMA_TABLE_CREATE_H
#define ZELTA_SCHEMA_TABLE_CREATE_H

#include <cstdint>

#include "czelta.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta {

// `log` asks for a record in the log; replay passes false.

/// Makes the files of a new table and enters it in the directory; it is open afterwards. The schema
/// is validated first; `*tableId` (may be null) receives the ID. After a failure there is no such
/// table, or an intent that whoever comes next carries out or rolls back.
Result createTable(const Session& session, const CZELTA::Schema* schema, unsigned int* tableId,
                   bool log);
/// Enters a table file that is there already, under an ID and a lock order; `directory` is the
/// folder of its index file (null or empty: the database's), which is built anew. The table is open
/// afterwards.
Result addTable(const Session& session, const char16_t* fileName, std::uint32_t tableId,
                const char16_t* directory, std::uint32_t lockOrder, bool log);
/// Takes a table out of the directory, with its files if `deleteFiles`. It is closed.
Result removeTable(const Session& session, std::uint32_t tableId, bool deleteFiles, bool log);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_TABLE_CREATE_H

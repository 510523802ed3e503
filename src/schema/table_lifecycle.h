// The life of a table: making, entering, opening, closing and removing it. Making, entering and
// removing change the directory in two phases (frame/control_file.h) and need an exclusive
// transaction; opening and closing change a handle only. The caller has made sure of the
// transaction and its mode.

#ifndef ZELTA_SCHEMA_TABLE_LIFECYCLE_H
#define ZELTA_SCHEMA_TABLE_LIFECYCLE_H

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
/// Opens a table: its file and mutex; index and memory file follow when they are needed. Does
/// nothing if the table is open. Own code 30: there is none of this ID.
Result openTable(const Session& session, std::uint32_t tableId);
/// Leaves a table open in which the transaction has locks or edits.
Result closeTable(UInt32AVLTree*& tables, Table& table);
/// Takes a table out of the directory, with its files if `deleteFiles`. It is closed.
Result removeTable(const Session& session, std::uint32_t tableId, bool deleteFiles, bool log);

/// Copies the schema of an open table, names included, to the caller's memory. `*size` (may be
/// null) receives the bytes that it takes; `schema` null asks for that alone.
Result getTableSchema(Table& table, CZELTA::Schema* schema, unsigned int* size);

/// Path of a table's index file.
[[nodiscard]] std::u16string indexPath(const Table& table);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_TABLE_LIFECYCLE_H

// Opening, closing and describing tables. This changes a handle only; table_create.h changes the
// directory. The caller has made sure of the transaction and its mode.

#ifndef ZELTA_SCHEMA_TABLE_LIFECYCLE_H
#define ZELTA_SCHEMA_TABLE_LIFECYCLE_H

#include <cstdint>

#include "czelta.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta {

/// Opens a table: its file and mutex; index and memory file follow when they are needed. Does
/// nothing if the table is open. Own code 30: there is none of this ID.
Result openTable(const Session& session, std::uint32_t tableId);
/// Leaves a table open in which the transaction has locks or edits.
Result closeTable(UInt32AVLTree*& tables, Table& table);
/// Copies the schema of an open table, names included, to the caller's memory. `*size` (may be
/// null) receives the bytes that it takes; `schema` null asks for that alone.
Result getTableSchema(Table& table, CZELTA::Schema* schema, unsigned int* size);

/// Gives up the mark of how far locking has come, if it stands in this table, which goes away: its
/// key means nothing in another table of the same lock order.
void forgetLockMark(const Table& table);

/// Path of a table's index file.
[[nodiscard]] std::u16string indexPath(const Table& table);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_TABLE_LIFECYCLE_H

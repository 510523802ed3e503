// The life of a table: making, entering, opening, closing and removing it.

#ifndef ZELTA_SCHEMA_TABLE_LIFECYCLE_H
#define ZELTA_SCHEMA_TABLE_LIFECYCLE_H

#include <cstdint>

#include "czelta.h"
#include "frame/metadata.h"
#include "storage/table.h"

namespace zelta {

// `log` asks for a record in the log; replay passes false.

Result createTable(const Session& session, const CZELTA::Schema* schema, unsigned int* tableId,
                   bool log);
Result addTable(const Session& session, const char16_t* fileName, std::uint32_t tableId,
                const char16_t* directory, std::uint32_t lockOrder, bool log);
/// Does nothing if the table is open.
Result openTable(const Session& session, std::uint32_t tableId);
/// Leaves a table open in which the transaction has locks or edits.
Result closeTable(UInt32AVLTree*& tables, Table& table);
Result removeTable(const Session& session, std::uint32_t tableId, bool deleteFiles, bool log);

Result getTableSchema(Table& table, CZELTA::Schema* schema, unsigned int* size);

/// Path of a table's index file.
[[nodiscard]] std::u16string indexPath(const Table& table);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_TABLE_LIFECYCLE_H

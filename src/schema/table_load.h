// Building Table objects from files and schemas: what making, entering and opening a table have in
// common.

#ifndef ZELTA_SCHEMA_TABLE_LOAD_H
#define ZELTA_SCHEMA_TABLE_LOAD_H

#include "frame/control_file.h"
#include "frame/table_directory.h"
#include "schema/schema_copy.h"
#include "schema/validate.h"
#include "storage/table.h"
#include "storage/table_file/table_file.h"

namespace zelta {

/// Takes names and lock order from the table's entry.
void takeEntry(Table& table, const DirectoryEntry& entry);
/// Takes a schema over, with the names and numbers of the entry in it.
void takeSchema(Table& table, SchemaCopy copy, const ObjectSizes& sizes, std::uint32_t slotBase,
                const DirectoryEntry& entry);

/// Opens the table's mutex, which nobody owns through this yet.
Result openTableMutex(Table& table);
/// Opens the table's mutex and owns it until the guard ends.
Result acquireTableMutex(Table& table, TableMutexGuard& guard);

/// Opens the table's file and reads header and schema. `exclusive`: the mutex is held, and a commit
/// that was cut off may be finished.
Result loadTable(Table& table, const DirectoryEntry& entry, bool exclusive);

/// A new table's header.
[[nodiscard]] TableHeader_tag newTableHeader(const ObjectSizes& sizes, std::uint32_t schemaSize);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_TABLE_LOAD_H

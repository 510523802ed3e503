// The schema as bytes: in the table file, and in records of the log. Both forms are read as
// strictly as anything from a file: counts and positions are checked before memory is taken or a
// byte is copied.

#ifndef ZELTA_SCHEMA_STORED_SCHEMA_H
#define ZELTA_SCHEMA_STORED_SCHEMA_H

#include <cstdint>
#include <string>

#include "schema/schema_copy.h"

namespace zelta {

/// The block of a table file. Positions in it count units of 2 bytes.
[[nodiscard]] std::string storedSchema(const CZELTA::Schema& schema);

/// The same, to be compared with a block that another release may have written: what nobody reads,
/// the position of the segments of an index without any, is taken from there.
[[nodiscard]] std::string storedSchemaLike(const CZELTA::Schema& schema, const std::string& other);

/// The block of the log and of a directory's image: with the table's name and the folder of its
/// index file (null or empty: the database's), positions in bytes, filled to a multiple of 4.
[[nodiscard]] std::string schemaRecord(const CZELTA::Schema& schema, const std::u16string& name,
                                       const std::u16string& folder);

/// Turns a table file's block into a schema. False if it is malformed: everything in it steers
/// copies, and it may come from anywhere. Names and ID of the table are left null and 0.
[[nodiscard]] bool expandStoredSchema(const char* block, std::uint32_t size, SchemaCopy& out);

/// Turns a block of the log, which ends before `end`, into a schema with the numbers of its
/// directory entry. False if it is malformed. `*extra`: where the block ends. The texts of table
/// and folder are left null; the directory entry has them as well.
[[nodiscard]] bool schemaFromRecord(const char* record, const char* end, std::uint32_t tableId,
                                    std::uint32_t lockOrder, SchemaCopy& out, const char** extra);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_STORED_SCHEMA_H

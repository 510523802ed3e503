// What a commit's log entry says of each table, on its way into the log: step 3 of a commit.
// log_entries.h reads it back.

#ifndef ZELTA_TRANSACTION_COMMIT_SECTION_WRITER_H
#define ZELTA_TRANSACTION_COMMIT_SECTION_WRITER_H

#include <cstdint>

#include "storage/table.h"
#include "transaction/log/entry_writer.h"

namespace zelta {

/// Bytes of a table's section, by which the entry is reserved before anything of it is written.
[[nodiscard]] std::uint64_t sectionSize(const Table& table);

/// Writes the section: the deleted IDs, then the images of what was added and rewritten. On the way
/// the slots of deleted and rewritten objects get the transaction's stamp, and the table file is
/// flushed: by the stamps a replay tells what is still to be done. Waits for the table's mutex.
Result writeSection(Table& table, EntryWriter& out);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_SECTION_WRITER_H

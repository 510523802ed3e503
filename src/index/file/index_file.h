// The index file of a table: the committed keys of all its indexes, and what follows contents. This
// opens it, with all that may have to be done before its header can be believed: building a file
// that is missing or empty (index_build.h), repairing one whose writer died
// (storage/paged/paged_repair.h), giving up one whose build died. index_commit.h changes it
// afterwards.

#ifndef ZELTA_INDEX_FILE_INDEX_FILE_H
#define ZELTA_INDEX_FILE_INDEX_FILE_H

#include <cstdint>
#include <string>

#include "frame/metadata.h"
#include "storage/paged/paged_file.h"
#include "storage/table_file/table_file.h"

namespace zelta {

class AtomicManager;
class Table;

/// Opens, builds or repairs the file of the manager's table and gives its roots to the manager;
/// AtomicManager::attach is the caller's. A table without indexes has none: `header` is zeroed.
/// `tableHeader` may be null, it is read for a build then. `exclusive`: the caller may write and
/// has the table's mutex. `mustExist` false: a missing or empty file is no failure, the table runs
/// without it. An object whose content is still to come from the log stops a build with the
/// internal code 33. Damage is own code 57.
Result openIndexFile(AtomicManager& manager, IndexFileHeader_tag& header,
                     const TableHeader_tag* tableHeader, bool exclusive, bool mustExist);

/// Path of the table's index file, which may lie in a folder of its own.
[[nodiscard]] std::u16string indexFilePath(const Table& table);

/// Page size of a new index file; 0 if it would not fit in 32 bits. `firstPage` may be null.
[[nodiscard]] std::uint32_t indexPageSize(const Table& table, std::uint64_t* firstPage);

/// Reads a page that states its own length in its first word: first `atLeast` bytes or the buffer's
/// size, whichever is smaller, then the rest if there is more. Memory for a large page is taken
/// only if the file is that long.
Result readSizedPage(MetaData& metaData, platform::File file, std::uint64_t position,
                     std::uint32_t atLeast, ScratchBuffer& page);

}  // namespace zelta

#endif  // ZELTA_INDEX_FILE_INDEX_FILE_H

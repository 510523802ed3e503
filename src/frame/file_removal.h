// Deleting table and index files, when a table is removed or a failed creation is rolled back. A
// control file may be damaged or made by a stranger, and an index file may lie in any folder: what
// bears the name of a table's file need not be one. Only files that begin as their kind does are
// touched. Memory files are no matter of this: they lie in the database's folder, and hold nothing
// that outlives the last closer.

#ifndef ZELTA_FRAME_FILE_REMOVAL_H
#define ZELTA_FRAME_FILE_REMOVAL_H

#include <string>

#include "frame/metadata.h"

namespace zelta {

/// Both give 0 for a file that is missing, and Windows code 80 for one of another kind, which they
/// leave alone. `fileExtension` tells the kind: a table file or an index file. One whose maker died
/// before its beginning was written counts as of that kind.

/// Deletes the file.
SystemCode deleteTableFile(const MetaData& metaData, const std::u16string& path,
                           const char16_t* fileExtension);
/// Makes sure that the file's content is never met again, not even after a loss of power: the file
/// is deleted, or is empty where it cannot be.
[[nodiscard]] SystemCode discardTableFile(const MetaData& metaData, const std::u16string& path,
                                          const char16_t* fileExtension);

}  // namespace zelta

#endif  // ZELTA_FRAME_FILE_REMOVAL_H

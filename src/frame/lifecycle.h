// Opening and closing databases: the files and mutexes that a handle has from open to close, and
// the repair of what the last users left, which the first opener does.

#ifndef ZELTA_FRAME_LIFECYCLE_H
#define ZELTA_FRAME_LIFECYCLE_H

#include <string>

#include "frame/metadata.h"

namespace zelta {

struct UInt32AVLTree;

/// Makes the control file of a new database and opens it. After a failure nothing is open, and the
/// file is gone.
Result createDatabase(const Session& session, const char16_t* path);
/// Opens a database; the first opener repairs what is left of dead processes. After a failure
/// nothing is open.
Result openDatabase(const Session& session, const char16_t* path);
/// Ends any transaction, destroys the tables and closes all that is open.
void closeDatabase(const Session& session);

/// Makes a mutex named after a file of the database: databaseMutex for "x.zlc", logMutex for
/// "x.zll", a table's for its ".zlt" path. openerMutex takes the control file's path with '2' for
/// its last character.
[[nodiscard]] SystemCode createFileMutex(const MetaData& metaData, const std::u16string& path,
                                         platform::Mutex* out);

}  // namespace zelta

#endif  // ZELTA_FRAME_LIFECYCLE_H

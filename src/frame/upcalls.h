// What the frame needs from the layers above it: each function is defined there. Opening a database
// may need a replay, changing the directory the log, and closing must end a transaction.

#ifndef ZELTA_FRAME_UPCALLS_H
#define ZELTA_FRAME_UPCALLS_H

#include <cstdint>
#include <string>

#include "frame/control_file.h"

namespace zelta {

struct UInt32AVLTree;

/// Carries out the log entry of a transaction whose process died, if it is complete, and takes it
/// out of the log. For the first opener, who clears memory files and slots itself. `header` as it
/// stands in the control file. Tables that it opens are closed again. Defined in
/// transaction/slots/recovery.cpp.
Result recoverCommitted(const Session& session, std::uint32_t number,
                        const ControlHeader_tag& header);

/// Enters a schema record under number 1 in the log, unless an equal one is the last there. `body`
/// as it shall stand in the record. Called for databases that keep numbered log files. `header`
/// takes new log file numbers if the log is rotated. Defined in transaction/log/schema_log.cpp.
Result logSchemaChange(MetaData& metaData, ControlHeader_tag& header, DirectoryChange operation,
                       std::uint32_t table, const std::string& body);

/// Ends the transaction of a handle: aborts, destroys all tables, gives the slot back. Defined in
/// transaction/slots/end.cpp.
Result endTransaction(const Session& session);

/// Destroys the tables of a handle. Defined in storage/table.cpp.
void destroyTables(const Session& session);

}  // namespace zelta

#endif  // ZELTA_FRAME_UPCALLS_H

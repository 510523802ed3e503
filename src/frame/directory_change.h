// Changes of the table directory: laying down the intent of one, and carrying it out.
// directory_change.cpp has the phases of a change and what a death in each leaves. databaseMutex is
// held throughout.

#ifndef ZELTA_FRAME_DIRECTORY_CHANGE_H
#define ZELTA_FRAME_DIRECTORY_CHANGE_H

#include <cstdint>
#include <string>

#include "frame/control_file.h"
#include "frame/table_directory.h"

namespace zelta {

/// Header of version 1.1, whose directory follows it at once.
inline constexpr std::uint32_t kOldHeaderSize = 64;

/// Lays down the intent of a directory change, with the image (the new directory and behind it the
/// bytes of `schemaRecord`) at the greater of the old and the new end, and flushes. `header` is the
/// present header as refreshControlHeader() gave it.
struct DirectoryIntent {
  DirectoryChange operation;
  std::uint16_t suffix = 0;
  std::uint32_t table = 0;          ///< the table's ID before the change
  std::uint32_t newTableCount = 0;  ///< for changeSchema the table's new ID
};
Result writeDirectoryIntent(MetaData& metaData, const ControlHeader_tag& header,
                            const DirectoryIntent& intent, const TableDirectory& directory,
                            const std::string& schemaRecord);
/// Second phase: puts another operation into the intent that stands, and flushes.
Result advanceDirectoryIntent(MetaData& metaData, DirectoryChange operation);
/// Takes back an intent whose second phase was not written; cuts the file to the old end.
Result cancelDirectoryIntent(MetaData& metaData, const ControlHeader_tag& header);
/// Carries out a change whose intent stands, and writes 1 back to `exclusiveState`. With `log`
/// false the change is not entered in the log.
Result completeDirectoryChange(MetaData& metaData, ControlHeader_tag& header, bool log);

/// Zeroes the intent of a copy of the header.
void clearIntent(ControlHeader_tag& header);

/// Needs leave to write (MetaData::mayWrite). Carries out or rolls back the change whose intent
/// stands in `header`, and clears it. On a failure the intent stays for the next one who may write.
Result finishPendingChange(MetaData& metaData, ControlHeader_tag& header, bool log);

/// Brings a control file of version 1.1, whose first bytes are in `header`, to 1.2. Windows code 4
/// outside an exclusive transaction that may write.
Result upgradeControlFile(MetaData& metaData, ControlHeader_tag& header);

}  // namespace zelta

#endif  // ZELTA_FRAME_DIRECTORY_CHANGE_H

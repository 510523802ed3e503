// Carrying out changes of the table directory: the inner side of control_file.h.
// directory_change.cpp has the phases of a change and what a death in each leaves. databaseMutex is
// held throughout.

#ifndef ZELTA_FRAME_DIRECTORY_CHANGE_H
#define ZELTA_FRAME_DIRECTORY_CHANGE_H

#include "frame/control_file.h"

namespace zelta {

/// Header of version 1.1, whose directory follows it at once.
inline constexpr std::uint32_t kOldHeaderSize = 64;

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

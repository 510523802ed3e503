#include "transaction/replay.h"

namespace zelta {

Result replayLogEntry(MetaData& metaData, UInt32AVLTree*&, platform::File,
                      const LogEntryHead_tag& head, std::uint64_t position) {
  return reportError(&metaData, Own::unclassified, metaData.baseName.c_str(), extension::kLog,
                     head.number, static_cast<std::int64_t>(position));
}

}  // namespace zelta

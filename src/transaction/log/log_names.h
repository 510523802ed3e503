// Names of log files, and which of them there are. Numbers have 16 bits and go round: which file is
// older than another is known only by the first and the last one that the control file names.

#ifndef ZELTA_TRANSACTION_LOG_LOG_NAMES_H
#define ZELTA_TRANSACTION_LOG_LOG_NAMES_H

#include <cstdint>
#include <string>
#include <vector>

#include "frame/metadata.h"

namespace zelta {

/// Path of the log file: the single one, or the one of a number.
[[nodiscard]] std::u16string singleLogName(const MetaData& metaData);
[[nodiscard]] std::u16string numberedLogName(const MetaData& metaData, std::uint16_t number);

/// Numbers from `first` to `last` (they may go round), in this order, of which there may be a file.
/// What a control file says must not cost a try for each of 65,536 names.
[[nodiscard]] std::vector<std::uint16_t> numbersInUse(const MetaData& metaData, std::uint16_t first,
                                                      std::uint16_t last);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_NAMES_H

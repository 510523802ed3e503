// The log files that a folder has.

#ifndef ZELTA_CHECK_CHECK_LOG_NAMES_H
#define ZELTA_CHECK_CHECK_LOG_NAMES_H

#include <cstdint>
#include <string>
#include <vector>

#include "check/check_control.h"

namespace zelta::check {

[[nodiscard]] std::u16string logName(const std::u16string& baseName);
[[nodiscard]] std::u16string logName(const std::u16string& baseName, std::uint16_t number);
/// The numbers of the log files that there are, the oldest first; those of the range go round. What
/// the control file says of the range may be damaged: only what the folder holds is looked for.
[[nodiscard]] std::vector<std::uint16_t> logNumbers(const std::u16string& folder,
                                                    const ControlFacts& facts);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_LOG_NAMES_H

// The check of the log, in one file or in many.

#ifndef ZELTA_CHECK_CHECK_LOG_H
#define ZELTA_CHECK_CHECK_LOG_H

#include <cstdint>
#include <string>

#include "check/check_control.h"

namespace zelta::check {

/// Bytes behind the head of a section of table edits, which ends within `end`. False if they do not
/// come out even.
[[nodiscard]] bool measureEdits(CheckFile& file, std::uint64_t at, std::uint64_t end,
                                std::uint64_t* size);

/// Reports what it finds, and goes on as far as there is sense in it.
void checkLogs(Findings& findings, const std::u16string& folder, const std::u16string& baseName,
               const ControlFacts& facts);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_LOG_H

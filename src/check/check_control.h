// The check of the control file, and what it tells those of the other files.

#ifndef ZELTA_CHECK_CHECK_CONTROL_H
#define ZELTA_CHECK_CHECK_CONTROL_H

#include <cstdint>
#include <string>
#include <vector>

#include "check/check_file.h"

namespace zelta::check {

struct DirectoryTable {
  std::uint32_t id = 0;
  std::uint32_t lockOrder = 0;
  std::u16string name;
  std::u16string indexPath;
};

/// What the control file tells the others.
struct ControlFacts {
  std::vector<DirectoryTable> tables;
  bool keepsLogs = false;
  std::uint16_t firstLog = 0;
  std::uint16_t lastLog = 0;
  std::vector<std::uint32_t> openNumbers;  ///< of transactions that did not end
  bool usable = false;                     ///< the header could be read
};

/// Reports what it finds, and goes on as far as there is sense in it.
void checkControl(Findings& findings, CheckFile& file, ControlFacts& facts);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_CONTROL_H

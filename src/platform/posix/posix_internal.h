// What the files of the Linux side share.

#ifndef ZELTA_PLATFORM_POSIX_POSIX_INTERNAL_H
#define ZELTA_PLATFORM_POSIX_POSIX_INTERNAL_H

#include <cstdint>
#include <string>

#include "platform/codes.h"
#include "platform/fault_calls.h"

namespace zelta::platform::posix {

/// The Windows code of an errno.
[[nodiscard]] SystemCode codeOf(int error);
[[nodiscard]] SystemCode lastCode();

/// A name as the file system has it: UTF-8 with '/' for separator.
[[nodiscard]] std::string pathOf(const char16_t* name);

}  // namespace zelta::platform::posix

#endif  // ZELTA_PLATFORM_POSIX_POSIX_INTERNAL_H

// What lies in a folder.

#ifndef ZELTA_PLATFORM_FOLDER_H
#define ZELTA_PLATFORM_FOLDER_H

#include <string>
#include <vector>

#include "platform/codes.h"

namespace zelta::platform {

/// The names in a folder, which ends in a separator, that end in `ending` (ASCII, in either case),
/// in any order. A name that comes or goes meanwhile may be among them or not. Windows code 3:
/// there is no such folder.
[[nodiscard]] SystemCode listFolder(const char16_t* folder, const char16_t* ending,
                                    std::vector<std::u16string>& names);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_FOLDER_H

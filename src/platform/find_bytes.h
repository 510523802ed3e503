// Looking for bytes in bytes, as many at a time as the processor compares.

#ifndef ZELTA_PLATFORM_FIND_BYTES_H
#define ZELTA_PLATFORM_FIND_BYTES_H

#include <string_view>

namespace zelta::platform {

/// The first place in [at, end) where `what` stands as a whole; null if there is none. `what` is not
/// empty.
[[nodiscard]] const char* findBytes(const char* at, const char* end, std::string_view what);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_FIND_BYTES_H

// What the system says of the process's memory.

#ifndef ZELTA_PLATFORM_MEMORY_H
#define ZELTA_PLATFORM_MEMORY_H

namespace zelta::platform {

/// Whether the byte at an address can be read; true without a look where the system has no call for
/// that.
[[nodiscard]] bool isReadable(const void* address);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_MEMORY_H

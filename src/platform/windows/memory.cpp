#include "platform/memory.h"

#include "platform/windows/windows_internal.h"

namespace zelta::platform {

bool isReadable(const void* address) {
  return !IsBadCodePtr(reinterpret_cast<FARPROC>(reinterpret_cast<std::uintptr_t>(address)));
}

}  // namespace zelta::platform

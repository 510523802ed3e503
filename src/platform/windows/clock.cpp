#include "platform/clock.h"

#include "platform/windows/windows_internal.h"

namespace zelta::platform {

std::uint32_t tickCount() { return GetTickCount(); }

void sleepMilliseconds(std::uint32_t milliseconds) { Sleep(milliseconds); }

std::uint32_t currentThread() { return GetCurrentThreadId(); }

std::uint64_t systemTime() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return std::uint64_t{now.dwHighDateTime} << 32 | now.dwLowDateTime;
}

}  // namespace zelta::platform

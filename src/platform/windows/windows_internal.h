// What the files of the Windows side share.

#ifndef ZELTA_PLATFORM_WINDOWS_WINDOWS_INTERNAL_H
#define ZELTA_PLATFORM_WINDOWS_WINDOWS_INTERNAL_H

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cstdint>
#include <string>

#include "platform/codes.h"
#include "platform/fault_calls.h"
#include "platform/text.h"

namespace zelta::platform::windows {

/// The code of the call that just failed; never 0.
[[nodiscard]] inline SystemCode lastCode() {
  const DWORD code = GetLastError();
  return code == 0 ? zelta::code::kGeneralFailure : code;
}

/// A name as the wide calls take it.
[[nodiscard]] inline const wchar_t* wide(const char16_t* name) {
  static_assert(sizeof(wchar_t) == sizeof(char16_t));
  return reinterpret_cast<const wchar_t*>(name);
}

#ifdef ZELTA_FAULTS
/// Notes whose handle it is; see thread_process.h.
HANDLE keepHandle(HANDLE handle);
bool closeHandle(HANDLE handle);
#else
inline HANDLE keepHandle(HANDLE handle) { return handle; }
inline bool closeHandle(HANDLE handle) { return CloseHandle(handle) != 0; }
#endif

/// Attributes that open a new object to all users; made once for the process.
[[nodiscard]] SystemCode fileSecurity(SECURITY_ATTRIBUTES** attributes);
[[nodiscard]] SystemCode mutexSecurity(SECURITY_ATTRIBUTES** attributes);

/// Whether the system itself refuses a read of what another handle has locked.
[[nodiscard]] bool locksStopReads();

}  // namespace zelta::platform::windows

#endif  // ZELTA_PLATFORM_WINDOWS_WINDOWS_INTERNAL_H

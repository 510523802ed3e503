// Whether the system stops reads of what another handle has locked. Windows does; Wine keeps locks
// from each other, but lets every read pass. What it does is tried out once on a temporary file.

#include <string>

#include "platform/windows/windows_internal.h"

namespace zelta::platform::windows {

namespace {

class TemporaryFile {
 public:
  TemporaryFile() {
    wchar_t folder[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, folder);
    if (length == 0 || length > MAX_PATH) return;
    const std::wstring name = std::wstring(folder, length) + L"zelta-locks-" +
                              std::to_wstring(GetCurrentProcessId()) + L"-" +
                              std::to_wstring(GetTickCount());
    first = open(name, CREATE_NEW);
    if (first != INVALID_HANDLE_VALUE) second = open(name, OPEN_EXISTING);
  }
  ~TemporaryFile() {
    for (const HANDLE handle : {second, first}) {
      if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  HANDLE first = INVALID_HANDLE_VALUE;
  HANDLE second = INVALID_HANDLE_VALUE;

 private:
  static HANDLE open(const std::wstring& name, DWORD disposition) {
    return CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, disposition,
                       FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  }
};

/// False also if it cannot be found out: to ask once too often does no harm.
bool probe() {
  const TemporaryFile file;
  DWORD done = 0;
  char bytes[4] = {};
  if (file.second == INVALID_HANDLE_VALUE ||
      !WriteFile(file.first, bytes, sizeof bytes, &done, nullptr) ||
      !LockFile(file.first, 0, 0, sizeof bytes, 0)) {
    return false;
  }
  const bool read = ReadFile(file.second, bytes, sizeof bytes, &done, nullptr) != 0;
  const bool stopped = !read && GetLastError() == ERROR_LOCK_VIOLATION;
  UnlockFile(file.first, 0, 0, sizeof bytes, 0);
  return stopped;
}

}  // namespace

bool locksStopReads() {
  static const bool stop = probe();
  return stop;
}

}  // namespace zelta::platform::windows

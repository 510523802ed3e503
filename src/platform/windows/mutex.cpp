// Named mutexes are the system's own. Beside each stand named objects under names derived from its
// own, which like it vanish with the last handle:
//  - Two semaphores are the count of changes. A semaphore is the one object of the system that
//    keeps a number for several processes and that any user may create for all of them; shared
//    memory takes a privilege.
//  - A mutex that only exists while some handle has claimed the first one. The claim is a handle's,
//    while the ownership of a mutex is a thread's.

#include "platform/mutex.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/windows/thread_process.h"
#include "platform/windows/windows_internal.h"

namespace zelta::platform {

using namespace windows;

namespace {

// -- The count of changes -------------------------------------------------------------------------

/// Steps of the count until one lap is full. At its end the semaphore is emptied by as many waits.
constexpr LONG kLap = 0xFFFF;
constexpr LONG kLaps = 0x7FFFFFFF;

struct SemaphoreState {
  LONG current;
  LONG maximum;
};

/// Reads a semaphore. The interface that is documented offers no way to do so without changing it.
LONG countOf(HANDLE semaphore) {
  using Query = LONG(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);
  static const Query query = [] {
    const FARPROC address = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySemaphore");
    return reinterpret_cast<Query>(reinterpret_cast<void*>(address));
  }();
  constexpr int kBasicInformation = 0;
  SemaphoreState state = {1, 0};  // unknown: as in the middle of a change
  if (query == nullptr || query(semaphore, kBasicInformation, &state, sizeof state, nullptr) < 0) {
    return 1;
  }
  return state.current;
}

/// A number for all processes: steps within a lap, and laps. It is odd if one of the two is: a lap
/// takes two steps of the laps, between which the other semaphore is emptied.
class SharedCount {
 public:
  ~SharedCount() {
    if (steps_ != nullptr) closeHandle(steps_);
    if (laps_ != nullptr) closeHandle(laps_);
  }
  SharedCount() = default;
  SharedCount(const SharedCount&) = delete;
  SharedCount& operator=(const SharedCount&) = delete;

  SystemCode open(const std::wstring& name, SECURITY_ATTRIBUTES* attributes) {
    const std::wstring steps = name + L"+steps";
    const std::wstring laps = name + L"+laps";
    steps_ = keepHandle(CreateSemaphoreW(attributes, 0, kLap, steps.c_str()));
    if (steps_ == nullptr) return lastCode();
    laps_ = keepHandle(CreateSemaphoreW(attributes, 0, kLaps, laps.c_str()));
    return laps_ == nullptr ? lastCode() : 0;
  }
  /// Not to be torn by a lap that ends meanwhile: then it is odd.
  [[nodiscard]] std::uint32_t value() const {
    const auto laps = static_cast<std::uint32_t>(countOf(laps_));
    const auto steps = static_cast<std::uint32_t>(countOf(steps_));
    if (static_cast<std::uint32_t>(countOf(laps_)) != laps) return 1;
    return laps << 15 | steps | (laps & 1);
  }
  void advance() {
    if (ReleaseSemaphore(steps_, 1, nullptr)) return;
    ReleaseSemaphore(laps_, 1, nullptr);
    endLap();
  }
  /// Behind an owner that died in the middle of a change.
  void completeChange() {
    if ((countOf(laps_) & 1) != 0) {
      endLap();
    } else if ((countOf(steps_) & 1) != 0) {
      advance();
    }
  }

 private:
  void endLap() {
    while (WaitForSingleObject(steps_, 0) == WAIT_OBJECT_0) {
    }
    ReleaseSemaphore(laps_, 1, nullptr);
  }

  HANDLE steps_ = nullptr;
  HANDLE laps_ = nullptr;
};

// -- Handles --------------------------------------------------------------------------------------

/// The mutexes of a process that dies are given up before its files are closed. After this time
/// (ms) its locks are gone too, so that nobody takes it for alive.
constexpr DWORD kDying = 50;

struct Handle {
  ~Handle() {
    if (claim != nullptr) closeHandle(claim);
    if (mutex != nullptr) closeHandle(mutex);
  }
  HANDLE mutex = nullptr;
  HANDLE claim = nullptr;  ///< exists while some handle of the machine holds it
  SharedCount changes;
  std::wstring name;
#ifdef ZELTA_FAULTS
  std::string askedName;
#endif
};

Handle* handleOf(Mutex mutex) {
  return reinterpret_cast<Handle*>(static_cast<std::uintptr_t>(mutex));
}

#ifdef ZELTA_FAULTS
/// In slices, between which a thread that counts as a process can be killed.
DWORD waitFor(HANDLE object, DWORD milliseconds) {
  constexpr DWORD kSlice = 20;
  for (DWORD waited = 0;; waited += kSlice) {
    const DWORD left = milliseconds == INFINITE ? INFINITE : milliseconds - waited;
    const DWORD result = WaitForSingleObject(object, std::min(left, kSlice));
    if (result != WAIT_TIMEOUT || left <= kSlice) return result;
    endIfKilled();
  }
}
#else
DWORD waitFor(HANDLE object, DWORD milliseconds) {
  return WaitForSingleObject(object, milliseconds);
}
#endif

/// A backslash may only stand behind the name space: those of the path become "_".
std::wstring systemName(const char16_t* name) {
  constexpr std::wstring_view kSpace = L"Global\\";
  std::wstring out(wide(name));
  const std::size_t path = out.compare(0, kSpace.size(), kSpace) == 0 ? kSpace.size() : 0;
  std::replace(out.begin() + static_cast<std::ptrdiff_t>(path), out.end(), L'\\', L'_');
  return out;
}

}  // namespace

// The system has a place for named mutexes of its own.
SystemCode openLockFile(const char16_t* /*name*/, const char16_t* /*guarded*/, LocksFile* out) {
  *out = static_cast<LocksFile>(1);
  return 0;
}

void closeLockFile(LocksFile /*lockFile*/) {}

SystemCode createMutex(LocksFile /*lockFile*/, const char16_t* name, Mutex* out) {
  *out = Mutex::none;
  ZELTA_ASK(mutexCreate, narrow(name));
  SECURITY_ATTRIBUTES* attributes = nullptr;
  if (const SystemCode failure = mutexSecurity(&attributes); failure != 0) return failure;
  auto handle = std::make_unique<Handle>();
  handle->name = systemName(name);
#ifdef ZELTA_FAULTS
  handle->askedName = narrow(name);
#endif
  handle->mutex = keepHandle(CreateMutexW(attributes, FALSE, handle->name.c_str()));
  if (handle->mutex == nullptr) return lastCode();
  if (const SystemCode failure = handle->changes.open(handle->name, attributes); failure != 0) {
    return failure;
  }
  *out = static_cast<Mutex>(reinterpret_cast<std::uintptr_t>(handle.release()));
  return 0;
}

void closeMutex(Mutex mutex) {
  if (mutex == Mutex::none) return;
  unclaimMutex(mutex);
  delete handleOf(mutex);
}

SystemCode waitMutex(Mutex mutex, std::uint32_t milliseconds, bool* abandoned) {
  if (abandoned != nullptr) *abandoned = false;
  if (mutex == Mutex::none) return code::kInvalidHandle;
  Handle* handle = handleOf(mutex);
  ZELTA_ASK(mutexWait, handle->askedName);
  switch (waitFor(handle->mutex, milliseconds)) {
    case WAIT_OBJECT_0:
      return 0;
    case WAIT_ABANDONED:
      Sleep(kDying);
      handle->changes.completeChange();
      if (abandoned != nullptr) *abandoned = true;
      return 0;
    case WAIT_TIMEOUT:
      return code::kTimeout;
    default:
      return GetLastError() == 0 ? code::kTimeout : lastCode();
  }
}

SystemCode releaseMutex(Mutex mutex) {
  if (mutex == Mutex::none) return code::kInvalidHandle;
  ZELTA_ASK(mutexRelease, handleOf(mutex)->askedName);
  return ReleaseMutex(handleOf(mutex)->mutex) ? 0 : lastCode();
}

std::uint32_t changeCount(Mutex mutex) {
  if (mutex == Mutex::none) return 0;
  // Neither what was read before nor what is read behind may cross this.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  const std::uint32_t count = handleOf(mutex)->changes.value();
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return count;
}

void advanceChangeCount(Mutex mutex) {
  if (mutex == Mutex::none) return;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  handleOf(mutex)->changes.advance();
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

// Files are never served from memory here, so nobody has to know whether a length is still the
// same: it counts as changed each time.
std::uint64_t lengthState(Mutex /*mutex*/) {
  static std::atomic<std::uint64_t> states{0};
  return ++states;
}

void noteLengths(Mutex /*mutex*/) {}

SystemCode claimMutex(Mutex mutex) {
  if (mutex == Mutex::none) return code::kInvalidHandle;
  Handle* handle = handleOf(mutex);
  if (handle->claim != nullptr) return 0;
  SECURITY_ATTRIBUTES* attributes = nullptr;
  if (const SystemCode failure = mutexSecurity(&attributes); failure != 0) return failure;
  // A local: nothing may come between the call and its last error.
  const std::wstring name = handle->name + L"+claim";
  const HANDLE claim = CreateMutexW(attributes, FALSE, name.c_str());
  if (claim == nullptr) return lastCode();
  if (GetLastError() == ERROR_ALREADY_EXISTS) {
    CloseHandle(claim);
    return code::kTimeout;
  }
  handle->claim = keepHandle(claim);
  // For those who look at the mutex itself. It may still be with a thread whose claim another
  // thread has given up.
  static_cast<void>(WaitForSingleObject(handle->mutex, 0));
  return 0;
}

void unclaimMutex(Mutex mutex) {
  if (mutex == Mutex::none) return;
  Handle* handle = handleOf(mutex);
  if (handle->claim == nullptr) return;
  ReleaseMutex(handle->mutex);  // fails in another thread than the one that claimed
  closeHandle(handle->claim);
  handle->claim = nullptr;
}

}  // namespace zelta::platform

#ifdef ZELTA_FAULTS

#include <atomic>
#include <set>
#include <utility>

#include "platform/windows/thread_process.h"
#include "platform/windows/windows_internal.h"

namespace zelta::platform {

namespace windows {

namespace {

constexpr UINT kKilled = 256 + 9;  // what tests see of a killed process elsewhere

}  // namespace

struct ThreadProcess::State {
  std::function<int()> work;
  std::atomic<bool> killed{false};
  HANDLE thread = nullptr;
  std::set<HANDLE> open;  ///< of its thread alone
  ~State() {
    if (thread != nullptr) CloseHandle(thread);
  }
};

namespace {

/// The process that the calling thread is, if it is one.
thread_local ThreadProcess::State* self = nullptr;

[[noreturn]] void die(UINT code) {
  if (self == nullptr) {
    TerminateProcess(GetCurrentProcess(), code);
    for (;;) Sleep(INFINITE);
  }
  for (const HANDLE handle : std::exchange(self->open, {})) CloseHandle(handle);
  ExitThread(code);
}

DWORD WINAPI start(void* argument) {
  self = static_cast<ThreadProcess::State*>(argument);
  useOwnHook();
  const int code = self->work();
  die(static_cast<UINT>(code));
}

}  // namespace

HANDLE keepHandle(HANDLE handle) {
  if (self != nullptr && handle != nullptr && handle != INVALID_HANDLE_VALUE) {
    self->open.insert(handle);
  }
  return handle;
}

bool closeHandle(HANDLE handle) {
  if (self != nullptr) self->open.erase(handle);
  return CloseHandle(handle) != 0;
}

void endIfKilled() {
  if (self != nullptr && self->killed) die(kKilled);
}

void endProcess(int code) { die(static_cast<UINT>(code)); }

ThreadProcess::ThreadProcess(std::function<int()> work) : state_(std::make_shared<State>()) {
  state_->work = std::move(work);
  state_->thread = CreateThread(nullptr, 0, start, state_.get(), 0, nullptr);
}

ThreadProcess::~ThreadProcess() {
  kill();
  static_cast<void>(wait());
}

void ThreadProcess::kill() { state_->killed = true; }

int ThreadProcess::wait() {
  DWORD code = 0;
  WaitForSingleObject(state_->thread, INFINITE);
  GetExitCodeThread(state_->thread, &code);
  return static_cast<int>(code);
}

bool ThreadProcess::ended() const {
  return WaitForSingleObject(state_->thread, 0) == WAIT_OBJECT_0;
}

}  // namespace windows

void dieNow() { windows::endProcess(windows::kKilled); }

}  // namespace zelta::platform

#endif  // ZELTA_FAULTS

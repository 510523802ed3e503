#ifdef ZELTA_FAULTS

#include "platform/fault_calls.h"

#include <atomic>
#include <cstdlib>

#ifdef _WIN32
#include "platform/windows/thread_process.h"
#endif

namespace zelta::platform {

namespace {

std::atomic<faults::Hook*> theHook{nullptr};
thread_local bool ownHook = false;
thread_local faults::Hook* threadHook = nullptr;
std::atomic<std::uint64_t> callCount{0};
std::atomic<std::uint64_t> flushCount{0};
std::atomic<bool> locksAreStrict{std::getenv("ZELTA_STRICT_LOCKS") != nullptr};

}  // namespace

namespace faults {

void install(Hook* hook) {
  if (ownHook) {
    threadHook = hook;
  } else {
    theHook = hook;
  }
}
std::uint64_t systemCalls() { return callCount; }
std::uint64_t flushes() { return flushCount; }
void useStrictLocks(bool strict) { locksAreStrict = strict; }
bool strictLocks() { return locksAreStrict; }

}  // namespace faults

Asked ask(Call call, const std::string& name, std::uint64_t position, std::uint64_t length,
          const void* data) {
  // Owning a mutex costs a system call only if somebody has to be woken or waited for.
  if (call != Call::mutexWait && call != Call::mutexRelease) ++callCount;
  if (call == Call::flush) ++flushCount;
#ifdef _WIN32
  windows::endIfKilled();
#endif
  faults::Hook* hook = ownHook ? threadHook : theHook.load();
  if (hook == nullptr) return {};
  const faults::Verdict verdict = hook->before({call, name, position, length, data});
  return {verdict.code, verdict.cutTo, verdict.die};
}

void useOwnHook() { ownHook = true; }

void countCall() { ++callCount; }
void uncountCall() { --callCount; }

}  // namespace zelta::platform

#endif  // ZELTA_FAULTS

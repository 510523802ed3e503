// How the platform's sides ask the hook of faults.h. Nothing of it is left in a release.

#ifndef ZELTA_PLATFORM_FAULT_CALLS_H
#define ZELTA_PLATFORM_FAULT_CALLS_H

#ifdef ZELTA_FAULTS

#include <cstdint>
#include <string>

#include "platform/codes.h"
#include "platform/faults.h"

namespace zelta::platform {

using faults::Call;

/// The hook's answer: `cut` is how much may be transferred, `die` that the process ends behind it.
struct Asked {
  SystemCode code = 0;
  std::uint64_t cut = ~std::uint64_t{0};
  bool die = false;
};
[[nodiscard]] Asked ask(Call call, const std::string& name, std::uint64_t position = 0,
                        std::uint64_t length = 0, const void* data = nullptr);
/// Counts a system call that no hook is asked about.
void countCall();
/// The call that the hook was asked about was served from memory.
void uncountCall();
/// From now on the calling thread has a hook of its own, first none: it counts as a process.
void useOwnHook();
/// Ends the process without any clean-up, as a kill from outside does.
[[noreturn]] void dieNow();

}  // namespace zelta::platform

/// Fails or ends a call that transfers nothing, if the hook wants it.
#define ZELTA_ASK(call, ...)                                                         \
  do {                                                                               \
    if (const auto asked_ = ::zelta::platform::ask(faults::Call::call, __VA_ARGS__); \
        asked_.code != 0) {                                                          \
      return asked_.code;                                                            \
    } else if (asked_.die) {                                                         \
      ::zelta::platform::dieNow();                                                   \
    }                                                                                \
  } while (false)

#else

#define ZELTA_ASK(call, ...) static_cast<void>(0)

#endif

#endif  // ZELTA_PLATFORM_FAULT_CALLS_H

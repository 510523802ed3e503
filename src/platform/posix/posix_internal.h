// What the files of the Linux side share.

#ifndef ZELTA_PLATFORM_POSIX_POSIX_INTERNAL_H
#define ZELTA_PLATFORM_POSIX_POSIX_INTERNAL_H

#include <cstdint>
#include <string>

#include "platform/codes.h"

#ifdef ZELTA_FAULTS
#include "platform/faults.h"
#endif

namespace zelta::platform::posix {

/// The Windows code of an errno.
[[nodiscard]] SystemCode codeOf(int error);
[[nodiscard]] SystemCode lastCode();

/// A name as the file system has it: UTF-8 with '/' for separator.
[[nodiscard]] std::string pathOf(const char16_t* name);

#ifdef ZELTA_FAULTS

using faults::Call;

/// Asks the hook; `cut` takes how much may be transferred, `die` that the process ends behind it.
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
/// Ends the process as SIGKILL does.
[[noreturn]] void dieNow();

/// Fails or ends a call that transfers nothing, if the hook wants it.
#define ZELTA_ASK(call, ...)                                                                \
  do {                                                                                      \
    if (const auto asked_ = ::zelta::platform::posix::ask(faults::Call::call, __VA_ARGS__); \
        asked_.code != 0) {                                                                 \
      return asked_.code;                                                                   \
    } else if (asked_.die) {                                                                \
      ::zelta::platform::posix::dieNow();                                                   \
    }                                                                                       \
  } while (false)

#else

#define ZELTA_ASK(call, ...) static_cast<void>(0)

#endif

}  // namespace zelta::platform::posix

#endif  // ZELTA_PLATFORM_POSIX_POSIX_INTERNAL_H

// Time and threads.

#ifndef ZELTA_PLATFORM_CLOCK_H
#define ZELTA_PLATFORM_CLOCK_H

#include <cstdint>

namespace zelta::platform {

/// Milliseconds of a monotonic clock, cut to 32 bits.
[[nodiscard]] std::uint32_t tickCount();
/// 0 yields the processor.
void sleepMilliseconds(std::uint32_t milliseconds);
/// An identifier of the calling thread, never 0; compared for equality only.
[[nodiscard]] std::uint32_t currentThread();
/// The wall clock in 100 ns since 1601.
[[nodiscard]] std::uint64_t systemTime();

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_CLOCK_H

// Deadlines as ticks of the 32-bit counter, which wraps every 49 days.

#ifndef ZELTA_PLATFORM_DEADLINE_H
#define ZELTA_PLATFORM_DEADLINE_H

#include <cstdint>

namespace zelta::platform {

/// Milliseconds from `now` to a deadline, 0 behind it. Both are ticks; a deadline lies less
/// than 2^31 ticks ahead.
[[nodiscard]] std::uint32_t timeLeft(std::uint32_t now, std::uint32_t deadline);
/// Whether a deadline has come.
[[nodiscard]] bool deadlinePassed(std::uint32_t now, std::uint32_t deadline);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_DEADLINE_H

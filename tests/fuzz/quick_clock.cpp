// The clock of the fuzzing targets: time passes only when somebody waits, and then at once. Whoever
// waits often waits longer each time, as on a machine that is busy, so that waits of many minutes
// take few rounds.

#include "fuzz/quick_clock.h"

#include <time.h>
#include <unistd.h>

#include "fuzz/found.h"
#include "platform/clock.h"

namespace zelta {

namespace {

/// 100 ns steps from 1601 to 1970.
constexpr std::uint64_t kUnixEpoch = 116444736000000000;
constexpr std::uint64_t kMicroseconds = 1000;
/// The longest wait that an operation promises to end within is that for somebody who keeps all
/// others out; operations that wait for several things one after the other may take some of them.
constexpr std::uint64_t kPatience = std::uint64_t{4} * 600 * 1000 * kMicroseconds;

std::uint64_t now = 0;  ///< microseconds
std::uint64_t operationStart = 0;
std::uint64_t rests = 0;  ///< in this operation

}  // namespace

namespace fuzz {

void beginInput() {
  now = 0;
  beginOperation();
}

void beginOperation() {
  operationStart = now;
  rests = 0;
}

}  // namespace fuzz

namespace platform {

std::uint32_t tickCount() {
  now += 10;  // nobody who asks again and again is to ask for ever
  return static_cast<std::uint32_t>(now / kMicroseconds);
}

void sleepMilliseconds(std::uint32_t milliseconds) {
  constexpr std::uint64_t kUsual = 256;
  ++rests;
  const std::uint64_t length = milliseconds == 0 ? 50 : milliseconds * kMicroseconds;
  now += length * (1 + (rests > kUsual ? (rests - kUsual) / 4 : 0));
  if (now - operationStart > kPatience) fuzz::found("a wait without an end");
}

std::uint32_t currentThread() { return static_cast<std::uint32_t>(gettid()); }

/// Files have the system's times; what was waited comes on top.
std::uint64_t systemTime() {
  timespec real{};
  clock_gettime(CLOCK_REALTIME, &real);
  return kUnixEpoch + static_cast<std::uint64_t>(real.tv_sec) * 10000000 +
         static_cast<std::uint64_t>(real.tv_nsec) / 100 + now * 10;
}

}  // namespace platform

}  // namespace zelta

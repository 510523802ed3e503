#include "platform/clock.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace zelta::platform {

namespace {

/// 100 ns steps from 1601 to 1970.
constexpr std::uint64_t kUnixEpoch = 116444736000000000;

/// The calling thread's ID once it was asked for; a forked child forgets its parent's.
thread_local std::uint32_t threadId = 0;

}  // namespace

std::uint32_t tickCount() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                    static_cast<std::uint64_t>(now.tv_nsec) / 1000000);
}

void sleepMilliseconds(std::uint32_t milliseconds) {
  if (milliseconds == 0) {
    sched_yield();
    return;
  }
  timespec rest{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

namespace {

bool registerForkHandler() {
  static const int failure = pthread_atfork(nullptr, nullptr, [] { threadId = 0; });
  return failure == 0;
}

/// While the library is loaded: a fork may fall into the first question of another thread.
[[maybe_unused]] const bool registeredAtLoad = registerForkHandler();

}  // namespace

std::uint32_t currentThread() {
  registerForkHandler();
  if (threadId == 0) threadId = static_cast<std::uint32_t>(gettid());
  return threadId;
}

std::uint64_t systemTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return kUnixEpoch + static_cast<std::uint64_t>(now.tv_sec) * 10000000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 100;
}

}  // namespace zelta::platform

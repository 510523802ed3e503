// The sanitizer for data races does not see pthread_mutex_clocklock(), and would take what its
// mutex guards for unguarded. In a build with it this definition comes before the system's, and
// leads to a call that it does see.

#include <pthread.h>
#include <time.h>

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                       const timespec* end) {
  constexpr long kSecond = 1000000000;
  timespec now{};
  timespec time{};
  clock_gettime(clock, &now);
  clock_gettime(CLOCK_REALTIME, &time);
  time.tv_sec += end->tv_sec - now.tv_sec;
  time.tv_nsec += end->tv_nsec - now.tv_nsec;
  if (time.tv_nsec < 0) {
    time.tv_nsec += kSecond;
    --time.tv_sec;
  } else if (time.tv_nsec >= kSecond) {
    time.tv_nsec -= kSecond;
    ++time.tv_sec;
  }
  return pthread_mutex_timedlock(mutex, &time);
}

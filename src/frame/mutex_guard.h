// Owns a named mutex of the database until the end of a scope.

#ifndef ZELTA_FRAME_MUTEX_GUARD_H
#define ZELTA_FRAME_MUTEX_GUARD_H

#include "frame/metadata.h"

namespace zelta {

inline constexpr std::uint32_t kLongWait = 600000;  // ms

class MutexGuard {
 public:
  MutexGuard() = default;
  ~MutexGuard() {
    if (mutex_ != platform::Mutex::none) static_cast<void>(platform::releaseMutex(mutex_));
  }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

  /// A failure is reported with the database's name.
  Result acquire(MetaData& metaData, platform::Mutex mutex, std::uint32_t milliseconds) {
    const SystemCode failure = platform::waitMutex(mutex, milliseconds);
    if (failure != 0) {
      return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
    }
    mutex_ = mutex;
    return {};
  }
  /// Takes over a mutex that the calling thread owns already.
  void adopt(platform::Mutex mutex) { mutex_ = mutex; }
  /// Does nothing if the mutex is not held.
  [[nodiscard]] SystemCode release() {
    if (mutex_ == platform::Mutex::none) return 0;
    return platform::releaseMutex(keep());
  }
  /// Lets the mutex be owned beyond the scope.
  platform::Mutex keep() {
    const platform::Mutex mutex = mutex_;
    mutex_ = platform::Mutex::none;
    return mutex;
  }
  [[nodiscard]] bool held() const { return mutex_ != platform::Mutex::none; }

 private:
  platform::Mutex mutex_ = platform::Mutex::none;
};

}  // namespace zelta

#endif  // ZELTA_FRAME_MUTEX_GUARD_H

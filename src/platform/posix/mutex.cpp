// Named mutexes: robust, recursive, process-shared pthread mutexes in the records of a lock file
// (lock_area.h).
//
// Owners are told apart by thread ID. Processes in different PID name spaces cannot share a mutex;
// the lock file refuses to serve both.

#include "platform/mutex.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>

#include "platform/posix/lock_area.h"
#include "platform/posix/posix_internal.h"

namespace zelta::platform {

using namespace posix;

namespace {

struct Handle {
  RecordUse* use = nullptr;
  int claimFile = -1;  ///< lent; the claim is a lock that belongs to it
};

Handle* handleOf(Mutex mutex) {
  return reinterpret_cast<Handle*>(static_cast<std::uintptr_t>(mutex));
}

/// The use behind a handle, or null if it is none or was inherited over a fork.
RecordUse* usableUse(Mutex mutex) {
  if (mutex == Mutex::none) return nullptr;
  RecordUse* use = handleOf(mutex)->use;
  return isUsable(use->area) ? use : nullptr;
}

/// What follows the last separator: all files of a database that have mutexes lie in one folder.
std::string lastPartOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? name : name.substr(slash + 1);
}

timespec inMilliseconds(std::uint32_t milliseconds) {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
  if (time.tv_nsec >= 1000000000) {
    time.tv_nsec -= 1000000000;
    ++time.tv_sec;
  }
  return time;
}

bool isBefore(const timespec& one, const timespec& two) {
  return one.tv_sec != two.tv_sec ? one.tv_sec < two.tv_sec : one.tv_nsec < two.tv_nsec;
}

/// A waiter that is killed as it is woken takes the wake-up with it, if a third one was faster to
/// gain the mutex. So no wait relies on being woken: it looks again from time to time.
int lockWithin(pthread_mutex_t* mutex, std::uint32_t milliseconds) {
  constexpr std::uint32_t kLook = 50;
  if (const int quick = pthread_mutex_trylock(mutex); quick != EBUSY || milliseconds == 0) {
    return quick;
  }
  const timespec end = inMilliseconds(milliseconds);
  for (;;) {
    const timespec look = inMilliseconds(kLook);
    const bool last = milliseconds != kForever && !isBefore(look, end);
    const int result = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, last ? &end : &look);
    if (result != ETIMEDOUT || last) return result;
  }
}

/// The mutexes of a process that dies are given up before its files are closed. Waits until its
/// file locks are gone too, so that nobody takes it for alive. If but a thread has died, its
/// process goes on, and so does the caller after some time.
void waitForEnd(pid_t process) {
  constexpr std::uint32_t kPatience = 2000;
  if (process <= 0 || process == getpid()) return;
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  if (fd < 0) return;  // it is gone
  const timespec end = inMilliseconds(kPatience);
  pollfd ended{fd, POLLIN, 0};
  while (poll(&ended, 1, 100) <= 0 && isBefore(inMilliseconds(0), end)) {
  }
  close(fd);
}

}  // namespace

SystemCode createMutex(LocksFile lockFile, const char16_t* name, Mutex* out) {
  *out = Mutex::none;
  const std::string text = pathOf(name);
  ZELTA_ASK(mutexCreate, text);
  if (lockFile == LocksFile::none) return code::kInvalidHandle;
  auto handle = std::make_unique<Handle>();
  const SystemCode failure = useRecord(areaOf(lockFile), lastPartOf(text), &handle->use);
  if (failure != 0) return failure;
  *out = static_cast<Mutex>(reinterpret_cast<std::uintptr_t>(handle.release()));
  return 0;
}

void closeMutex(Mutex mutex) {
  if (mutex == Mutex::none) return;
  unclaimMutex(mutex);
  const std::unique_ptr<Handle> handle(handleOf(mutex));
  leaveRecord(handle->use);
}

SystemCode waitMutex(Mutex mutex, std::uint32_t milliseconds, bool* abandoned) {
  if (abandoned != nullptr) *abandoned = false;
  RecordUse* use = usableUse(mutex);
  if (use == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(mutexWait, use->name);
  LockRecord& record = *use->record;
  const int result = lockWithin(&record.mutex, milliseconds);
  if (result == EBUSY || result == ETIMEDOUT) return code::kTimeout;
  if (result == EOWNERDEAD) {
    pthread_mutex_consistent(&record.mutex);
    waitForEnd(record.owner);
    if ((record.changes.load() & 1) != 0) record.changes.fetch_add(1);
    ++record.lengths;
    use->owned = 0;  // a thread of this process may have died with it
    if (abandoned != nullptr) *abandoned = true;
  } else if (result != 0) {
    return codeOf(result);
  }
  record.owner = use->process;
  ++use->owned;
  return 0;
}

SystemCode releaseMutex(Mutex mutex) {
  RecordUse* use = usableUse(mutex);
  if (use == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(mutexRelease, use->name);
  const std::int32_t owner = use->record->owner;
  if (use->owned == 1) use->record->owner = 0;
  const int result = pthread_mutex_unlock(&use->record->mutex);
  if (result == EPERM) {
    if (use->owned == 1) use->record->owner = owner;  // another thread of this process has it
    return code::kNotOwner;
  }
  if (result != 0) return codeOf(result);
  --use->owned;
  return 0;
}

std::uint32_t changeCount(Mutex mutex) {
  const RecordUse* use = usableUse(mutex);
  if (use == nullptr) return 0;
  // Neither what was read before nor what is read behind may cross this.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  const std::uint32_t count = use->record->changes.load();
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return count;
}

void advanceChangeCount(Mutex mutex) {
  const RecordUse* use = usableUse(mutex);
  if (use == nullptr) return;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  use->record->changes.fetch_add(1);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

std::uint64_t lengthState(Mutex mutex) { return handleOf(mutex)->use->record->lengths; }

void noteLengths(Mutex mutex) { ++handleOf(mutex)->use->record->lengths; }

SystemCode claimMutex(Mutex mutex) {
  const RecordUse* use = usableUse(mutex);
  if (use == nullptr) return code::kInvalidHandle;
  Handle* handle = handleOf(mutex);
  if (handle->claimFile >= 0) return 0;
  int file = -1;
  if (const SystemCode failure = lendLockFile(use->area, &file); failure != 0) return failure;
  const SystemCode failure = lockByte(file, claimByteOf(*use), F_WRLCK);
  if (failure != 0) {
    giveLockFileBack(use->area, file);
    return failure == code::kLockViolation ? code::kTimeout : failure;
  }
  handle->claimFile = file;
  return 0;
}

void unclaimMutex(Mutex mutex) {
  if (mutex == Mutex::none) return;
  Handle* handle = handleOf(mutex);
  if (handle->claimFile >= 0) giveLockFileBack(handle->use->area, handle->claimFile);
  handle->claimFile = -1;
}

}  // namespace zelta::platform

// Named mutexes: machine-wide, owned by a thread, recursive. Whoever waits for a mutex whose owner
// died gains it, once the locks that its process had in files are gone too.

#ifndef ZELTA_PLATFORM_MUTEX_H
#define ZELTA_PLATFORM_MUTEX_H

#include <cstdint>

#include "platform/codes.h"
#include "platform/lock_file.h"

namespace zelta::platform {

/// A handle to a named mutex. 0: none.
enum class Mutex : std::uintptr_t { none = 0 };

inline constexpr std::uint32_t kForever = 0xFFFFFFFF;

/// Opens the mutex of this name among those of the lock file, and makes it if there is none. It is
/// not owned yet. Names differ in what follows their last separator, as those of files in one
/// folder do.
[[nodiscard]] SystemCode createMutex(LocksFile lockFile, const char16_t* name, Mutex* out);

/// Closes the handle. A mutex that some thread still owns stays that thread's.
void closeMutex(Mutex mutex);

/// Waits up to `milliseconds` (kForever: without limit). 258: not gained in time. `*abandoned`, if
/// given, tells that the last owner died with it.
[[nodiscard]] SystemCode waitMutex(Mutex mutex, std::uint32_t milliseconds,
                                   bool* abandoned = nullptr);

/// Code 288 if the calling thread does not own the mutex.
[[nodiscard]] SystemCode releaseMutex(Mutex mutex);

/// A count that goes with the mutex, for those who read what it guards without owning it: owners
/// make it odd before they change anything and even again afterwards. What was read between two
/// equal even counts was not changed meanwhile. An owner that dies leaves it odd until the mutex is
/// gained the next time.
[[nodiscard]] std::uint32_t changeCount(Mutex mutex);
/// Goes on to the next count. Only the owner may call it.
void advanceChangeCount(Mutex mutex);

/// The state of the lengths of the files that the mutex guards: a number for its owner, never 0. It
/// changes by noteLengths() and when an owner dies.
[[nodiscard]] std::uint64_t lengthState(Mutex mutex);
void noteLengths(Mutex mutex);

/// A second way to own a mutex, for one that is kept from open to close: the handle owns it,
/// whatever thread calls, and closeMutex() or the death of the process gives it up. Never waits:
/// 258 if another handle, of this process or another, owns it. A mutex is used in this way or by
/// waitMutex(), never both.
[[nodiscard]] SystemCode claimMutex(Mutex mutex);
/// Gives a claim up. Ignored if there is none.
void unclaimMutex(Mutex mutex);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_MUTEX_H

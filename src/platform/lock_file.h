// The lock file of a database, where its processes meet: it holds the named mutexes, and locks of
// words in the database's files may lie on it. It comes with the first process that opens it and
// goes with the last that closes it. What a process that was killed left of it is made anew.
//
// Who may write the database's files may use it, and nobody else can open it. A platform that has
// named mutexes of its own needs no such file.

#ifndef ZELTA_PLATFORM_LOCK_FILE_H
#define ZELTA_PLATFORM_LOCK_FILE_H

#include <cstdint>

#include "platform/codes.h"

namespace zelta::platform {

/// A use of a lock file. 0: none.
enum class LocksFile : std::uintptr_t { none = 0 };

/// Opens the lock file `name`, and makes it if there is none, for all who may write the file
/// `guarded`. Codes: 5 the caller may not write that file, or what stands under the name was made
/// by somebody who may not; 32 processes that cannot tell each other's death use it; 258 somebody
/// keeps it from being opened.
[[nodiscard]] SystemCode openLockFile(const char16_t* name, const char16_t* guarded,
                                      LocksFile* out);

/// Mutexes and files that use the lock file keep it.
void closeLockFile(LocksFile lockFile);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_LOCK_FILE_H

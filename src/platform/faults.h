// A seam for tests: a hook that every call of the platform layer asks before it acts. It exists
// only in a build with ZELTA_FAULTS; the release library contains none of it.

#ifndef ZELTA_PLATFORM_FAULTS_H
#define ZELTA_PLATFORM_FAULTS_H

#ifdef ZELTA_FAULTS

#include <cstdint>
#include <string>

#include "platform/codes.h"

namespace zelta::platform::faults {

enum class Call {
  open,
  close,
  read,
  write,
  truncate,
  flush,
  remove,
  rename,
  createFolder,
  lock,
  unlock,
  mutexCreate,
  mutexWait,
  mutexRelease,
  list
};

/// What is about to happen. `name` is the file's path in UTF-8, or the mutex's name.
struct Event {
  Call call;
  const std::string& name;
  std::uint64_t position;  ///< write, read, lock: place in the file; truncate: the new length
  std::uint64_t length;
  const void* data;  ///< write: the bytes
};

/// What the hook wants to happen.
struct Verdict {
  SystemCode code = 0;          ///< other than 0: the call fails with it and does nothing
  std::uint64_t cutTo = ~0ull;  ///< write, read: transfer no more than this many bytes
  bool die = false;  ///< kill the process on the spot (after a cut transfer, if cutTo is set)
};

class Hook {
 public:
  virtual ~Hook() = default;
  virtual Verdict before(const Event& event) = 0;
};

/// Installs the hook of this process; null takes it away. Not while calls are under way.
void install(Hook* hook);

/// Number of system calls that the layer has made so far in this process, and of flushes among
/// them.
[[nodiscard]] std::uint64_t systemCalls();
[[nodiscard]] std::uint64_t flushes();

/// Locks as other systems have them: they lie on the very words, and let nobody else read or write
/// those. Processes that meet have to agree. Set from the start in an environment that has
/// ZELTA_STRICT_LOCKS; on Windows locks are like that anyway.
void useStrictLocks(bool strict);
[[nodiscard]] bool strictLocks();

}  // namespace zelta::platform::faults

#endif  // ZELTA_FAULTS

#endif  // ZELTA_PLATFORM_FAULTS_H

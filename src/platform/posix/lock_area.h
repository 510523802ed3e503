// A process's use of a lock file (lock_file.h).
//
// The file is an array of records under names, in pages of 4 KiB. A record holds a mutex; its
// number also says where on the file the locks of the words of a database's file of that name lie.
// All else is told by locks of single bytes far behind the file's end:
//
//   guard        held, briefly, by whoever joins the file, leaves it or looks for a record
//   users        shared by all processes that use the file. Whoever joins and gets it for himself
//                alone is the first: what the file holds was left by processes that died, or came
//                with a copy of it, and is made anew. Whoever leaves and gets it alone removes the
//                file. Who opened a file that was removed meanwhile starts over.
//   use          one for each record, shared by the processes that use the record. A record whose
//                byte nobody holds may get another name.
//   claim        one for each record; see claimMutex()
//   words        a region for each record
//
// Its maker gives the file its name when it is complete and in use, where the file system has files
// without names. A file that has other names too is nobody's lock file, unless it has users.
//
// A handle that takes locks does so through an open file of its own, since that is what locks
// belong to. Such files are lent and given back, as opening one costs as much as several locks.
//
// All handles of a process share one mapping, since the kernel keeps the mutexes that a thread owns
// in a list through their memory: it is never taken away while one may be on such a list.

#ifndef ZELTA_PLATFORM_POSIX_LOCK_AREA_H
#define ZELTA_PLATFORM_POSIX_LOCK_AREA_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/codes.h"
#include "platform/lock_file.h"

namespace zelta::platform::posix {

class LockArea;

/// What the file holds for a name.
struct LockRecord {
  std::uint32_t used;  ///< 0: free. It belongs to the owner of the guard, as does the name
  std::uint32_t nameLength;
  std::atomic<std::uint32_t> changes;
  std::atomic<std::int32_t> owner;  ///< process that owns the mutex
  pthread_mutex_t mutex;
  std::uint64_t lengths;  ///< belongs to the owner of the mutex
  char name[256];
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

/// A process's use of a record; it stays in place as long as it has handles.
struct RecordUse {
  RecordUse(LockArea* a, std::string n);
  LockArea* const area;
  const std::string name;
  const pid_t process;
  std::uint32_t index = 0;
  LockRecord* record = nullptr;
  int handles = 0;
  std::atomic<int> owned{0};  ///< how often threads of this process own the mutex
};

[[nodiscard]] LockArea* areaOf(LocksFile lockFile);
/// One more user within this process.
void holdArea(LockArea* area);
void releaseArea(LockArea* area);
/// False once the area was inherited over a fork: its locks are the parent's.
[[nodiscard]] bool isUsable(const LockArea* area);

/// Finds the record of a name, or makes it, for one more handle, which is a user of the area too.
[[nodiscard]] SystemCode useRecord(LockArea* area, const std::string& name, RecordUse** out);
void leaveRecord(RecordUse* use);

/// Lends an open file to take locks through. When it is given back its locks go.
[[nodiscard]] SystemCode lendLockFile(LockArea* area, int* fd);
void giveLockFileBack(LockArea* area, int fd);
/// An open file to ask for others' locks through.
[[nodiscard]] int askingFile(const LockArea* area);

/// Where the words of a record's file have their locks: a region of this many bytes.
inline constexpr std::uint64_t kRegion = std::uint64_t{1} << 42;
[[nodiscard]] inline std::uint64_t regionOf(const RecordUse& use) {
  return (use.index + std::uint64_t{1}) * kRegion;
}
[[nodiscard]] off_t claimByteOf(const RecordUse& use);

/// Locks or unlocks a byte of an open file without waiting. Code 33: it is locked.
[[nodiscard]] SystemCode lockByte(int fd, off_t byte, short type);

}  // namespace zelta::platform::posix

#endif  // ZELTA_PLATFORM_POSIX_LOCK_AREA_H

// Named mutexes: robust, recursive, process-shared pthread mutexes in small files of shared memory.
//
// A file is named after the mutex: a readable stem and a hash of the whole name, which the file
// holds too and which is compared. It is made under another name and linked when it is complete, so
// that nobody meets a half-made one. Each process that uses it holds a shared lock on its first
// byte; whoever can turn that into an exclusive one is the last user and removes the file. Who
// opened a file that was removed meanwhile starts over.
//
// All handles of a process share one mapping for a name, since the kernel keeps the mutexes that a
// thread owns in a list through their memory: a mapping is never taken away while it may be on such
// a list.
//
// Owners are told apart by thread ID. Processes in different PID name spaces must not share a
// mutex.

#include "platform/mutex.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "platform/posix/posix_internal.h"

namespace zelta::platform {

using namespace posix;

namespace {

constexpr const char* kFolder = "/dev/shm/";
constexpr std::uint32_t kMagic = 0x335A4D5A;  // "ZMZ3"
constexpr off_t kUserByte = 0;
constexpr off_t kClaimByte = 1;

/// What the file holds; the name follows.
struct Shared {
  std::uint32_t magic;
  std::uint32_t nameLength;
  std::atomic<std::uint32_t> changes;
  std::atomic<std::int32_t> owner;  ///< process that owns it
  pthread_mutex_t mutex;
  std::uint64_t lengths;  ///< belongs to the owner of the mutex
  [[nodiscard]] char* name() { return reinterpret_cast<char*>(this + 1); }
};

static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

/// A process's use of a mutex.
struct Mapping {
  int fd = -1;
  Shared* shared = nullptr;
  std::size_t size = 0;
  std::string path;
  std::string name;
  const pid_t process = getpid();
  int handles = 0;            ///< guarded by mappingsMutex
  std::atomic<int> owned{0};  ///< how often threads of this process own it
  std::set<int> claims;       ///< files of the handles that claim it; guarded by mappingsMutex
};

struct Handle {
  Mapping* mapping = nullptr;
  int claimFd = -1;
};

std::mutex mappingsMutex;
std::map<std::string, std::unique_ptr<Mapping>>& mappings() {
  static auto* all = new std::map<std::string, std::unique_ptr<Mapping>>;
  return *all;
}

/// Inherited mutexes are of no use to a child: its threads are others, and its parent's locks must
/// not live on with it.
void closeInChild() {
  for (auto& [name, mapping] : mappings()) {
    if (mapping->fd >= 0) close(mapping->fd);
    mapping->fd = -1;
    for (const int claim : mapping->claims) close(claim);
    static_cast<void>(mapping.release());  // handles of the parent may point to it
  }
  mappings().clear();
  mappingsMutex.unlock();
}

bool registerForkHandler() {
  static const int failure =
      pthread_atfork([] { mappingsMutex.lock(); }, [] { mappingsMutex.unlock(); }, closeInChild);
  return failure == 0;
}

/// While the library is loaded: a fork may fall into the first use of a mutex by another thread.
[[maybe_unused]] const bool registeredAtLoad = registerForkHandler();

std::uint64_t hashOf(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

std::string fileNameOf(const std::string& name) {
  const std::size_t start = name.size() > 48 ? name.size() - 48 : 0;
  std::string stem = name.substr(start);
  for (char& c : stem) {
    const bool plain =
        (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.';
    if (!plain) c = '_';
  }
  char hash[17];
  std::uint64_t value = hashOf(name);
  for (int i = 15; i >= 0; --i, value >>= 4) hash[i] = "0123456789abcdef"[value & 15];
  hash[16] = 0;
  return std::string(kFolder) + "zelta." + stem + "." + hash;
}

SystemCode lockByte(int fd, off_t byte, short type, int command) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = byte;
  range.l_len = 1;
  while (fcntl(fd, command, &range) != 0) {
    if (errno == EINTR) continue;
    return errno == EACCES ? code::kLockViolation : lastCode();
  }
  return 0;
}

bool initialise(Shared* shared, const std::string& name) {
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return false;
  const bool done = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                    pthread_mutex_init(&shared->mutex, &attributes) == 0;
  pthread_mutexattr_destroy(&attributes);
  std::memcpy(shared->name(), name.data(), name.size());
  shared->nameLength = static_cast<std::uint32_t>(name.size());
  shared->lengths = 1;
  shared->magic = kMagic;
  return done;
}

/// Makes the file complete under a name of its own, then gives it the real one. It is no failure if
/// somebody else was faster.
SystemCode publish(const std::string& path, const std::string& name) {
  static std::atomic<unsigned> counter{0};
  constexpr int kAttempts = 1000;
  std::string draft;
  int fd = -1;
  for (int i = 0; fd < 0; ++i) {
    // A process of the same number that was killed may have left drafts.
    draft = path + "." + std::to_string(getpid()) + "." + std::to_string(counter++);
    fd = open(draft.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && (errno != EEXIST || i == kAttempts)) return lastCode();
  }
  const std::size_t size = sizeof(Shared) + name.size();
  SystemCode failure = 0;
  if (const int error = posix_fallocate(fd, 0, static_cast<off_t>(size)); error != 0)
    failure = codeOf(error);
  if (failure == 0) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
      failure = lastCode();
    } else {
      if (!initialise(static_cast<Shared*>(memory), name)) failure = code::kNoMemory;
      munmap(memory, size);
    }
  }
  if (failure == 0 && fchmod(fd, 0666) != 0) failure = lastCode();
  if (failure == 0 && link(draft.c_str(), path.c_str()) != 0 && errno != EEXIST)
    failure = lastCode();
  unlink(draft.c_str());
  close(fd);
  return failure;
}

/// Whether the file is the one of this name. That it has any name does not tell: a process that was
/// killed between the two may have left the draft beside it.
bool isNamed(const std::string& path, int fd) {
  struct stat mine {};
  struct stat named {};
  return fstat(fd, &mine) == 0 && lstat(path.c_str(), &named) == 0 && mine.st_dev == named.st_dev &&
         mine.st_ino == named.st_ino;
}

/// Opens the file under its name and becomes one of its users; `*fd` -1 without a failure: it is
/// missing, or was removed meanwhile. While it has users nobody removes it.
SystemCode join(const std::string& path, int* fd) {
  *fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (*fd < 0) return errno == ENOENT ? 0 : lastCode();
  const SystemCode failure = lockByte(*fd, kUserByte, F_RDLCK, F_OFD_SETLKW);
  if (failure != 0 || !isNamed(path, *fd)) {
    close(*fd);
    *fd = -1;
  }
  return failure;
}

SystemCode mapFile(Mapping& mapping) {
  struct stat info {};
  if (fstat(mapping.fd, &info) != 0) return lastCode();
  mapping.size = sizeof(Shared) + mapping.name.size();
  if (static_cast<std::size_t>(info.st_size) != mapping.size) return code::kGeneralFailure;
  void* memory = mmap(nullptr, mapping.size, PROT_READ | PROT_WRITE, MAP_SHARED, mapping.fd, 0);
  if (memory == MAP_FAILED) return lastCode();
  mapping.shared = static_cast<Shared*>(memory);
  const bool mine =
      mapping.shared->magic == kMagic && mapping.shared->nameLength == mapping.name.size() &&
      std::memcmp(mapping.shared->name(), mapping.name.data(), mapping.name.size()) == 0;
  return mine ? 0 : code::kGeneralFailure;  // another name of the same hash, or a foreign file
}

SystemCode openMapping(Mapping& mapping) {
  while (mapping.fd < 0) {
    if (const SystemCode failure = join(mapping.path, &mapping.fd); failure != 0) return failure;
    if (mapping.fd >= 0) break;
    if (const SystemCode failure = publish(mapping.path, mapping.name); failure != 0)
      return failure;
  }
  return mapFile(mapping);
}

/// Leaves the file, and removes it if nobody else uses it.
void closeMapping(Mapping& mapping) {
  if (mapping.shared != nullptr) munmap(mapping.shared, mapping.size);
  mapping.shared = nullptr;
  if (mapping.fd < 0) return;
  if (lockByte(mapping.fd, kUserByte, F_WRLCK, F_OFD_SETLK) == 0) unlink(mapping.path.c_str());
  close(mapping.fd);
  mapping.fd = -1;
}

Handle* handleOf(Mutex mutex) {
  return reinterpret_cast<Handle*>(static_cast<std::uintptr_t>(mutex));
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

namespace {

/// Takes a mapping away again that got no handle. Under mappingsMutex.
class Unused {
 public:
  using Place = std::map<std::string, std::unique_ptr<Mapping>>::iterator;
  explicit Unused(Place place) : place_(place) {}
  ~Unused() {
    if (place_->second->handles != 0) return;
    closeMapping(*place_->second);
    mappings().erase(place_);
  }
  Unused(const Unused&) = delete;
  Unused& operator=(const Unused&) = delete;

 private:
  Place place_;
};

}  // namespace

SystemCode createMutex(const char16_t* name, Mutex* out) {
  *out = Mutex::none;
  const std::string text = pathOf(name);
  ZELTA_ASK(mutexCreate, text);
  registerForkHandler();
  const std::lock_guard guard(mappingsMutex);
  auto handle = std::make_unique<Handle>();
  auto& all = mappings();
  auto place = all.find(text);
  if (place == all.end()) {
    auto mapping = std::make_unique<Mapping>();
    mapping->name = text;
    mapping->path = fileNameOf(text);
    place = all.emplace(text, std::move(mapping)).first;
    const Unused unused(place);
    if (const SystemCode failure = openMapping(*place->second); failure != 0) return failure;
    ++place->second->handles;
  } else {
    ++place->second->handles;
  }
  handle->mapping = place->second.get();
  *out = static_cast<Mutex>(reinterpret_cast<std::uintptr_t>(handle.release()));
  return 0;
}

void closeMutex(Mutex mutex) {
  if (mutex == Mutex::none) return;
  Handle* handle = handleOf(mutex);
  unclaimMutex(mutex);
  const std::lock_guard guard(mappingsMutex);
  Mapping* mapping = handle->mapping;
  delete handle;
  if (mapping->fd < 0) return;  // inherited over a fork
  if (--mapping->handles > 0 || mapping->owned > 0) return;
  closeMapping(*mapping);
  auto& all = mappings();
  if (const auto place = all.find(mapping->name); place != all.end()) all.erase(place);
}

SystemCode waitMutex(Mutex mutex, std::uint32_t milliseconds, bool* abandoned) {
  if (abandoned != nullptr) *abandoned = false;
  if (mutex == Mutex::none) return code::kInvalidHandle;
  Mapping* mapping = handleOf(mutex)->mapping;
  if (mapping->fd < 0) return code::kInvalidHandle;
  ZELTA_ASK(mutexWait, mapping->name);
  const int result = lockWithin(&mapping->shared->mutex, milliseconds);
  if (result == EBUSY || result == ETIMEDOUT) return code::kTimeout;
  if (result == EOWNERDEAD) {
    pthread_mutex_consistent(&mapping->shared->mutex);
    waitForEnd(mapping->shared->owner);
    if ((mapping->shared->changes.load() & 1) != 0) mapping->shared->changes.fetch_add(1);
    ++mapping->shared->lengths;
    if (abandoned != nullptr) *abandoned = true;
  } else if (result != 0) {
    return codeOf(result);
  }
  mapping->shared->owner = mapping->process;
  ++mapping->owned;
  return 0;
}

SystemCode releaseMutex(Mutex mutex) {
  if (mutex == Mutex::none) return code::kInvalidHandle;
  Mapping* mapping = handleOf(mutex)->mapping;
  if (mapping->fd < 0) return code::kInvalidHandle;
  ZELTA_ASK(mutexRelease, mapping->name);
  if (mapping->owned == 1) mapping->shared->owner = 0;
  const int result = pthread_mutex_unlock(&mapping->shared->mutex);
  if (result == EPERM) return code::kNotOwner;
  if (result != 0) return codeOf(result);
  --mapping->owned;
  return 0;
}

std::uint32_t changeCount(Mutex mutex) {
  if (mutex == Mutex::none) return 0;
  const Mapping* mapping = handleOf(mutex)->mapping;
  if (mapping->fd < 0) return 0;
  // Neither what was read before nor what is read behind may cross this.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  const std::uint32_t count = mapping->shared->changes.load();
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return count;
}

void advanceChangeCount(Mutex mutex) {
  if (mutex == Mutex::none) return;
  const Mapping* mapping = handleOf(mutex)->mapping;
  if (mapping->fd < 0) return;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  mapping->shared->changes.fetch_add(1);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

std::uint64_t lengthState(Mutex mutex) { return handleOf(mutex)->mapping->shared->lengths; }

void noteLengths(Mutex mutex) { ++handleOf(mutex)->mapping->shared->lengths; }

SystemCode claimMutex(Mutex mutex) {
  if (mutex == Mutex::none) return code::kInvalidHandle;
  Handle* handle = handleOf(mutex);
  Mapping* mapping = handle->mapping;
  if (mapping->fd < 0) return code::kInvalidHandle;
  if (handle->claimFd >= 0) return 0;
  // An open file of its own: the claim is this handle's, not the process's. The file cannot vanish
  // from under its name while this process is one of its users.
  const int fd = open(mapping->path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return lastCode();
  const SystemCode failure = lockByte(fd, kClaimByte, F_WRLCK, F_OFD_SETLK);
  if (failure != 0) {
    close(fd);
    return failure == code::kLockViolation ? code::kTimeout : failure;
  }
  handle->claimFd = fd;
  const std::lock_guard guard(mappingsMutex);
  mapping->claims.insert(fd);
  return 0;
}

void unclaimMutex(Mutex mutex) {
  if (mutex == Mutex::none) return;
  Handle* handle = handleOf(mutex);
  if (handle->claimFd < 0) return;
  if (handle->mapping->fd >= 0) {  // else inherited over a fork, and closed there
    static_cast<void>(lockByte(handle->claimFd, kClaimByte, F_UNLCK, F_OFD_SETLK));
    const std::lock_guard guard(mappingsMutex);
    handle->mapping->claims.erase(handle->claimFd);
    close(handle->claimFd);
  }
  handle->claimFd = -1;
}

}  // namespace zelta::platform

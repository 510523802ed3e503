// Files. Their locks are in word_locks.h; a read that may meet a locked word first asks whether
// another handle holds it (readLockable). In this order: asked after the read, a lock that went
// away meanwhile would let bytes pass that were read while it stood.
//
// A forked child shares the open file and would keep its locks alive behind its parent's death. A
// fork handler closes all files in the child; operations on an inherited handle fail with code 6.
//
// While nobody else can cut a file (beginStable), its first part is read and written through a
// mapping, at the cost of a copy instead of a system call. The rules that keep this from ending in
// SIGBUS: only bytes within the size that was read at the begin, or that this handle has written
// since, are touched; the file grows by pwrite() alone, so that a full disk is an ordinary failure;
// a file with holes, whose pages would have to be allocated on touch, is not written through the
// mapping.
//
// A handle that only reads has no part in that (serveReads). It holds a shared lock on one byte far
// behind any file's end instead, and whoever wants to shorten the file needs that byte for himself:
// if he does not get it, the file keeps its length.

#include "platform/file.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <utility>

#include "platform/posix/posix_internal.h"
#include "platform/posix/word_locks.h"
#include "platform/text.h"

namespace zelta::platform {

using namespace posix;

namespace {

/// Reads by a system call after which a reader maps the file, or looks how far it has grown.
constexpr std::uint32_t kReadsBeforeLook = 12;

struct FileRecord {
  explicit FileRecord(std::string p) : path(std::move(p)) {}
  int fd = -1;
  const std::string path;
  WordLocks locks;
  char* window = nullptr;  ///< mapping of the file's first bytes
  std::uint64_t windowSize = 0;
  std::uint64_t readable = 0;  ///< bytes that can be touched
  std::uint64_t writable = 0;
  std::uint64_t readWindow = 0;  ///< not 0: served reads are wanted, of so many bytes
  std::uint32_t plainReads = 0;  ///< of these bytes by a system call, since the last look
  bool keepsLength = false;      ///< holds its share of the file's length
  std::uint64_t size = 0;        ///< of the file, in a stable time
  bool stable = false;
  bool holes = false;          ///< the file has or may have some
  bool resized = false;        ///< by this handle, in a stable time
  std::uint64_t version = 0;   ///< of `size` and `holes`; 0: they are not known
  FileRecord* next = nullptr;  ///< all open files, for the fork handler
  FileRecord* previous = nullptr;
};

// -- All open files -----------------------------------------------------------------------------

std::mutex registryMutex;
FileRecord* registry = nullptr;

/// Folders with entries that this process has changed and not made to last.
std::mutex foldersMutex;
std::set<std::string> changedFolders;
std::atomic<int> changedFolderCount{0};

/// A fork waits until no other thread is inside the records: the child could not go on with them.
void lockRecords() {
  foldersMutex.lock();
  registryMutex.lock();
}

void unlockRecords() {
  registryMutex.unlock();
  foldersMutex.unlock();
}

void closeInChild() {
  for (FileRecord* record = registry; record != nullptr; record = record->next) {
    close(record->fd);
    record->fd = -1;
  }
  unlockRecords();
}

bool registerForkHandler() {
  static const int failure = pthread_atfork(lockRecords, unlockRecords, closeInChild);
  return failure == 0;
}

/// While the library is loaded: a fork may fall into the first use of a file by another thread.
[[maybe_unused]] const bool registeredAtLoad = registerForkHandler();

void enter(FileRecord* record) {
  registerForkHandler();
  const std::lock_guard guard(registryMutex);
  record->next = registry;
  if (registry != nullptr) registry->previous = record;
  registry = record;
}

void leave(FileRecord* record) {
  const std::lock_guard guard(registryMutex);
  if (record->previous != nullptr) record->previous->next = record->next;
  if (record->next != nullptr) record->next->previous = record->previous;
  if (registry == record) registry = record->next;
}

FileRecord* recordOf(File file) {
  return reinterpret_cast<FileRecord*>(static_cast<std::uintptr_t>(file));
}

/// The handle's record if it can be used: not File::none, not inherited over a fork.
FileRecord* usable(File file) {
  if (file == File::none) return nullptr;
  FileRecord* record = recordOf(file);
  return record->fd < 0 ? nullptr : record;
}

// -- Folders whose entries have changed -----------------------------------------------------------

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

void folderChanged(const std::string& path) {
  const std::lock_guard guard(foldersMutex);
  changedFolders.insert(folderOf(path));
  changedFolderCount = static_cast<int>(changedFolders.size());
}

/// Makes the entries of the file's folder last, if this process has changed any.
SystemCode syncFolder(const std::string& path) {
  if (changedFolderCount == 0) return 0;
  const std::string folder = folderOf(path);
  const std::lock_guard guard(foldersMutex);
  const auto found = changedFolders.find(folder);
  if (found == changedFolders.end()) return 0;
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 && errno != ENOENT) return lastCode();
  const SystemCode failure = fd >= 0 && fsync(fd) != 0 && errno != EINVAL ? lastCode() : 0;
  if (fd >= 0) close(fd);
  if (failure != 0) return failure;
  changedFolders.erase(found);
  changedFolderCount = static_cast<int>(changedFolders.size());
  return 0;
}

/// ENOENT stands for a missing file and for a missing folder alike.
SystemCode missing(const std::string& path) {
  struct stat info {};
  if (stat(folderOf(path).c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    return code::kPathNotFound;
  return code::kFileNotFound;
}

SystemCode nameFailure(const std::string& path) {
  return errno == ENOENT ? missing(path) : lastCode();
}

// -- Opening --------------------------------------------------------------------------------------

int openPath(const std::string& path, Disposition disposition, bool* created) {
  *created = false;
  int fd = -1;
  if (disposition != Disposition::createNew) {
    fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0 || errno != ENOENT || disposition == Disposition::openExisting) return fd;
  }
  fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_CREAT | O_EXCL, 0666);
  *created = fd >= 0;
  if (fd < 0 && errno == EEXIST && disposition == Disposition::openAlways) {
    fd = open(path.c_str(), O_RDWR | O_CLOEXEC);  // somebody else was faster
  }
  return fd;
}

/// A transfer in a loop over partial results and interruptions.
template <typename Transfer>
SystemCode transferAll(std::uint32_t length, std::uint32_t* transferred, Transfer transfer) {
  std::uint32_t done = 0;
  while (done < length) {
    const ssize_t n = transfer(done);
    if (n < 0) {
      if (errno == EINTR) continue;
      *transferred = done;
      return lastCode();
    }
    if (n == 0) break;
    done += static_cast<std::uint32_t>(n);
  }
  *transferred = done;
  return 0;
}

/// Takes note of what the file holds now.
void noteSize(FileRecord* record, std::uint64_t size, bool holes) {
  record->size = size;
  record->holes = holes;
  record->readable = record->window == nullptr ? 0 : std::min(size, record->windowSize);
  record->writable = holes ? 0 : record->readable;
}

/// After a write or a cut of this handle's.
void noteChange(FileRecord* record, std::uint64_t size, bool hole) {
  record->version = 0;
  record->resized = true;
  if (record->stable) noteSize(record, size, hole || record->holes);
}

bool mapWindow(FileRecord* record, std::uint64_t window) {
  if (record->window != nullptr) return true;
  void* memory = mmap(nullptr, window, PROT_READ | PROT_WRITE, MAP_SHARED, record->fd, 0);
  if (memory == MAP_FAILED) return false;
  record->window = static_cast<char*>(memory);
  record->windowSize = window;
  return true;
}

bool lockLength(FileRecord* record, short type) {
#ifdef ZELTA_FAULTS
  countCall();
#endif
  return record->locks.setLength(type);
}

/// A reader has read by system calls for a while: maps the file, or learns how long it is now.
void lookAtLength(FileRecord* record) {
  record->plainReads = 0;
  if (!record->keepsLength) record->keepsLength = lockLength(record, F_RDLCK);
  if (!record->keepsLength || !mapWindow(record, record->readWindow)) return;
#ifdef ZELTA_FAULTS
  countCall();
#endif
  struct stat info {};
  if (fstat(record->fd, &info) != 0) return;
  record->readable = std::min(static_cast<std::uint64_t>(info.st_size), record->windowSize);
}

SystemCode readRecord(FileRecord* record, std::uint64_t position, void* buffer,
                      std::uint32_t length, std::uint32_t* transferred) {
  *transferred = 0;
#ifdef ZELTA_FAULTS
  const Asked asked = ask(Call::read, record->path, position, length);
  if (asked.code != 0) return asked.code;
  if (asked.cut < length) length = static_cast<std::uint32_t>(asked.cut);
#endif
  if (record->locks.refuse(position, length)) return code::kLockViolation;
  if (length <= record->readable && position <= record->readable - length) {
    std::memcpy(buffer, record->window + position, length);
    *transferred = length;
#ifdef ZELTA_FAULTS
    uncountCall();
#endif
    return 0;
  }
  if (position < record->readWindow && ++record->plainReads > kReadsBeforeLook) {
    lookAtLength(record);
  }
  const SystemCode result = transferAll(length, transferred, [&](std::uint32_t done) {
    return pread(record->fd, static_cast<char*>(buffer) + done, length - done,
                 static_cast<off_t>(position + done));
  });
#ifdef ZELTA_FAULTS
  if (asked.die) dieNow();
#endif
  return result;
}

/// A write through the window whose words are stored one after the other.
void copyInOrder(char* to, const void* buffer, std::uint32_t length) {
  const char* from = static_cast<const char*>(buffer);
  if (reinterpret_cast<std::uintptr_t>(to) % sizeof(std::uint64_t) == 0) {
    for (; length >= sizeof(std::uint64_t); length -= 8, from += 8, to += 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, from, sizeof word);
      *reinterpret_cast<volatile std::uint64_t*>(to) = word;
    }
  }
  std::memcpy(to, from, length);
}

/// A write by the system call.
SystemCode extendFile(FileRecord* record, std::uint64_t position, const void* buffer,
                      std::uint32_t length, std::uint32_t* transferred) {
  const SystemCode result = transferAll(length, transferred, [&](std::uint32_t done) {
    return pwrite(record->fd, static_cast<const char*>(buffer) + done, length - done,
                  static_cast<off_t>(position + done));
  });
  const std::uint64_t end = position + *transferred;
  if (*transferred != 0 && end > record->size) noteChange(record, end, position > record->size);
  return result;
}

/// An open file that has no record yet; a file that was made for nobody goes again.
struct Opened {
  const std::string& path;
  int fd = -1;
  bool created = false;
  ~Opened() {
    if (fd < 0) return;
    if (created) unlink(path.c_str());
    close(fd);
  }
};

}  // namespace

SystemCode openFile(const char16_t* name, Disposition disposition, File* out) {
  *out = File::none;
  const std::string path = pathOf(name);
  ZELTA_ASK(open, path, static_cast<std::uint64_t>(disposition));
  auto record = std::make_unique<FileRecord>(path);
  Opened opened{path};
  opened.fd = openPath(path, disposition, &opened.created);
  if (opened.fd < 0) return nameFailure(path);
  struct stat info {};
  if (fstat(opened.fd, &info) != 0 || S_ISDIR(info.st_mode)) {
    opened.created = false;
    return code::kAccessDenied;
  }
  if (opened.created) folderChanged(path);
  record->fd = std::exchange(opened.fd, -1);
  record->locks.open(record->fd, record->path);
  enter(record.get());
  *out = static_cast<File>(reinterpret_cast<std::uintptr_t>(record.release()));
  return 0;
}

SystemCode closeFile(File file) {
  if (file == File::none) return 0;
  FileRecord* record = recordOf(file);
  SystemCode result = 0;
  leave(record);
  if (record->window != nullptr) munmap(record->window, record->windowSize);
  record->locks.close(record->fd < 0);
  if (record->fd >= 0 && close(record->fd) != 0) result = lastCode();
  delete record;
  return result;
}

void bindLocks(File file, LocksFile lockFile) {
  if (FileRecord* record = usable(file); record != nullptr) record->locks.bind(areaOf(lockFile));
}

void lockUnderAllNames(File file) {
  if (FileRecord* record = usable(file); record != nullptr) record->locks.bindUnderAllNames();
}

SystemCode readFile(File file, std::uint64_t position, void* buffer, std::uint32_t length,
                    std::uint32_t* transferred) {
  *transferred = 0;
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  return readRecord(record, position, buffer, length, transferred);
}

namespace {

/// Where files have their headers. A process can be killed in the midst of a copy, but not in that
/// of a system call that writes within a page.
constexpr std::uint64_t kHeaders = 512;

SystemCode writeRecord(File file, std::uint64_t position, const void* buffer, std::uint32_t length,
                       std::uint32_t* transferred, bool inOrder) {
  *transferred = 0;
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
#ifdef ZELTA_FAULTS
  const Asked asked = ask(Call::write, record->path, position, length, buffer);
  if (asked.code != 0 && asked.cut >= length) return asked.code;
  if (asked.cut < length) length = static_cast<std::uint32_t>(asked.cut);
#endif
  if (record->locks.refuse(position, length)) return code::kLockViolation;
  SystemCode result = 0;
  const bool inWindow = length <= record->writable && position <= record->writable - length;
  if (inWindow && (inOrder || position >= kHeaders)) {
    if (inOrder) {
      copyInOrder(record->window + position, buffer, length);
    } else {
      std::memcpy(record->window + position, buffer, length);
    }
    *transferred = length;
#ifdef ZELTA_FAULTS
    uncountCall();
#endif
  } else {
    result = extendFile(record, position, buffer, length, transferred);
  }
#ifdef ZELTA_FAULTS
  if (asked.die) dieNow();
  if (asked.code != 0) return asked.code;
#endif
  return result;
}

}  // namespace

SystemCode writeFile(File file, std::uint64_t position, const void* buffer, std::uint32_t length,
                     std::uint32_t* transferred) {
  return writeRecord(file, position, buffer, length, transferred, false);
}

SystemCode writeInOrder(File file, std::uint64_t position, const void* buffer, std::uint32_t length,
                        std::uint32_t* transferred) {
  return writeRecord(file, position, buffer, length, transferred, true);
}

void beginStable(File file, std::uint64_t window, std::uint64_t version) {
  FileRecord* record = file == File::none ? nullptr : usable(file);
  if (record == nullptr) return;
  record->stable = true;
  const bool mapped = mapWindow(record, window);
  if (mapped && version != 0 && record->version == version) {
    return noteSize(record, record->size, record->holes);
  }
#ifdef ZELTA_FAULTS
  countCall();
#endif
  constexpr std::uint64_t kBlock = 512;  // the unit of st_blocks
  struct stat info {};
  if (!mapped || fstat(record->fd, &info) != 0) {
    endStable(file);
    return;
  }
  record->version = version;
  const auto size = static_cast<std::uint64_t>(info.st_size);
  noteSize(record, size, static_cast<std::uint64_t>(info.st_blocks) * kBlock < size);
}

bool endStable(File file) {
  FileRecord* record = file == File::none ? nullptr : usable(file);
  if (record == nullptr) return false;
  record->stable = false;
  record->readable = 0;
  record->writable = 0;
  return std::exchange(record->resized, false);
}

namespace {

SystemCode viewRecord(FileRecord* record, std::uint64_t position, std::uint32_t length,
                      const char** bytes) {
  if (length > record->readable || position > record->readable - length) return 0;
#ifdef ZELTA_FAULTS
  const Asked asked = ask(Call::read, record->path, position, length);
  if (asked.code != 0) return asked.code;
  uncountCall();
  if (asked.cut < length) return 0;
#endif
  if (record->locks.refuse(position, length)) return code::kLockViolation;
  *bytes = record->window + position;
  return 0;
}

}  // namespace

SystemCode viewFile(File file, std::uint64_t position, std::uint32_t length, const char** bytes) {
  *bytes = nullptr;
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  return record->stable ? viewRecord(record, position, length, bytes) : 0;
}

SystemCode peekFile(File file, std::uint64_t position, std::uint32_t length, const char** bytes) {
  *bytes = nullptr;
  FileRecord* record = usable(file);
  return record == nullptr ? code::kInvalidHandle : viewRecord(record, position, length, bytes);
}

void serveReads(File file, std::uint64_t window) {
  if (FileRecord* record = usable(file); record != nullptr) record->readWindow = window;
}

SystemCode fileSize(File file, std::uint64_t* size) {
  *size = 0;
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  if (record->stable && record->window != nullptr) {
    *size = record->size;
    return 0;
  }
  struct stat info {};
  if (fstat(record->fd, &info) != 0) return lastCode();
  *size = static_cast<std::uint64_t>(info.st_size);
  return 0;
}

SystemCode setFileSize(File file, std::uint64_t size) {
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(truncate, record->path, size);
  const bool shorter = !record->stable || size < record->size;
  const bool alone = shorter && !record->keepsLength && lockLength(record, F_WRLCK);
  if (shorter && !alone) {
    struct stat info {};
    if (fstat(record->fd, &info) != 0) return lastCode();
    if (static_cast<std::uint64_t>(info.st_size) >= size) return 0;
  }
  int failure = 0;
  while (ftruncate(record->fd, static_cast<off_t>(size)) != 0) {
    if (errno != EINTR) {
      failure = errno;
      break;
    }
  }
  if (alone) static_cast<void>(lockLength(record, F_UNLCK));
  if (failure != 0) return codeOf(failure);
  noteChange(record, size, size > record->size);
  return 0;
}

SystemCode flushFile(File file) {
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(flush, record->path);
  if (fdatasync(record->fd) != 0) return lastCode();
  return syncFolder(record->path);
}

SystemCode lastWriteTime(File file, std::uint64_t* time) {
  constexpr std::uint64_t kUnixEpoch = 116444736000000000;
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  struct stat info {};
  if (fstat(record->fd, &info) != 0) return lastCode();
  *time = kUnixEpoch + static_cast<std::uint64_t>(info.st_mtim.tv_sec) * 10000000 +
          static_cast<std::uint64_t>(info.st_mtim.tv_nsec) / 100;
  return 0;
}

bool isNamed(File file, const char16_t* name) {
  FileRecord* record = usable(file);
  if (record == nullptr) return false;
  struct stat mine {};
  struct stat named {};
  return fstat(record->fd, &mine) == 0 && stat(pathOf(name).c_str(), &named) == 0 &&
         mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

SystemCode deleteFile(const char16_t* name) {
  const std::string path = pathOf(name);
  ZELTA_ASK(remove, path);
  if (unlink(path.c_str()) != 0) return nameFailure(path);
  folderChanged(path);
  return 0;
}

void discardFile(const char16_t* name) noexcept {
  try {
    static_cast<void>(deleteFile(name));
  } catch (const std::bad_alloc&) {
    char path[PATH_MAX];
    if (narrowInto(name, path, sizeof path)) unlink(path);
  }
}

SystemCode moveFile(const char16_t* from, const char16_t* to) {
  const std::string source = pathOf(from);
  const std::string target = pathOf(to);
  ZELTA_ASK(rename, source);
  if (renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) != 0) {
    if (errno == EEXIST) return code::kAlreadyExists;
    if (errno != ENOENT) return lastCode();
    struct stat info {};
    return stat(source.c_str(), &info) != 0 ? missing(source) : missing(target);
  }
  folderChanged(source);
  folderChanged(target);
  return 0;
}

SystemCode fileExists(const char16_t* name) {
  const std::string path = pathOf(name);
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) return 0;
  // A folder "x/" is missing as a file is: its own folder is what counts.
  std::string bare = path;
  while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
  return nameFailure(bare);
}

SystemCode createFolder(const char16_t* name) {
  const std::string path = pathOf(name);
  ZELTA_ASK(createFolder, path);
  if (mkdir(path.c_str(), 0777) != 0) {
    return errno == EEXIST ? code::kAlreadyExists : nameFailure(path);
  }
  folderChanged(path);
  return 0;
}

SystemCode lockWord(File file, LockWord word) {
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(lock, record->path, word.position, 4);
  return record->locks.lock(word);
}

SystemCode unlockWord(File file, LockWord word) {
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  ZELTA_ASK(unlock, record->path, word.position, 4);
  return record->locks.unlock(word);
}

SystemCode readLockable(File file, LockWord word, std::uint64_t position, void* buffer,
                        std::uint32_t length, std::uint32_t* transferred) {
  *transferred = 0;
  FileRecord* record = usable(file);
  if (record == nullptr) return code::kInvalidHandle;
  if (const SystemCode failure = record->locks.askFor(word); failure != 0) return failure;
  return readRecord(record, position, buffer, length, transferred);
}

}  // namespace zelta::platform

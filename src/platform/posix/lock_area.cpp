#include "platform/posix/lock_area.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "platform/posix/posix_internal.h"
#include "platform/posix/writers.h"

namespace zelta::platform {

namespace posix {

namespace {

constexpr off_t kGuardByte = off_t{1} << 32;
constexpr off_t kUsersByte = kGuardByte + 1;
constexpr off_t kFirstClaimByte = off_t{1} << 33;
constexpr off_t kFirstUseByte = off_t{1} << 34;
/// The regions of so many records fit in a file's offsets.
constexpr std::uint32_t kMostRecords = 1u << 20;

constexpr std::size_t kPage = 4096;
constexpr std::size_t kPageHead = 256;
constexpr std::uint32_t kRecordsPerPage = (kPage - kPageHead) / sizeof(LockRecord);
static_assert(sizeof(LockRecord) == 320 && kRecordsPerPage == 12);

/// How long to wait for the guard (ms), and for a file that cannot be opened yet because its maker
/// has not let others in.
constexpr std::uint32_t kGuardPatience = 30000;
constexpr std::uint32_t kMakerPatience = 1000;

/// What the first page begins with; the others have nothing there.
struct Head {
  std::uint32_t magic;
  std::uint32_t version;
  /// The name space that the users' process numbers belong to. Those of different ones would take
  /// each other's threads for their own.
  std::uint64_t processes;
};
constexpr std::uint32_t kMagic = 0x4B4C5A5A;  // "ZZLK"
constexpr std::uint32_t kVersion = 1;

std::uint64_t processSpace() {
  struct stat info {};
  return stat("/proc/self/ns/pid", &info) == 0 ? info.st_ino : 0;
}

class Deadline {
 public:
  explicit Deadline(std::uint32_t milliseconds) : end_(now() + milliseconds) {}
  [[nodiscard]] bool passed() const { return now() >= end_; }
  /// Waits a little before the next attempt, longer from time to time.
  void pause() {
    const timespec length{0, std::min(++pauses_, 20L) * 50000};
    nanosleep(&length, nullptr);
  }

 private:
  static std::uint64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000000;
  }
  std::uint64_t end_;
  long pauses_ = 0;
};

/// A run of pages that were mapped together.
struct Mapped {
  char* bytes;
  std::uint32_t firstPage;
  std::uint32_t pages;
};

/// All areas of the process. The mutex guards them, their uses and their lent files.
std::mutex areasMutex;
std::set<LockArea*>& areas() {
  static auto* all = new std::set<LockArea*>;
  return *all;
}

}  // namespace

RecordUse::RecordUse(LockArea* a, std::string n) : area(a), name(std::move(n)), process(getpid()) {}

class LockArea {
 public:
  explicit LockArea(std::string path) : path_(std::move(path)) { spare_.reserve(kMostSpare); }
  ~LockArea() { closeFile(); }
  LockArea(const LockArea&) = delete;
  LockArea& operator=(const LockArea&) = delete;

  SystemCode join(const Writers& writers);
  /// Leaves the file, and removes it if nobody else uses it.
  void leave();
  [[nodiscard]] bool isOf(const struct stat& info) const {
    return info.st_dev == device_ && info.st_ino == inode_;
  }
  [[nodiscard]] bool usable() const { return fd_ >= 0; }
  [[nodiscard]] int file() const { return fd_; }
  /// A thread of this process may own a mutex of it.
  [[nodiscard]] bool ownsAny() const;

  SystemCode use(const std::string& name, RecordUse** out);
  void drop(RecordUse* recordUse);
  SystemCode acquireDescriptor(int* fd);
  void releaseDescriptor(int fd);
  /// In a forked child.
  void abandon();

  int references = 1;

 private:
  SystemCode open(const Writers& writers, const Deadline& maker);
  SystemCode make(const Writers& writers);
  SystemCode makeInPlace(const Writers& writers);
  SystemCode lockGuard(Deadline& end);
  /// Holds the guard's byte until the end of the scope, unless it could not be had.
  struct Guard {
    Guard(LockArea& area, Deadline& end) : failure(area.lockGuard(end)), area_(area) {}
    ~Guard() {
      if (failure == 0) static_cast<void>(lockByte(area_.fd_, kGuardByte, F_UNLCK));
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    const SystemCode failure;

   private:
    LockArea& area_;
  };
  [[nodiscard]] bool isNamed() const;
  [[nodiscard]] bool giveNameUp();
  [[nodiscard]] bool isAlone();
  SystemCode enterOrRemove(const Writers& writers);
  SystemCode enter(const Writers& writers);
  SystemCode begin(const Writers& writers);
  SystemCode begin(RecordUse& use);
  SystemCode grow(std::uint32_t pages);
  SystemCode mapPages();
  void closeFile();
  LockRecord& record(std::uint32_t index);
  std::uint32_t findRecord(const std::string& name);
  SystemCode takeRecord(const std::string& name, std::uint32_t* index);
  void freeIdleRecords();

  /// Uses that no handle has are kept for the next one, so many at most.
  static constexpr int kMostIdle = 256;
  static constexpr std::size_t kMostSpare = 16;

  /// Where the open file comes from. One that was made in place can have users before its maker.
  enum class Made { byOthers, inPlace, complete };

  const std::string path_;
  int fd_ = -1;
  Made made_ = Made::byOthers;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::vector<Mapped> mapped_;
  std::uint32_t pages_ = 0;
  std::map<std::string, std::unique_ptr<RecordUse>> uses_;
  int idle_ = 0;
  std::set<int> lent_;
  std::vector<int> spare_;
};

SystemCode lockByte(int fd, off_t byte, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = byte;
  range.l_len = 1;
  while (fcntl(fd, F_OFD_SETLK, &range) != 0) {
    if (errno == EINTR) continue;
    return errno == EACCES ? code::kLockViolation : lastCode();
  }
  return 0;
}

/// Gives up the locks of an open file by name. To close it may not do, since a process that was
/// forked a moment ago can share it yet.
bool dropLocks(int fd) {
  struct flock all {};
  all.l_type = F_UNLCK;
  all.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &all) == 0;
}

// -- Joining and leaving --------------------------------------------------------------------------

constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

/// Opens the file, or makes it. `fd_` -1 without a failure: it came or went meanwhile, or its maker
/// has yet to let others in.
SystemCode LockArea::open(const Writers& writers, const Deadline& maker) {
  made_ = Made::byOthers;
  fd_ = ::open(path_.c_str(), kFlags);
  if (fd_ < 0) {
    if (errno == EACCES && !maker.passed()) return 0;
    if (errno == ELOOP) return code::kAccessDenied;  // a symbolic link
    if (errno != ENOENT) return lastCode();
    if (const SystemCode failure = make(writers); failure != 0 || fd_ < 0) return failure;
  }
  struct stat info {};
  if (fstat(fd_, &info) != 0) return lastCode();
  if (!writers.accountFor(info)) return code::kAccessDenied;
  device_ = info.st_dev;
  inode_ = info.st_ino;
  return 0;
}

/// Makes the file, which gets its name when all can use it and its maker does: who is killed on the
/// way leaves nothing, and nobody meets half of it. `fd_` -1: somebody else was faster.
SystemCode LockArea::make(const Writers& writers) {
  const std::string folder = path_.substr(0, path_.rfind('/') + 1);
  fd_ = ::open(folder.empty() ? "." : folder.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600);
  if (fd_ < 0) return makeInPlace(writers);
  SystemCode failure = begin(writers);
  if (failure == 0) failure = lockByte(fd_, kUsersByte, F_RDLCK);
  if (failure != 0) return failure;
  const std::string itself = "/proc/self/fd/" + std::to_string(fd_);
  if (linkat(AT_FDCWD, itself.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) == 0) {
    made_ = Made::complete;
    return 0;
  }
  const bool late = errno == EEXIST;
  closeFile();
  return late ? 0 : makeInPlace(writers);
}

/// For a file system that has no files without names.
SystemCode LockArea::makeInPlace(const Writers& writers) {
  fd_ = ::open(path_.c_str(), kFlags | O_CREAT | O_EXCL, writers.mode());
  if (fd_ < 0) return errno == EEXIST ? 0 : lastCode();
  made_ = Made::inPlace;
  try {
    writers.admitTo(fd_);
  } catch (const std::bad_alloc&) {
    // Its first user tries again.
  }
  return 0;
}

SystemCode LockArea::lockGuard(Deadline& end) {
  for (;;) {
    const SystemCode failure = lockByte(fd_, kGuardByte, F_WRLCK);
    if (failure != code::kLockViolation) return failure;
    if (end.passed()) return code::kTimeout;
    end.pause();
  }
}

/// Whether the file is the one of its name still.
bool LockArea::isNamed() const {
  struct stat named {};
  return lstat(path_.c_str(), &named) == 0 && isOf(named);
}

SystemCode LockArea::join(const Writers& writers) {
  const Deadline maker(kMakerPatience);
  Deadline end(kGuardPatience);
  while (!end.passed()) {
    if (const SystemCode failure = open(writers, maker); failure != 0) return failure;
    if (made_ == Made::complete) return 0;
    if (fd_ < 0) {
      end.pause();
      continue;
    }
    {
      const Guard guard(*this, end);
      if (guard.failure != 0) return guard.failure;
      if (isNamed() && !giveNameUp()) return enterOrRemove(writers);
    }
    closeFile();  // it was removed meanwhile
  }
  return code::kTimeout;
}

/// Under the guard. A file with a second name may be somebody's own that was linked here to be made
/// anew, or taken away. If it has no users it loses this name and stays as it is.
bool LockArea::giveNameUp() {
  struct stat info {};
  return made_ == Made::byOthers && fstat(fd_, &info) == 0 && info.st_nlink > 1 && isAlone() &&
         unlink(path_.c_str()) == 0;
}

/// Under the guard: whether it has no other user.
bool LockArea::isAlone() { return lockByte(fd_, kUsersByte, F_WRLCK) == 0; }

/// Under the guard.
SystemCode LockArea::enterOrRemove(const Writers& writers) {
  SystemCode failure = code::kNoMemory;
  try {
    failure = enter(writers);
  } catch (const std::bad_alloc&) {
  }
  // Somebody else may use what this process made.
  if (failure != 0 && made_ == Made::inPlace && isAlone()) unlink(path_.c_str());
  return failure;
}

/// Under the guard.
SystemCode LockArea::enter(const Writers& writers) {
  SystemCode failure = lockByte(fd_, kUsersByte, F_WRLCK);
  const bool first = failure == 0;
  if (first) failure = begin(writers);
  if (failure != 0 && (first || failure != code::kLockViolation)) return failure;
  failure = lockByte(fd_, kUsersByte, F_RDLCK);
  if (failure == 0 && !first) failure = mapPages();
  if (failure != 0) return failure;
  Head head{};
  std::memcpy(&head, mapped_.front().bytes, sizeof head);
  const bool shared =
      head.magic == kMagic && head.version == kVersion && head.processes == processSpace();
  return shared ? 0 : code::kSharingViolation;
}

/// Makes the file as it is at first, for it has no users.
SystemCode LockArea::begin(const Writers& writers) {
  struct stat info {};
  if (fstat(fd_, &info) != 0) return lastCode();
  if (info.st_nlink > 1) return code::kAccessDenied;  // and its name could not be given up
  writers.admitTo(fd_);
  if (ftruncate(fd_, 0) != 0) return lastCode();
  if (const SystemCode failure = grow(1); failure != 0) return failure;
  const Head head{kMagic, kVersion, processSpace()};
  std::memcpy(mapped_.front().bytes, &head, sizeof head);
  return 0;
}

/// Extends the file, so that no touch of its pages can meet a full disk.
SystemCode LockArea::grow(std::uint32_t pages) {
  const auto start = static_cast<off_t>(pages_ * kPage);
  int error = EINTR;
  while (error == EINTR) {
    error = posix_fallocate(fd_, start, static_cast<off_t>(pages * kPage));
  }
  return error != 0 ? codeOf(error) : mapPages();
}

/// Maps what the file has grown by.
SystemCode LockArea::mapPages() {
  struct stat info {};
  if (fstat(fd_, &info) != 0) return lastCode();
  const auto pages = static_cast<std::uint32_t>(std::min<std::uint64_t>(
      static_cast<std::uint64_t>(info.st_size) / kPage, kMostRecords / kRecordsPerPage));
  if (pages <= pages_) return pages_ == 0 ? code::kSharingViolation : 0;
  const std::size_t length = (pages - pages_) * kPage;
  mapped_.reserve(mapped_.size() + 1);
  void* memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd_,
                      static_cast<off_t>(pages_ * kPage));
  if (memory == MAP_FAILED) return lastCode();
  mapped_.push_back({static_cast<char*>(memory), pages_, pages - pages_});
  pages_ = pages;
  return 0;
}

void LockArea::closeFile() {
  for (const Mapped& run : mapped_) munmap(run.bytes, run.pages * kPage);
  mapped_.clear();
  pages_ = 0;
  for (const int fd : spare_) close(fd);
  spare_.clear();
  if (fd_ >= 0) {
    static_cast<void>(dropLocks(fd_));
    close(fd_);
  }
  fd_ = -1;
}

void LockArea::leave() {
  Deadline end(kGuardPatience);
  if (lockGuard(end) == 0 && isAlone() && isNamed()) {
    unlink(path_.c_str());
  }
  closeFile();
}

void LockArea::abandon() {
  for (const int fd : lent_) close(fd);
  for (const int fd : spare_) close(fd);
  lent_.clear();
  spare_.clear();
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

// -- Records --------------------------------------------------------------------------------------

LockRecord& LockArea::record(std::uint32_t index) {
  const std::uint32_t page = index / kRecordsPerPage;
  const auto after = std::upper_bound(
      mapped_.begin(), mapped_.end(), page,
      [](std::uint32_t wanted, const Mapped& run) { return wanted < run.firstPage; });
  const Mapped& run = *(after - 1);
  char* bytes = run.bytes + (page - run.firstPage) * kPage + kPageHead +
                index % kRecordsPerPage * sizeof(LockRecord);
  return *reinterpret_cast<LockRecord*>(bytes);
}

/// Frees the records that no process uses. Under the guard.
void LockArea::freeIdleRecords() {
  std::vector<bool> mine(pages_ * kRecordsPerPage);
  for (const auto& [name, use] : uses_) {
    mine[use->index] = true;
  }
  for (std::uint32_t i = 0; i < mine.size(); ++i) {
    if (mine[i] || lockByte(fd_, kFirstUseByte + i, F_WRLCK) != 0) continue;
    static_cast<void>(lockByte(fd_, kFirstUseByte + i, F_UNLCK));
    record(i).used = 0;
  }
}

/// The record of a name, or else a free one; kMostRecords: there is neither.
std::uint32_t LockArea::findRecord(const std::string& name) {
  std::uint32_t free = kMostRecords;
  for (std::uint32_t i = 0; i < pages_ * kRecordsPerPage; ++i) {
    const LockRecord& one = record(i);
    if (one.used == 0) {
      free = std::min(free, i);
    } else if (one.nameLength == name.size() &&
               std::memcmp(one.name, name.data(), name.size()) == 0) {
      return i;
    }
  }
  return free;
}

bool initialise(LockRecord& record, const std::string& name) {
  std::memset(static_cast<void*>(&record), 0, sizeof record);
  pthread_mutexattr_t attributes;
  if (pthread_mutexattr_init(&attributes) != 0) return false;
  const bool done = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                    pthread_mutex_init(&record.mutex, &attributes) == 0;
  pthread_mutexattr_destroy(&attributes);
  std::memcpy(record.name, name.data(), name.size());
  record.nameLength = static_cast<std::uint32_t>(name.size());
  record.lengths = 1;
  record.used = done ? 1 : 0;
  return done;
}

/// Under the guard.
SystemCode LockArea::takeRecord(const std::string& name, std::uint32_t* index) {
  if (const SystemCode failure = mapPages(); failure != 0) return failure;
  *index = findRecord(name);
  if (*index == kMostRecords) {
    freeIdleRecords();
    *index = findRecord(name);
  }
  if (*index == kMostRecords) {
    *index = pages_ * kRecordsPerPage;
    // In growing steps, since each takes a look at all records.
    const std::uint32_t more = 1 + pages_ / 4;
    if (*index + more * kRecordsPerPage > kMostRecords) return code::kNoMemory;
    if (const SystemCode failure = grow(more); failure != 0) return failure;
  }
  LockRecord& one = record(*index);
  if (one.used == 0 && !initialise(one, name)) return code::kNoMemory;
  return lockByte(fd_, kFirstUseByte + *index, F_RDLCK);
}

/// Joins a record. What is thrown for want of memory leaves the area as it was.
SystemCode LockArea::begin(RecordUse& use) {
  Deadline end(kGuardPatience);
  const Guard guard(*this, end);
  if (guard.failure != 0) return guard.failure;
  if (const SystemCode failure = takeRecord(use.name, &use.index); failure != 0) return failure;
  use.record = &record(use.index);
  return 0;
}

SystemCode LockArea::use(const std::string& name, RecordUse** out) {
  if (!usable()) return code::kInvalidHandle;
  if (name.size() > sizeof(LockRecord::name)) return code::kNameTooLong;
  auto place = uses_.find(name);
  if (place == uses_.end()) {
    auto made = std::make_unique<RecordUse>(this, name);
    if (const SystemCode failure = begin(*made); failure != 0) return failure;
    try {
      place = uses_.emplace(name, std::move(made)).first;
    } catch (...) {
      static_cast<void>(lockByte(fd_, kFirstUseByte + made->index, F_UNLCK));
      throw;
    }
    ++idle_;
  }
  *out = place->second.get();
  if ((*out)->handles++ == 0) --idle_;
  return 0;
}

void LockArea::drop(RecordUse* use) {
  if (--use->handles > 0) return;
  ++idle_;
  if (!usable() || use->owned > 0 || idle_ <= kMostIdle) return;
  static_cast<void>(lockByte(fd_, kFirstUseByte + use->index, F_UNLCK));
  --idle_;
  uses_.erase(uses_.find(use->name));
}

bool LockArea::ownsAny() const {
  return std::any_of(uses_.begin(), uses_.end(),
                     [](const auto& use) { return use.second->owned > 0; });
}

// -- Open files for locks -------------------------------------------------------------------------

SystemCode LockArea::acquireDescriptor(int* fd) {
  if (!usable()) return code::kInvalidHandle;
  if (!spare_.empty()) {
    *fd = spare_.back();
    lent_.insert(*fd);  // all that can fail
    spare_.pop_back();
    return 0;
  }
  *fd = ::open(path_.c_str(), kFlags);
  if (*fd < 0) return lastCode();
  struct stat info {};
  SystemCode failure = fstat(*fd, &info) == 0 ? 0 : lastCode();
  // It cannot go from under its name while it has users, unless somebody removes it by hand.
  if (failure == 0 && !isOf(info)) failure = code::kSharingViolation;
  if (failure != 0) {
    close(*fd);
    return failure;
  }
  try {
    lent_.insert(*fd);
  } catch (...) {
    close(*fd);
    throw;
  }
  return 0;
}

void LockArea::releaseDescriptor(int fd) {
  if (lent_.erase(fd) == 0) return;  // closed in a forked child
  if (!dropLocks(fd) || spare_.size() == spare_.capacity()) {
    close(fd);
  } else {
    spare_.push_back(fd);
  }
}

// -- What others call -----------------------------------------------------------------------------

namespace {

void closeInChild() {
  for (LockArea* area : areas()) area->abandon();
  areas().clear();  // handles of the parent may point to them
  areasMutex.unlock();
}

bool registerForkHandler() {
  static const int failure =
      pthread_atfork([] { areasMutex.lock(); }, [] { areasMutex.unlock(); }, closeInChild);
  return failure == 0;
}

/// While the library is loaded: a fork may fall into the first use of a file by another thread.
[[maybe_unused]] const bool registeredAtLoad = registerForkHandler();

LockArea* findArea(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return nullptr;
  for (LockArea* area : areas()) {
    if (area->isOf(info)) return area;
  }
  return nullptr;
}

/// The guarded file must be there for the caller to write, since he shall not make what others
/// could not trust.
SystemCode readWriters(const std::string& guarded, Writers* writers) {
  if (faccessat(AT_FDCWD, guarded.c_str(), R_OK | W_OK, AT_EACCESS) != 0) return lastCode();
  return writers->read(guarded);
}

void release(LockArea* area) {
  if (--area->references > 0 || !area->usable() || area->ownsAny()) return;
  area->leave();
  areas().erase(area);
  delete area;
}

}  // namespace

LockArea* areaOf(LocksFile lockFile) {
  return reinterpret_cast<LockArea*>(static_cast<std::uintptr_t>(lockFile));
}

void holdArea(LockArea* area) {
  const std::lock_guard guard(areasMutex);
  ++area->references;
}

void releaseArea(LockArea* area) {
  const std::lock_guard guard(areasMutex);
  release(area);
}

bool isUsable(const LockArea* area) { return area->usable(); }

SystemCode useRecord(LockArea* area, const std::string& name, RecordUse** out) {
  const std::lock_guard guard(areasMutex);
  const SystemCode failure = area->use(name, out);
  if (failure == 0) ++area->references;
  return failure;
}

void leaveRecord(RecordUse* use) {
  const std::lock_guard guard(areasMutex);
  LockArea* area = use->area;
  area->drop(use);
  release(area);
}

SystemCode lendLockFile(LockArea* area, int* fd) {
  const std::lock_guard guard(areasMutex);
  return area->acquireDescriptor(fd);
}

void giveLockFileBack(LockArea* area, int fd) {
  const std::lock_guard guard(areasMutex);
  area->releaseDescriptor(fd);
}

int askingFile(const LockArea* area) { return area->file(); }

off_t claimByteOf(const RecordUse& use) { return kFirstClaimByte + use.index; }

}  // namespace posix

using namespace posix;

SystemCode openLockFile(const char16_t* name, const char16_t* guarded, LocksFile* out) {
  *out = LocksFile::none;
  const std::string path = pathOf(name);
  ZELTA_ASK(mutexCreate, path);
  registerForkHandler();
  Writers writers;
  if (const SystemCode failure = readWriters(pathOf(guarded), &writers); failure != 0) {
    return failure;
  }
  const std::lock_guard guard(areasMutex);
  LockArea* area = findArea(path);
  if (area != nullptr) {
    ++area->references;
  } else {
    auto made = std::make_unique<LockArea>(path);
    if (const SystemCode failure = made->join(writers); failure != 0) return failure;
    try {
      areas().insert(made.get());
    } catch (...) {
      made->leave();
      throw;
    }
    area = made.release();
  }
  *out = static_cast<LocksFile>(reinterpret_cast<std::uintptr_t>(area));
  return 0;
}

void closeLockFile(LocksFile lockFile) {
  if (lockFile != LocksFile::none) releaseArea(areaOf(lockFile));
}

}  // namespace zelta::platform

#include "platform/posix/word_locks.h"

#include <cerrno>
#include <new>

#include "platform/faults.h"
#include "platform/posix/posix_internal.h"

namespace zelta::platform::posix {

namespace {

/// Where the locks of numbered words lie.
constexpr std::uint64_t kOrdinalBase = std::uint64_t{1} << 62;
/// Locked by whoever needs the file to keep its length.
constexpr LockWord kLengthWord{kOrdinalBase - 8};

#ifdef ZELTA_FAULTS
bool strict() { return faults::strictLocks(); }
#else
constexpr bool strict() { return false; }
#endif

bool isNumbered(LockWord word) { return !strict() && word.ordinal != 0; }

std::uint64_t placeOf(LockWord word) {
  return isNumbered(word) ? kOrdinalBase + (word.ordinal & (kOrdinalBase - 1)) : word.position;
}

struct flock rangeOf(std::uint64_t start, LockWord word, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(start);
  range.l_len = isNumbered(word) ? 1 : 4;
  return range;
}

SystemCode lockRange(int fd, struct flock range) {
  while (fcntl(fd, F_OFD_SETLK, &range) != 0) {
    if (errno == EINTR) continue;
    return errno == EACCES ? code::kLockViolation : lastCode();
  }
  return 0;
}

/// Code 33 if another open file has a lock that excludes this one.
SystemCode askForRange(int fd, struct flock range) {
  if (fcntl(fd, F_OFD_GETLK, &range) != 0) return lastCode();
  return range.l_type == F_UNLCK ? 0 : code::kLockViolation;
}

}  // namespace

void WordLocks::open(int fd, const std::string& path) {
  fd_ = fd;
  path_ = &path;
}

void WordLocks::close(bool inherited) {
  if (!inherited && (area_ == nullptr || underAllNames_) && (!held_.empty() || lengthLocked_)) {
    // A child that was forked before its handler ran may share the open file: unlock by name.
    struct flock all {};
    all.l_type = F_UNLCK;
    all.l_whence = SEEK_SET;
    fcntl(fd_, F_OFD_SETLK, &all);
  }
  if (inherited || area_ == nullptr) return;
  if (lockFd_ >= 0) giveLockFileBack(area_, lockFd_);
  if (use_ != nullptr) leaveRecord(use_);
  releaseArea(area_);
}

void WordLocks::bind(LockArea* area) {
  if (area == nullptr || area_ != nullptr) return;
  area_ = area;
  holdArea(area);
}

/// The file's record in the area, before any look at a lock.
SystemCode WordLocks::findRecord() {
  if (area_ == nullptr || use_ != nullptr) return 0;
  return useRecord(area_, path_->substr(path_->rfind('/') + 1), &use_);
}

/// The open file that the locks belong to, before any lock.
SystemCode WordLocks::findFile() {
  if (lockFd_ >= 0) return 0;
  if (area_ != nullptr) return lendLockFile(area_, &lockFd_);
  lockFd_ = fd_;
  return 0;
}

/// Where a word's lock lies.
std::uint64_t WordLocks::startOf(LockWord word) const {
  constexpr std::uint64_t kHalf = kRegion / 2;  // for words, and for numbered ones
  const std::uint64_t place = placeOf(word);
  if (use_ == nullptr) return place;
  return regionOf(*use_) + (place & (kHalf - 1)) + (isNumbered(word) ? kHalf : 0);
}

/// An open file to ask for others' locks through.
int WordLocks::askingFd() const {
  if (lockFd_ >= 0) return lockFd_;
  return area_ == nullptr ? fd_ : askingFile(area_);
}

/// Whether another handle has locked a word of the file itself, under whatever name it was opened.
/// A lock that a mere reader can place does not count.
SystemCode WordLocks::askUnderAllNames(LockWord word) const {
  return askForRange(fd_, rangeOf(placeOf(word), word, F_RDLCK));
}

SystemCode WordLocks::setUnderAllNames(LockWord word, short type) const {
  const SystemCode failure = lockRange(fd_, rangeOf(placeOf(word), word, type));
  return failure == code::kLockViolation ? askUnderAllNames(word) : failure;
}

SystemCode WordLocks::set(LockWord word, short type) {
  const SystemCode failure = lockRange(lockFd_, rangeOf(startOf(word), word, type));
  if (failure != 0 || !underAllNames_) return failure;
  const SystemCode second = setUnderAllNames(word, type);
  if (second != 0) {
    static_cast<void>(lockRange(lockFd_, rangeOf(startOf(word), word, F_UNLCK)));
  }
  return second;
}

SystemCode WordLocks::lock(LockWord word) {
  SystemCode failure = findRecord();
  if (failure == 0) failure = findFile();
  if (failure != 0) return failure;
  const auto [place, added] = held_.insert(placeOf(word));
  if (!added) return code::kLockViolation;
  failure = set(word, F_WRLCK);
  if (failure != 0) held_.erase(place);
  return failure;
}

SystemCode WordLocks::unlock(LockWord word) {
  if (held_.erase(placeOf(word)) == 0) return code::kNotLocked;
  return set(word, F_UNLCK);
}

SystemCode WordLocks::askFor(LockWord word) {
  if (held_.find(placeOf(word)) != held_.end()) return 0;
  SystemCode failure = findRecord();
  if (failure == 0) failure = askForRange(askingFd(), rangeOf(startOf(word), word, F_WRLCK));
  if (failure == 0 && underAllNames_) failure = askUnderAllNames(word);
  return failure;
}

bool WordLocks::setLength(short type) noexcept {
  try {
    if (findRecord() != 0 || findFile() != 0) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (lockRange(lockFd_, rangeOf(startOf(kLengthWord), kLengthWord, type)) != 0) return false;
  lengthLocked_ = type != F_UNLCK;
  return true;
}

bool WordLocks::refuse(std::uint64_t position, std::uint32_t length) {
  if (!strict() || length == 0 || findRecord() != 0) return false;
  struct flock range = rangeOf(startOf({position}), {position}, F_RDLCK);
  range.l_len = length;
  return askForRange(askingFd(), range) != 0;
}

}  // namespace zelta::platform::posix

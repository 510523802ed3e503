// The locks of words of an open file: open-file-description locks, on the file itself or on a lock
// file (lock_area.h).
//
// POSIX record locks will not do: they belong to the process, so that two handles of one process do
// not exclude each other, and any close of the file drops them all. F_OFD locks belong to the open
// file, as a handle's locks should. What they lack is made up for here:
//  - They are advisory: a read that may meet a locked word has to ask first.
//  - A second lock of a range through one handle succeeds. The handle keeps the set of what it
//    holds.
//  - Whoever may read a file may lock it for reading, which holds up those who lock it to write. So
//    the locks of a bound file lie on a lock file that none but its writers can open.
//  - The kernel keeps the locks of a file in a list, so that scattered locks cost more with each
//    one held. Words that are locked in large numbers have theirs side by side, far behind any
//    file's end, where the kernel joins neighbours.

#ifndef ZELTA_PLATFORM_POSIX_WORD_LOCKS_H
#define ZELTA_PLATFORM_POSIX_WORD_LOCKS_H

#include <fcntl.h>

#include <cstdint>
#include <string>
#include <unordered_set>

#include "platform/codes.h"
#include "platform/file.h"
#include "platform/posix/lock_area.h"

namespace zelta::platform::posix {

class WordLocks {
 public:
  WordLocks() = default;
  ~WordLocks() = default;
  WordLocks(const WordLocks&) = delete;
  WordLocks& operator=(const WordLocks&) = delete;

  /// The open file whose words are locked, and its name. It stays the caller's.
  void open(int fd, const std::string& path);
  /// Gives up all locks. A handle that was inherited over a fork has none.
  void close(bool inherited);
  void bind(LockArea* area);
  void bindUnderAllNames() { underAllNames_ = area_ != nullptr; }

  /// Code 33: it is locked, be it through this very handle.
  [[nodiscard]] SystemCode lock(LockWord word);
  /// Code 158: this handle does not hold it.
  [[nodiscard]] SystemCode unlock(LockWord word);
  /// Code 33: another handle holds it.
  [[nodiscard]] SystemCode askFor(LockWord word);

  /// Locks or unlocks the word that stands for the file's length. What cannot be had, be it for
  /// want of memory, is not had.
  [[nodiscard]] bool setLength(short type) noexcept;

  /// Whether the build has others' locks stand in the way of a read or a write.
  [[nodiscard]] bool refuse(std::uint64_t position, std::uint32_t length);

 private:
  SystemCode findRecord();
  SystemCode findFile();
  [[nodiscard]] std::uint64_t startOf(LockWord word) const;
  [[nodiscard]] int askingFd() const;
  SystemCode set(LockWord word, short type);
  SystemCode setUnderAllNames(LockWord word, short type) const;
  [[nodiscard]] SystemCode askUnderAllNames(LockWord word) const;

  int fd_ = -1;
  const std::string* path_ = nullptr;
  std::unordered_set<std::uint64_t> held_;  ///< places of the locks that the handle holds
  LockArea* area_ = nullptr;                ///< where they lie, if not on the file itself
  RecordUse* use_ = nullptr;  ///< the file's record there, from the first look at a lock on
  int lockFd_ = -1;           ///< lent by the area, from the first lock on; else the file's own
  bool underAllNames_ = false;
  bool lengthLocked_ = false;
};

}  // namespace zelta::platform::posix

#endif  // ZELTA_PLATFORM_POSIX_WORD_LOCKS_H

// Who may write a file, by its owner, mode and access list.

#ifndef ZELTA_PLATFORM_POSIX_WRITERS_H
#define ZELTA_PLATFORM_POSIX_WRITERS_H

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/codes.h"

namespace zelta::platform::posix {

/// The users and groups that may read and write a file.
class Writers {
 public:
  /// Those of the file at `path`.
  [[nodiscard]] SystemCode read(const std::string& path);

  /// Whether a file of this owner, group and mode can only have been made, and can only be opened,
  /// by such as may write.
  [[nodiscard]] bool accountFor(const struct stat& info) const;
  /// Lets them all open a file that this process has made, and nobody else. What the system does
  /// not grant is left out.
  void admitTo(int fd) const;
  /// The mode to make such a file with.
  [[nodiscard]] mode_t mode() const;

 private:
  struct Entry;
  void addGroup(gid_t group) { groups_.push_back(group); }
  void readList(const std::string& list);
  [[nodiscard]] bool includesGroup(gid_t group) const;
  [[nodiscard]] std::string listFor(const struct stat& info) const;

  uid_t owner_ = 0;
  gid_t group_ = 0;
  bool ownerWrites_ = false;
  bool everybody_ = false;
  std::vector<uid_t> users_;
  std::vector<gid_t> groups_;
};

}  // namespace zelta::platform::posix

#endif  // ZELTA_PLATFORM_POSIX_WRITERS_H

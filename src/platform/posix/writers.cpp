#include "platform/posix/writers.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/posix/posix_internal.h"

namespace zelta::platform::posix {

namespace {

constexpr const char* kList = "system.posix_acl_access";
constexpr std::uint32_t kListVersion = 2;
constexpr std::uint16_t kReadWrite = 6;
constexpr std::uint32_t kNoId = 0xFFFFFFFF;

enum Tag : std::uint16_t {
  kOwner = 0x01,
  kUser = 0x02,
  kOwningGroup = 0x04,
  kGroup = 0x08,
  kMask = 0x10,
  kOthers = 0x20
};

bool writes(unsigned permissions) { return (permissions & kReadWrite) == kReadWrite; }

/// The file's access list as the kernel gives it out; empty if it has none beyond its mode.
std::string readList(const std::string& path) {
  std::string list(1024, '\0');
  for (;;) {
    const ssize_t length = getxattr(path.c_str(), kList, list.data(), list.size());
    if (length >= 0) {
      list.resize(static_cast<std::size_t>(length));
      return list;
    }
    constexpr std::size_t kLongest = 65536;  // of any attribute
    if (errno != ERANGE || list.size() >= kLongest) return {};
    list.resize(kLongest);
  }
}

}  // namespace

/// An entry of an access list; the list begins with a version of 4 bytes.
struct Writers::Entry {
  std::uint16_t tag;
  std::uint16_t permissions;
  std::uint32_t id;
};

SystemCode Writers::read(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return lastCode();
  *this = {};
  owner_ = info.st_uid;
  group_ = info.st_gid;
  ownerWrites_ = writes(info.st_mode >> 6);
  everybody_ = writes(info.st_mode);
  const std::string list = posix::readList(path);
  if (list.empty()) {
    if (writes(info.st_mode >> 3)) groups_.push_back(group_);
  } else {
    readList(list);
  }
  return 0;
}

void Writers::readList(const std::string& list) {
  std::vector<Entry> entries((list.size() - std::min(list.size(), sizeof kListVersion)) /
                             sizeof(Entry));
  std::memcpy(entries.data(), list.data() + sizeof kListVersion, entries.size() * sizeof(Entry));
  unsigned mask = kReadWrite;
  for (const Entry& entry : entries) {
    if (entry.tag == kMask) mask = entry.permissions;
  }
  for (const Entry& entry : entries) {
    if (!writes(entry.permissions & mask)) continue;
    if (entry.tag == kUser) users_.push_back(entry.id);
    if (entry.tag == kOwningGroup) groups_.push_back(group_);
    if (entry.tag == kGroup) groups_.push_back(entry.id);
  }
}

bool Writers::includesGroup(gid_t group) const {
  return std::find(groups_.begin(), groups_.end(), group) != groups_.end();
}

bool Writers::accountFor(const struct stat& info) const {
  if (!S_ISREG(info.st_mode)) return false;
  if (everybody_) return true;
  if ((info.st_mode & S_IWOTH) != 0) return false;
  const uid_t maker = info.st_uid;
  return maker == 0 || maker == geteuid() || (maker == owner_ && ownerWrites_) ||
         std::find(users_.begin(), users_.end(), maker) != users_.end() ||
         includesGroup(info.st_gid);
}

mode_t Writers::mode() const {
  return 0600u | (groups_.empty() && users_.empty() ? 0u : 0060u) | (everybody_ ? 0006u : 0u);
}

std::string Writers::listFor(const struct stat& info) const {
  std::vector<Entry> entries = {{kOwner, kReadWrite, kNoId}};
  std::vector<uid_t> users = users_;
  if (ownerWrites_) users.push_back(owner_);
  std::sort(users.begin(), users.end());
  for (const uid_t user : users) {
    if (user != info.st_uid && user != entries.back().id) {
      entries.push_back({kUser, kReadWrite, user});
    }
  }
  const std::size_t named = entries.size();
  entries.push_back(
      {kOwningGroup, includesGroup(info.st_gid) ? kReadWrite : std::uint16_t{0}, kNoId});
  std::vector<gid_t> groups = groups_;
  std::sort(groups.begin(), groups.end());
  for (const gid_t group : groups) {
    if (group != info.st_gid && group != entries.back().id) {
      entries.push_back({kGroup, kReadWrite, group});
    }
  }
  if (named == 1 && entries.size() == 2) return {};  // the mode says it all
  entries.push_back({kMask, kReadWrite, kNoId});
  entries.push_back({kOthers, everybody_ ? kReadWrite : std::uint16_t{0}, kNoId});
  std::string list(reinterpret_cast<const char*>(&kListVersion), sizeof kListVersion);
  list.append(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(Entry));
  return list;
}

void Writers::admitTo(int fd) const {
  struct stat info {};
  if (fstat(fd, &info) != 0) return;
  if (geteuid() == 0) {
    static_cast<void>(fchown(fd, owner_, group_) == 0);
  } else if (!includesGroup(info.st_gid)) {
    for (const gid_t group : groups_) {
      if (fchown(fd, static_cast<uid_t>(-1), group) == 0) break;
    }
  }
  if (fstat(fd, &info) != 0) return;
  const std::string list = listFor(info);
  fremovexattr(fd, kList);  // the folder may have given it one
  const mode_t group = includesGroup(info.st_gid) ? 0060u : 0u;
  fchmod(fd, 0600u | group | (everybody_ ? 0006u : 0u));
  if (!list.empty()) fsetxattr(fd, kList, list.data(), list.size(), 0);
}

}  // namespace zelta::platform::posix

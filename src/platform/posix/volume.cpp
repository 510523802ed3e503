// Whether a folder lies on a disk of this machine.

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "platform/file.h"
#include "platform/posix/posix_internal.h"

namespace zelta::platform {

namespace {

/// Magic numbers of network file systems, from statfs(2) and linux/magic.h.
constexpr std::uint32_t kRemoteTypes[] = {
    0x6969,      // NFS
    0x517B,      // SMB
    0xFF534D42,  // CIFS
    0xFE534D42,  // SMB2
    0x01021997,  // 9P
    0x5346414F,  // AFS
    0x6B414653,  // kAFS
    0x73757245,  // Coda
    0x00C36400,  // Ceph
    0x564C,      // NCP
    0x0BD00BD0,  // Lustre
    0x7461636F,  // OCFS2
    0x01161970,  // GFS2
};
constexpr std::uint32_t kFuse = 0x65735546;

/// Subtypes of FUSE that lead to another machine.
constexpr const char* kRemoteFuse[] = {"sshfs",  "s3fs",   "glusterfs", "ceph",    "ceph-fuse",
                                       "rclone", "davfs2", "curlftpfs", "gcsfuse", "smbnetfs"};

/// The type of the mount that holds a device, "fuse.sshfs" for instance.
std::string mountType(dev_t device) {
  std::FILE* mounts = std::fopen("/proc/self/mountinfo", "re");
  if (mounts == nullptr) return {};
  std::string type;
  char line[4096];
  while (type.empty() && std::fgets(line, sizeof line, mounts) != nullptr) {
    unsigned major = 0;
    unsigned minor = 0;
    char name[64];
    const char* dash = std::strstr(line, " - ");
    if (dash != nullptr && std::sscanf(line, "%*d %*d %u:%u", &major, &minor) == 2 &&
        makedev(major, minor) == device && std::sscanf(dash, " - %63s", name) == 1) {
      type = name;
    }
  }
  std::fclose(mounts);
  return type;
}

bool isRemoteFuse(const std::string& folder) {
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0) return false;
  const std::string type = mountType(info.st_dev);
  const std::size_t dot = type.find('.');
  if (dot == std::string::npos) return false;
  return std::find(std::begin(kRemoteFuse), std::end(kRemoteFuse), type.substr(dot + 1)) !=
         std::end(kRemoteFuse);
}

}  // namespace

VolumeType volumeType(const char16_t* folder) {
  const std::string path = posix::pathOf(folder);
  struct statfs info {};
  while (statfs(path.c_str(), &info) != 0) {
    if (errno != EINTR) return VolumeType::noRoot;
  }
  const auto type = static_cast<std::uint32_t>(info.f_type);
  if (std::find(std::begin(kRemoteTypes), std::end(kRemoteTypes), type) != std::end(kRemoteTypes)) {
    return VolumeType::remote;
  }
  if (type == kFuse && isRemoteFuse(path)) return VolumeType::remote;
  return VolumeType::local;
}

}  // namespace zelta::platform

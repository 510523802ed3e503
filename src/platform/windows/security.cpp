// The open access lists of files and mutexes: whoever may log on may share a database, whoever made
// it.

#include <aclapi.h>

#include <mutex>
#include <utility>

#include "platform/windows/windows_internal.h"

namespace zelta::platform::windows {

namespace {

constexpr DWORD kFileRights = 0x101FFFFF;  // GENERIC_ALL and all specific rights
constexpr DWORD kMutexRights = 0x1FFFFF;
constexpr BYTE kWorldAuthority = 1;
constexpr BYTE kCreatorAuthority = 3;
constexpr SIZE_T kDescriptorSize = SECURITY_DESCRIPTOR_MIN_LENGTH;
static_assert(kDescriptorSize == 40 && sizeof(SECURITY_ATTRIBUTES) == 24);

/// An access list of one or two groups. What it is made of is released if it cannot be finished,
/// and the next call tries again; a finished one lives as long as the process.
class OpenAccess {
 public:
  OpenAccess(DWORD rights, bool creatorToo) : rights_(rights), creatorToo_(creatorToo) {}
  SystemCode give(SECURITY_ATTRIBUTES** attributes) {
    *attributes = &attributes_;
    const std::lock_guard guard(mutex_);
    if (finished_) return 0;
    const SystemCode failure = build(rights_, creatorToo_);
    finished_ = failure == 0;
    if (!finished_) release();
    return failure;
  }

 private:
  static SystemCode failed() {
    const DWORD code = GetLastError();
    return code == 0 ? code::kNoMemory : code;
  }

  SystemCode addGroup(ULONG index, BYTE authority, DWORD rights) {
    SID_IDENTIFIER_AUTHORITY identifier = {{0, 0, 0, 0, 0, authority}};
    if (!AllocateAndInitializeSid(&identifier, 1, 0, 0, 0, 0, 0, 0, 0, 0, &sids_[index])) {
      return failed();
    }
    EXPLICIT_ACCESSW& entry = entries_[index];
    entry.grfAccessPermissions = rights;
    entry.grfAccessMode = SET_ACCESS;
    entry.grfInheritance = NO_INHERITANCE;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = static_cast<LPWSTR>(sids_[index]);
    return 0;
  }

  SystemCode build(DWORD rights, bool creatorToo) {
    SystemCode failure = addGroup(0, kWorldAuthority, rights);
    if (failure == 0 && creatorToo) failure = addGroup(1, kCreatorAuthority, rights);
    if (failure != 0) return failure;
    if (const DWORD code = SetEntriesInAclW(creatorToo ? 2 : 1, entries_, nullptr, &list_);
        code != 0) {
      return code;
    }
    descriptor_ = LocalAlloc(LPTR, kDescriptorSize);
    if (descriptor_ == nullptr ||
        !InitializeSecurityDescriptor(descriptor_, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(descriptor_, TRUE, list_, FALSE)) {
      return failed();
    }
    attributes_.nLength = sizeof attributes_;
    attributes_.lpSecurityDescriptor = descriptor_;
    return 0;
  }

  void release() {
    for (PSID& sid : sids_) {
      if (sid != nullptr) FreeSid(std::exchange(sid, nullptr));
    }
    if (list_ != nullptr) LocalFree(std::exchange(list_, nullptr));
    if (descriptor_ != nullptr) LocalFree(std::exchange(descriptor_, nullptr));
  }

  DWORD rights_;
  bool creatorToo_;
  std::mutex mutex_;
  bool finished_ = false;
  PSID sids_[2] = {};
  EXPLICIT_ACCESSW entries_[2] = {};
  PACL list_ = nullptr;
  PSECURITY_DESCRIPTOR descriptor_ = nullptr;
  SECURITY_ATTRIBUTES attributes_ = {};
};

}  // namespace

SystemCode fileSecurity(SECURITY_ATTRIBUTES** attributes) {
  static OpenAccess access(kFileRights, true);
  return access.give(attributes);
}

SystemCode mutexSecurity(SECURITY_ATTRIBUTES** attributes) {
  static OpenAccess access(kMutexRights, false);
  return access.give(attributes);
}

}  // namespace zelta::platform::windows

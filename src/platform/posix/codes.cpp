// The one table from errno to the codes of the Windows API.

#include <cerrno>

#include "platform/posix/posix_internal.h"

namespace zelta::platform::posix {

namespace {

struct Mapping {
  int error;
  SystemCode code;
};

constexpr Mapping kMappings[] = {
    {ENOENT, code::kFileNotFound},     {ENOTDIR, code::kPathNotFound},
    {EMFILE, code::kTooManyFiles},     {ENFILE, code::kTooManyFiles},
    {EACCES, code::kAccessDenied},     {EPERM, code::kAccessDenied},
    {EISDIR, code::kAccessDenied},     {EBADF, code::kInvalidHandle},
    {ENOMEM, code::kNoMemory},         {EROFS, code::kWriteProtected},
    {EAGAIN, code::kLockViolation},    {EEXIST, code::kFileExists},
    {EINVAL, code::kInvalidParameter}, {ENOSPC, code::kDiskFull},
    {EDQUOT, code::kDiskFull},         {ENAMETOOLONG, code::kNameTooLong},
    {EFBIG, code::kFileTooLarge},      {EIO, code::kDeviceError},
    {ETIMEDOUT, code::kTimeout},
};

}  // namespace

SystemCode codeOf(int error) {
  if (error == 0) return 0;
  for (const Mapping& mapping : kMappings) {
    if (mapping.error == error) return mapping.code;
  }
  return code::kGeneralFailure;
}

SystemCode lastCode() { return codeOf(errno); }

}  // namespace zelta::platform::posix

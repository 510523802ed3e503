// Codes of failures of the operating system, as the engine sees them on every platform.

#ifndef ZELTA_PLATFORM_CODES_H
#define ZELTA_PLATFORM_CODES_H

#include <cstdint>

namespace zelta {

/// 0 for success, otherwise the number that the Windows API gives to this failure.
using SystemCode = std::uint32_t;

namespace code {
inline constexpr SystemCode kFileNotFound = 2;
inline constexpr SystemCode kPathNotFound = 3;
inline constexpr SystemCode kTooManyFiles = 4;
inline constexpr SystemCode kAccessDenied = 5;
inline constexpr SystemCode kInvalidHandle = 6;
inline constexpr SystemCode kNoMemory = 8;
inline constexpr SystemCode kWriteProtected = 19;
inline constexpr SystemCode kNotReady = 21;
inline constexpr SystemCode kGeneralFailure = 31;
inline constexpr SystemCode kSharingViolation = 32;
inline constexpr SystemCode kLockViolation = 33;
inline constexpr SystemCode kEndOfFile = 38;
inline constexpr SystemCode kFileExists = 80;
inline constexpr SystemCode kInvalidParameter = 87;
inline constexpr SystemCode kDiskFull = 112;
inline constexpr SystemCode kBufferTooSmall = 122;
inline constexpr SystemCode kNegativeSeek = 131;
inline constexpr SystemCode kNotLocked = 158;
inline constexpr SystemCode kAlreadyExists = 183;
inline constexpr SystemCode kNameTooLong = 206;
inline constexpr SystemCode kFileTooLarge = 223;
inline constexpr SystemCode kTimeout = 258;
inline constexpr SystemCode kNotOwner = 288;
inline constexpr SystemCode kNoAccess = 998;
inline constexpr SystemCode kDeviceError = 1117;
inline constexpr SystemCode kUserMappedFile = 1224;
inline constexpr SystemCode kFileCorrupt = 1392;
}  // namespace code

}  // namespace zelta

#endif  // ZELTA_PLATFORM_CODES_H

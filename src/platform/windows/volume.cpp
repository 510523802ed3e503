// Whether a folder lies on a disk of this machine.

#include <algorithm>
#include <string>
#include <string_view>

#include "platform/file.h"
#include "platform/windows/windows_internal.h"

namespace zelta::platform {

namespace {

/// A name of another machine's folder. The system calls such a volume remote only while it can be
/// reached.
bool isShare(std::u16string folder) {
  std::replace(folder.begin(), folder.end(), u'/', u'\\');
  constexpr std::u16string_view kDevices[] = {u"\\\\?\\", u"\\\\.\\", u"\\??\\"};
  constexpr std::u16string_view kNet = u"UNC\\";
  for (const std::u16string_view device : kDevices) {
    if (!folder.starts_with(device)) continue;
    if (folder.size() < device.size() + kNet.size()) return false;
    for (std::size_t i = 0; i < kNet.size(); ++i) {
      if (toUpper(folder[device.size() + i]) != kNet[i]) return false;
    }
    return true;
  }
  return folder.size() > 2 && folder.starts_with(u"\\\\");
}

}  // namespace

VolumeType volumeType(const char16_t* folder) {
  if (isShare(folder)) return VolumeType::remote;
  // What a longer name begins with is no folder, whatever the system makes of it.
  for (const std::u16string_view start : {u"\\\\", u"\\\\?\\", u"\\\\.\\"}) {
    if (folder == start) return VolumeType::noRoot;
  }
  return static_cast<VolumeType>(GetDriveTypeW(windows::wide(folder)));
}

}  // namespace zelta::platform

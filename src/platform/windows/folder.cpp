#include "platform/folder.h"

#include <memory>
#include <string_view>
#include <utility>

#include "platform/windows/windows_internal.h"

namespace zelta::platform {

using namespace windows;

namespace {

struct CloseSearch {
  void operator()(HANDLE search) const { FindClose(search); }
};

/// The pattern finds short names, too, whose endings are others.
bool endsIn(std::u16string_view name, std::u16string_view ending) {
  if (name.size() < ending.size()) return false;
  name.remove_prefix(name.size() - ending.size());
  for (std::size_t i = 0; i < ending.size(); ++i) {
    if (toLower(name[i]) != toLower(ending[i])) return false;
  }
  return true;
}

}  // namespace

SystemCode listFolder(const char16_t* folder, const char16_t* ending,
                      std::vector<std::u16string>& names) {
  names.clear();
  ZELTA_ASK(list, narrow(folder));
  const std::u16string pattern = std::u16string(folder) + u"*" + ending;
  WIN32_FIND_DATAW found;
  const HANDLE first = FindFirstFileW(wide(pattern.c_str()), &found);
  if (first == INVALID_HANDLE_VALUE) {
    const SystemCode failure = lastCode();
    return failure == code::kFileNotFound ? 0 : failure;  // no such name
  }
  const std::unique_ptr<void, CloseSearch> search(first);
  do {
    std::u16string name(reinterpret_cast<const char16_t*>(found.cFileName));
    if (endsIn(name, ending)) names.push_back(std::move(name));
  } while (FindNextFileW(search.get(), &found));
  const DWORD failure = GetLastError();
  return failure == ERROR_NO_MORE_FILES ? 0 : failure;
}

}  // namespace zelta::platform

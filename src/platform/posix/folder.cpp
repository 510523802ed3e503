#include "platform/folder.h"

#include <dirent.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "platform/posix/posix_internal.h"
#include "platform/text.h"

namespace zelta::platform {

namespace {

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

/// Some file systems tell no cases apart.
bool endsIn(std::string_view name, std::string_view ending) {
  if (name.size() < ending.size()) return false;
  name.remove_prefix(name.size() - ending.size());
  for (std::size_t i = 0; i < ending.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(name[i]) != lower(ending[i])) return false;
  }
  return true;
}

}  // namespace

SystemCode listFolder(const char16_t* folder, const char16_t* ending,
                      std::vector<std::u16string>& names) {
  names.clear();
  const std::string path = posix::pathOf(folder);
  const std::string tail = posix::pathOf(ending);
  ZELTA_ASK(list, path);
  const std::unique_ptr<DIR, CloseFolder> open(opendir(path.c_str()));
  if (open == nullptr) return errno == ENOENT ? code::kPathNotFound : posix::lastCode();
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(open.get());
    if (entry == nullptr) return errno == 0 ? 0 : posix::lastCode();
    if (endsIn(entry->d_name, tail)) names.push_back(widen(entry->d_name));
  }
}

}  // namespace zelta::platform

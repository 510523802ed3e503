#include "frame/file_removal.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "frame/control_file.h"
#include "platform/file_io.h"

namespace zelta {

namespace {

/// What is looked at: no header is shorter.
constexpr std::uint32_t kBeginning = 80;
constexpr std::uint32_t kMagicSize = 4;

std::string_view magicOf(const char16_t* fileExtension) {
  return std::u16string_view(fileExtension) == extension::kTable ? "ZELT" : "ZELI";
}

/// Opens a file if it is of the kind. `*out` stays none if the file is missing.
SystemCode openOwn(const MetaData& metaData, const std::u16string& path,
                   const char16_t* fileExtension, platform::File* out) {
  *out = platform::File::none;
  platform::File opened = platform::File::none;
  SystemCode failure =
      openDatabaseFile(metaData, path.c_str(), platform::Disposition::openExisting, &opened);
  if (failure == code::kFileNotFound || failure == code::kPathNotFound) return 0;
  if (failure != 0) return failure;
  FileGuard file(opened);
  char bytes[kBeginning];
  std::uint32_t have = 0;
  failure = readBuffer(opened, 0, bytes, sizeof bytes, &have);
  if (failure != 0 && failure != code::kEndOfFile) return failure;
  const bool begun =
      std::memcmp(bytes, magicOf(fileExtension).data(), std::min(have, kMagicSize)) == 0;
  // The length of a new file may have reached the disk before its bytes did.
  const bool blank = std::all_of(bytes, bytes + have, [](char byte) { return byte == 0; });
  if (!begun && !blank) return code::kFileExists;
  *out = file.release();
  return 0;
}

}  // namespace

SystemCode deleteTableFile(const MetaData& metaData, const std::u16string& path,
                           const char16_t* fileExtension) {
  platform::File file = platform::File::none;
  if (const SystemCode failure = openOwn(metaData, path, fileExtension, &file); failure != 0)
    return failure;
  if (file == platform::File::none) return 0;
  platform::closeFile(file);
  return platform::deleteFile(path.c_str());
}

namespace {

/// Cuts the file, whose deletion failed with `kept`. A cut does nothing while somebody maps it.
SystemCode emptyForGood(platform::File file, SystemCode kept) {
  if (const SystemCode failure = truncateFile(file, 0); failure != 0) return failure;
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(file, &size); failure != 0) return failure;
  return size == 0 ? platform::flushFile(file) : kept;
}

}  // namespace

SystemCode discardTableFile(const MetaData& metaData, const std::u16string& path,
                            const char16_t* fileExtension) {
  platform::File opened = platform::File::none;
  if (const SystemCode failure = openOwn(metaData, path, fileExtension, &opened); failure != 0) {
    return failure;
  }
  if (opened == platform::File::none) return 0;
  FileGuard file(opened);
  // Those who have the file open keep it. The flush makes the deletion last.
  const SystemCode kept = platform::deleteFile(path.c_str());
  if (kept == 0) return platform::flushFile(opened);
  if (const SystemCode failure = emptyForGood(opened, kept); failure != 0) return failure;
  // It may have been the open handle that was in the way.
  platform::closeFile(file.release());
  static_cast<void>(platform::deleteFile(path.c_str()));
  return 0;
}

}  // namespace zelta

#include "frame/metadata.h"

#include <algorithm>
#include <cstdlib>

#include "platform/file.h"

namespace zelta {

MetaData::~MetaData() {
  std::free(errorMessage);
  std::free(lockKey);
}

void clearError(MetaData& metaData) {
  std::free(metaData.errorMessage);
  metaData.errorMessage = nullptr;
}

void trimScratch(MetaData& metaData, bool all) {
  constexpr std::uint64_t kLargeFirst = 4096;  // for the first three buffers
  constexpr std::uint64_t kLargeOther = 2048;
  for (std::size_t i = 0; i < metaData.scratch.size(); ++i) {
    ScratchBuffer& buffer = metaData.scratch[i];
    if (all || buffer.size() > (i < 3 ? kLargeFirst : kLargeOther)) buffer.release();
  }
}

std::u16string databasePath(const MetaData& metaData, const std::u16string& name,
                            const char16_t* extension) {
  return metaData.directoryPath + name + extension;
}

std::u16string withOwnSeparators(std::u16string path) {
  std::replace(path.begin(), path.end(), u'\\', platform::kSeparator);
  return path;
}

}  // namespace zelta

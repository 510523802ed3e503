// Changes of files that were cut off. The checker plays them through in its view of the file, so that
// all else can be checked as at rest.

#ifndef ZELTA_CHECK_CHECK_JOURNAL_H
#define ZELTA_CHECK_CHECK_JOURNAL_H

#include <cstdint>

#include "check/check_file.h"

namespace zelta::check {

enum class Change {
  none,
  dropped,     ///< it was never complete
  carriedOut,  ///< it will be, whoever comes next
  abandoned,   ///< an index file was being built
  impossible   ///< it makes no sense
};

/// Changes the view of a file with a change under way to what the next writer will make of it.
[[nodiscard]] Change seeTableChange(CheckFile& file);
[[nodiscard]] Change seeIndexChange(CheckFile& file, std::uint32_t indexCount);
[[nodiscard]] Change seeLogChange(CheckFile& file);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_JOURNAL_H

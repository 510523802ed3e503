#include "storage/paged/paged_file.h"

#include <algorithm>
#include <bit>
#include <cassert>

namespace zelta {

namespace {

constexpr std::uint64_t kLargestPageSize = std::uint64_t{1} << 31;

}  // namespace

std::uint32_t newPageSize(const PagedForm& form, const Table& table, std::uint64_t keys) {
  const std::uint32_t roots = form.rootCount(table.indexCount);
  assert(roots != 0);
  std::uint64_t words = 0;
  for (std::uint32_t i = 0; i < table.indexCount; ++i) words += table.index(i).keyWords;
  // The sum over all indexes, divided by the roots: pages for keys of the mean length.
  const std::uint64_t least =
      std::max(form.headerSize(table.indexCount), ((words + 2) * keys + 20) / roots);
  const std::uint64_t size = std::max<std::uint64_t>(std::bit_ceil(least), kSmallestPageUnit);
  return size <= kLargestPageSize ? static_cast<std::uint32_t>(size) : 0;
}

PagedFileHeader newPagedHeader(const PagedForm& form, const Table& table, std::uint32_t pageSize) {
  PagedFileHeader header = {};
  std::memcpy(header.magic, form.magic, sizeof(header.magic));
  header.majorVersion = form.majorVersion;
  header.minorVersion = form.minorVersion;
  header.indexCount = table.indexCount;
  header.pageSize = pageSize;
  return header;
}

void clearIntent(PagedFileHeader& header) {
  header.journalBase = 0;
  header.journalEnd = 0;
  header.newEndOfFile = 0;
  header.journalChecksum = 0;
  header.newFreeHead = 0;
  header.pageEntryCount = 0;
  header.freeEntryCount = 0;
}

}  // namespace zelta

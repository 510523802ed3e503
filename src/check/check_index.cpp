// The index file: header, trees, free space; and their keys against those of the objects.

#include <algorithm>

#include "check/check_journal.h"
#include "check/check_table.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHeader = 80;
constexpr std::uint64_t kCommit = 32;  ///< here the numbers of a commit under way begin

/// What the page unit and the place of the first page follow from.
std::uint64_t expectedPageSize(const Table& table) {
  const std::uint64_t n = table.indexCount;
  std::uint64_t words = 0;
  for (std::uint32_t i = 0; i < n; ++i) words += table.index(i).keyWords;
  const std::uint64_t least = ((words + 2) * (table.wideIds() ? 400 : 200) + 20) / n;
  std::uint64_t size = 64;
  while (size < 16 * n + kHeader || size < least) size *= 2;
  return size;
}

}  // namespace

void TableCheck::checkIndexFile() {
  if (table_.indexCount == 0) return;
  const std::u16string folder =
      entry_.indexPath.empty() ? folder_ : withOwnSeparators(entry_.indexPath);
  CheckFile file(folder + entry_.name + extension::kIndex);
  if (file.isMissing()) return;  // it is built when it is needed
  if (!file.isOpen()) {
    findings_.damage(file, 0, "file cannot be opened, code " + text(file.failure()));
    return;
  }
  if (file.size() == 0) return;
  if (!checkIndexHeader(file)) return;
  checkIndexTrees(file);
  checkCommits(file);
}

bool TableCheck::checkIndexHeader(CheckFile& file) {
  const auto wrong = [&](std::uint64_t offset, const char* what) {
    findings_.damage(file, offset, what);
    return false;
  };
  const std::uint64_t n = table_.indexCount;
  if (file.size() < kHeader + 16 * n) return wrong(0, "file is shorter than its header");
  const char* header = file.view(0, kHeader);
  if (header == nullptr) return wrong(0, "file cannot be read");
  if (std::memcmp(header, "ZELI", 4) != 0) return wrong(0, "wrong magic");
  if (load<std::uint16_t>(header, 4) != 1 || load<std::uint16_t>(header, 6) != 0) {
    return wrong(4, "unknown version");
  }
  if (load<std::uint32_t>(header, 8) != n) return wrong(8, "another number of indexes");
  const std::uint64_t unit = expectedPageSize(table_);
  if (load<std::uint32_t>(header, 12) != unit) {
    return wrong(12, "page unit does not follow from the schema");
  }
  pageSize_ = static_cast<std::uint32_t>(unit);
  firstPage_ = (((n + 1) * 16 + 79) / unit + 1) * unit;
  const Change change = seeIndexChange(file, table_.indexCount);
  if (change != Change::none) findings_.pending(file, 48, "a commit or a build was cut off");
  if (change == Change::abandoned) return false;
  if (change == Change::impossible) return wrong(48, "the commit cannot be finished");
  indexEnd_ = file.number<std::uint64_t>(24);
  if (const std::uint64_t at = file.firstNonzero(kCommit, kHeader); at != kHeader) {
    findings_.remains(file, at, "rest of a commit without its end");
  }
  if (indexEnd_ > file.size()) return wrong(24, "pages end behind the file");
  if (indexEnd_ < firstPage_) return wrong(24, "pages end ahead of the first one");
  const std::uint64_t live = kHeader + 8 * n;
  if (const std::uint64_t at = file.firstNonzero(kHeader, live); at != live) {
    findings_.remains(file, at, "root of a commit that is not under way");
  }
  const std::uint64_t rootsEnd = live + 8 * n;
  if (const std::uint64_t at = file.firstNonzero(rootsEnd, firstPage_); at != firstPage_) {
    wrong(at, "room ahead of the first page is not zero");
  }
  if (indexEnd_ < file.size()) {
    findings_.remains(file, indexEnd_, "bytes behind the end of the pages");
  }
  return true;
}

TreePlace TableCheck::treePlace(std::uint32_t index) const {
  TreePlace place;
  place.variable = (table_.index(index).indexFlags & CZELTA::IndexVariableKey) != 0;
  place.keyWords = table_.index(index).keyWords;
  place.prefixBytes = table_.index(index).listPrefixBytes;
  place.mostObjectsPower = table_.index(index).maximumObjectPower;
  place.manyEntries = table_.multiEntry(index);
  place.idBytes = table_.idSize();
  return place;
}

void TableCheck::checkIndexTrees(CheckFile& file) {
  std::vector<Extent> extents;
  bool complete = true;
  for (std::uint32_t i = 0; i < table_.indexCount && !findings_.full(); ++i) {
    complete = checkIndexTree(file, i, extents) && complete;
  }
  constexpr std::uint64_t kFreeHead = 16;
  checkFreeChain(findings_, file, kFreeHead, firstPage_, indexEnd_, extents);
  if (!findings_.full()) {
    checkTiling(findings_, file, extents, firstPage_, indexEnd_, complete);
  }
}

/// False if the tree's pages are not all known.
bool TableCheck::checkIndexTree(CheckFile& file, std::uint32_t index,
                                std::vector<Extent>& extents) {
  const std::uint64_t rootOffset = kHeader + 8 * (std::uint64_t{table_.indexCount} + index);
  const KindCheck* kind = findKindCheck(table_, index);
  if (kind == nullptr) {
    ++findings_.counts.notChecked;
    return false;
  }
  TreePlace place = treePlace(index);
  place.root = file.number<std::uint64_t>(rootOffset);
  place.rootOffset = rootOffset;
  place.from = firstPage_;
  place.to = indexEnd_;
  place.pageSize = pageSize_;
  IndexEntries entries;
  const EntryVisitor visit = [&](const TreeEntry& entry) {
    if (entry.ofAnyObject) {
      entries.ofAnyObject.insert(entry.hash);
    } else if (isChanging(entry.objectID)) {
      entries.changing.push_back({entry.hash, entry.objectID, entry.offset});
    } else {
      entries.digest.add(entry.hash, entry.objectID);
    }
  };
  const bool complete = kind->walk({findings_, file, place, extents, visit});
  ++findings_.counts.indexes;
  if (complete && recordsComplete_) compareEntries(file, index, place, entries);
  return complete;
}

}  // namespace zelta::check

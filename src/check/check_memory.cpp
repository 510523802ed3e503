// The memory file. With no transaction at work it is empty; what it holds otherwise is walked too.

#include <algorithm>
#include <unordered_set>

#include "check/check_table.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHeader = 80;  ///< what does not depend on the number of indexes
constexpr std::uint64_t kJournal = 32;
constexpr std::uint64_t kPage = 2040;
constexpr std::uint64_t kPageBlock = 2048;  ///< what a page of the map takes in the file
constexpr std::uint16_t kLeaf = 27753;
constexpr std::uint16_t kInner = 28265;
constexpr std::uint32_t kLeafEntries = 84;
constexpr std::uint32_t kInnerKeys = 126;
constexpr std::size_t kDeepest = 16;

/// The walk through the object map.
class MapWalk {
 public:
  MapWalk(Findings& findings, CheckFile& file, std::uint64_t from, std::uint64_t to,
          std::vector<Extent>& extents)
      : findings_(findings), file_(file), from_(from), to_(to), extents_(extents) {}

  bool run(std::uint64_t root, std::uint64_t rootOffset);
  std::uint64_t entries = 0;

 private:
  struct Level {
    std::uint64_t position;
    std::vector<char> page;
    std::uint32_t count;
    std::uint32_t nextChild;
    std::uint64_t low;   ///< no ID below it
    std::uint64_t high;  ///< all IDs below it
  };
  bool fail(std::uint64_t offset, std::string what) {
    findings_.damage(file_, offset, std::move(what));
    return false;
  }
  bool enter(std::uint64_t position, std::uint64_t linkOffset, std::uint64_t low,
             std::uint64_t high);
  bool checkLeaf(const Level& leaf);
  bool checkEntry(const Level& leaf, std::uint32_t i, std::uint64_t floor);

  Findings& findings_;
  CheckFile& file_;
  std::uint64_t from_;
  std::uint64_t to_;
  std::vector<Extent>& extents_;
  std::vector<Level> path_;
  std::unordered_set<std::uint64_t> seen_;
  std::uint64_t lastLeaf_ = 0;
  std::uint64_t lastNext_ = 0;
};

bool MapWalk::run(std::uint64_t root, std::uint64_t rootOffset) {
  if (root == 0) return true;
  if (!enter(root, rootOffset, 0, ~std::uint64_t{0})) return false;
  while (!path_.empty() && !findings_.full()) {
    Level& level = path_.back();
    if (load<std::uint16_t>(level.page.data(), 4) == kLeaf) {
      if (!checkLeaf(level)) return false;
      path_.pop_back();
      continue;
    }
    if (level.nextChild > level.count) {
      path_.pop_back();
      continue;
    }
    const std::uint32_t i = level.nextChild++;
    const char* page = level.page.data();
    const auto child = load<std::uint64_t>(page, 1024 + 8 * std::uint64_t{i});
    const std::uint64_t low =
        i == 0 ? level.low : load<std::uint64_t>(page, 16 + 8 * (std::uint64_t{i} - 1));
    const std::uint64_t high =
        i == level.count ? level.high : load<std::uint64_t>(page, 16 + 8 * std::uint64_t{i});
    if (low > high) return fail(level.position + 16 + 8 * std::uint64_t{i}, "IDs do not ascend");
    if (!enter(child, level.position + 1024 + 8 * std::uint64_t{i}, low, high)) return false;
  }
  return lastNext_ == 0 || fail(lastLeaf_ + 16, "last leaf leads on");
}

bool MapWalk::enter(std::uint64_t position, std::uint64_t linkOffset, std::uint64_t low,
                    std::uint64_t high) {
  if (position < from_ || position >= to_ || to_ - position < kPage) {
    return fail(linkOffset, "page " + text(position) + " lies outside");
  }
  if (path_.size() == kDeepest) return fail(linkOffset, "map is deeper than any can be");
  if (!seen_.insert(position).second) return fail(linkOffset, "page is reached twice");
  const char* bytes = file_.view(position, kPage);
  if (bytes == nullptr) return fail(linkOffset, "page cannot be read");
  if (load<std::uint32_t>(bytes, 0) != kPage) return fail(position, "page of another size");
  const auto kind = load<std::uint16_t>(bytes, 4);
  const auto count = load<std::uint16_t>(bytes, 6);
  if (kind != kLeaf && kind != kInner) return fail(position + 4, "page of no known kind");
  if (count > (kind == kLeaf ? kLeafEntries : kInnerKeys)) {
    return fail(position + 6, "more entries than a page holds");
  }
  extents_.push_back({position, std::min(kPageBlock, to_ - position)});
  ++findings_.counts.pages;
  path_.push_back({position, std::vector<char>(bytes, bytes + kPage), count, 0, low, high});
  return true;
}

bool MapWalk::checkLeaf(const Level& leaf) {
  const char* page = leaf.page.data();
  if (leaf.count == 0) return fail(leaf.position + 6, "leaf without entries");
  if (load<std::uint64_t>(page, 8) != lastLeaf_) {
    return fail(leaf.position + 8, "previous leaf is another one");
  }
  if (lastLeaf_ != 0 && lastNext_ != leaf.position) {
    return fail(lastLeaf_ + 16, "next leaf is another one");
  }
  lastLeaf_ = leaf.position;
  lastNext_ = load<std::uint64_t>(page, 16);
  std::uint64_t floor = std::max<std::uint64_t>(leaf.low, 1);
  for (std::uint32_t i = 0; i < leaf.count; ++i) {
    if (!checkEntry(leaf, i, floor)) return false;
    floor = load<std::uint64_t>(page, 24 + 8 * std::uint64_t{i}) + 1;
  }
  return true;
}

bool MapWalk::checkEntry(const Level& leaf, std::uint32_t i, std::uint64_t floor) {
  const char* page = leaf.page.data();
  const auto id = load<std::uint64_t>(page, 24 + 8 * std::uint64_t{i});
  const auto number = load<std::uint32_t>(page, 696 + 4 * std::uint64_t{i});
  const auto length = load<std::uint32_t>(page, 1032 + 4 * std::uint64_t{i});
  const std::uint64_t place = 1368 + 8 * std::uint64_t{i};
  const auto position = load<std::uint64_t>(page, place);
  if (id < floor || id >= leaf.high) {
    return fail(leaf.position + 24 + 8 * std::uint64_t{i}, "IDs do not ascend");
  }
  if (number == 0) {
    return fail(leaf.position + 696 + 4 * std::uint64_t{i}, "entry of no transaction");
  }
  if (position < from_ || position >= to_ || to_ - position < 4) {
    return fail(leaf.position + place, "record lies outside");
  }
  const auto size = file_.number<std::uint32_t>(position);
  if (size > to_ - position || std::uint64_t{length} + 4 > size) {
    return fail(position, "record of impossible size " + text(size));
  }
  extents_.push_back({position, size});
  ++entries;
  return true;
}

}  // namespace

void TableCheck::checkMemoryFile() {
  CheckFile file(folder_ + entry_.name + extension::kMemory);
  if (file.isMissing()) return;
  if (!file.isOpen()) {
    findings_.damage(file, 0, "file cannot be opened, code " + text(file.failure()));
    return;
  }
  const std::uint64_t n = table_.indexCount;
  const std::uint64_t headerEnd = kHeader + 16 * (n + 1);
  if (file.size() < headerEnd) {
    if (file.size() != 0) findings_.remains(file, 0, "file ends in its header");
    return;
  }
  const char* header = file.view(0, kHeader);
  if (header == nullptr) return findings_.damage(file, 0, "file cannot be read");
  if (std::memcmp(header, "ZELM", 4) != 0) return findings_.damage(file, 0, "wrong magic");
  if (load<std::uint16_t>(header, 4) != 1 || load<std::uint16_t>(header, 6) != 1) {
    return findings_.damage(file, 4, "unknown version");
  }
  if (load<std::uint32_t>(header, 8) != n) {
    return findings_.damage(file, 8, "another number of indexes");
  }
  const auto end = load<std::uint64_t>(header, 24);
  if (load<std::uint64_t>(header, 48) != 0) {
    return findings_.pending(file, 48, "a journal stands");
  }
  const std::uint64_t journalEnd = kHeader + 8 * (n + 1);
  if (const std::uint64_t at = file.firstNonzero(kJournal, journalEnd); at != journalEnd) {
    findings_.remains(file, at, "rest of a journal without its end");
  }
  if (end < headerEnd || end > file.size()) {
    return findings_.damage(file, 24, "end does not lie in the file");
  }
  if (end < file.size()) findings_.remains(file, end, "bytes behind the end");
  checkMemoryTrees(file);
}

void TableCheck::checkMemoryTrees(CheckFile& file) {
  const std::uint64_t n = table_.indexCount;
  const std::uint64_t from = kHeader + 16 * (n + 1);
  const auto to = file.number<std::uint64_t>(24);
  const auto unit = file.number<std::uint32_t>(12);
  if (unit < 64 || (unit & (unit - 1)) != 0) {
    return findings_.damage(file, 12, "page unit is no power of two");
  }
  const std::uint64_t roots = kHeader + 8 * (n + 1);
  std::vector<Extent> extents;
  MapWalk map(findings_, file, from, to, extents);
  bool complete = map.run(file.number<std::uint64_t>(roots), roots);
  if (map.entries != 0) {
    findings_.pending(file, roots, text(map.entries) + " objects of open transactions");
  }
  for (std::uint32_t i = 0; i < n && !findings_.full(); ++i) {
    const std::uint64_t rootOffset = roots + 8 * (std::uint64_t{i} + 1);
    TreePlace place = treePlace(i);
    place.root = file.number<std::uint64_t>(rootOffset);
    if (place.root == 0) continue;
    const KindCheck* kind = findKindCheck(table_, i);
    if (kind == nullptr || !kind->hasPendingTree) {
      if (kind != nullptr) findings_.damage(file, rootOffset, "tree of an index without any here");
      complete = false;
      continue;
    }
    place.rootOffset = rootOffset;
    place.from = from;
    place.to = to;
    place.pageSize = unit;
    std::uint64_t keys = 0;
    const EntryVisitor visit = [&](const TreeEntry&) { ++keys; };
    complete = kind->walk({findings_, file, place, extents, visit}) && complete;
    findings_.pending(file, rootOffset,
                      text(keys) + " keys of open transactions in index " + text(i));
  }
  checkFreeChain(findings_, file, 16, from, to, extents);
  if (!findings_.full()) checkTiling(findings_, file, extents, from, to, complete);
}

}  // namespace zelta::check

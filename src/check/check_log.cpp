// Log files: header, tree of transaction numbers, entries, free space.

#include "check/check_log.h"

#include <algorithm>
#include <array>
#include <string>
#include <unordered_set>
#include <vector>

#include "check/check_file.h"
#include "check/check_journal.h"
#include "check/check_log_names.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHeader = 112;
constexpr std::uint64_t kIntent = 32;
constexpr std::uint64_t kNode = 320;
constexpr std::uint64_t kKeys = 12;
constexpr std::uint64_t kValues = 112;
constexpr std::uint32_t kNodeKeys = 25;
constexpr std::uint16_t kLeaf = 27753;
constexpr std::uint16_t kInner = 28265;
constexpr std::uint64_t kEntryHead = 32;
constexpr std::uint64_t kSectionHead = 24;
constexpr std::size_t kDeepest = 32;

class LogCheck {
 public:
  LogCheck(Findings& findings, CheckFile& file) : findings_(findings), file_(file) {}

  void run(bool numbered, std::uint16_t number);

 private:
  struct Level {
    std::uint64_t position;
    std::array<char, kNode> node;
    std::uint32_t count;
    std::uint32_t nextChild;
    std::uint64_t low;   ///< no number below it
    std::uint64_t high;  ///< none above it
  };
  bool fail(std::uint64_t offset, std::string what) {
    findings_.damage(file_, offset, std::move(what));
    return false;
  }
  bool checkHeader(bool numbered, std::uint16_t number);
  bool walkTree();
  bool enter(std::uint64_t position, std::uint64_t linkOffset, std::uint64_t low,
             std::uint64_t high);
  bool checkKeys(const Level& level);
  void checkLeaf(const Level& level);
  void checkEntry(std::uint64_t position, std::uint64_t linkOffset, std::uint32_t number);
  void checkBody(std::uint64_t position, std::uint64_t length, std::uint32_t sections);
  void walkChain();

  Findings& findings_;
  CheckFile& file_;
  bool numbered_ = false;
  std::uint64_t end_ = 0;
  std::vector<Extent> extents_;
  std::vector<Level> path_;
  std::unordered_set<std::uint64_t> seen_;
  std::size_t leafDepth_ = 0;
};

void LogCheck::run(bool numbered, std::uint16_t number) {
  numbered_ = numbered;
  if (!checkHeader(numbered, number)) return;
  const bool complete = walkTree();
  walkChain();
  if (!findings_.full()) checkTiling(findings_, file_, extents_, kHeader, end_, complete);
}

bool LogCheck::checkHeader(bool numbered, std::uint16_t number) {
  const char* header = file_.view(0, kHeader);
  if (header == nullptr) {
    findings_.remains(file_, 0, "file ends in its header");
    return false;
  }
  if (std::memcmp(header, numbered ? "ZELO" : "ZELL", 4) != 0) return fail(0, "wrong magic");
  if (header[4] != 1 || header[5] != 0) return fail(4, "unknown version");
  if (load<std::uint16_t>(header, 6) != number) return fail(6, "number of another file");
  const auto root = load<std::uint64_t>(header, 8);
  const auto freeHead = load<std::uint64_t>(header, 16);
  end_ = load<std::uint64_t>(header, 24);
  if (load<std::uint64_t>(header, 48) != 0) {
    findings_.pending(file_, 48, "a change of the log is under way");
    if (seeLogChange(file_) == Change::impossible) return fail(48, "the change makes no sense");
    return checkHeader(numbered, number);
  }
  if (const std::uint64_t at = file_.firstNonzero(kIntent, kHeader); at != kHeader) {
    findings_.remains(file_, at, "rest of an intent without its start");
  }
  if (end_ == 0) {
    if (!numbered || root != 0 || freeHead != 0) return fail(24, "log has no end");
    end_ = kHeader;
  }
  if (end_ < kHeader || end_ > file_.size()) return fail(24, "log ends outside of the file");
  if (end_ < file_.size()) findings_.remains(file_, end_, "bytes behind the end of the log");
  return true;
}

// -- Tree -------------------------------------------------------------------------------------

bool LogCheck::walkTree() {
  const auto root = file_.number<std::uint64_t>(8);
  if (root == 0) return true;
  path_.reserve(kDeepest);
  if (!enter(root, 8, 0, ~std::uint64_t{0})) return false;
  bool complete = true;
  while (!path_.empty() && !findings_.full()) {
    Level& level = path_.back();
    const char* node = level.node.data();
    if (load<std::uint16_t>(node, 8) == kLeaf) {
      checkLeaf(level);
      path_.pop_back();
    } else if (level.nextChild > level.count) {
      path_.pop_back();
    } else {
      const std::uint32_t i = level.nextChild++;
      const auto child = load<std::uint64_t>(node, kValues + 8 * std::uint64_t{i});
      const std::uint64_t low =
          i == 0 ? level.low : load<std::uint32_t>(node, kKeys + 4 * (std::uint64_t{i} - 1));
      const std::uint64_t high =
          i == level.count ? level.high : load<std::uint32_t>(node, kKeys + 4 * std::uint64_t{i});
      complete =
          enter(child, level.position + kValues + 8 * std::uint64_t{i}, low, high) && complete;
    }
  }
  return complete && !findings_.full();
}

bool LogCheck::enter(std::uint64_t position, std::uint64_t linkOffset, std::uint64_t low,
                     std::uint64_t high) {
  if (position < kHeader || position >= end_ || end_ - position < kNode) {
    return fail(linkOffset, "node " + text(position) + " lies outside");
  }
  if (path_.size() == kDeepest) return fail(linkOffset, "tree is deeper than any can be");
  if (!seen_.insert(position).second) return fail(linkOffset, "node is reached twice");
  const char* bytes = file_.view(position, kNode);
  if (bytes == nullptr) return fail(linkOffset, "node cannot be read");
  const auto length = load<std::uint64_t>(bytes, 0);
  const auto kind = load<std::uint16_t>(bytes, 8);
  const auto count = load<std::uint16_t>(bytes, 10);
  if (length < kNode || length > end_ - position) return fail(position, "node of another length");
  if (kind != kLeaf && kind != kInner) return fail(position + 8, "node of no known type");
  if (count > kNodeKeys) return fail(position + 10, "more keys than a node holds");
  extents_.push_back({position, length});
  ++findings_.counts.pages;
  Level level{position, {}, count, 0, low, high};
  std::memcpy(level.node.data(), bytes, kNode);
  if (!checkKeys(level)) return false;
  path_.push_back(level);
  return true;
}

bool LogCheck::checkKeys(const Level& level) {
  std::uint64_t floor = level.low;
  for (std::uint32_t i = 0; i < level.count; ++i) {
    const std::uint64_t offset = kKeys + 4 * std::uint64_t{i};
    const auto key = load<std::uint32_t>(level.node.data(), offset);
    if (key < floor || key > level.high) {
      return fail(level.position + offset, "numbers do not ascend");
    }
    floor = key;
  }
  return true;
}

void LogCheck::checkLeaf(const Level& level) {
  if (leafDepth_ == 0) leafDepth_ = path_.size();
  if (leafDepth_ != path_.size()) fail(level.position + 8, "leaf at another depth");
  if (level.count == 0) fail(level.position + 10, "leaf without entries");
  for (std::uint32_t i = 0; i < level.count && !findings_.full(); ++i) {
    const std::uint64_t offset = kValues + 8 * std::uint64_t{i};
    checkEntry(load<std::uint64_t>(level.node.data(), offset), level.position + offset,
               load<std::uint32_t>(level.node.data(), kKeys + 4 * std::uint64_t{i}));
  }
}

// -- Entries ----------------------------------------------------------------------------------

void LogCheck::checkEntry(std::uint64_t position, std::uint64_t linkOffset, std::uint32_t number) {
  const char* head = nullptr;
  if (position >= kHeader && position < end_ && end_ - position >= kEntryHead) {
    head = file_.view(position, kEntryHead);
  }
  if (head == nullptr) {
    fail(linkOffset, "entry " + text(position) + " lies outside");
    return;
  }
  const auto length = load<std::uint64_t>(head, 0);
  const auto sections = load<std::uint32_t>(head, 16);
  if (length < kEntryHead || length > end_ - position || length % 8 != 0) {
    fail(position, "entry of impossible length " + text(length));
    return;
  }
  extents_.push_back({position, length});
  ++findings_.counts.logEntries;
  if (std::memcmp(head + 8, "ZELL", 4) != 0) fail(position + 8, "entry without its mark");
  if (load<std::uint32_t>(head, 12) != number) {
    fail(position + 12, "entry of another transaction than " + text(number));
  }
  if (load<std::uint32_t>(head, 20) != 0) fail(position + 20, "word of an entry is not zero");
  if (sections == 0) {
    findings_.remains(file_, position + 16, "entry was never completed");
    return;
  }
  if (!numbered_) {
    findings_.pending(
        file_, position,
        "entry of transaction " + text(number) + " that was not removed when it was applied");
  }
  checkBody(position, length, sections);
}

void LogCheck::checkBody(std::uint64_t position, std::uint64_t length, std::uint32_t sections) {
  const std::uint64_t end = position + length;
  std::uint64_t sum = 0;
  if (!foldBytes(file_, position + kEntryHead, end, &sum)) {
    return static_cast<void>(fail(position, "entry cannot be read"));
  }
  if (sum != file_.number<std::uint64_t>(position + 24)) {
    // In the numbered form nobody takes such an entry out.
    findings_.remains(file_, position + 24, "entry does not agree with its checksum");
    return;
  }
  std::uint64_t at = position + kEntryHead;
  for (std::uint32_t i = 0; i < sections; ++i) {
    const char* head = end - at < kSectionHead ? nullptr : file_.view(at, kSectionHead);
    if (head == nullptr) return static_cast<void>(fail(at, "no room for another section"));
    std::uint64_t size = 0;
    if (std::memcmp(head, "ZELD", 4) == 0) {
      if (!measureEdits(file_, at, end, &size)) {
        return static_cast<void>(fail(at + 8, "deleted IDs and images do not come out even"));
      }
    } else if (std::memcmp(head, "ZELS", 4) == 0) {
      size = load<std::uint64_t>(head, 16);
      if (size > end - at - kSectionHead) {
        return static_cast<void>(fail(at + 16, "body passes the entry"));
      }
    } else {
      return static_cast<void>(fail(at, "section of no known kind"));
    }
    at += kSectionHead + size;
  }
  if (const std::uint64_t used = file_.firstNonzero(at, end); used != end) {
    fail(used, "bytes behind the sections are not zero");
  }
}

// -- Free space -------------------------------------------------------------------------------

void LogCheck::walkChain() {
  constexpr std::uint64_t kBlockHead = 20;
  std::uint64_t linkOffset = 16;
  std::uint64_t floor = kHeader;
  auto position = file_.number<std::uint64_t>(linkOffset);
  bool first = true;
  while (position != 0 && !findings_.full()) {
    if (position < floor || position >= end_ || end_ - position < kBlockHead) {
      fail(linkOffset, "free block " + text(position) + " lies outside or does not ascend");
      return;
    }
    const char* head = file_.view(position, kBlockHead);
    if (head == nullptr) return static_cast<void>(fail(linkOffset, "free block cannot be read"));
    const auto size = load<std::uint64_t>(head, 0);
    const auto next = load<std::uint64_t>(head, 8);
    if (load<std::uint32_t>(head, 16) != 0xFFFFFFFF) {
      return static_cast<void>(fail(position + 16, "free block has no marker"));
    }
    if (size < kBlockHead || size > end_ - position) {
      return static_cast<void>(fail(position, "free block of impossible size " + text(size)));
    }
    if (!first && position == floor)
      fail(position, "free block was not joined with the one before");
    if (position + size == end_) fail(position, "free block at the end was not given up");
    extents_.push_back({position, size});
    first = false;
    floor = position + size;
    linkOffset = position + 8;
    position = next;
  }
}

void checkLog(Findings& findings, const std::u16string& path, bool numbered, std::uint16_t number) {
  CheckFile file(path);
  if (file.isMissing()) return;
  if (!file.isOpen()) {
    findings.damage(file, 0, "file cannot be opened, code " + text(file.failure()));
    return;
  }
  LogCheck(findings, file).run(numbered, number);
}

bool imagesComeOutEven(CheckFile& file, std::uint64_t at, std::uint64_t end) {
  while (at < end) {
    if (end - at < 4) return false;
    const std::uint64_t size = (file.number<std::uint32_t>(at) + std::uint64_t{7}) / 4 * 4;
    if (size > end - at) return false;
    at += size;
  }
  return true;
}

}  // namespace

/// The IDs have 4 or 8 bytes: with one of the two the images must come out even. If they do so with
/// both, a section or zeros behind them decide.
bool measureEdits(CheckFile& file, std::uint64_t at, std::uint64_t end, std::uint64_t* size) {
  const auto deleted = file.number<std::uint64_t>(at + 8);
  const auto bytes = file.number<std::uint64_t>(at + 16);
  const std::uint64_t start = at + kSectionHead;
  bool even = false;
  for (const std::uint64_t width : {std::uint64_t{4}, std::uint64_t{8}}) {
    if (deleted > (end - start) / width || bytes > end - start - deleted * width) continue;
    const std::uint64_t images = start + deleted * width;
    const std::uint64_t next = images + bytes;
    if (!imagesComeOutEven(file, images, next)) continue;
    constexpr std::uint32_t kEdits = 0x444C455A;
    constexpr std::uint32_t kSchema = 0x534C455A;
    const std::uint32_t mark = next == end ? 0 : file.number<std::uint32_t>(next);
    const bool fits = mark == kEdits || mark == kSchema || file.firstNonzero(next, end) == end;
    if (!even || fits) *size = deleted * width + bytes;
    if (fits) return true;
    even = true;
  }
  return even;
}

void checkLogs(Findings& findings, const std::u16string& folder, const std::u16string& baseName,
               const ControlFacts& facts) {
  if (!facts.keepsLogs) return checkLog(findings, folder + logName(baseName), false, 0);
  for (const std::uint16_t number : logNumbers(folder, facts)) {
    if (findings.full()) return;
    checkLog(findings, folder + logName(baseName, number), true, number);
  }
}

}  // namespace zelta::check

// What the log holds of transactions that have committed, but whose slots still stand: whoever
// comes next carries it out. Only the last entry of a number counts, and only if it is whole.

#include "check/check_pending.h"

#include <algorithm>
#include <set>

#include "check/check_journal.h"
#include "check/check_log.h"
#include "check/check_log_names.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHeader = 112;
constexpr std::uint64_t kNode = 320;
constexpr std::uint64_t kKeys = 12;
constexpr std::uint64_t kValues = 112;
constexpr std::uint32_t kNodeKeys = 25;
constexpr std::uint16_t kLeaf = 27753;
constexpr std::uint16_t kInner = 28265;
constexpr std::uint64_t kEntryHead = 32;
constexpr std::uint64_t kSectionHead = 24;
constexpr int kDeepest = 32;

/// Where the last entry of a number stands; 0 if there is none. Nothing that is wrong with the tree
/// is told here.
std::uint64_t findEntry(CheckFile& file, std::uint32_t number) {
  auto position = file.number<std::uint64_t>(8);
  for (int depth = 0; position >= kHeader && depth < kDeepest; ++depth) {
    const char* node = file.view(position, kNode);
    if (node == nullptr) return 0;
    const auto kind = load<std::uint16_t>(node, 8);
    const std::uint32_t count = std::min<std::uint32_t>(load<std::uint16_t>(node, 10), kNodeKeys);
    std::uint32_t above = 0;  // the first key above the number
    while (above < count && load<std::uint32_t>(node, kKeys + 4 * std::uint64_t{above}) <= number) {
      ++above;
    }
    const auto value = [&](std::uint64_t i) { return load<std::uint64_t>(node, kValues + 8 * i); };
    if (kind == kLeaf) {
      const bool found =
          above != 0 && load<std::uint32_t>(node, kKeys + 4 * (std::uint64_t{above} - 1)) == number;
      return found ? value(above - 1) : 0;
    }
    if (kind != kInner) return 0;
    position = value(above);
  }
  return 0;
}

/// The end of an entry that is decided; 0 for any other.
std::uint64_t endOfDecided(CheckFile& file, std::uint64_t position) {
  const char* head = file.view(position, kEntryHead);
  if (head == nullptr || std::memcmp(head + 8, "ZELL", 4) != 0) return 0;
  const auto length = load<std::uint64_t>(head, 0);
  const auto sum = load<std::uint64_t>(head, 24);
  if (load<std::uint32_t>(head, 16) == 0 || length < kEntryHead) return 0;
  if (length > file.size() - position || length % 8 != 0) return 0;
  std::uint64_t found = 0;
  if (!foldBytes(file, position + kEntryHead, position + length, &found)) return 0;
  return found == sum ? position + length : 0;
}

/// Notes the sections of a decided entry that edit tables.
void takeSections(const std::shared_ptr<CheckFile>& file, std::uint32_t number,
                  std::uint64_t position, std::vector<PendingSection>& out) {
  const std::uint64_t end = endOfDecided(*file, position);
  if (end == 0) return;
  const auto sections = file->number<std::uint32_t>(position + 16);
  std::uint64_t at = position + kEntryHead;
  for (std::uint32_t i = 0; i < sections; ++i) {
    const char* head = end - at < kSectionHead ? nullptr : file->view(at, kSectionHead);
    if (head == nullptr) return;
    std::uint64_t size = load<std::uint64_t>(head, 16);
    if (std::memcmp(head, "ZELD", 4) == 0) {
      out.push_back({file, number, load<std::uint32_t>(head, 4), at, end});
      if (!measureEdits(*file, at, end, &size)) return;
    } else if (size > end - at - kSectionHead) {
      return;
    }
    at += kSectionHead + size;
  }
}

class PendingSearch {
 public:
  explicit PendingSearch(const ControlFacts& facts)
      : left_(facts.openNumbers.begin(), facts.openNumbers.end()) {}

  /// Looks into a file for the numbers that were not met yet.
  void visit(const std::u16string& path) {
    const auto file = std::make_shared<CheckFile>(path);
    if (!file->isOpen() || seeLogChange(*file) == Change::impossible) return;
    for (auto number = left_.begin(); number != left_.end();) {
      const std::uint64_t position = findEntry(*file, *number);
      if (position != 0) takeSections(file, *number, position, sections);
      number = position != 0 ? left_.erase(number) : std::next(number);
    }
  }
  [[nodiscard]] bool done() const { return left_.empty(); }
  std::vector<PendingSection> sections;

 private:
  std::set<std::uint32_t> left_;
};

/// Adds the image at a place of a section; false if it makes no sense.
bool takeImage(const PendingSection& section, std::uint64_t* at, std::uint64_t end,
               std::uint64_t idBytes, PendingCommit& out) {
  const std::uint64_t least = 2 + idBytes;  // version and ID
  const char* head = end - *at < 4 + least ? nullptr : section.log->view(*at, 4 + least);
  if (head == nullptr) return false;
  const auto length = load<std::uint32_t>(head, 0);
  const std::uint64_t size = (length + std::uint64_t{7}) / 4 * 4;
  std::uint64_t id = 0;
  std::memcpy(&id, head + 6, idBytes);
  if (length < least || size > end - *at || id == 0) return false;
  out.images[id] = {*at + 4, length};
  *at += size;
  return true;
}

}  // namespace

bool foldBytes(CheckFile& file, std::uint64_t from, std::uint64_t to, std::uint64_t* sum) {
  constexpr std::uint64_t kPiece = 64 * 1024;
  *sum = 0;
  for (std::uint64_t at = from; at < to;) {
    const std::uint64_t piece = std::min(kPiece, to - at);
    const char* bytes = file.view(at, piece);
    if (bytes == nullptr) return false;
    *sum ^= foldBytes(bytes, piece);
    at += piece;
  }
  return true;
}

std::vector<PendingSection> findPending(const std::u16string& folder,
                                        const std::u16string& baseName, const ControlFacts& facts) {
  PendingSearch search(facts);
  if (search.done()) return {};
  if (!facts.keepsLogs) {
    search.visit(folder + logName(baseName));
    return std::move(search.sections);
  }
  const std::vector<std::uint16_t> numbers = logNumbers(folder, facts);
  for (auto number = numbers.rbegin(); number != numbers.rend() && !search.done(); ++number) {
    search.visit(folder + logName(baseName, *number));
  }
  return std::move(search.sections);
}

bool readPending(const PendingSection& section, std::uint64_t idBytes, PendingCommit& out) {
  out.log = section.log;
  out.number = section.number;
  const char* head = section.log->view(section.at, kSectionHead);
  if (head == nullptr) return false;
  const auto deleted = load<std::uint64_t>(head, 8);
  const auto bytes = load<std::uint64_t>(head, 16);
  std::uint64_t at = section.at + kSectionHead;
  if (deleted > (section.end - at) / idBytes) return false;
  if (bytes > section.end - at - deleted * idBytes) return false;
  for (std::uint64_t i = 0; i < deleted; ++i, at += idBytes) {
    std::uint64_t id = 0;
    const char* word = section.log->view(at, idBytes);
    if (word == nullptr) return false;
    std::memcpy(&id, word, idBytes);
    out.deleted.insert(id);
  }
  const std::uint64_t end = at + bytes;
  while (at < end) {
    if (!takeImage(section, &at, end, idBytes, out)) return false;
  }
  return true;
}

}  // namespace zelta::check

// The control file: header, table directory, transaction slots.

#include "check/check_control.h"

#include <algorithm>
#include <map>
#include <set>

#include "check/check_file.h"
#include "frame/control_file.h"
#include "frame/table_directory.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHeader = 76;
constexpr std::uint64_t kSlot = 8;
constexpr std::uint64_t kRecord = 8;
/// The text positions of a directory count units of two bytes.
constexpr std::uint64_t kUnit = 2;

class ControlCheck {
 public:
  ControlCheck(Findings& findings, CheckFile& file, ControlFacts& facts)
      : findings_(findings), file_(file), facts_(facts) {}

  void run();

 private:
  bool checkHeader();
  void checkIntent();
  void checkDirectory();
  bool readEntry(std::uint64_t* at);
  bool readName(std::uint64_t* at, std::u16string* out);
  void checkOrder();
  void checkRecords();
  void checkSlots();
  bool isImpossible(std::uint64_t slot);
  [[nodiscard]] static std::uint32_t stateOf(std::uint32_t number) { return number == 0 ? 0 : 1; }
  [[nodiscard]] std::uint64_t entryEnd() const { return kHeader + kUnit * units_; }

  Findings& findings_;
  CheckFile& file_;
  ControlFacts& facts_;
  std::uint32_t tableCount_ = 0;
  std::uint64_t units_ = 0;
  std::uint64_t end_ = 0;
  std::vector<std::uint64_t> places_;  ///< offsets of the entries
};

void ControlCheck::run() {
  if (!checkHeader()) return;
  checkIntent();
  checkDirectory();
  checkSlots();
}

bool ControlCheck::checkHeader() {
  const char* header = file_.view(0, kHeader);
  if (header == nullptr) {
    findings_.damage(file_, 0, "file is shorter than its header");
    return false;
  }
  if (std::memcmp(header, "ZELC", 4) != 0) {
    findings_.damage(file_, 0, "wrong magic");
    return false;
  }
  const auto major = load<std::uint16_t>(header, 4);
  const auto minor = load<std::uint16_t>(header, 6);
  if (major == 1 && minor == 1) {
    findings_.pending(file_, 6, "file of version 1.1 is yet to be upgraded");
    return false;
  }
  if (major != 1 || minor != 2) {
    findings_.damage(file_, 4, "unknown version " + text(major) + "." + text(minor));
    return false;
  }
  tableCount_ = load<std::uint32_t>(header, 8);
  units_ = load<std::uint32_t>(header, 12);
  end_ = load<std::uint32_t>(header, 16);
  const auto flags = load<std::uint32_t>(header, 20);
  facts_.keepsLogs = (flags & 1) != 0;
  facts_.firstLog = load<std::uint16_t>(header, 28);
  facts_.lastLog = load<std::uint16_t>(header, 30);
  facts_.usable = true;
  if (flags > 1) findings_.damage(file_, 20, "unknown flags of the log");
  if (!facts_.keepsLogs && (facts_.firstLog != 0 || facts_.lastLog != 0)) {
    findings_.damage(file_, 28, "numbers of log files without numbered log files");
  }
  if (load<std::uint32_t>(header, 32) == 0) {
    findings_.damage(file_, 32, "number of the last transaction is 0");
  }
  return true;
}

void ControlCheck::checkIntent() {
  const auto state = file_.number<std::uint32_t>(36);
  if (state != 0) {
    findings_.pending(file_, 36, "an exclusive transaction did not end (" + text(state) + ")");
    facts_.openNumbers.push_back(1);
  }
  if (const std::uint64_t at = file_.firstNonzero(40, kHeader); at != kHeader) {
    if (file_.number<std::uint32_t>(48) != 0) {
      findings_.pending(file_, 48, "a change of the directory is under way");
    } else {
      findings_.remains(file_, at, "rest of an intent without its start");
    }
  }
}

void ControlCheck::checkDirectory() {
  if (end_ != entryEnd() + kRecord * tableCount_) {
    findings_.damage(file_, 8, "count, size and end of the directory do not agree");
    end_ = file_.size();
    return;
  }
  if (end_ > file_.size()) {
    findings_.damage(file_, 16, "directory ends behind the file");
    return;
  }
  std::uint64_t at = kHeader;
  for (std::uint32_t i = 0; i < tableCount_; ++i) {
    if (!readEntry(&at)) return;
  }
  if (at != entryEnd()) {
    findings_.damage(file_, at, "entries end before their area");
    return;
  }
  checkOrder();
  checkRecords();
}

bool ControlCheck::readName(std::uint64_t* at, std::u16string* out) {
  for (; *at + kUnit <= entryEnd(); *at += kUnit) {
    const auto unit = file_.number<char16_t>(*at);
    if (unit == 0) {
      *at += kUnit;
      return true;
    }
    *out += unit;
  }
  return false;
}

bool ControlCheck::readEntry(std::uint64_t* at) {
  DirectoryTable table;
  const std::uint64_t start = *at;
  constexpr std::uint64_t kLeast = 12;
  if (entryEnd() - start < kLeast) {
    findings_.damage(file_, start, "no room for another entry");
    return false;
  }
  table.id = file_.number<std::uint32_t>(start);
  table.lockOrder = file_.number<std::uint32_t>(start + 4);
  *at = start + 8;
  if (!readName(at, &table.name) || !readName(at, &table.indexPath)) {
    findings_.damage(file_, start + 8, "text without an end");
    return false;
  }
  constexpr std::u16string_view kForbidden = u"\\/:*?\"<>|";
  const bool bad = std::any_of(table.name.begin(), table.name.end(), [&](char16_t c) {
    return c < 0x20 || kForbidden.find(c) != std::u16string_view::npos;
  });
  if (table.name.empty() || bad) findings_.damage(file_, start + 8, "impossible table name");
  if (table.id == 0) findings_.damage(file_, start, "table ID 0");
  if (table.lockOrder == 0) findings_.damage(file_, start + 4, "lock order 0");
  places_.push_back(start);
  if (!table.name.empty() && !bad) facts_.tables.push_back(std::move(table));
  return true;
}

void ControlCheck::checkOrder() {
  if (facts_.tables.size() != places_.size()) return;
  std::set<std::uint32_t> ids;
  std::set<std::uint32_t> orders;
  for (std::size_t i = 0; i < places_.size(); ++i) {
    const DirectoryTable& table = facts_.tables[i];
    if (i != 0 && compareNames(facts_.tables[i - 1].name, table.name) >= 0) {
      findings_.damage(file_, places_[i] + 8, "names do not ascend");
    }
    if (!ids.insert(table.id).second) {
      findings_.damage(file_, places_[i], "table ID " + text(table.id) + " is there twice");
    }
    if (!orders.insert(table.lockOrder).second) {
      findings_.damage(file_, places_[i] + 4,
                       "lock order " + text(table.lockOrder) + " is there twice");
    }
  }
}

/// The records must lead to the entries, in the order of IDs.
void ControlCheck::checkRecords() {
  std::map<std::uint32_t, std::uint64_t> expected;  // ID and position
  for (const std::uint64_t place : places_) {
    expected.emplace(file_.number<std::uint32_t>(place), (place - kHeader) / kUnit);
  }
  if (expected.size() != tableCount_) return;
  std::uint64_t at = entryEnd();
  for (const auto& [id, position] : expected) {
    if (file_.number<std::uint32_t>(at) != id) {
      findings_.damage(file_, at, "record of table " + text(id) + " is not at its place");
    } else if (file_.number<std::uint32_t>(at + 4) != position) {
      findings_.damage(file_, at + 4, "record of table " + text(id) + " leads elsewhere");
    }
    at += kRecord;
  }
}

/// A transaction may have ended since its slot was read in part, around its lock.
bool ControlCheck::isImpossible(std::uint64_t slot) {
  std::uint32_t words[2] = {};
  return file_.readNow(slot, words, sizeof words) == 0 && words[1] != stateOf(words[0]);
}

void ControlCheck::checkSlots() {
  std::uint64_t at = std::max(end_, kHeader);
  for (; at <= file_.size() && file_.size() - at >= kSlot && !findings_.full(); at += kSlot) {
    const auto number = file_.number<std::uint32_t>(at);
    const auto state = file_.number<std::uint32_t>(at + 4);
    if (number != 0) {
      findings_.pending(file_, at, "slot of transaction " + text(number));
      facts_.openNumbers.push_back(number);
      if (number == 1) findings_.damage(file_, at, "the exclusive transaction has no slot");
    }
    if (state != stateOf(number) && isImpossible(at)) {
      findings_.damage(file_, at + 4, "slot in an impossible state");
    } else if (number == 0 && file_.size() - at < 2 * kSlot) {
      findings_.remains(file_, at, "free slot at the end of the file");
    }
  }
  if (at < file_.size()) findings_.remains(file_, at, "part of a slot");
}

}  // namespace

void checkControl(Findings& findings, CheckFile& file, ControlFacts& facts) {
  ControlCheck(findings, file, facts).run();
}

}  // namespace zelta::check

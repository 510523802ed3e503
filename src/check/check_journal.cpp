// Changes that a process left half carried out. Nothing is written: the view of the file is changed
// as the next writer will change the file, so that what is checked is what will be there.
//
// In all files a change stands complete behind the end, and is described and summed up in the
// header, before anything is applied. So it is dropped if sum or length are wrong, and else carried
// out from the beginning, however much of it has been.

#include "check/check_journal.h"

#include <algorithm>

#include "check/check_file.h"
#include "storage/free_space/free_block.h"
#include "storage/paged/paged_file.h"
#include "storage/table_file/table_file.h"

namespace zelta::check {

namespace {

/// Changes views, but no further than a change of a file of this size can lead.
class Applier {
 public:
  explicit Applier(CheckFile& file) : file_(file), left_(8 * file.size()) {}

  bool put(std::uint64_t offset, const void* bytes, std::uint64_t length) {
    if (length > left_) return false;
    left_ -= length;
    return file_.overlay(offset, bytes, length);
  }
  bool zero(std::uint64_t from, std::uint64_t to) {
    for (std::uint64_t piece = 0; from < to; from += piece) {
      constexpr char kZeros[4096] = {};
      piece = std::min<std::uint64_t>(to - from, sizeof kZeros);
      if (!put(from, kZeros, piece)) return false;
    }
    return true;
  }
  bool copy(std::uint64_t from, std::uint64_t to, std::uint64_t length) {
    const char* bytes = length > left_ ? nullptr : file_.view(from, length);
    return bytes != nullptr && put(to, std::string(bytes, length).data(), length);
  }
  bool copyOfJournal(std::uint64_t from, std::uint64_t to, std::string& out) {
    const char* bytes = file_.view(from, to - from);
    if (bytes == nullptr) return false;
    out.assign(bytes, to - from);
    return true;
  }

 private:
  CheckFile& file_;
  std::uint64_t left_;
};

/// Applies entries of free blocks; in log files, sizes have 64 bits and stand elsewhere.
bool applyFreeBlocks(Applier& applier, const std::string& journal, std::uint64_t at,
                     std::uint32_t count, bool tailTags, bool wide = false) {
  for (; count != 0; --count, at += kFreeEntrySize) {
    FreeEntry_tag entry;
    std::memcpy(&entry, journal.data() + at, sizeof entry);
    if (entry.dirty == 0 || entry.size == 0) continue;
    const auto size = static_cast<std::uint32_t>(entry.size);
    if (wide) {
      const WideBlock_tag head{entry.size, entry.next, kFreeMarker, 0};
      if (!applier.put(entry.position, &head, kWideBlockHead)) return false;
      continue;
    }
    const NarrowBlock_tag head{size, kFreeMarker, entry.next};
    if (entry.size < sizeof head + sizeof size || entry.size > 0xFFFFFFFF ||
        !applier.put(entry.position, &head, sizeof head)) {
      return false;
    }
    if (tailTags && !applier.put(entry.position + entry.size - 4, &size, sizeof size)) return false;
  }
  return true;
}

// -- Table files ------------------------------------------------------------------------------

/// A commit in a table file: what CommitRecovery of the library would make of it.
class TableChange {
 public:
  explicit TableChange(CheckFile& file) : file_(file), applier_(file) {}
  Change run();

 private:
  [[nodiscard]] bool fixed() const { return header_.fixedAreaSize == header_.minimumObjectSize; }
  [[nodiscard]] std::uint64_t slot(std::uint64_t id) const {
    return slotPosition(header_.slotBase, id);
  }
  [[nodiscard]] EditEntry_tag entry(std::uint64_t i) const {
    return load<EditEntry_tag>(journal_.data(), i * sizeof(EditEntry_tag));
  }
  bool read();
  Change drop();
  bool isSummedUp();
  bool carryOut();
  bool move(const EditEntry_tag& entry);
  bool edit(const EditEntry_tag& entry);
  bool putSlot(std::uint64_t id, std::uint64_t position, std::uint32_t transaction);
  bool putPlaceholder(const EditEntry_tag& entry, std::uint64_t position);
  bool finish(std::uint64_t end);

  CheckFile& file_;
  Applier applier_;
  TableHeader_tag header_{};
  std::string journal_;
};

bool TableChange::read() {
  const char* bytes = file_.view(0, sizeof header_);
  if (bytes != nullptr) std::memcpy(&header_, bytes, sizeof header_);
  return bytes != nullptr;
}

/// Reads the journal; false if it is not all there or its sum is wrong.
bool TableChange::isSummedUp() {
  const std::uint64_t entries = std::uint64_t{header_.editEntryCount} + header_.freeEntryCount;
  const std::uint64_t length = entries * sizeof(EditEntry_tag);
  if (length > header_.journalEnd) return false;
  if (!applier_.copyOfJournal(header_.journalEnd - length, header_.journalEnd, journal_)) {
    return false;
  }
  constexpr std::size_t kSummed = offsetof(TableHeader_tag, freeEntryCount);
  const char* header = reinterpret_cast<const char*>(&header_);
  const std::uint64_t sum = foldBytes(header + kSummed, sizeof header_ - kSummed) ^
                            foldBytes(journal_.data(), journal_.size());
  return static_cast<std::uint32_t>(sum ^ (sum >> 32)) == header_.journalChecksum;
}

Change TableChange::run() {
  if (!read() || header_.commitEnd == 0) return Change::none;
  constexpr std::uint32_t kNarrow = 6;
  constexpr std::uint32_t kWide = 10;
  if (header_.headerSize != kNarrow && header_.headerSize != kWide) return Change::impossible;
  if (header_.journalEnd > file_.size()) return drop();
  if (!isSummedUp()) return header_.journalBase != 0 ? drop() : Change::impossible;
  const std::uint64_t start = header_.journalEnd - journal_.size();
  if (start < header_.commitEnd || start < header_.endOfFile) return Change::impossible;
  return carryOut() ? Change::carriedOut : Change::impossible;
}

/// The table is as it was, and ends where it did.
Change TableChange::drop() {
  const std::uint64_t base = header_.journalBase != 0 ? header_.journalBase : header_.endOfFile;
  const bool good = base == header_.endOfFile && base <= file_.size() && finish(base);
  return good ? Change::dropped : Change::impossible;
}

bool TableChange::carryOut() {
  std::uint64_t i = 0;
  for (; i < header_.editEntryCount && entry(i).kind == EditKind::moveObject; ++i) {
    if (header_.journalBase != 0 && !move(entry(i))) return false;
  }
  for (; i < header_.editEntryCount; ++i) {
    if (!edit(entry(i))) return false;
  }
  if (header_.newHighestID > header_.newObjectAreaStart) return false;
  if (!applier_.zero(slot(header_.newHighestID + 1), header_.newObjectAreaStart)) return false;
  if (!applyFreeBlocks(applier_, journal_, i * sizeof(EditEntry_tag), header_.freeEntryCount,
                       true)) {
    return false;
  }
  header_.highestID = header_.newHighestID;
  header_.firstDeletedID = header_.newFirstDeletedID;
  header_.objectAreaStart = header_.newObjectAreaStart;
  header_.freeHead = header_.newFreeHead;
  return finish(header_.commitEnd);
}

bool TableChange::move(const EditEntry_tag& entry) {
  if (!fixed()) {
    const std::uint64_t length = std::max(file_.number<std::uint32_t>(entry.oldPosition + 4),
                                          header_.headerSize);  // a placeholder counts no bytes
    const std::uint32_t size = entry.newBlockSize;
    if (length + kRecordFraming > size ||
        !applier_.copy(entry.oldPosition + 4, entry.newPosition + 4, length + 4) ||
        !applier_.put(entry.newPosition, &size, 4) ||
        !applier_.put(entry.newPosition + size - 4, &size, 4)) {
      return false;
    }
  } else if (!applier_.copy(entry.oldPosition, entry.newPosition, header_.fixedAreaSize)) {
    return false;
  }
  return entry.objectID <= header_.journalEnd &&
         applier_.put(slot(entry.objectID), &entry.newPosition, 8);
}

bool TableChange::putSlot(std::uint64_t id, std::uint64_t position, std::uint32_t transaction) {
  return id <= header_.newHighestID && applier_.put(slot(id), &position, 8) &&
         applier_.put(slot(id) + 8, &transaction, 4);
}

/// The contents are not in this file.
bool TableChange::putPlaceholder(const EditEntry_tag& entry, std::uint64_t position) {
  const std::uint64_t object = position + (fixed() ? 0 : kRecordHead);
  const std::uint32_t size = entry.newBlockSize;
  constexpr std::uint32_t kNoLength = 0;
  if (!applier_.put(object, &kPlaceholderVersion, 2)) return false;
  if (!fixed() && !applier_.put(object - 4, &kNoLength, 4)) return false;
  if (!fixed() && size == 0) return true;  // the ID is there
  if (!applier_.put(object + 2, &entry.objectID, header_.headerSize - 2)) return false;
  return fixed() || (size >= kRecordFraming && applier_.put(position, &size, 4) &&
                     applier_.put(position + size - 4, &size, 4));
}

bool TableChange::edit(const EditEntry_tag& entry) {
  if (entry.kind == EditKind::freeSlot) {
    return putSlot(entry.objectID, entry.nextFreeID | kFreeSlot, 0);
  }
  const bool isNew = entry.kind == EditKind::newObject;
  if (!isNew && entry.kind != EditKind::replaceObject) return false;
  if (isNew && entry.nextFreeID != 0) {
    for (std::uint64_t id = entry.nextFreeID; id < entry.objectID; ++id) {
      if (!putSlot(id, kFreeSlot | (id + 1 < entry.objectID ? id + 1 : 0), 0)) return false;
    }
    if (entry.oldPosition != 0 && !putSlot(entry.oldPosition, entry.nextFreeID | kFreeSlot, 0)) {
      return false;
    }
  }
  const std::uint64_t position = entry.newPosition == 0 ? entry.oldPosition : entry.newPosition;
  return putPlaceholder(entry, position) &&
         putSlot(entry.objectID, position, header_.commitTransaction);
}

bool TableChange::finish(std::uint64_t end) {
  constexpr std::size_t kNumbers = offsetof(TableHeader_tag, highestID);
  constexpr std::size_t kIntent = offsetof(TableHeader_tag, journalBase);
  header_.endOfFile = end;
  char* bytes = reinterpret_cast<char*>(&header_);
  std::memset(bytes + kIntent, 0, sizeof header_ - kIntent);
  return applier_.put(kNumbers, bytes + kNumbers, sizeof header_ - kNumbers) && file_.cut(end);
}

// -- Index files ------------------------------------------------------------------------------

class IndexChange {
 public:
  IndexChange(CheckFile& file, std::uint32_t indexCount)
      : file_(file), applier_(file), roots_(8 * std::uint64_t{indexCount}) {}
  Change run();

 private:
  [[nodiscard]] std::uint64_t start() const {
    return std::max(header_.newEndOfFile, header_.journalBase);
  }
  bool isSummedUp();
  bool putPages(std::uint64_t* at);
  bool carryOut();
  bool finish(std::uint64_t end);

  CheckFile& file_;
  Applier applier_;
  std::uint64_t roots_;  ///< bytes of a table of roots
  IndexFileHeader_tag header_{};
  std::string journal_;
};

Change IndexChange::run() {
  const char* bytes = file_.view(0, sizeof header_);
  if (bytes == nullptr) return Change::none;
  std::memcpy(&header_, bytes, sizeof header_);
  if (header_.newEndOfFile == 0) return Change::none;
  if (header_.journalEnd == 0) return Change::abandoned;
  bool carry = header_.journalEnd <= file_.size();
  if (carry && header_.journalBase == 0) {  // applied already
    return finish(header_.newEndOfFile) ? Change::carriedOut : Change::impossible;
  }
  carry = carry && isSummedUp();
  if (carry) return carryOut() ? Change::carriedOut : Change::impossible;
  if (header_.journalBase != 0 && header_.journalBase != header_.endOfFile)
    return Change::impossible;
  return finish(header_.endOfFile) ? Change::dropped : Change::impossible;
}

bool IndexChange::isSummedUp() {
  constexpr std::size_t kSummed = offsetof(PagedFileHeader, newFreeHead);
  if (header_.journalEnd < start()) return false;
  const char* bytes = file_.view(kSummed, sizeof header_ - kSummed + roots_);
  if (bytes == nullptr) return false;
  const std::uint64_t sum = foldBytes(bytes, sizeof header_ - kSummed + roots_);
  if (!applier_.copyOfJournal(start(), header_.journalEnd, journal_)) return false;
  return (sum ^ foldBytes(journal_.data(), journal_.size())) == header_.journalChecksum;
}

/// A page entry: its position, and the page, which begins with its size.
bool IndexChange::putPages(std::uint64_t* at) {
  for (std::uint32_t i = 0; i < header_.pageEntryCount; ++i) {
    if (journal_.size() - *at < 12) return false;
    const auto target = load<std::uint64_t>(journal_.data(), *at);
    const auto size = load<std::uint32_t>(journal_.data(), *at + 8);
    *at += 8;
    if (size > journal_.size() - *at || target >= header_.newEndOfFile ||
        size > header_.newEndOfFile - target) {
      return false;
    }
    if (!applier_.put(target, journal_.data() + *at, size)) return false;
    *at += size;
  }
  return journal_.size() - *at == std::uint64_t{header_.freeEntryCount} * kFreeEntrySize;
}

bool IndexChange::carryOut() {
  std::uint64_t at = 0;
  if (!putPages(&at)) return false;
  if (!applyFreeBlocks(applier_, journal_, at, header_.freeEntryCount, false)) return false;
  if (!applier_.copy(sizeof header_, sizeof header_ + roots_, roots_)) return false;
  header_.freeHead = header_.newFreeHead;
  return finish(header_.newEndOfFile);
}

bool IndexChange::finish(std::uint64_t end) {
  constexpr std::size_t kChain = offsetof(PagedFileHeader, freeHead);
  constexpr std::size_t kIntent = offsetof(PagedFileHeader, journalBase);
  header_.endOfFile = end;
  char* bytes = reinterpret_cast<char*>(&header_);
  std::memset(bytes + kIntent, 0, sizeof header_ - kIntent);
  return applier_.put(kChain, bytes + kChain, sizeof header_ - kChain) &&
         applier_.zero(sizeof header_, sizeof header_ + roots_) && file_.cut(end);
}

// -- Log files --------------------------------------------------------------------------------

/// The header of a log file from offset 8 on.
struct LogNumbers {
  std::uint64_t root, freeHead, end;
  std::uint64_t oldEnd, intentEnd, intentStart, checksum;
  std::uint64_t newRoot, newFreeHead, newEntry, newLength;
  std::uint32_t nodes, freeBlocks, newNumber, zero;
};
static_assert(sizeof(LogNumbers) == 104);
constexpr std::uint64_t kLogHeader = 112;
constexpr std::uint64_t kLogNumbers = 8;
constexpr std::uint64_t kNode = 320;
constexpr std::uint64_t kNodeRecord = 8 + kNode;

bool readLogJournal(CheckFile& file, Applier& applier, const LogNumbers& log,
                    std::string& journal) {
  constexpr std::uint64_t kSummed = 64;
  const std::uint64_t start = std::max(log.intentStart, log.oldEnd);
  if (log.oldEnd < kLogHeader || log.intentEnd > file.size() || log.intentEnd < start) return false;
  if (log.intentEnd - start !=
      log.nodes * kNodeRecord + std::uint64_t{log.freeBlocks} * kFreeEntrySize) {
    return false;
  }
  if (!applier.copyOfJournal(start, log.intentEnd, journal)) return false;
  const char* summed = file.view(kSummed, kLogHeader - kSummed);
  return summed != nullptr && (foldBytes(summed, kLogHeader - kSummed) ^
                               foldBytes(journal.data(), journal.size())) == log.checksum;
}

bool applyLogJournal(Applier& applier, LogNumbers& log, const std::string& journal) {
  for (std::uint64_t i = 0; i < log.nodes; ++i) {
    const char* record = journal.data() + i * kNodeRecord;
    if (!applier.put(load<std::uint64_t>(record, 0), record + 8, kNode)) return false;
  }
  if (!applyFreeBlocks(applier, journal, log.nodes * kNodeRecord, log.freeBlocks, false, true)) {
    return false;
  }
  log.root = log.newRoot;
  log.freeHead = log.newFreeHead;
  if (log.newEntry == 0) return true;
  constexpr std::uint64_t kEntryHead = 32;
  constexpr std::uint32_t kMark = 0x4C4C455A;  // "ZELL"
  char head[kEntryHead] = {};
  std::memcpy(head, &log.newLength, 8);
  std::memcpy(head + 8, &kMark, 4);
  std::memcpy(head + 12, &log.newNumber, 4);
  return applier.put(log.newEntry, head, sizeof head);
}

}  // namespace

Change seeTableChange(CheckFile& file) { return TableChange(file).run(); }

Change seeIndexChange(CheckFile& file, std::uint32_t indexCount) {
  return IndexChange(file, indexCount).run();
}

Change seeLogChange(CheckFile& file) {
  const char* header = file.view(kLogNumbers, sizeof(LogNumbers));
  if (header == nullptr) return Change::none;
  auto log = load<LogNumbers>(header, 0);
  if (log.intentStart == 0) return Change::none;
  Applier applier(file);
  std::string journal;
  const bool good = readLogJournal(file, applier, log, journal);
  if (good && !applyLogJournal(applier, log, journal)) return Change::impossible;
  std::uint64_t end = log.oldEnd != 0 ? log.oldEnd : log.end;
  if (good) end = log.intentStart;
  if (end > file.size() || (end != 0 && end < kLogHeader)) return Change::impossible;
  log = {log.root, log.freeHead, end, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const bool done =
      applier.put(kLogNumbers, &log, sizeof log) && file.cut(std::max(end, kLogHeader));
  return !done ? Change::impossible : good ? Change::carriedOut : Change::dropped;
}

}  // namespace zelta::check

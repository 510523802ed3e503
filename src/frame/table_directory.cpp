// The table directory in memory and as bytes.

#include "frame/table_directory.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "frame/control_file.h"
#include "platform/clock.h"
#include "platform/file_io.h"
#include "platform/text.h"

namespace zelta {

namespace {

constexpr std::uint32_t kIndexRecordSize = 8;
/// Units of an entry before its texts: ID and lock order.
constexpr std::uint32_t kEntryHeadUnits = 4;
/// The smallest entry: head, and two empty texts with their terminators.
constexpr std::uint32_t kLeastEntryUnits = kEntryHeadUnits + 2;

template <typename Number>
void append(std::string& out, Number value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void appendText(std::string& out, const std::u16string& text) {
  out.append(reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * 2);
}

std::uint32_t unitsOf(const DirectoryEntry& entry) {
  return static_cast<std::uint32_t>(kEntryHeadUnits + entry.name.size() + entry.indexPath.size() +
                                    2);
}

/// Reads a terminated text of the entry area. False if its end is missing.
bool readText(const char* area, std::size_t units, std::size_t& position, std::u16string& out) {
  for (; position < units; ++position) {
    char16_t unit;
    std::memcpy(&unit, area + position * 2, 2);
    if (unit == 0) {
      ++position;
      return true;
    }
    out += unit;
  }
  return false;
}

char16_t lowerUnit(char16_t unit) {
  const char32_t lower = platform::toLower(unit);
  return lower < 0x10000 ? static_cast<char16_t>(lower) : unit;
}

}  // namespace

int compareNames(const std::u16string& a, const std::u16string& b) {
  const std::size_t common = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (a[i] == b[i]) continue;
    const char16_t x = lowerUnit(a[i]);
    const char16_t y = lowerUnit(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

bool isTableName(const std::u16string& name) {
  if (name.empty()) return false;
  return std::none_of(name.begin(), name.end(), [](char16_t c) {
    return c < 0x20 || c == 0x7F ||
           std::u16string_view(u"\\/:*?\"<>|").find(c) != std::u16string_view::npos;
  });
}

std::u16string indexFolder(const MetaData& metaData, const DirectoryEntry& entry) {
  return entry.indexPath.empty() ? metaData.directoryPath : withOwnSeparators(entry.indexPath);
}

bool TableDirectory::parse(const char* bytes, std::size_t length, std::uint32_t tableCount,
                           std::uint32_t directorySize) {
  entries_.clear();
  const std::uint64_t needed =
      std::uint64_t{directorySize} * 2 + std::uint64_t{tableCount} * kIndexRecordSize;
  if (needed != length || std::uint64_t{tableCount} * kLeastEntryUnits > directorySize)
    return false;
  std::size_t position = 0;
  for (std::uint32_t i = 0; i < tableCount; ++i) {
    DirectoryEntry entry{};
    if (position + kLeastEntryUnits > directorySize) return false;
    std::memcpy(&entry.tableId, bytes + position * 2, 4);
    std::memcpy(&entry.lockOrder, bytes + position * 2 + 4, 4);
    position += kEntryHeadUnits;
    if (!readText(bytes, directorySize, position, entry.name) ||
        !readText(bytes, directorySize, position, entry.indexPath)) {
      return false;
    }
    if (!isTableName(entry.name)) return false;
    entries_.push_back(std::move(entry));
  }
  if (position != directorySize) return false;
  // The index records must name the same entries.
  const bool same = bytes == nullptr || length == 0 || this->bytes() == std::string(bytes, length);
  return same && !hasTwins();
}

/// Two tables of one name would share their files, and what one of them knows of a file's length
/// would not hold behind a change by the other. Names that ascend are proof enough, but not the only
/// one: what counts as the same letter in another case differs between systems.
bool TableDirectory::hasTwins() const {
  std::vector<std::uint32_t> ids;
  for (const DirectoryEntry& entry : entries_) ids.push_back(entry.tableId);
  std::sort(ids.begin(), ids.end());
  if (std::adjacent_find(ids.begin(), ids.end()) != ids.end()) return true;
  const auto doNotAscend = [](const DirectoryEntry& a, const DirectoryEntry& b) {
    return compareNames(a.name, b.name) >= 0;
  };
  if (std::adjacent_find(entries_.begin(), entries_.end(), doNotAscend) == entries_.end())
    return false;
  for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
    const auto isTwin = [&](const DirectoryEntry& other) {
      return compareNames(other.name, entry->name) == 0;
    };
    if (std::any_of(std::next(entry), entries_.end(), isTwin)) return true;
  }
  return false;
}

Result TableDirectory::read(MetaData& metaData, const ControlHeader_tag& header) {
  entries_.clear();
  constexpr int kAttempts = 250;
  constexpr int kQuick = 150;
  const auto damaged = [&] {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  };
  const auto failed = [&](SystemCode failure) {
    return reportSystemError(&metaData, failure, metaData.baseName.c_str(), extension::kControl);
  };
  ControlHeader_tag current = header;
  for (int attempt = 0;; ++attempt) {
    if (current.directoryEnd < kControlHeaderSize) return damaged();
    const std::uint32_t length = current.directoryEnd - kControlHeaderSize;
    if (std::uint64_t{current.directorySize} * 2 +
            std::uint64_t{current.tableCount} * kIndexRecordSize !=
        length) {
      return damaged();
    }
    std::uint64_t size = 0;
    if (const SystemCode failure = platform::fileSize(metaData.controlFile, &size); failure != 0) {
      return failed(failure);
    }
    bool good = current.directoryEnd <= size;
    if (good) {
      char* bytes = metaData.scratchFor(Scratch::directory).reserve(length);
      const SystemCode failure =
          readLargeBuffer(metaData.controlFile, kControlHeaderSize, bytes, length);
      // A writer may have cut the file meanwhile.
      if (failure != 0 && failure != code::kEndOfFile) return failed(failure);
      good = failure == 0 && parse(bytes, length, current.tableCount, current.directorySize);
    }
    // A reader holds no lock: an exclusive transaction may be changing the directory. It writes the
    // directory first and its numbers later, with a flush between the two, so that an unchanged
    // header proves nothing against what was read.
    ControlHeader_tag again{};
    constexpr std::uint32_t kStable = kExclusiveWord;
    if (const SystemCode failure = readBuffer(metaData.controlFile, 0, &again, kStable);
        failure != 0) {
      return failed(failure);
    }
    const bool changed = std::memcmp(&again, &current, kStable) != 0;
    if (good && !changed) return {};
    if (attempt == kAttempts || (metaData.mayWrite() && !changed)) return damaged();
    std::memcpy(&current, &again, kStable);
    platform::sleepMilliseconds(attempt < kQuick ? 0 : 10);
  }
}

bool TableDirectory::stillStands(MetaData& metaData) const {
  const std::string expected = bytes();
  const auto length = static_cast<std::int64_t>(expected.size());
  char* now = metaData.scratchFor(Scratch::directory).reserve(expected.size());
  return readLargeBuffer(metaData.controlFile, kControlHeaderSize, now, length) == 0 &&
         std::memcmp(now, expected.data(), expected.size()) == 0;
}

const DirectoryEntry* TableDirectory::find(std::uint32_t tableId) const {
  for (const DirectoryEntry& entry : entries_) {
    if (entry.tableId == tableId) return &entry;
  }
  return nullptr;
}

void TableDirectory::insert(DirectoryEntry entry) {
  const auto place = std::find_if(entries_.begin(), entries_.end(), [&](const DirectoryEntry& e) {
    return compareNames(e.name, entry.name) > 0;
  });
  entries_.insert(place, std::move(entry));
}

bool TableDirectory::remove(std::uint32_t tableId) {
  const auto place = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const DirectoryEntry& e) { return e.tableId == tableId; });
  if (place == entries_.end()) return false;
  entries_.erase(place);
  return true;
}

std::uint32_t TableDirectory::entryUnits() const {
  std::uint32_t units = 0;
  for (const DirectoryEntry& entry : entries_) units += unitsOf(entry);
  return units;
}

std::string TableDirectory::bytes() const {
  std::string out;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> positions;  // ID, position
  for (const DirectoryEntry& entry : entries_) {
    positions.emplace_back(entry.tableId, static_cast<std::uint32_t>(out.size() / 2));
    append(out, entry.tableId);
    append(out, entry.lockOrder);
    appendText(out, entry.name);
    appendText(out, entry.indexPath);
  }
  std::sort(positions.begin(), positions.end());
  for (const auto& [id, position] : positions) {
    append(out, id);
    append(out, position);
  }
  return out;
}

}  // namespace zelta

#include "fuzz/directory.h"

#include <algorithm>

#include "fuzz/bytes.h"

namespace zelta::fuzz {

namespace {

constexpr std::uint64_t kStart = 76;

void append(std::string& out, std::uint32_t value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}
void append(std::string& out, const std::u16string& text) {
  out.append(reinterpret_cast<const char*>(text.c_str()), 2 * (text.size() + 1));
}

/// False if the text does not end before `end`.
bool take(const std::string& file, std::uint64_t& at, std::uint64_t end, std::u16string& out) {
  while (at + 2 <= end) {
    const auto unit = static_cast<char16_t>(numberAt<std::uint16_t>(file, at));
    at += 2;
    if (unit == 0) return true;
    out += unit;
  }
  return false;
}

/// Entries, then the records of IDs and positions.
std::string bytesOf(const std::vector<DirectoryLine>& lines, std::uint32_t* entryUnits) {
  std::string out;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> records;
  for (const DirectoryLine& line : lines) {
    records.emplace_back(line.id, static_cast<std::uint32_t>(out.size() / 2));
    append(out, line.id);
    append(out, line.order);
    append(out, line.name);
    append(out, line.folder);
  }
  *entryUnits = static_cast<std::uint32_t>(out.size() / 2);
  std::sort(records.begin(), records.end());
  for (const auto& [id, position] : records) {
    append(out, id);
    append(out, position);
  }
  return out;
}

}  // namespace

std::vector<DirectoryLine> directoryOf(const std::string& control) {
  std::vector<DirectoryLine> out;
  const std::uint32_t count = wordAt(control, 8);
  const std::uint64_t end =
      std::min<std::uint64_t>(kStart + 2 * std::uint64_t{wordAt(control, 12)}, control.size());
  std::uint64_t at = kStart;
  for (std::uint32_t i = 0; i < count && at + 8 <= end; ++i) {
    DirectoryLine line{wordAt(control, at), wordAt(control, at + 4), {}, {}};
    at += 8;
    if (!take(control, at, end, line.name) || !take(control, at, end, line.folder)) break;
    out.push_back(line);
  }
  return out;
}

void setDirectory(std::string& control, const std::vector<DirectoryLine>& lines) {
  const std::uint64_t end = wordAt(control, 16);
  if (end < kStart || end > control.size()) return;
  std::uint32_t units = 0;
  const std::string bytes = bytesOf(lines, &units);
  control.replace(kStart, end - kStart, bytes);
  setNumber(control, 8, static_cast<std::uint32_t>(lines.size()));
  setNumber(control, 12, units);
  setNumber(control, 16, static_cast<std::uint32_t>(kStart + bytes.size()));
}

void raiseDirectoryIntent(std::string& control, std::uint16_t operation, std::uint32_t table,
                          bool without) {
  std::vector<DirectoryLine> lines = directoryOf(control);
  if (without) {
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const DirectoryLine& line) { return line.id == table; }),
                lines.end());
  }
  std::uint32_t units = 0;
  const std::string bytes = bytesOf(lines, &units);
  const std::uint32_t oldEnd = wordAt(control, 16);
  const auto newEnd = static_cast<std::uint32_t>(kStart + bytes.size());
  const std::uint32_t image = std::max(oldEnd, newEnd);
  if (control.size() < kStart || image > control.size() + bytes.size()) return;
  control.resize(image);
  control += bytes;
  setNumber<std::uint32_t>(control, 36, 3);
  setNumber(control, 40, oldEnd);
  setNumber(control, 44, static_cast<std::uint32_t>(control.size()));
  setNumber(control, 48, newEnd);
  setNumber(control, 56, operation);
  setNumber(control, 60, table);
  setNumber(control, 64, static_cast<std::uint32_t>(lines.size()));
  setNumber(control, 68, units);
  setNumber(control, 72, newEnd);
}

}  // namespace zelta::fuzz

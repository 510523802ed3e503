// The offsets are those of docs/file-formats.md and the headers that it names.

#include "fuzz/places.h"

#include <algorithm>
#include <cstring>

#include "fuzz/archive.h"
#include "fuzz/bytes.h"

namespace zelta::fuzz {

namespace {

class Places {
 public:
  Places(const std::string& file, std::vector<Place>& out) : file_(file), out_(out) {}

  void control();
  void table();
  void pages(std::uint64_t roots);
  void log();

 private:
  void add(std::uint64_t offset, unsigned width) {
    if (has(file_, offset, width)) out_.push_back({offset, width});
  }
  void run(std::uint64_t offset, unsigned width, std::uint64_t count) {
    constexpr std::uint64_t kMost = 40;
    for (std::uint64_t i = 0; i < std::min(count, kMost); ++i) add(offset + i * width, width);
  }
  void slots();
  void record(std::uint64_t position);
  void freeChain(std::uint64_t head, bool wide);
  void tableJournal();
  void page(std::uint64_t position, int depth);
  void logNode(std::uint64_t position);
  void logEntry(std::uint64_t position);

  const std::string& file_;
  std::vector<Place>& out_;
};

void Places::control() {
  run(8, 4, 4);
  run(24, 2, 4);
  run(32, 4, 6);
  run(56, 2, 2);
  run(60, 4, 4);
  constexpr std::uint64_t kDirectory = 76;
  const std::uint64_t end = wordAt(file_, 16);
  if (end > kDirectory) run(kDirectory, 4, (end - kDirectory) / 4);
  run(end, 4, 16);
}

void Places::table() {
  run(8, 4, 6);
  run(32, 8, 8);
  run(96, 4, 6);
  run(120, 8, 6);
  run(168, 4, wordAt(file_, 12) / 4);
  run(168, 2, wordAt(file_, 12) / 2);
  slots();
  freeChain(longAt(file_, 56), false);
  tableJournal();
}

void Places::slots() {
  const std::uint64_t base = wordAt(file_, 8);
  const std::uint64_t highest = std::min<std::uint64_t>(longAt(file_, 32) + 2, 60);
  for (std::uint64_t id = 0; id <= highest; ++id) {
    add(base + 12 * id, 8);
    add(base + 12 * id + 8, 4);
    const std::uint64_t position = longAt(file_, base + 12 * id);
    if (position != 0 && has(file_, position, 8)) record(position);
  }
}

/// In a fixed table the object itself begins there; its words are as good to mutate.
void Places::record(std::uint64_t position) {
  run(position, 4, 8);
  run(position + 8, 2, 4);
  const std::uint32_t size = wordAt(file_, position);
  if (size >= 12 && has(file_, position, size)) {
    add(position + size - 4, 4);
    run(position + 18, 4, (size - 18) / 4);
  }
}

void Places::freeChain(std::uint64_t head, bool wide) {
  for (int i = 0; i < 8 && head != 0 && has(file_, head, 20); ++i) {
    const unsigned word = wide ? 8 : 4;
    add(head, word);
    add(head + word, word);
    add(head + 8, 8);
    add(head + 16, 4);
    head = longAt(file_, head + 8);
  }
}

void Places::tableJournal() {
  constexpr std::uint64_t kEntry = 40;
  const std::uint64_t end = longAt(file_, 80);
  std::uint64_t count = std::uint64_t{wordAt(file_, 104)} + wordAt(file_, 112);
  if (longAt(file_, 88) == 0 || end > file_.size() || count * kEntry > end) return;
  for (std::uint64_t at = end - count * kEntry; at < end; at += kEntry) {
    run(at, 4, 2);
    run(at + 8, 8, 4);
  }
}

/// Headers of memory and index files, their roots, and the pages that those lead to.
void Places::pages(std::uint64_t roots) {
  run(8, 4, 2);
  run(16, 8, 7);
  run(72, 4, 2);
  const std::uint64_t count = std::min<std::uint64_t>(roots, 20);
  run(80, 8, 2 * count);
  for (std::uint64_t i = 0; i < count; ++i) page(longAt(file_, 80 + 8 * (roots + i)), 0);
  freeChain(longAt(file_, 16), false);
  const std::uint64_t journal = std::max(longAt(file_, 48), longAt(file_, 32));
  if (longAt(file_, 48) != 0) {
    add(journal, 8);
    page(journal + 8, 0);
  }
}

void Places::page(std::uint64_t position, int depth) {
  const std::uint32_t size = wordAt(file_, position);
  if (position == 0 || !has(file_, position, 28)) return;
  add(position, 4);
  run(position + 4, 2, 2);
  run(position + 8, 8, 2);
  run(position + 8, 4, 12);
  if (size < 64 || !has(file_, position, size)) return;
  run(position + size - 40, 8, 5);
  constexpr std::uint32_t kMapPage = 2040;
  if (size == kMapPage) {
    for (const std::uint64_t part : {24u, 696u, 1032u, 1368u}) run(position + part, 4, 6);
    add(longAt(file_, position + 1368), 4);
  }
  run(position + size - 40, 4, 10);
  constexpr std::uint16_t kChainTag = 0x6269;
  const auto tag = numberAt<std::uint16_t>(file_, position + 4);
  if (tag == kChainTag && depth < 3) page(longAt(file_, position + 8), depth + 1);
  const bool branch = tag == 0x6E69;
  if (branch && depth < 3) {
    for (unsigned i = 1; i <= 4; ++i) page(longAt(file_, position + size - 8 * i), depth + 1);
  }
}

void Places::log() {
  run(4, 1, 2);
  add(6, 2);
  run(8, 8, 11);
  run(96, 4, 4);
  logNode(longAt(file_, 8));
  freeChain(longAt(file_, 16), true);
  for (std::uint64_t at = file_.find("ZELL", 120); at < file_.size();
       at = file_.find("ZELL", at + 4)) {
    logEntry(at - 8);
  }
  logNode(std::max(longAt(file_, 48), longAt(file_, 32)) + 8);  // the first of a change under way
}

void Places::logNode(std::uint64_t position) {
  if (position == 0 || !has(file_, position, 320)) return;
  add(position, 8);
  run(position + 8, 2, 2);
  run(position + 12, 4, 6);
  run(position + 112, 8, 6);
}

void Places::logEntry(std::uint64_t position) {
  add(position, 8);
  run(position + 8, 4, 4);
  const std::uint64_t length = longAt(file_, position);
  run(position + 32, 4, length / 4);
  run(position + 40, 8, 4);
}

}  // namespace

FileKind kindOf(std::size_t name) {
  const char* text = kFileNames[name];
  switch (text[std::strlen(text) - 1]) {
    case 'c':
      return FileKind::control;
    case 't':
      return FileKind::table;
    case 'm':
      return FileKind::memory;
    case 'i':
      return FileKind::index;
    default:
      return FileKind::log;
  }
}

std::vector<Place> placesOf(const std::string& file, FileKind kind) {
  std::vector<Place> out;
  Places places(file, out);
  switch (kind) {
    case FileKind::control:
      places.control();
      break;
    case FileKind::table:
      places.table();
      break;
    case FileKind::memory:
      places.pages(std::uint64_t{wordAt(file, 8)} + 1);
      break;
    case FileKind::index:
      places.pages(wordAt(file, 8));
      break;
    case FileKind::log:
      places.log();
      break;
  }
  return out;
}

}  // namespace zelta::fuzz

// The offsets are those of docs/file-formats.md and the headers that it names.

#include "fuzz/checksums.h"

#include <algorithm>

#include "fuzz/bytes.h"
#include "fuzz/places.h"

namespace zelta::fuzz {

namespace {

/// An exclusive or of the words of the bytes from `start` to `end`, the last one filled with zeros.
template <class Word>
Word fold(const std::string& file, std::uint64_t start, std::uint64_t end) {
  Word sum = 0;
  for (std::uint64_t at = start; at < end; at += sizeof sum) {
    Word word = 0;
    std::memcpy(&word, file.data() + at, std::min<std::uint64_t>(sizeof word, end - at));
    sum ^= word;
  }
  return sum;
}

/// Puts the sum of a part of the header and of the journal at its place.
template <class Word>
void mend(std::string& file, std::uint64_t place, std::uint64_t summed, std::uint64_t summedEnd,
          std::uint64_t journal, std::uint64_t journalEnd) {
  if (summedEnd < summed || !has(file, summed, summedEnd - summed)) return;
  if (journalEnd < journal || !has(file, journal, journalEnd - journal)) return;
  const Word sum = fold<Word>(file, summed, summedEnd) ^ fold<Word>(file, journal, journalEnd);
  setNumber(file, place, sum);
}

void mendControl(std::string& file) {
  const std::uint32_t imageStart = wordAt(file, 48);
  if (imageStart == 0) return;
  mend<std::uint32_t>(file, 52, 56, 76, std::max(imageStart, wordAt(file, 40)), wordAt(file, 44));
}

void mendTable(std::string& file) {
  if (longAt(file, 88) == 0) return;
  constexpr std::uint64_t kEntry = 40;
  const std::uint64_t length =
      kEntry * (std::uint64_t{wordAt(file, 104)} + std::uint64_t{wordAt(file, 112)});
  const std::uint64_t end = longAt(file, 80);
  if (length <= end) mend<std::uint32_t>(file, 96, 104, 168, end - length, end);
}

/// Memory and index files differ in the number of their roots.
void mendPages(std::string& file, std::uint64_t roots) {
  const std::uint64_t newEnd = longAt(file, 48);
  if (newEnd == 0 || roots > file.size()) return;
  mend<std::uint64_t>(file, 56, 64, 80 + 8 * roots, std::max(newEnd, longAt(file, 32)),
                      longAt(file, 40));
}

void mendLogEntries(std::string& file) {
  constexpr std::uint64_t kHeader = 112;
  constexpr std::uint64_t kHead = 32;
  for (std::uint64_t at = file.find("ZELL", kHeader + 8); at < file.size();
       at = file.find("ZELL", at + 4)) {
    const std::uint64_t start = at - 8;
    const std::uint64_t length = longAt(file, start);
    if (length < kHead || wordAt(file, start + 16) == 0) continue;
    mend<std::uint64_t>(file, start + 24, start + kHead, start + length, 0, 0);
  }
}

void mendLog(std::string& file) {
  mendLogEntries(file);
  const std::uint64_t intentStart = longAt(file, 48);
  if (intentStart == 0) return;
  mend<std::uint64_t>(file, 56, 64, 112, std::max(intentStart, longAt(file, 32)), longAt(file, 40));
}

}  // namespace

void mendChecksums(Archive& archive) {
  for (ArchivedFile& file : archive.files) {
    switch (kindOf(file.name)) {
      case FileKind::control:
        mendControl(file.bytes);
        break;
      case FileKind::table:
        mendTable(file.bytes);
        break;
      case FileKind::memory:
        mendPages(file.bytes, std::uint64_t{wordAt(file.bytes, 8)} + 1);
        break;
      case FileKind::index:
        mendPages(file.bytes, wordAt(file.bytes, 8));
        break;
      case FileKind::log:
        mendLog(file.bytes);
        break;
    }
  }
}

}  // namespace zelta::fuzz

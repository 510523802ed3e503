// The mutator of the targets that work on files: it changes numbers that matter, then makes the
// checksums right again, most of the time.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "fuzz/archive.h"
#include "fuzz/bytes.h"
#include "fuzz/checksums.h"
#include "fuzz/directory.h"
#include "fuzz/places.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace zelta::fuzz {

namespace {

class Mutator {
 public:
  Mutator(Archive& archive, unsigned seed) : archive_(archive), random_(seed) {}
  void run();

 private:
  std::uint64_t below(std::uint64_t n) { return n == 0 ? 0 : random_() % n; }
  bool once(unsigned n) { return below(n) == 0; }
  ArchivedFile& someFile() { return archive_.files[below(archive_.files.size())]; }

  void mutateOnce();
  void changeNumber();
  [[nodiscard]] std::uint64_t otherNumber(const std::string& file, std::uint64_t old,
                                          const std::vector<Place>& places);
  void changeBytes();
  void changeLength();
  void exchangePart();
  void exchangeFile();
  void changeDirectory();
  void raiseIntent();
  void changeSteering();

  Archive& archive_;
  std::mt19937_64 random_;
};

void Mutator::run() {
  if (archive_.files.empty()) return changeSteering();
  const bool mended = !once(8);
  for (std::uint64_t i = 1 + below(3); i != 0; --i) mutateOnce();
  if (mended) mendChecksums(archive_);
}

void Mutator::mutateOnce() {
  const std::uint64_t choice = below(100);
  if (choice < 55) return changeNumber();
  if (choice < 63) return changeBytes();
  if (choice < 67) return changeLength();
  if (choice < 71) return exchangePart();
  if (choice < 74) return exchangeFile();
  if (choice < 79) return changeDirectory();
  if (choice < 84) return raiseIntent();
  changeSteering();
}

/// A number that is likely to be at a boundary of what the file's other numbers say.
std::uint64_t Mutator::otherNumber(const std::string& file, std::uint64_t old,
                                   const std::vector<Place>& places) {
  static constexpr std::uint64_t kSpecial[] = {0,
                                               1,
                                               2,
                                               4,
                                               8,
                                               12,
                                               40,
                                               76,
                                               112,
                                               168,
                                               320,
                                               0x7F,
                                               0x80,
                                               0xFF,
                                               0x7FFF,
                                               0x8000,
                                               0xFFFE,
                                               0xFFFF,
                                               0x10000,
                                               0x7FFFFFFF,
                                               0x80000000,
                                               0xFFFFFFF0,
                                               0xFFFFFFFE,
                                               0xFFFFFFFF,
                                               0x100000000,
                                               std::uint64_t{1} << 62,
                                               std::uint64_t{1} << 63,
                                               ~std::uint64_t{0},
                                               ~std::uint64_t{7}};
  switch (below(8)) {
    case 0:
      return kSpecial[below(std::size(kSpecial))];
    case 1:
      return old + 1 + below(8);
    case 2:
      return old - 1 - below(8);
    case 3:
      return file.size() - below(3) * 4 + below(2);
    case 4:
      return old ^ (std::uint64_t{1} << below(64));
    case 5:
      return below(file.size());
    case 6:
      return below(64);
    default: {
      const Place& place = places[below(places.size())];
      std::uint64_t value = 0;
      std::memcpy(&value, file.data() + place.offset, place.width);
      return value;
    }
  }
}

void Mutator::changeNumber() {
  ArchivedFile& file = someFile();
  const std::vector<Place> places = placesOf(file.bytes, kindOf(file.name));
  if (places.empty()) return changeBytes();
  const Place& place = places[below(places.size())];
  std::uint64_t old = 0;
  std::memcpy(&old, file.bytes.data() + place.offset, place.width);
  const std::uint64_t value = otherNumber(file.bytes, old, places);
  std::memcpy(file.bytes.data() + place.offset, &value, place.width);
}

void Mutator::changeBytes() {
  std::string& bytes = someFile().bytes;
  if (bytes.empty()) return;
  const std::uint64_t start = below(bytes.size());
  const std::uint64_t length = std::min<std::uint64_t>(1 + below(16), bytes.size() - start);
  LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(bytes.data()) + start, length, length);
}

void Mutator::changeLength() {
  constexpr std::uint64_t kLargest = 32768;
  std::string& bytes = someFile().bytes;
  if (once(2)) {
    bytes.resize(below(bytes.size() + 1));
  } else if (bytes.size() < kLargest) {
    bytes.resize(bytes.size() + 1 + below(256), once(2) ? '\0' : '\xFF');
  }
}

/// Copies a part of a file over another part of one.
void Mutator::exchangePart() {
  const std::string source = someFile().bytes;
  std::string& target = someFile().bytes;
  if (source.empty() || target.empty()) return;
  const std::uint64_t from = below(source.size()) & ~std::uint64_t{3};
  const std::uint64_t to = below(target.size()) & ~std::uint64_t{3};
  const std::uint64_t length = std::min({1 + below(400), source.size() - from, target.size() - to});
  target.replace(to, length, source, from, length);
}

/// Takes a file away, or gives it to another name of its kind.
void Mutator::exchangeFile() {
  const std::uint64_t which = below(archive_.files.size());
  if (once(3) && archive_.files.size() > 1) {
    archive_.files.erase(archive_.files.begin() + static_cast<std::ptrdiff_t>(which));
    return;
  }
  const std::size_t name = below(kFileNameCount);
  const ArchivedFile copy{name, archive_.files[which].bytes};
  if (kindOf(name) != kindOf(archive_.files[which].name)) return;
  if (const auto there = archive_.find(name)) {
    archive_.files[*there] = copy;
  } else {
    archive_.files.push_back(copy);
  }
}

void Mutator::changeDirectory() {
  static const std::u16string kTexts[] = {
      u"a",     u"b",        u"C",       u"../s/a", u"..\\s\\a",
      u"",      u"i/a",      u"../s/db", u".",      u"..",
      u"a.zlt", u"../run/b", u"x:a",     u"notes",  std::u16string(300, u'a')};
  static const std::u16string kFolders[] = {u"",
                                            u"i/",
                                            u"../s/",
                                            u"/dev/shm/zelta-fuzz/s/",
                                            u"/dev/shm/zelta-fuzz/run/i/",
                                            u"/dev/shm/zelta-fuzz/run/../s/",
                                            u"/",
                                            u"nowhere/"};
  const auto control = archive_.find(0);
  if (!control) return;
  std::string& file = archive_.files[*control].bytes;
  std::vector<DirectoryLine> lines = directoryOf(file);
  if (lines.empty()) return;
  DirectoryLine& line = lines[below(lines.size())];
  switch (below(5)) {
    case 0:
      line.name = kTexts[below(std::size(kTexts))];
      break;
    case 1:
      line.folder = kFolders[below(std::size(kFolders))];
      break;
    case 2:
      line.id = static_cast<std::uint32_t>(below(4));
      break;
    case 3:
      lines.push_back(line);
      lines.back().id = static_cast<std::uint32_t>(below(4));
      lines.back().name = kTexts[below(std::size(kTexts))];
      break;
    default:
      lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(below(lines.size())));
  }
  setDirectory(file, lines);
}

/// Lets an intent stand of which the files know nothing.
void Mutator::raiseIntent() {
  ArchivedFile& file = someFile();
  std::string& bytes = file.bytes;
  const std::uint64_t size = bytes.size();
  switch (kindOf(file.name)) {
    case FileKind::control:
      raiseDirectoryIntent(bytes, static_cast<std::uint16_t>(32 + below(12)),
                           static_cast<std::uint32_t>(below(4)), once(2));
      break;
    case FileKind::table:
      setNumber<std::uint64_t>(bytes, 72, once(2) ? 0 : longAt(bytes, 64));
      setNumber<std::uint64_t>(bytes, 80, size);
      setNumber<std::uint64_t>(bytes, 88, longAt(bytes, 64));
      setNumber<std::uint32_t>(bytes, 100, 2);
      setNumber<std::uint32_t>(bytes, 112, static_cast<std::uint32_t>(below(3)));
      setNumber<std::uint64_t>(bytes, 120, longAt(bytes, 48));
      setNumber<std::uint64_t>(bytes, 144, longAt(bytes, 32));
      break;
    case FileKind::memory:
    case FileKind::index:
      setNumber<std::uint64_t>(bytes, 32, once(2) ? 0 : longAt(bytes, 24));
      setNumber<std::uint64_t>(bytes, 40, size);
      setNumber<std::uint64_t>(bytes, 48, once(4) ? below(1ull << 40) : longAt(bytes, 24));
      setNumber<std::uint32_t>(bytes, 72, static_cast<std::uint32_t>(below(3)));
      break;
    case FileKind::log:
      setNumber<std::uint64_t>(bytes, 32, longAt(bytes, 24));
      setNumber<std::uint64_t>(bytes, 40, size);
      setNumber<std::uint64_t>(bytes, 48, longAt(bytes, 24));
      setNumber<std::uint64_t>(bytes, 64, longAt(bytes, 8));
      setNumber<std::uint32_t>(bytes, 96, static_cast<std::uint32_t>(below(3)));
      break;
  }
}

void Mutator::changeSteering() {
  constexpr std::size_t kLongest = 400;
  std::string bytes = archive_.steering;
  const std::size_t size = std::min(bytes.size(), kLongest);
  bytes.resize(kLongest);
  bytes.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(bytes.data()), size, kLongest));
  archive_.steering = bytes;
}

}  // namespace

}  // namespace zelta::fuzz

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  using namespace zelta::fuzz;
  Archive archive = unpack(data, size);
  Mutator(archive, seed).run();
  const std::string out = pack(archive);
  if (out.size() > maxSize) return size;
  std::memcpy(data, out.data(), out.size());
  return out.size();
}

// What the sources of the checker share: reading files without trust, collecting findings, proving
// that blocks cover a file.
//
// Most offsets and magic numbers are written out in the sources once more: a checker that took all
// of them from the library would share its mistakes.

#ifndef ZELTA_CHECK_CHECK_FILE_H
#define ZELTA_CHECK_CHECK_FILE_H

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "check/check.h"
#include "platform/file.h"

namespace zelta::check {

/// A file that is read through a window in memory. Nothing outside of it is ever read.
class CheckFile {
 public:
  explicit CheckFile(const std::u16string& path);
  ~CheckFile() { platform::closeFile(file_); }
  CheckFile(const CheckFile&) = delete;
  CheckFile& operator=(const CheckFile&) = delete;

  [[nodiscard]] bool isOpen() const { return file_ != platform::File::none; }
  /// It does not exist, nor is there anything else that keeps it from being opened.
  [[nodiscard]] bool isMissing() const;
  [[nodiscard]] SystemCode failure() const { return failure_; }
  [[nodiscard]] std::uint64_t size() const { return size_; }
  [[nodiscard]] const std::string& name() const { return name_; }

  /// `length` bytes at `offset`, good until the next call; null if they are not all in the file.
  [[nodiscard]] const char* view(std::uint64_t offset, std::uint64_t length);
  /// A number at `offset`; 0 if it is not in the file.
  template <typename Number>
  [[nodiscard]] Number number(std::uint64_t offset) {
    Number value{};
    const char* bytes = view(offset, sizeof value);
    if (bytes != nullptr) std::memcpy(&value, bytes, sizeof value);
    return value;
  }
  /// Whether a word cannot be read since somebody has locked it.
  [[nodiscard]] bool isLocked(std::uint64_t offset);
  /// Reads what is there now, around nothing: a code, 33 if somebody has locked a part of it.
  [[nodiscard]] SystemCode readNow(std::uint64_t offset, void* bytes, std::uint32_t length);
  /// The first byte in [from, to) that is not zero; `to` if there is none.
  [[nodiscard]] std::uint64_t firstNonzero(std::uint64_t from, std::uint64_t to);

  /// From now on the file is seen with these bytes at `offset`. False if they are not all in it.
  [[nodiscard]] bool overlay(std::uint64_t offset, const void* bytes, std::uint64_t length);
  /// From now on the file is seen to end there. False if it is shorter.
  [[nodiscard]] bool cut(std::uint64_t size);
  /// The same file is seen as through the other.
  void seeAs(const CheckFile& other);

 private:
  static constexpr std::uint64_t kOverlaid = 4096;
  using Overlays = std::map<std::uint64_t, std::array<char, kOverlaid>>;

  /// Reads with all that is laid over.
  bool read(std::uint64_t offset, char* bytes, std::uint64_t length);
  /// Words that open transactions have locked, which some systems let nobody read, count as zero.
  bool readOpenParts(std::uint64_t offset, char* bytes, std::uint64_t length);

  platform::File file_ = platform::File::none;
  SystemCode failure_ = 0;
  std::uint64_t size_ = 0;
  std::shared_ptr<Overlays> overlays_;  ///< pieces by position; null if nothing is laid over
  std::string name_;
  std::vector<char> window_;
  std::uint64_t start_ = 0;
  std::uint64_t held_ = 0;
};

template <typename Number>
[[nodiscard]] Number load(const char* bytes, std::uint64_t offset) {
  Number value;
  std::memcpy(&value, bytes + offset, sizeof value);
  return value;
}

/// Collects what was found, up to the wanted number.
class Findings {
 public:
  explicit Findings(const CheckOptions& options) : options_(options) {}

  void damage(const CheckFile& file, std::uint64_t offset, std::string what) {
    add(CheckKind::damage, file, offset, std::move(what));
  }
  void pending(const CheckFile& file, std::uint64_t offset, std::string what) {
    add(CheckKind::pendingWork, file, offset, std::move(what));
  }
  void remains(const CheckFile& file, std::uint64_t offset, std::string what) {
    if (options_.remains) add(CheckKind::remains, file, offset, std::move(what));
  }
  /// An empty collection of as many at most, for looking at what has been reported.
  [[nodiscard]] Findings without() const { return Findings(options_); }
  /// Nothing more will be taken: loops end then.
  [[nodiscard]] bool full() const { return list.size() >= options_.maximumFindings; }

  CheckCounts counts;
  std::vector<CheckFinding> list;

 private:
  void add(CheckKind kind, const CheckFile& file, std::uint64_t offset, std::string what);
  const CheckOptions& options_;
};

/// A part of a file that something occupies.
struct Extent {
  std::uint64_t position;
  std::uint64_t size;
};

/// Proves that extents cover [from, to) without overlaps, and, if they are `complete`, without
/// gaps. Sorts them.
void checkTiling(Findings& findings, const CheckFile& file, std::vector<Extent>& extents,
                 std::uint64_t from, std::uint64_t to, bool complete);

/// Walks a chain of narrow free blocks and adds them to the extents.
void checkFreeChain(Findings& findings, CheckFile& file, std::uint64_t headOffset,
                    std::uint64_t from, std::uint64_t to, std::vector<Extent>& extents);

/// Names a number in a text.
[[nodiscard]] inline std::string text(std::uint64_t number) { return std::to_string(number); }

/// Folds bytes into the 8 bytes of a checksum, as if the stream began here.
[[nodiscard]] std::uint64_t foldBytes(const char* bytes, std::uint64_t length);
/// The same for a part of a file. False if it cannot be read.
[[nodiscard]] bool foldBytes(CheckFile& file, std::uint64_t from, std::uint64_t to,
                             std::uint64_t* sum);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_FILE_H

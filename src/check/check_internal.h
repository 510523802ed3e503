// What the sources of the checker share: reading files without trust, collecting findings, proving
// that blocks cover a file.
//
// Most offsets and magic numbers are written out in the sources once more: a checker that took all
// of them from the library would share its mistakes. A change that was cut off is first played
// through in the view of its file (seeTableChange() and its like), so that all else can be checked
// as at rest.

#ifndef ZELTA_CHECK_CHECK_INTERNAL_H
#define ZELTA_CHECK_CHECK_INTERNAL_H

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
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

// -- Changes that were cut off ----------------------------------------------------------------

enum class Change {
  none,
  dropped,     ///< it was never complete
  carriedOut,  ///< it will be, whoever comes next
  abandoned,   ///< an index file was being built
  impossible   ///< it makes no sense
};

/// Changes the view of a file with a change under way to what the next writer will make of it.
[[nodiscard]] Change seeTableChange(CheckFile& file);
[[nodiscard]] Change seeIndexChange(CheckFile& file, std::uint32_t indexCount);
[[nodiscard]] Change seeLogChange(CheckFile& file);

// -- Trees of keys ----------------------------------------------------------------------------

/// Where a tree lies and what its nodes are like.
struct TreePlace {
  std::uint64_t root = 0;
  std::uint64_t rootOffset = 0;  ///< where the root's position stands
  std::uint64_t from = 0;        ///< the nodes lie in [from, to)
  std::uint64_t to = 0;
  std::uint32_t pageSize = 0;
  bool variable = false;
  std::uint32_t keyWords = 0;
  std::uint32_t idBytes = 4;
};

/// An entry of a leaf. The key is `words` long.
struct TreeEntry {
  const std::uint32_t* key;
  std::uint32_t words;
  std::uint64_t objectID;
  std::uint64_t offset;  ///< of the key in the file
};
using EntryVisitor = std::function<void(const TreeEntry&)>;

// -- The files --------------------------------------------------------------------------------

struct DirectoryTable {
  std::uint32_t id = 0;
  std::uint32_t lockOrder = 0;
  std::u16string name;
  std::u16string indexPath;
};

/// What the control file tells the others.
struct ControlFacts {
  std::vector<DirectoryTable> tables;
  bool keepsLogs = false;
  std::uint16_t firstLog = 0;
  std::uint16_t lastLog = 0;
  std::vector<std::uint32_t> openNumbers;  ///< of transactions that did not end
  bool usable = false;                     ///< the header could be read
};

/// A table's section in the log entry of a transaction that has committed and did not end.
struct PendingSection {
  std::shared_ptr<CheckFile> log;
  std::uint32_t number;  ///< of the transaction
  std::uint32_t tableID;
  std::uint64_t at;   ///< of its head
  std::uint64_t end;  ///< of the entry
};
[[nodiscard]] std::vector<PendingSection> findPending(const std::u16string& folder,
                                                      const std::u16string& baseName,
                                                      const ControlFacts& facts);

[[nodiscard]] std::u16string logName(const std::u16string& baseName);
[[nodiscard]] std::u16string logName(const std::u16string& baseName, std::uint16_t number);
/// The numbers of the log files that there are, the oldest first; those of the range go round. What
/// the control file says of the range may be damaged: only what the folder holds is looked for.
[[nodiscard]] std::vector<std::uint16_t> logNumbers(const std::u16string& folder,
                                                    const ControlFacts& facts);
/// Bytes behind the head of a section of table edits, which ends within `end`. False if they do not
/// come out even.
[[nodiscard]] bool measureEdits(CheckFile& file, std::uint64_t at, std::uint64_t end,
                                std::uint64_t* size);

// Each reports what it finds and goes on as far as there is sense in it.
void checkControl(Findings& findings, CheckFile& file, ControlFacts& facts);
void checkTable(Findings& findings, const std::u16string& folder, const DirectoryTable& entry,
                const std::vector<PendingSection>& pending);
void checkLogs(Findings& findings, const std::u16string& folder, const std::u16string& baseName,
               const ControlFacts& facts);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_INTERNAL_H

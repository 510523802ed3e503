// Reading log entries: one after the other in a file, and the sections of each. Recovery, replay
// and the search for later entries read them here. Nothing that stands in an entry is trusted for
// its checksum alone: counts and lengths are measured by what is left of it.

#ifndef ZELTA_TRANSACTION_LOG_LOG_ENTRIES_H
#define ZELTA_TRANSACTION_LOG_LOG_ENTRIES_H

#include <cassert>
#include <cstdint>
#include <vector>

#include "storage/memory_file/memory_file_map.h"
#include "transaction/commit/image_reader.h"
#include "transaction/log/log_file.h"

namespace zelta {

/// Goes through the complete entries of a file, in the order of their places. The header of the
/// file has been read. Others may append meanwhile: what is in the making is passed by, and so is
/// what lies behind the end that the header gives.
class LogEntryWalk {
 public:
  /// From a place on at which a block begins.
  LogEntryWalk(const LogFile& log, std::uint64_t position) : log_(log), next_(position) {}
  /// `entry->position` 0: there are no more. Own code 56: the blocks do not fill the log.
  Result next(LogEntry* entry);

 private:
  Result readIfComplete(std::uint64_t position, LogEntry* entry) const;

  const LogFile& log_;
  std::uint64_t next_;
};

/// Reads the bytes between the head of an entry and its end. What does not fit together is own code
/// 69, without a text.
class EntryReader {
 private:
  // Its own: what is done with the bytes uses those of the database, and may read other entries.
  ScratchBuffer buffer_;

 public:
  EntryReader(const LogFile& log, const LogEntry& entry)
      : images(log.metaData(), log.handle(), log.metaData().baseName.c_str(), extension::kLog,
               buffer_, entry.end()),
        end_(entry.end()),
        next_(entry.body()),
        sections_(entry.head.sectionCount) {}

  /// Takes the head of the next section, of either kind; its body is to be read or skipped before
  /// the next one. `*found` false: there are no more.
  Result nextSection(LogTableSection_tag* section, bool* found);
  /// Takes the next bytes; they are good until the reader is used again.
  Result take(std::uint32_t length, const char** bytes);
  /// Passes bytes by without reading them.
  Result skip(std::uint64_t length);
  /// Goes to a place that was passed before.
  void goBack(std::uint64_t position) {
    assert(position <= next_);
    next_ = position;
  }
  [[nodiscard]] std::uint64_t position() const { return next_; }
  /// Bytes up to the end of the entry.
  [[nodiscard]] std::uint64_t left() const { return end_ - next_; }
  static Result malformed() { return Result::own(Own::logEntry); }

  ImageReader images;

 private:
  std::uint64_t end_;
  std::uint64_t next_;
  std::uint32_t sections_;  ///< that are not begun
};

/// What a section says of one table. The position of an image is that of its length word in the
/// log.
struct TableSection {
  std::uint32_t tableId = 0;
  std::vector<std::uint64_t> deleted;  ///< ascending
  std::vector<PendingObject> images;   ///< ascending
};

/// Reads the section behind its head. IDs have `idSize` bytes; 0: the table is gone, and whichever
/// size makes sense of the section is taken.
Result readTableSection(EntryReader& reader, const LogTableSection_tag& head, std::uint32_t idSize,
                        TableSection& out);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_ENTRIES_H

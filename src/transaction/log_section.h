// Sections of log entries, as replay reads them.

#ifndef ZELTA_TRANSACTION_LOG_SECTION_H
#define ZELTA_TRANSACTION_LOG_SECTION_H

#include <cstdint>
#include <vector>

#include "storage/memory_file.h"
#include "transaction/image_reader.h"
#include "transaction/log_file.h"

namespace zelta {

/// Reads the bytes between the head of an entry and its end. What does not fit together is own code
/// 69, without a text.
class EntryReader {
 private:
  // Its own: what is done with the bytes uses those of the database, and may read other entries.
  ScratchBuffer buffer_;

 public:
  EntryReader(MetaData& metaData, platform::File file, const LogEntryHead_tag& head,
              std::uint64_t position)
      : images(metaData, file, metaData.baseName.c_str(), extension::kLog, buffer_,
               position + head.blockLength),
        end_(position + head.blockLength),
        next_(position + sizeof(LogEntryHead_tag)) {}

  /// Takes the next bytes; they are good until the reader is used again.
  Result take(std::uint32_t length, const char** bytes) {
    if (length > end_ - next_) return malformed();
    ZELTA_TRY(images.read(next_, length, bytes));
    next_ += length;
    return {};
  }
  Result skip(std::uint64_t length) {
    if (length > end_ - next_) return malformed();
    next_ += length;
    return {};
  }
  /// Goes to a place that was passed before.
  void goBack(std::uint64_t position) { next_ = position; }
  [[nodiscard]] std::uint64_t position() const { return next_; }
  [[nodiscard]] std::uint64_t left() const { return end_ - next_; }
  static Result malformed() { return Result::own(Own::logEntry); }

  ImageReader images;

 private:
  std::uint64_t end_;
  std::uint64_t next_;
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

#endif  // ZELTA_TRANSACTION_LOG_SECTION_H
